// The settings application's packages, and the recording package that builds on them, under the real
// installer.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "tests/package/machine.h"
#include "tests/package/package_copy.h"
#include "tests/support/installer_run.h"
#include "tests/support/scheduled_tasks.h"

namespace corvi::test {
namespace {

constexpr wchar_t kFolder[] = L"C:\\Program Files\\TAVO\\HXNext";
constexpr wchar_t kContextMenuFolder[] = L"C:\\Program Files\\ContextMenuDemo";
constexpr wchar_t kBrandingKey[] = L"SOFTWARE\\TAVOBranding";
constexpr wchar_t kChatKey[] = L"SOFTWARE\\TAVO\\HX\\Chat";
constexpr wchar_t kClaimKey[] = L"SOFTWARE\\TAVO\\TAVOAnalytics";
constexpr wchar_t kRegister[] = L"SOFTWARE\\TUEP";
constexpr wchar_t kChatData[] = L"C:\\corvi\\chat\\talk.db";
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

// What a user and the suite's other products have on the machine.
void PlantUserData() {
    WriteFileAt(kChatData);
    SetMachineText(kChatKey, L"InstallPath", L"C:\\corvi\\chat");
    SetMachineText(kChatKey, L"DataPath", L"C:\\corvi\\chat");
    SetMachineText(kClaimKey, L"TUEPClient", L"LSX");
    SetMachineText(kClaimKey, L"AnalyticsAccepted", L"false");
    SetMachineNumber(kRegister, L"LSX_TUEPStatus", 1);
    SetMachineText(kBrandingKey, L"Theme", std::wstring(kFolder) + L"\\Theme");
    SetMachineText(std::wstring(kBrandingKey) + L"\\Skins", L"", L"");
    WriteFileAt(std::wstring(kFolder) + L"\\Theme\\dark.theme");
    WriteFileAt(std::wstring(kFolder) + L"\\Skins\\blue.skin");
}

void ExpectUserData() {
    EXPECT_TRUE(FileExists(kChatData));
    EXPECT_TRUE(MachineKeyExists(kChatKey));
    EXPECT_EQ(MachineValue(kClaimKey, L"TUEPClient"), L"LSX");
    EXPECT_EQ(MachineValue(kClaimKey, L"AnalyticsAccepted"), L"false");
    EXPECT_EQ(MachineValue(kRegister, L"LSX_TUEPStatus"), L"1");
    EXPECT_TRUE(FileExists(std::wstring(kFolder) + L"\\Theme\\dark.theme"));
    EXPECT_TRUE(FileExists(std::wstring(kFolder) + L"\\Skins\\blue.skin"));
}

void ExpectInstalled() {
    EXPECT_EQ(InstalledProducts(kSettingsProducts).size(), 1U);
    EXPECT_TRUE(FileExists(std::wstring(kFolder) + L"\\hxcmd.exe"));
    EXPECT_TRUE(FileExists(std::wstring(kFolder) + L"\\StartHX.xml"));
    EXPECT_TRUE(TaskExists(L"StartHX"));
    EXPECT_TRUE(TaskExists(L"StartHXBM"));
    EXPECT_EQ(MachineValue(L"SOFTWARE\\TAVO\\HX", L"HXBrandingInstallDir"), kFolder);
}

class SettingsPackage : public testing::Test {
protected:
    void TearDown() override {
        UninstallProducts(kRecordingProducts);
        UninstallProducts(kSettingsProducts);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kBrandingKey);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kRegister);
        DeleteFileW(kChatData);
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
    EXPECT_TRUE(TaskExists(L"StartHXBM"));
    EXPECT_FALSE(MachineValue(kRunKey, L"StartHX"));
    EXPECT_FALSE(MachineKeyExists(kProxyKey));
    EXPECT_TRUE(run.Ran("DeleteHXSlimINSTALLDIRFolder"));
    EXPECT_TRUE(StartFolderIsGone(L"C:\\corvi\\slim"));
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
    EXPECT_FALSE(TaskExists(L"StartHXBM"));
    EXPECT_TRUE(StartFolderIsGone(kFolder));
    EXPECT_TRUE(StartFolderIsGone(kContextMenuFolder));
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

// What an upgrade runs for the older version, by itself: the property is what Windows passes to it.
TEST_F(SettingsPackage, TheRemovalInAnUpgradeKeepsTheBrandingContentAndTheKeys) {
    RunInstaller(kInstall);
    PlantUserData();
    WriteFileAt(std::wstring(kFolder) + L"\\made-later.txt");
    const InstallerRun run = RunInstaller(std::wstring(kUninstall) +
                                          L" UPGRADINGPRODUCTCODE={6A1E4C55-7C1B-4B0B-9E5A-0B8B6C5D2AFF}");
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_TRUE(run.Ran("DeleteandRetainValues"));
    for (const char* action : {"DeleteHXFolder", "DeleteHXINSTALLDIRFolder", "DeleteHXNoUpgrade",
                               "UninstallTAVOChat", "RemoveBenchMarkRunOnceSchedularTask"}) {
        EXPECT_FALSE(run.Ran(action)) << action;
    }
    ExpectUserData();
    EXPECT_TRUE(TaskExists(L"StartHXBM"));
    EXPECT_FALSE(FileExists(std::wstring(kFolder) + L"\\made-later.txt"));
}

TEST_F(SettingsPackage, AfterAnUpgradeTheNewVersionIsWhole) {
    RunInstaller(kInstall);
    const InstallerRun run = RunInstaller(kUpgrade);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_EQ(run.Last("RemoveExistingProducts").returnValue, 1);
    EXPECT_EQ(run.Last("CreateLogonSchTask").returnValue, 1);
    ExpectInstalled();
}

TEST_F(SettingsPackage, AnUpgradeLosesNothingOfTheUsersAndOfOtherProducts) {
    RunInstaller(kInstall);
    RunInstaller(kInstallRecording);
    PlantUserData();
    const std::wstring upgrade = L"/i " + UpgradingAsOnWindows(L"settings_app_1.1.0");
    EXPECT_EQ(RunInstaller(upgrade).exitCode, 0U);
    ExpectInstalled();
    ExpectUserData();
    EXPECT_TRUE(FileExists(std::wstring(kFolder) + L"\\LSServCmd.exe")) << "recording's, in the same folder";
    EXPECT_TRUE(FileExists(std::wstring(kFolder) + L"\\StartDVR.xml"));
    EXPECT_TRUE(TaskExists(L"StartDVR"));
}

TEST_F(SettingsPackage, ARepairLosesNothingOfTheUsers) {
    RunInstaller(kInstall);
    PlantUserData();
    EXPECT_EQ(RunInstaller(std::wstring(kInstall) + kRepair).exitCode, 0U);
    ExpectInstalled();
    ExpectUserData();
}

TEST_F(SettingsPackage, AnInstallThatFailsLastLeavesNoTaskNoFileAndNoKey) {
    const std::wstring failing = L"/i " + FailingLast(L"settings_app_1.0.0") + L" FAILLAST=1";
    const InstallerRun run = RunInstaller(failing);
    EXPECT_NE(run.exitCode, 0U);
    EXPECT_EQ(run.Count("CreateLogonSchTask.Rollback"), 2U) << "written to the script, and run";
    EXPECT_FALSE(TaskExists(L"StartHX"));
    EXPECT_FALSE(TaskExists(L"StartHXBM"));
    EXPECT_TRUE(StartFolderIsGone(kFolder));
    EXPECT_TRUE(StartFolderIsGone(kContextMenuFolder));
    EXPECT_FALSE(MachineKeyExists(L"SOFTWARE\\TAVO\\HX"));
    EXPECT_FALSE(MachineKeyExists(L"SOFTWARE\\QEL Technologies\\Install\\HXNext"));
}

TEST_F(SettingsPackage, AFailedInstallDoesNotMarkAClientAsGone) {
    SetMachineText(kClaimKey, L"TUEPClient", L"DVR");
    SetMachineNumber(kRegister, L"DVR_TUEPStatus", 1);
    const std::wstring failing = L"/i " + FailingLast(L"settings_app_1.0.0") + L" FAILLAST=1";
    EXPECT_NE(RunInstaller(failing).exitCode, 0U);
    EXPECT_EQ(MachineValue(kRegister, L"DVR_TUEPStatus"), L"1");
    EXPECT_EQ(MachineValue(kClaimKey, L"TUEPClient"), L"DVR");
}

TEST_F(SettingsPackage, ARepairThatFailsLeavesTheTasks) {
    const std::wstring failing = L"/i " + FailingLast(L"settings_app_1.0.0");
    RunInstaller(failing);
    EXPECT_NE(RunInstaller(failing + kRepair + L" FAILLAST=1").exitCode, 0U);
    EXPECT_TRUE(TaskExists(L"StartHX"));
    EXPECT_TRUE(TaskExists(L"StartHXBM"));
}

// Wine's searches do not read lists of texts: what Windows' search finds is passed.
TEST_F(SettingsPackage, NothingIsInstalledWhileItsFilesWaitToBeDeletedAtTheRestart) {
    const std::wstring pending =
        L" PENDINGFILERENAMES=\"[~]\\??\\C:\\Program Files\\TAVO\\HXNext\\hxcmd.exe[~][~]\"";
    EXPECT_EQ(RunInstaller(kInstall + pending).exitCode, 1603U);
    EXPECT_FALSE(FileExists(kFolder));
    RunInstaller(kInstall);
    EXPECT_EQ(RunInstaller(kInstall + pending + kRepair).exitCode, 0U);
    EXPECT_EQ(RunInstaller(kUninstall + pending).exitCode, 0U);
    EXPECT_TRUE(StartFolderIsGone(kFolder));
}

TEST_F(SettingsPackage, TheContextMenuIsInstalledOnlyWithItsFiles) {
    EXPECT_TRUE(RunInstaller(kInstall).Ran("InstallContextMenuMSIX"));
    EXPECT_TRUE(FileExists(std::wstring(kContextMenuFolder) + L"\\MyKey.cer"));
    EXPECT_TRUE(FileExists(std::wstring(kContextMenuFolder) + L"\\PhotoStoreDemoPkg.msix"));
    RunInstaller(kUninstall);
    const InstallerRun without = RunInstaller(std::wstring(kInstall) + L" ADDLOCAL=Settings");
    EXPECT_EQ(without.exitCode, 0U);
    EXPECT_FALSE(without.Ran("InstallContextMenuMSIX"));
}

TEST_F(SettingsPackage, UninstallKeepsTheFolderWhileRecordingLivesInIt) {
    RunInstaller(kInstall);
    RunInstaller(kInstallRecording);
    EXPECT_EQ(RunInstaller(kUninstall).exitCode, 0U);
    EXPECT_FALSE(FileExists(std::wstring(kFolder) + L"\\hxcmd.exe"));
    EXPECT_TRUE(FileExists(std::wstring(kFolder) + L"\\LSServCmd.exe"));
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
    EXPECT_TRUE(StartFolderIsGone(L"C:\\Program Files\\TAVO\\VR"));
    EXPECT_TRUE(FileExists(std::wstring(kFolder) + L"\\hxcmd.exe"));
    EXPECT_TRUE(TaskExists(L"StartHX"));
    EXPECT_TRUE(MachineKeyExists(L"SOFTWARE\\TAVODVR")) << "the tracking key stays for good";
}

TEST_F(SettingsPackage, RecordingsRemovalInAnUpgradeKeepsTheVrFolder) {
    RunInstaller(kInstall);
    RunInstaller(kInstallRecording);
    WriteFileAt(L"C:\\Program Files\\TAVO\\VR\\WVR\\rooms.json");
    const InstallerRun run = RunInstaller(std::wstring(kUninstallRecording) +
                                          L" UPGRADINGPRODUCTCODE={6A1E4C55-7C1B-4B0B-9E5A-0B8B6C5D2AFF}");
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_FALSE(run.Ran("UnRegisterWVR"));
    EXPECT_FALSE(run.Ran("DeleteWVRFolder"));
    EXPECT_TRUE(FileExists(L"C:\\Program Files\\TAVO\\VR\\WVR\\rooms.json"));
}

TEST_F(SettingsPackage, ARecordingInstallThatFailsLastLeavesNoTask) {
    RunInstaller(kInstall);
    EXPECT_NE(RunInstaller(L"/i " + FailingLast(L"recording") + L" FAILLAST=1").exitCode, 0U);
    EXPECT_FALSE(TaskExists(L"StartDVR"));
    EXPECT_FALSE(FileExists(std::wstring(kFolder) + L"\\LSServCmd.exe"));
    EXPECT_TRUE(TaskExists(L"StartHX"));
}

TEST_F(SettingsPackage, RecordingWithoutTheApplicationCreatesNoTask) {
    const InstallerRun run = RunInstaller(kInstallRecording);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_FALSE(run.Ran("CreateDVRLogonSchTask"));
    EXPECT_FALSE(TaskExists(L"StartDVR"));
}

}  // namespace
}  // namespace corvi::test
