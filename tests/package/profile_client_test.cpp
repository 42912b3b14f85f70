// The arbitration between the suite's clients, on real packages under the real installer.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/package/machine.h"
#include "tests/package/package_copy.h"
#include "tests/support/folders.h"
#include "tests/support/installer_run.h"
#include "tests/support/platform.h"
#include "tests/support/running_program.h"
#include "tests/support/scheduled_tasks.h"
#include "tests/support/test_service.h"

namespace corvi::test {
namespace {

constexpr wchar_t kRegister[] = L"SOFTWARE\\TUEP";
constexpr wchar_t kAnalytics[] = L"SOFTWARE\\TAVO\\TAVOAnalytics";

std::wstring Install(const wchar_t* version, const wchar_t* client) {
    return std::wstring(L"/i C:\\corvi\\profile_client_") + version + L".msi CLIENTNAME=" + client;
}

std::wstring Uninstall(const wchar_t* version, const wchar_t* client) {
    return std::wstring(L"/x C:\\corvi\\profile_client_") + version + L".msi CLIENTNAME=" + client;
}

constexpr wchar_t kRepair[] = L" REINSTALL=ALL REINSTALLMODE=amus";
constexpr wchar_t kTuepProducts[] = L"{14FF974F-1802-43D4-B8FE-78AF51D911D6}";
constexpr wchar_t kUploader[] = L"C:\\Program Files\\TAVO\\Performance Profile Client\\TUEPDU.exe";

class ProfileClientPackage : public testing::Test {
protected:
    void TearDown() override {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kRegister);
        UninstallProducts(kTuepProducts, L"CLIENTNAME=Nobody");
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kRegister);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TAVO");
        // An uninstall may leave the program running: a service that is just starting takes no order to stop.
        EndPrograms(L"TUEPDU.exe");
        RemoveFolderAtEnd(L"C:\\Program Files\\TAVO\\Performance Profile Client");
    }
};

TEST_F(ProfileClientPackage, TheFirstClientInstallsTuepAndItsUninstallRemovesIt) {
    const InstallerRun install = RunInstaller(Install(L"1.5.0", L"LSX"));
    EXPECT_EQ(install.exitCode, 0U);
    EXPECT_THAT(install.Last("CheckForClients").lines,
                testing::ElementsAre("CustomActionData: ClientName=LSX;Action=;CurrentVersion=1.5.0",
                                     "Client Name LSX", "Action ", "Current Version 1.5.0"));
    EXPECT_EQ(MachineValue(kRegister, L"LSX_TUEPStatus"), L"1");
    EXPECT_FALSE(MachineValue(kAnalytics, L"TUEPClient"));
    EXPECT_TRUE(ServiceExists(L"TUEPLauncher"));
    EXPECT_TRUE(TaskExists(L"StartTUEP"));
    EXPECT_TRUE(FileExists(kUploader));
    EXPECT_EQ(MachineValue(kAnalytics, L"AnalyticsAccepted"), L"true");

    EXPECT_EQ(RunInstaller(Uninstall(L"1.5.0", L"LSX")).exitCode, 0U);
    EXPECT_FALSE(ServiceExists(L"TUEPLauncher"));
    EXPECT_FALSE(TaskExists(L"StartTUEP"));
    EXPECT_TRUE(StartFolderIsGone(L"C:\\Program Files\\TAVO\\Performance Profile Client"));
    EXPECT_FALSE(MachineKeyExists(kAnalytics));
    EXPECT_EQ(MachineValue(L"SOFTWARE\\TAVO\\Install", L"TUEP"), L"1");
}

TEST_F(ProfileClientPackage, TheCopiesAndClientsAreArbitrated) {
    RunInstaller(Install(L"1.5.0", L"LSX"));

    // A second client with an older copy is told to skip.
    const InstallerRun older = RunInstaller(Install(L"1.0.0", L"DVR"));
    EXPECT_EQ(older.exitCode, 0U);
    EXPECT_THAT(older.Last("CheckForClients").lines,
                testing::Contains("Skipping install as - 1.5.0 installed"));
    EXPECT_EQ(MachineValue(kRegister, L"DVR_TUEPStatus"), L"1");
    EXPECT_EQ(InstalledProducts(kTuepProducts).size(), InstallerSkipsTheRest() ? 1U : 2U);

    // The first client's uninstall keeps TUEP while the second holds it.
    const InstallerRun kept = RunInstaller(Uninstall(L"1.5.0", L"LSX"));
    EXPECT_EQ(kept.exitCode, 1602U);
    EXPECT_EQ(MachineValue(kRegister, L"LSX_TUEPStatus"), L"2");
    EXPECT_EQ(MachineValue(kAnalytics, L"TUEPClient"), L"LSX");
    EXPECT_TRUE(FileExists(kUploader));
    EXPECT_TRUE(ServiceExists(L"TUEPLauncher"));

    // A newer copy replaces the registration of the older ones.
    const InstallerRun newer = RunInstaller(Install(L"2.0.0", L"DVR") + L" DISABLEANALYTICS=Yes");
    EXPECT_EQ(newer.exitCode, 0U);
    EXPECT_THAT(newer.Last("CheckForClients").lines,
                testing::Contains(testing::ContainsRegex("Uninstall .* as it is older")));
    EXPECT_EQ(InstalledProducts(kTuepProducts).size(), 1U) << "the installer no longer knows the older ones";
    EXPECT_EQ(MachineValue(kAnalytics, L"AnalyticsAccepted"), L"false") << "the user declined";
}

TEST_F(ProfileClientPackage, ARefusedConsentSurvivesARepairAndANewerCopy) {
    RunInstaller(Install(L"1.5.0", L"LSX") + L" DISABLEANALYTICS=yes");
    EXPECT_EQ(MachineValue(kAnalytics, L"AnalyticsAccepted"), L"false");
    const InstallerRun repair = RunInstaller(Install(L"1.5.0", L"LSX") + kRepair);
    EXPECT_EQ(repair.exitCode, 0U);
    EXPECT_FALSE(repair.Ran("EnableAnalyticsKey"));
    EXPECT_EQ(MachineValue(kAnalytics, L"AnalyticsAccepted"), L"false");
    EXPECT_EQ(RunInstaller(Install(L"2.0.0", L"LSX")).exitCode, 0U);
    EXPECT_EQ(MachineValue(kAnalytics, L"AnalyticsAccepted"), L"false");
}

TEST_F(ProfileClientPackage, AConsentThatIsRefusedNowIsNeverRecordedAsGiven) {
    const InstallerRun run = RunInstaller(Install(L"1.5.0", L"LSX") + L" DISABLEANALYTICS=Yes");
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_FALSE(run.Ran("EnableAnalyticsKey"));
}

TEST_F(ProfileClientPackage, ARepairNeitherArbitratesNorRemovesTheProgram) {
    RunInstaller(Install(L"1.5.0", L"LSX"));
    // Without "a" in the mode the installer leaves a file that is whole as it is.
    const InstallerRun run = RunInstaller(Install(L"1.5.0", L"LSX") + L" REINSTALL=ALL REINSTALLMODE=omus");
    EXPECT_EQ(run.exitCode, 0U);
    for (const char* action : {"CheckForClients", "PreInstallPPC", "UnInstallPPC", "DeleteAnalyticsKey"}) {
        EXPECT_FALSE(run.Ran(action)) << action;
    }
    EXPECT_TRUE(FileExists(kUploader));
    EXPECT_TRUE(ServiceExists(L"TUEPLauncher"));
    EXPECT_EQ(MachineValue(kRegister, L"LSX_TUEPStatus"), L"1");
    EXPECT_EQ(InstalledProducts(kTuepProducts).size(), 1U);
}

TEST_F(ProfileClientPackage, TheRemovalInAnUpgradeKeepsProgramDataConsentAndStatus) {
    RunInstaller(Install(L"1.5.0", L"LSX"));
    SetMachineText(L"SOFTWARE\\TAVO\\DU", L"Queue", L"x");
    const InstallerRun run = RunInstaller(Uninstall(L"1.5.0", L"LSX") +
                                          L" UPGRADINGPRODUCTCODE={6A1E4C55-7C1B-4B0B-9E5A-0B8B6C5D2AFF}");
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_TRUE(ServiceExists(L"TUEPLauncher"));
    EXPECT_TRUE(TaskExists(L"StartTUEP"));
    EXPECT_EQ(MachineValue(L"SOFTWARE\\TAVO\\DU", L"Queue"), L"x");
    EXPECT_EQ(MachineValue(kAnalytics, L"AnalyticsAccepted"), L"true");
    EXPECT_EQ(MachineValue(kRegister, L"LSX_TUEPStatus"), L"1");
    RunInstaller(Install(L"1.5.0", L"LSX"));
}

TEST_F(ProfileClientPackage, AFirstInstallThatFailsLastLeavesNoTaskNoServiceAndNoConsent) {
    const InstallerRun run =
        RunInstaller(L"/i " + FailingLast(L"profile_client_1.5.0") + L" CLIENTNAME=LSX FAILLAST=1");
    EXPECT_NE(run.exitCode, 0U);
    EXPECT_FALSE(ServiceExists(L"TUEPLauncher"));
    EXPECT_FALSE(TaskExists(L"StartTUEP"));
    EXPECT_FALSE(FileExists(kUploader));
    EXPECT_FALSE(MachineKeyExists(kAnalytics));
}

TEST_F(ProfileClientPackage, ANewerCopyThatFailsLastKeepsDataAndAnswerOfTheEarlierOne) {
    RunInstaller(Install(L"1.5.0", L"LSX") + L" DISABLEANALYTICS=yes");
    SetMachineText(L"SOFTWARE\\TAVO\\DU", L"Queue", L"x");
    const InstallerRun run =
        RunInstaller(L"/i " + FailingLast(L"profile_client_2.0.0") + L" CLIENTNAME=LSX FAILLAST=1");
    EXPECT_NE(run.exitCode, 0U);
    EXPECT_EQ(MachineValue(L"SOFTWARE\\TAVO\\DU", L"Queue"), L"x");
    EXPECT_EQ(MachineValue(kAnalytics, L"AnalyticsAccepted"), L"false");
}

}  // namespace
}  // namespace corvi::test
