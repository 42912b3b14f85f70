// The two packages for authors: a failure that shows a rollback, and one action of choice.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/package/machine.h"
#include "tests/support/folders.h"
#include "tests/support/installer_run.h"
#include "tests/support/scheduled_tasks.h"

namespace corvi::test {
namespace {

constexpr wchar_t kOneAction[] = L"C:\\corvi\\one_action.msi";

class OneAction : public testing::Test {
protected:
    void TearDown() override {
        RunInstaller(std::wstring(L"/x ") + kOneAction);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\QEL");
        RemoveFolder("C:\\corvi\\Old camera");
    }
    static InstallerRun Run(const std::wstring& arguments) {
        return RunInstaller(std::wstring(L"/i ") + kOneAction + L" " + arguments);
    }
};

TEST(ForcedFailure, FailsWhenEverythingIsDoneAndTheRollbackTakesItBack) {
    const InstallerRun run = RunInstaller(L"/i C:\\corvi\\forced_failure.msi");
    EXPECT_NE(run.exitCode, 0U);
    EXPECT_EQ(run.Last("CreateLogonSchTask").lines.front(), "StartHX Scheduled task creation is successful");
    EXPECT_EQ(run.Count("CreateLogonSchTask.Rollback"), 2U) << "written to the script, and run";
    EXPECT_FALSE(TaskExists(L"StartHX"));
    EXPECT_TRUE(StartFolderIsGone(L"C:\\Program Files\\TAVO\\Forced Failure"));
    EXPECT_FALSE(MachineKeyExists(L"SOFTWARE\\QEL Technologies\\Install\\HXNext"));
}

TEST(ForcedFailure, LeavesAMachineWithTheSettingsApplicationAlone) {
    SetMachineText(L"SOFTWARE\\QEL Technologies\\Install\\HXNext", L"Location", L"C:\\somewhere");
    const InstallerRun run = RunInstaller(L"/i C:\\corvi\\forced_failure.msi");
    EXPECT_EQ(run.exitCode, 1603U);
    EXPECT_FALSE(run.Ran("CreateLogonSchTask"));
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\QEL Technologies");
}

TEST_F(OneAction, RunsADeferredActionWithTheDataGivenAndNoOther) {
    std::filesystem::create_directories("C:\\corvi\\Old camera\\sub");
    SetMachineText(L"SOFTWARE\\QEL\\Old", L"Setting", L"x");
    const InstallerRun run = Run(L"RUN=DeleteDMFTDirectory DATA=\"InstallDir=C:\\corvi\\Old camera\"");
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_THAT(run.Last("DeleteDMFTDirectory").lines,
                testing::ElementsAre("CustomActionData: InstallDir=C:\\corvi\\Old camera"));
    EXPECT_FALSE(FileExists(L"C:\\corvi\\Old camera"));
    EXPECT_FALSE(run.Ran("DeleteQELKey"));
    EXPECT_TRUE(MachineKeyExists(L"SOFTWARE\\QEL\\Old"));
}

TEST_F(OneAction, RunsAnActionWithoutData) {
    SetMachineText(L"SOFTWARE\\QEL\\Old", L"Setting", L"x");
    EXPECT_EQ(Run(L"RUN=DeleteQELKey").exitCode, 0U);
    EXPECT_FALSE(MachineKeyExists(L"SOFTWARE\\QEL"));
}

TEST_F(OneAction, RunsAnImmediateActionWithItsProperty) {
    EXPECT_EQ(Run(L"RUN=BlockLaunch").exitCode, 1603U);
    EXPECT_EQ(Run(L"RUN=BlockLaunch LAUNCHED_FROM_PIM=1").exitCode, 0U);
}

TEST_F(OneAction, WithoutAChoiceAndWhenItIsRemovedNothingRuns) {
    SetMachineText(L"SOFTWARE\\QEL\\Old", L"Setting", L"x");
    const InstallerRun install = Run(L"");
    EXPECT_EQ(install.exitCode, 0U);
    EXPECT_FALSE(install.Ran("DeleteQELKey"));
    const InstallerRun removal = RunInstaller(std::wstring(L"/x ") + kOneAction);
    EXPECT_EQ(removal.exitCode, 0U);
    EXPECT_FALSE(removal.Ran("DeleteQELKey"));
}

}  // namespace
}  // namespace corvi::test
