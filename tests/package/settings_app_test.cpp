// The settings application's packages, and the recording package that builds on them, under the real
// installer.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "tests/package/machine.h"
#include "tests/support/installer_run.h"

namespace corvi::test {
namespace {

constexpr wchar_t kFolder[] = L"C:\\Program Files\\TAVO\\HXNext";
constexpr wchar_t kInstall[] = L"/i C:\\corvi\\settings_app_1.0.0.msi";
constexpr wchar_t kUninstall[] = L"/x C:\\corvi\\settings_app_1.0.0.msi";
constexpr wchar_t kUpgrade[] = L"/i C:\\corvi\\settings_app_1.1.0.msi";
constexpr wchar_t kSettingsProducts[] = L"{6A1E4C55-7C1B-4B0B-9E5A-0B8B6C5D2A11}";
constexpr wchar_t kRecordingProducts[] = L"{3C9D2B71-52A4-4E0F-8F0D-5A5C6B7E1A21}";
constexpr wchar_t kInstallRecording[] = L"/i C:\\corvi\\recording.msi";
constexpr wchar_t kUninstallRecording[] = L"/x C:\\corvi\\recording.msi";
constexpr wchar_t kRunKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr wchar_t kProxyKey[] = L"SOFTWARE\\Wow6432Node\\QEL\\ACE\\Settings\\MOM\\Install";
constexpr wchar_t kRepair[] = L" REINSTALL=ALL REINSTALLMODE=amus";

void WriteFileAt(const std::wstring& path) {
    CreateDirectoryW(path.substr(0, path.rfind(L'\\')).c_str(), nullptr);
    std::ofstream(std::string(path.begin(), path.end())) << "x";
}

class SettingsPackage : public testing::Test {
protected:
    void TearDown() override {
        UninstallProducts(kRecordingProducts);
        UninstallProducts(kSettingsProducts);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TAVOBranding");
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\QEL Technologies");
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TAVODVR");
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TAVO");
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Wow6432Node\\QEL");
    }
};

TEST_F(SettingsPackage, InstallCreatesTheTasksAndClearsWhatOlderEditionsLeft) {
    SetMachineText(kRunKey, L"StartHX", L"old");
    SetMachineText(kProxyKey, L"Old", L"x");
    WriteFileAt(L"C:\\corvi\\slim\\old.exe");
    SetMachineText(L"SOFTWARE\\Wow6432Node\\QEL\\ACE\\Packages\\Core-Static", L"Location",
                   L"C:\\corvi\\slim");
    const InstallerRun run = RunInstaller(kInstall);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_THAT(run.Last("CreateLogonSchTask").lines,
                testing::ElementsAre("StartHX Scheduled task creation is successful", "Win 11 only code"));
    EXPECT_TRUE(TaskExists(L"StartHX"));
    EXPECT_FALSE(MachineValue(kRunKey, L"StartHX"));
    EXPECT_FALSE(MachineKeyExists(kProxyKey));
    EXPECT_TRUE(run.Ran("DeleteHXSlimINSTALLDIRFolder"));
    EXPECT_FALSE(FileExists(L"C:\\corvi\\slim"));
    for (const char* action : {"CreateBenchMarkRunOnceSchTask", "InstallContextMenuMSIX",
                               "LaunchInstallProxyHX", "DeleteSchedTaskonBranding", "LaunchHX"}) {
        EXPECT_EQ(run.Last(action).returnValue, 1) << action;
    }
}

TEST_F(SettingsPackage, WithoutASlimEditionItsActionDoesNotRun) {
    EXPECT_FALSE(RunInstaller(kInstall).Ran("DeleteHXSlimINSTALLDIRFolder"));
}

TEST_F(SettingsPackage, UninstallRemovesTasksFolderAndKeys) {
    RunInstaller(kInstall);
    WriteFileAt(std::wstring(kFolder) + L"\\Assets\\logo.png");
    WriteFileAt(std::wstring(kFolder) + L"\\made-later.txt");
    const InstallerRun run = RunInstaller(kUninstall);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_THAT(run.Last("DeleteHXINSTALLDIRFolder").lines,
                testing::Contains(
                    "DeleteHXINSTALLDIRFolder: HXNEXT install location: C:\\Program Files\\TAVO\\HXNext\\ "));
    EXPECT_THAT(run.Last("DeleteHXNoUpgrade").lines,
                testing::Contains("DeleteHXINSTALLDIRFolder: Deleting HX registry result: 0 "));
    EXPECT_FALSE(TaskExists(L"StartHX"));
    EXPECT_FALSE(FileExists(kFolder));
    EXPECT_FALSE(MachineKeyExists(L"SOFTWARE\\TAVO\\HX"));
    EXPECT_FALSE(MachineKeyExists(L"SOFTWARE\\QEL Technologies\\Install\\HXNext"));
    EXPECT_TRUE(FileExists(L"C:\\Program Files"));
}

TEST_F(SettingsPackage, ARepairDeletesNothing) {
    RunInstaller(kInstall);
    WriteFileAt(std::wstring(kFolder) + L"\\made-later.txt");
    const InstallerRun run = RunInstaller(std::wstring(kInstall) + kRepair);
    EXPECT_EQ(run.exitCode, 0U);
    for (const char* action : {"DeleteHXFolder", "DeleteHXINSTALLDIRFolder", "DeleteHXSparsePackageAssets",
                               "DeleteHXNoUpgrade", "DeleteandRetainValues", "UninstallTAVOChat"}) {
        EXPECT_FALSE(run.Ran(action)) << action;
    }
    EXPECT_TRUE(run.Ran("ShutDownPQRNext"));
    EXPECT_TRUE(FileExists(std::wstring(kFolder) + L"\\made-later.txt"));
    EXPECT_TRUE(TaskExists(L"StartHX"));
}

// What an upgrade runs for the older version. Wine's own upgrade does not tell the older version that it
// is one, so the test passes the property that Windows passes.
TEST_F(SettingsPackage, TheRemovalInAnUpgradeKeepsTheBrandingContentAndTheKeys) {
    RunInstaller(kInstall);
    SetMachineText(L"SOFTWARE\\TAVOBranding\\Skins", L"", L"");
    WriteFileAt(std::wstring(kFolder) + L"\\Skins\\blue.skin");
    WriteFileAt(std::wstring(kFolder) + L"\\made-later.txt");
    const InstallerRun run = RunInstaller(std::wstring(kUninstall) +
                                          L" UPGRADINGPRODUCTCODE={6A1E4C55-7C1B-4B0B-9E5A-0B8B6C5D2AFF}");
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_TRUE(run.Ran("DeleteandRetainValues"));
    for (const char* action : {"DeleteHXFolder", "DeleteHXINSTALLDIRFolder", "DeleteHXNoUpgrade"}) {
        EXPECT_FALSE(run.Ran(action)) << action;
    }
    EXPECT_TRUE(FileExists(std::wstring(kFolder) + L"\\Skins\\blue.skin"));
    EXPECT_FALSE(FileExists(std::wstring(kFolder) + L"\\made-later.txt"));
}

TEST_F(SettingsPackage, AnUpgradeFindsTheOlderVersionAndRemovesIt) {
    RunInstaller(kInstall);
    const InstallerRun run = RunInstaller(kUpgrade);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_EQ(run.Last("RemoveExistingProducts").returnValue, 1);
    EXPECT_EQ(run.Last("CreateLogonSchTask").returnValue, 1);
}

TEST_F(SettingsPackage, RecordingInstallsIntoTheApplicationsFolderAndIsTrackedOnce) {
    RunInstaller(kInstall);
    const InstallerRun run = RunInstaller(kInstallRecording);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_TRUE(TaskExists(L"StartDVR"));
    EXPECT_EQ(MachineValue(L"SOFTWARE\\TAVODVR", L"TAVODVR_Tracked"), L"1");
    EXPECT_EQ(RunInstaller(std::wstring(kInstallRecording) + kRepair).exitCode, 0U);
}

TEST_F(SettingsPackage, RecordingUninstallsItsTaskAndVrFolderAndLeavesTheApplication) {
    RunInstaller(kInstall);
    RunInstaller(kInstallRecording);
    const InstallerRun run = RunInstaller(kUninstallRecording);
    EXPECT_EQ(run.exitCode, 0U);
    for (const char* action : {"ShutDownDVR", "TerminateDVRApp", "UnRegisterWVR", "DeleteWVRFolder"}) {
        EXPECT_TRUE(run.Ran(action)) << action;
    }
    EXPECT_FALSE(TaskExists(L"StartDVR"));
    EXPECT_FALSE(FileExists(L"C:\\Program Files\\TAVO\\VR"));
    EXPECT_TRUE(FileExists(std::wstring(kFolder) + L"\\hxcmd.exe"));
    EXPECT_TRUE(TaskExists(L"StartHX"));
    EXPECT_TRUE(MachineKeyExists(L"SOFTWARE\\TAVODVR")) << "the tracking key stays for good";
}

TEST_F(SettingsPackage, RecordingWithoutTheApplicationCreatesNoTask) {
    const InstallerRun run = RunInstaller(kInstallRecording);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_FALSE(run.Ran("CreateDVRLogonSchTask"));
    EXPECT_FALSE(TaskExists(L"StartDVR"));
}

}  // namespace
}  // namespace corvi::test
