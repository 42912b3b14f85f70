// The install manager's package under the real installer.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/package/machine.h"
#include "tests/package/package_copy.h"
#include "tests/support/installer_run.h"
#include "tests/support/scheduled_tasks.h"

namespace corvi::test {
namespace {

constexpr wchar_t kInstall[] = L"/i C:\\corvi\\install_manager.msi";
constexpr wchar_t kUninstall[] = L"/x C:\\corvi\\install_manager.msi";
constexpr wchar_t kTask[] = L"TAVO Install Manager Self Update";
constexpr wchar_t kFolder[] = L"C:\\Program Files\\TAVO\\Install Manager";
constexpr wchar_t kKey[] = L"SOFTWARE\\TAVO\\TAVOInstallManager";

class InstallManagerPackage : public testing::Test {
protected:
    void TearDown() override { RunInstaller(kUninstall); }
};

TEST_F(InstallManagerPackage, InstallRegistersTheUpdateTask) {
    const InstallerRun run = RunInstaller(kInstall);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_THAT(run.Last("CreateTriggerlessElevatedScheduleTask").lines,
                testing::ElementsAre(
                    "CustomActionData: TaskName=TAVO Install Manager Self Update;CommandToLaunch=C:\\Program "
                    "Files\\TAVO\\Install Manager\\TAVOInstallManager.exe;Username=",
                    "Task Name TAVO Install Manager Self Update",
                    "Command to launch C:\\Program Files\\TAVO\\Install Manager\\TAVOInstallManager.exe",
                    "Username "));
    EXPECT_TRUE(TaskExists(kTask));
}

TEST_F(InstallManagerPackage, InstallIsBlockedWhileTheInstallManagerRuns) {
    CopyFileW(L"C:\\corvi\\sleeper.exe", L"C:\\corvi\\tavoinstallmanager.exe", FALSE);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    wchar_t commandLine[] = L"C:\\corvi\\tavoinstallmanager.exe";
    ASSERT_TRUE(CreateProcessW(nullptr, commandLine, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                               &process));
    const InstallerRun run = RunInstaller(kInstall);
    TerminateProcess(process.hProcess, 0);
    WaitForSingleObject(process.hProcess, INFINITE);
    CloseHandle(process.hProcess);
    CloseHandle(process.hThread);
    EXPECT_EQ(run.exitCode, 1603U);
    EXPECT_FALSE(FileExists(kFolder));
}

TEST_F(InstallManagerPackage, UninstallRemovesTasksFolderAndKey) {
    RunInstaller(kInstall);
    const InstallerRun run = RunInstaller(kUninstall);
    EXPECT_EQ(run.exitCode, 0U);
    const auto lines = run.Last("PostUnInstallKITE").lines;
    ASSERT_EQ(lines.size(), 4U);
    for (const std::string& line : lines) {
        EXPECT_TRUE(line.starts_with("PostUnInstallKITE: Exit code for TAVO Install Manager")) << line;
    }
    EXPECT_FALSE(TaskExists(kTask));
    EXPECT_TRUE(StartFolderIsGone(kFolder));
    EXPECT_FALSE(MachineKeyExists(kKey));
}

TEST_F(InstallManagerPackage, ARepairKeepsTasksFolderAndKey) {
    RunInstaller(kInstall);
    const InstallerRun run = RunInstaller(std::wstring(kInstall) + L" REINSTALL=ALL REINSTALLMODE=amus");
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_FALSE(run.Ran("PostUnInstallKITE"));
    EXPECT_TRUE(TaskExists(kTask));
    EXPECT_TRUE(FileExists(kFolder));
    EXPECT_TRUE(MachineKeyExists(kKey));
}

TEST_F(InstallManagerPackage, TheRemovalInAnUpgradeKeepsTheTask) {
    RunInstaller(kInstall);
    const InstallerRun run = RunInstaller(std::wstring(kUninstall) +
                                          L" UPGRADINGPRODUCTCODE={6A1E4C55-7C1B-4B0B-9E5A-0B8B6C5D2AFF}");
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_FALSE(run.Ran("PostUnInstallKITE"));
    EXPECT_TRUE(TaskExists(kTask));
    RunInstaller(kInstall);
}

TEST_F(InstallManagerPackage, AnInstallThatFailsLastLeavesNoElevatedTask) {
    const InstallerRun run = RunInstaller(L"/i " + FailingLast(L"install_manager") + L" FAILLAST=1");
    EXPECT_NE(run.exitCode, 0U);
    EXPECT_EQ(run.Count("CreateTriggerlessElevatedScheduleTask"), 2U) << "written to the script, and run";
    EXPECT_FALSE(TaskExists(kTask));
    EXPECT_TRUE(StartFolderIsGone(kFolder));
    EXPECT_FALSE(MachineKeyExists(kKey));
}

}  // namespace
}  // namespace corvi::test
