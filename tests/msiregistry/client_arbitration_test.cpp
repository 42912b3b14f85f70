#include <windows.h>

#include <msi.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/msiregistry/installer_products.h"
#include "tests/msiregistry/registry_tools.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/platform.h"

namespace corvi::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

using Lines = std::vector<std::wstring>;

constexpr wchar_t kRegister[] = L"SOFTWARE\\TUEP";
constexpr wchar_t kAnalytics[] = L"SOFTWARE\\TAVO\\TAVOAnalytics";
constexpr wchar_t kDriverService[] = L"System\\CurrentControlSet\\Services\\tavofendr";
constexpr wchar_t kDriverState[] = L"System\\CurrentControlSet\\Services\\tavofendr\\State\\TUEP";
constexpr wchar_t kInstallVersion2[] = L"ClientName=LSX;Action=;CurrentVersion=2.0.0";
constexpr wchar_t kUninstall[] = L"ClientName=LSX;Action=ALL;CurrentVersion=2.0.0";

constexpr UINT kGoOn = 0;
constexpr UINT kKeepInstalledCopy = 259;
constexpr UINT kKeepTuepForOthers = 1602;

class CheckForClients : public testing::Test {
protected:
    CheckForClients() : hooks_(library_.Module()) {
        Clean();
        MakeKey(HKEY_LOCAL_MACHINE, kDriverService);
        CORVI_HOOK(hooks_, ShellExecuteExW, [this](SHELLEXECUTEINFOW* information) -> BOOL {
            started_.push_back(std::wstring(information->lpFile) + information->lpParameters);
            statusAtStart_ = Registered(L"LSX_TUEPStatus");
            driverCopyAtStart_ = DriverCopy();
            information->hProcess = nullptr;
            return TRUE;
        });
    }

    void TearDown() override {
        hooks_.RestoreAll();
        Clean();
    }

    static void Clean() {
        ForgetAllInstallations();
        DropKey(HKEY_LOCAL_MACHINE, kRegister);
        DropKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TAVO");
        DropKey(HKEY_LOCAL_MACHINE, kDriverService);
    }

    static void Register(const std::wstring& valueName, DWORD status) {
        WriteNumber(HKEY_LOCAL_MACHINE, kRegister, valueName, status);
    }
    static std::optional<DWORD> Registered(const std::wstring& valueName) {
        return ReadNumber(HKEY_LOCAL_MACHINE, kRegister, valueName);
    }
    static std::optional<DWORD> DriverCopy() {
        return ReadNumber(HKEY_LOCAL_MACHINE, kDriverState, L"LSX_TUEPStatus");
    }
    static std::optional<std::wstring> Claimant() {
        return ReadText(HKEY_LOCAL_MACHINE, kAnalytics, L"TUEPClient");
    }

    UINT Call(const std::wstring& actionData) {
        session_.SetActionData(actionData);
        session_.ClearMessages();
        started_.clear();
        return library_.Call("CheckForClients", session_.Handle());
    }

    /// The lines after the four that report the action data of an install.
    Lines Decisions() const {
        const Lines lines = session_.LogLines();
        return lines.size() < 4 ? Lines() : Lines(lines.begin() + 4, lines.end());
    }

    bool StartedTuep() const { return started_ == Lines{L"schtasks /run /TN StartTUEP"}; }
    bool LookedForInstalledCopies() const {
        return testing::Value(session_.LogLines(), Contains(std::wstring(L"GetRelatedMSIVersions")));
    }

    Library library_;
    InstallerSession session_;
    ImportHooks hooks_;
    Lines started_;
    std::optional<DWORD> statusAtStart_;
    std::optional<DWORD> driverCopyAtStart_;
};

// --- What is read and logged ---

TEST_F(CheckForClients, TheActionDataIsLoggedInItsOrder) {
    EXPECT_EQ(Call(L"ClientName=LSX;Action=;CurrentVersion=2.0.0"), kGoOn);
    EXPECT_THAT(session_.LogLines(),
                ElementsAre(L"CustomActionData: ClientName=LSX;Action=;CurrentVersion=2.0.0",
                            L"Client Name LSX", L"Action ", L"Current Version 2.0.0"));
}

TEST_F(CheckForClients, AnUninstallLogsTheClientOnceMore) {
    EXPECT_EQ(Call(kUninstall), kGoOn);
    EXPECT_THAT(
        session_.LogLines(),
        ElementsAre(L"CustomActionData: ClientName=LSX;Action=ALL;CurrentVersion=2.0.0", L"Client Name LSX",
                    L"Action ALL", L"Current Version 2.0.0", L"Client Name (Uninstall) LSX"));
}

TEST_F(CheckForClients, AnActionThatBeginsWithAllInAnyCaseIsAnUninstall) {
    Register(L"HX_TUEPStatus", 1);
    for (const wchar_t* action : {L"all", L"ALL", L"All", L"ALLx", L"all,Feature"}) {
        EXPECT_EQ(Call(std::wstring(L"ClientName=LSX;CurrentVersion=2.0.0;Action=") + action),
                  kKeepTuepForOthers);
    }
}

TEST_F(CheckForClients, AnActionThatOnlyContainsAllIsAnInstall) {
    Register(L"HX_TUEPStatus", 1);
    for (const wchar_t* action : {L"REMOVEALL", L" all", L"al", L"", L"install"}) {
        EXPECT_EQ(Call(std::wstring(L"ClientName=LSX;CurrentVersion=2.0.0;Action=") + action),
                  kKeepInstalledCopy);
    }
}

// --- The register ---

TEST_F(CheckForClients, WithoutARegisterNothingIsArbitratedAndTheClaimantIsRecorded) {
    const InstalledProduct older(L"tuep_1", L"01");
    EXPECT_EQ(Call(kInstallVersion2), kGoOn);
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kRegister));
    EXPECT_FALSE(LookedForInstalledCopies());
    EXPECT_TRUE(older.IsKnown());
    EXPECT_EQ(Claimant(), L"LSX");
    EXPECT_THAT(started_, IsEmpty());
}

TEST_F(CheckForClients, ARegisterWithoutStatusValuesIsEmpty) {
    WriteText(HKEY_LOCAL_MACHINE, kRegister, L"GUID", L"x");
    Register(L"HX_TuepStatus", 1);
    Register(L"HX_TUEPSTATUS_", 1);
    Register(L"", 1);
    EXPECT_EQ(Call(kInstallVersion2), kGoOn);
    EXPECT_FALSE(LookedForInstalledCopies());
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), std::nullopt);
    EXPECT_EQ(Claimant(), L"LSX");
}

TEST_F(CheckForClients, AnInstallWhileNoOtherHoldsTuepChangesNoStatus) {
    Register(L"LSX_TUEPStatus", 2);
    WriteText(HKEY_LOCAL_MACHINE, kAnalytics, L"TUEPClient", L"HX");
    EXPECT_EQ(Call(kInstallVersion2), kGoOn);
    EXPECT_TRUE(LookedForInstalledCopies());
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), 2U);
    EXPECT_EQ(DriverCopy(), std::nullopt);
    EXPECT_EQ(Claimant(), L"LSX");
    EXPECT_THAT(started_, IsEmpty());
}

TEST_F(CheckForClients, AnUninstallWhileNoOtherHoldsTuepGoesOnAndLooksAtNoCopy) {
    Register(L"LSX_TUEPStatus", 1);
    Register(L"HX_TUEPStatus", 2);
    EXPECT_EQ(Call(kUninstall), kGoOn);
    EXPECT_FALSE(LookedForInstalledCopies());
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), 1U);
    EXPECT_EQ(Claimant(), L"LSX");
    EXPECT_THAT(started_, IsEmpty());
}

TEST_F(CheckForClients, OnlyTheStatusOneIsActive) {
    Register(L"HX_TUEPStatus", 0);
    Register(L"PQR_TUEPStatus", 2);
    Register(L"VR_TUEPStatus", 3);
    Register(L"DVR_TUEPStatus", 0xFFFFFFFF);
    EXPECT_EQ(Call(kUninstall), kGoOn);
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Call(kUninstall), kKeepTuepForOthers);
}

TEST_F(CheckForClients, AStatusThatCannotBeReadIsNotActive) {
    WriteText(HKEY_LOCAL_MACHINE, kRegister, L"HX_TUEPStatus", L"1");
    WriteText(HKEY_LOCAL_MACHINE, kRegister, L"VR_TUEPStatus", L"\x01");
    // A key of that name has no number; one below another key stands for the value of the register.
    MakeKey(HKEY_LOCAL_MACHINE, std::wstring(kRegister) + L"\\PQR_TUEPStatus");
    WriteNumber(HKEY_LOCAL_MACHINE, std::wstring(kRegister) + L"\\Below", L"DVR_TUEPStatus", 1);
    EXPECT_EQ(Call(kUninstall), kGoOn);
}

TEST_F(CheckForClients, ANameBelowASubkeyStandsForTheValueOfTheRegister) {
    Register(L"A\\HX_TUEPStatus", 1);
    EXPECT_EQ(Call(kUninstall), kGoOn);
    MakeKey(HKEY_LOCAL_MACHINE, std::wstring(kRegister) + L"\\Below\\HX_TUEPStatus");
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Call(kUninstall), kKeepTuepForOthers);
}

TEST_F(CheckForClients, AnOwnNameBelowASubkeyIsTheNameThatIsWritten) {
    Register(L"HX_TUEPStatus", 1);
    WriteNumber(HKEY_LOCAL_MACHINE, std::wstring(kRegister) + L"\\Below", L"LSX_Beta_TUEPStatus", 1);
    EXPECT_EQ(Call(kUninstall), kKeepTuepForOthers);
    EXPECT_EQ(Registered(L"LSX_Beta_TUEPStatus"), 2U);
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), std::nullopt);
}

TEST_F(CheckForClients, ARegisterThatCannotBeOpenedIsEmpty) {
    Register(L"HX_TUEPStatus", 1);
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   if (std::wstring(path) == kRegister) {
                       EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
                       EXPECT_EQ(access, REGSAM{KEY_READ});
                       return ERROR_ACCESS_DENIED;
                   }
                   return RegOpenKeyExW(root, path, options, access, key);
               });
    EXPECT_EQ(Call(kUninstall), kGoOn);
    EXPECT_EQ(Claimant(), L"LSX");
}

TEST_F(CheckForClients, AClientIsKnownByTheNameBeforeTheFirstUnderscore) {
    Register(L"LSX_Beta_TUEPStatus", 1);
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Call(kUninstall), kKeepTuepForOthers);
    // The value that was found is the one that is written.
    EXPECT_EQ(Registered(L"LSX_Beta_TUEPStatus"), 2U);
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), std::nullopt);
    EXPECT_EQ(DriverCopy(), std::nullopt);
}

TEST_F(CheckForClients, ANameWithoutUnderscoreIsAClientAsAWhole) {
    Register(L"MyTUEPStatus", 1);
    EXPECT_EQ(Call(kUninstall), kKeepTuepForOthers);
    EXPECT_EQ(Call(L"ClientName=MyTUEPStatus;Action=ALL;CurrentVersion=1.0"), kGoOn);
}

TEST_F(CheckForClients, ThisClientsOwnStatusDoesNotHoldTuepAgainstIt) {
    Register(L"LSX_TUEPStatus", 1);
    EXPECT_EQ(Call(kUninstall), kGoOn);
    EXPECT_EQ(Call(kInstallVersion2), kGoOn);
}

TEST_F(CheckForClients, AClientNameInAnotherCaseIsNotRecognised) {
    Register(L"LSX_TUEPStatus", 1);
    EXPECT_EQ(Call(L"ClientName=lsx;Action=ALL;CurrentVersion=2.0.0"), kKeepTuepForOthers);
    // The fresh name differs from the old one by its case only, so it names the same registry value.
    EXPECT_EQ(Registered(L"lsx_TUEPStatus"), 2U);
    // The driver's copy is for the exact name.
    EXPECT_EQ(DriverCopy(), std::nullopt);
    EXPECT_EQ(Claimant(), L"lsx");
}

// --- Another client holds TUEP ---

TEST_F(CheckForClients, AnUninstallWhileAnotherHoldsTuepLeavesItAndRestartsIt) {
    Register(L"LSX_TUEPStatus", 1);
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Call(kUninstall), kKeepTuepForOthers);
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), 2U);
    EXPECT_EQ(Registered(L"HX_TUEPStatus"), 1U);
    EXPECT_EQ(DriverCopy(), 2U);
    EXPECT_TRUE(StartedTuep());
    EXPECT_FALSE(LookedForInstalledCopies());
}

TEST_F(CheckForClients, TheLastClaimantIsDeletedFirstAndIsTheUninstallingClientInTheEnd) {
    Register(L"HX_TUEPStatus", 1);
    WriteText(HKEY_LOCAL_MACHINE, kAnalytics, L"TUEPClient", L"HX");
    Lines steps;
    CORVI_HOOK(hooks_, RegDeleteValueW, [&](HKEY key, LPCWSTR name) -> LSTATUS {
        steps.push_back(std::wstring(L"delete ") + name);
        return RegDeleteValueW(key, name);
    });
    CORVI_HOOK(
        hooks_, RegSetValueExW,
        [&](HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) -> LSTATUS {
            steps.push_back(std::wstring(L"set ") + name + L" " + std::to_wstring(type) + L" " +
                            std::to_wstring(size));
            return RegSetValueExW(key, name, reserved, type, data, size);
        });
    EXPECT_EQ(Call(kUninstall), kKeepTuepForOthers);
    EXPECT_THAT(steps, ElementsAre(L"delete TUEPClient", L"set LSX_TUEPStatus 4 4", L"set LSX_TUEPStatus 4 4",
                                   L"set TUEPClient 1 8"));
    EXPECT_EQ(Claimant(), L"LSX");
}

TEST_F(CheckForClients, TheLastClaimantIsDeletedBeforeTheStatusOfAnInstallIsWritten) {
    Register(L"HX_TUEPStatus", 1);
    WriteText(HKEY_LOCAL_MACHINE, kAnalytics, L"TUEPClient", L"HX");
    std::vector<std::optional<std::wstring>> claimantAtEachStatus;
    CORVI_HOOK(
        hooks_, RegSetValueExW,
        [&](HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) -> LSTATUS {
            if (name == std::wstring(L"LSX_TUEPStatus")) {
                claimantAtEachStatus.push_back(Claimant());
            }
            return RegSetValueExW(key, name, reserved, type, data, size);
        });
    EXPECT_EQ(Call(kInstallVersion2), kKeepInstalledCopy);
    EXPECT_THAT(claimantAtEachStatus, ElementsAre(std::nullopt, std::nullopt));
    EXPECT_EQ(Claimant(), L"LSX");
}

TEST_F(CheckForClients, OfSeveralOwnValuesTheLastOneCounts) {
    for (const wchar_t* name : {L"LSX_B_TUEPStatus", L"LSX_A_TUEPStatus", L"LSX_C_TUEPStatus"}) {
        Register(name, 1);
    }
    const std::wstring last = ValueNames(HKEY_LOCAL_MACHINE, kRegister).back();
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Call(kUninstall), kKeepTuepForOthers);
    for (const wchar_t* name : {L"LSX_B_TUEPStatus", L"LSX_A_TUEPStatus", L"LSX_C_TUEPStatus"}) {
        EXPECT_EQ(Registered(name), name == last ? 2U : 1U) << std::filesystem::path(name);
    }
}

TEST_F(CheckForClients, AnUninstallIsRecordedBeforeTuepIsRestarted) {
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Call(kUninstall), kKeepTuepForOthers);
    EXPECT_EQ(statusAtStart_, 2U);
    EXPECT_EQ(driverCopyAtStart_, 2U);
}

TEST_F(CheckForClients, AnInstallWhileAnotherHoldsTuepAndNoCopyIsFoundKeepsWhatIsThere) {
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Call(kInstallVersion2), kKeepInstalledCopy);
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), 1U);
    EXPECT_EQ(DriverCopy(), 1U);
    EXPECT_TRUE(LookedForInstalledCopies());
    EXPECT_THAT(started_, IsEmpty());
    EXPECT_EQ(Claimant(), L"LSX");
}

TEST_F(CheckForClients, OnlyTheClientOfTheDriverHasACopyThere) {
    Register(L"HX_TUEPStatus", 1);
    for (const wchar_t* action : {L"", L"ALL"}) {
        Call(std::wstring(L"ClientName=PQR;CurrentVersion=2.0.0;Action=") + action);
    }
    EXPECT_EQ(Registered(L"PQR_TUEPStatus"), 2U);
    EXPECT_EQ(DriverCopy(), std::nullopt);
}

TEST_F(CheckForClients, TheDriverCopyIsNotMadeWithoutTheService) {
    DropKey(HKEY_LOCAL_MACHINE, kDriverService);
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Call(kInstallVersion2), kKeepInstalledCopy);
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kDriverService));
}

TEST_F(CheckForClients, ATaskThatCannotBeStartedChangesNothing) {
    CORVI_HOOK(hooks_, ShellExecuteExW, [](SHELLEXECUTEINFOW*) -> BOOL { return FALSE; });
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Call(kUninstall), kKeepTuepForOthers);
    EXPECT_EQ(Claimant(), L"LSX");
}

// --- Installed copies ---

TEST_F(CheckForClients, AnOlderCopyIsUnregisteredAndTheInstallGoesOn) {
    const InstalledProduct older(L"tuep_1", L"01");
    const std::wstring package = older.CachedPackage();
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Call(kInstallVersion2), kGoOn);
    EXPECT_THAT(Decisions(),
                ElementsAre(L"GetRelatedMSIVersions", L"getRelatedMSIProducts::Related Products found",
                            L"1.0.0", L"Previous installed - Version 1.0.0 - Path - " + package,
                            L"Uninstall " + package + L" as it is older"));
    EXPECT_EQ(MsiQueryProductStateW(older.Code().c_str()), INSTALLSTATE_UNKNOWN);
    EXPECT_FALSE(std::filesystem::exists(package));
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), 1U);
    EXPECT_THAT(started_, IsEmpty());
    EXPECT_EQ(Claimant(), L"LSX");
    const InstalledProduct newer(L"tuep_2", L"02");
    EXPECT_TRUE(newer.IsKnown());
}

TEST_F(CheckForClients, AnOlderCopyIsGoneWhenThatIsLogged) {
    const InstalledProduct older(L"tuep_1", L"01");
    Register(L"HX_TUEPStatus", 1);
    Lines lastLines;
    CORVI_HOOK(hooks_, RegDeleteTreeW, [&](HKEY key, LPCWSTR subkey) -> LSTATUS {
        lastLines.push_back(session_.LogLines().back());
        return CORVI_ORIGINAL(hooks_, RegDeleteTreeW)(key, subkey);
    });
    EXPECT_EQ(Call(kInstallVersion2), kGoOn);
    EXPECT_THAT(lastLines, testing::Not(IsEmpty()));
    EXPECT_THAT(lastLines, testing::Each(testing::StartsWith(L"Previous installed - Version 1.0.0")));
}

TEST_F(CheckForClients, ACopyOfTheSameVersionIsKeptAndStarted) {
    const InstalledProduct same(L"tuep_2", L"02");
    Register(L"LSX_TUEPStatus", 2);
    EXPECT_EQ(Call(kInstallVersion2), kKeepInstalledCopy);
    EXPECT_THAT(Decisions(),
                ElementsAre(L"GetRelatedMSIVersions", L"getRelatedMSIProducts::Related Products found",
                            L"2.0.0", L"Previous installed - Version 2.0.0 - Path - " + same.CachedPackage(),
                            L"Skipping install as - 2.0.0 installed"));
    EXPECT_TRUE(same.IsKnown());
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), 1U);
    EXPECT_TRUE(StartedTuep());
    EXPECT_EQ(Claimant(), L"LSX");
}

TEST_F(CheckForClients, KeepingACopyWritesNoDriverCopyOfTheStatus) {
    const InstalledProduct same(L"tuep_2", L"02");
    Register(L"LSX_TUEPStatus", 2);
    EXPECT_EQ(Call(kInstallVersion2), kKeepInstalledCopy);
    EXPECT_EQ(DriverCopy(), std::nullopt);
}

TEST_F(CheckForClients, KeepingACopyIsLoggedBeforeItIsRecorded) {
    const InstalledProduct same(L"tuep_2", L"02");
    Register(L"LSX_TUEPStatus", 2);
    Lines linesAtRecord;
    CORVI_HOOK(
        hooks_, RegSetValueExW,
        [&](HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) -> LSTATUS {
            if (name == std::wstring(L"LSX_TUEPStatus")) {
                linesAtRecord = session_.LogLines();
            }
            return RegSetValueExW(key, name, reserved, type, data, size);
        });
    EXPECT_EQ(Call(kInstallVersion2), kKeepInstalledCopy);
    ASSERT_FALSE(linesAtRecord.empty());
    EXPECT_EQ(linesAtRecord.back(), L"Skipping install as - 2.0.0 installed");
}

TEST_F(CheckForClients, KeepingACopyIsRecordedBeforeTuepIsStarted) {
    const InstalledProduct same(L"tuep_2", L"02");
    Register(L"LSX_TUEPStatus", 2);
    EXPECT_EQ(Call(kInstallVersion2), kKeepInstalledCopy);
    EXPECT_EQ(statusAtStart_, 1U);
}

TEST_F(CheckForClients, ANewerCopyIsKeptWhileAnotherHoldsTuep) {
    const InstalledProduct newer(L"tuep_2", L"02");
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Call(L"ClientName=LSX;Action=;CurrentVersion=1.9.9"), kKeepInstalledCopy);
    EXPECT_TRUE(newer.IsKnown());
    EXPECT_TRUE(StartedTuep());
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), 1U);
    EXPECT_EQ(DriverCopy(), 1U);
}

TEST_F(CheckForClients, AnUninstallExaminesNoCopy) {
    const InstalledProduct older(L"tuep_1", L"01");
    Register(L"LSX_TUEPStatus", 1);
    EXPECT_EQ(Call(kUninstall), kGoOn);
    EXPECT_TRUE(older.IsKnown());
}

TEST_F(CheckForClients, VersionsAreComparedAsNumbers) {
    const InstalledProduct installed(L"tuep_10", L"03");
    Register(L"LSX_TUEPStatus", 1);
    EXPECT_EQ(Call(L"ClientName=LSX;Action=;CurrentVersion=9.9.9.9"), kKeepInstalledCopy);
    EXPECT_EQ(Call(L"ClientName=LSX;Action=;CurrentVersion=10.10.0.0"), kGoOn);
    EXPECT_FALSE(installed.IsKnown());
}

TEST_F(CheckForClients, AMissingComponentIsZero) {
    const InstalledProduct installed(L"tuep_short", L"04");
    Register(L"LSX_TUEPStatus", 1);
    EXPECT_EQ(Call(L"ClientName=LSX;Action=;CurrentVersion=1.2.0.0"), kKeepInstalledCopy);
    EXPECT_THAT(session_.LogLines(), Contains(L"Skipping install as - 1.2 installed"));
    EXPECT_EQ(Call(L"ClientName=LSX;Action=;CurrentVersion=1.2.0.1"), kGoOn);
}

TEST_F(CheckForClients, AWildcardOnEitherSideKeepsTheInstalledCopy) {
    const InstalledProduct installed(L"tuep_1", L"01");
    Register(L"LSX_TUEPStatus", 1);
    EXPECT_EQ(Call(L"ClientName=LSX;Action=;CurrentVersion=*"), kKeepInstalledCopy);
    installed.PretendVersion(L"*");
    EXPECT_EQ(Call(L"ClientName=LSX;Action=;CurrentVersion=99.0"), kKeepInstalledCopy);
    EXPECT_THAT(session_.LogLines(), Contains(L"Skipping install as - * installed"));
}

TEST_F(CheckForClients, AnInstalledCopyWithoutVersionIsOlderUnlessThePackagesVersionIsTheWildcard) {
    const InstalledProduct installed(L"tuep_1", L"01");
    Register(L"LSX_TUEPStatus", 1);
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, installed.InstallPropertiesKey().c_str(), L"DisplayVersion");
    EXPECT_EQ(Call(L"ClientName=LSX;Action=;CurrentVersion=*"), kKeepInstalledCopy);
    EXPECT_EQ(Call(L"ClientName=LSX;Action=;CurrentVersion=0.1"), kGoOn);
    EXPECT_FALSE(installed.IsKnown());
}

TEST_F(CheckForClients, APackageVersionThatIsNoVersionReplacesEveryCopy) {
    const InstalledProduct installed(L"tuep_2", L"02");
    Register(L"LSX_TUEPStatus", 1);
    EXPECT_EQ(Call(L"ClientName=LSX;Action=;CurrentVersion=1"), kGoOn);
    EXPECT_FALSE(installed.IsKnown());
}

TEST_F(CheckForClients, OlderCopiesAreUnregisteredByTheOrderOfTheirPathsUntilOneIsKept) {
    const InstalledProduct older(L"tuep_1", L"01");
    const InstalledProduct newer(L"companion", L"05");
    older.MoveCachedPackage(L"a_corvi.msi");
    newer.MoveCachedPackage(L"b_corvi.msi");
    Register(L"LSX_TUEPStatus", 1);
    EXPECT_EQ(Call(kInstallVersion2), kKeepInstalledCopy);
    EXPECT_FALSE(older.IsKnown());
    EXPECT_TRUE(newer.IsKnown());
    const Lines decisions = Decisions();
    EXPECT_THAT(
        Lines(decisions.end() - 4, decisions.end()),
        ElementsAre(L"Previous installed - Version 1.0.0 - Path - C:\\windows\\Installer\\a_corvi.msi",
                    L"Uninstall C:\\windows\\Installer\\a_corvi.msi as it is older",
                    L"Previous installed - Version 3.0.0 - Path - C:\\windows\\Installer\\b_corvi.msi",
                    L"Skipping install as - 3.0.0 installed"));
    EXPECT_TRUE(StartedTuep());
}

TEST_F(CheckForClients, ACopyThatIsKeptEndsTheWalkBeforeAnOlderOneIsReached) {
    const InstalledProduct newer(L"companion", L"05");
    const InstalledProduct older(L"tuep_1", L"01");
    newer.MoveCachedPackage(L"a_corvi.msi");
    older.MoveCachedPackage(L"b_corvi.msi");
    Register(L"LSX_TUEPStatus", 1);
    EXPECT_EQ(Call(kInstallVersion2), kKeepInstalledCopy);
    EXPECT_TRUE(older.IsKnown());
}

TEST_F(CheckForClients, TwoOlderCopiesAreBothUnregistered) {
    const InstalledProduct first(L"tuep_1", L"01");
    const InstalledProduct second(L"tuep_2", L"02");
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Call(L"ClientName=LSX;Action=;CurrentVersion=3.0"), kGoOn);
    EXPECT_FALSE(first.IsKnown());
    EXPECT_FALSE(second.IsKnown());
    EXPECT_EQ(Decisions().size(), 8U);
}

TEST_F(CheckForClients, AnOlderCopyTakesEveryProductOfItsNameWithItTheNewerOneThatIsKeptIncluded) {
    const InstalledProduct older(L"tuep_1", L"01");
    const InstalledProduct newer(L"tuep_10", L"03");
    older.MoveCachedPackage(L"a_corvi.msi");
    newer.MoveCachedPackage(L"b_corvi.msi");
    const std::wstring newerPackage = newer.CachedPackage();
    ASSERT_TRUE(std::filesystem::exists(newerPackage));
    Register(L"LSX_TUEPStatus", 1);
    // Removal is by the display name, which both copies have.
    EXPECT_EQ(Call(kInstallVersion2), kKeepInstalledCopy);
    EXPECT_FALSE(older.IsKnown());
    EXPECT_FALSE(newer.IsKnown());
    EXPECT_FALSE(std::filesystem::exists(newerPackage));
    EXPECT_TRUE(std::filesystem::exists(newer.OwnFile())) << "no uninstaller has run";
    EXPECT_TRUE(StartedTuep());
}

TEST_F(CheckForClients, ACopyWithAnotherNameIsCalledOlderAndStaysRegistered) {
    // Older copies are removed by the one name that TUEP's installer has.
    const InstalledProduct companion(L"companion", L"05");
    Register(L"LSX_TUEPStatus", 1);
    EXPECT_EQ(Call(L"ClientName=LSX;Action=;CurrentVersion=4.0"), kGoOn);
    EXPECT_TRUE(companion.IsKnown());
    EXPECT_THAT(session_.LogLines(),
                Contains(L"Uninstall " + companion.CachedPackage() + L" as it is older"));
}

// --- Failures ---

TEST_F(CheckForClients, ARemovalThatFailsChangesNothing) {
    const InstalledProduct older(L"tuep_1", L"01");
    // The removal needs the cached package's path.
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, older.InstallPropertiesKey().c_str(), L"LocalPackage");
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Call(kInstallVersion2), kGoOn);
    EXPECT_EQ(Claimant(), L"LSX");
    EXPECT_THAT(session_.LogLines(), Contains(L"Previous installed - Version 1.0.0 - Path - "));
    EXPECT_EQ(Decisions().back(), L"Uninstall  as it is older");
    EXPECT_TRUE(older.IsKnown()) << "the removal did fail";
}

TEST_F(CheckForClients, ARegistrationWithoutANameDoesNotTurnAFinishedRemovalIntoASkip) {
    const InstalledProduct older(L"tuep_1", L"01");
    const std::wstring package = older.CachedPackage();
    // What is left of some product: every name there is required, and the removal ends with an error.
    MakeKey(HKEY_LOCAL_MACHINE, L"Software\\Classes\\Installer\\Products\\Orphan");
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Call(kInstallVersion2), kGoOn);
    EXPECT_EQ(Decisions().back(), L"Uninstall " + package + L" as it is older");
    EXPECT_EQ(Claimant(), L"LSX");
}

TEST_F(CheckForClients, ARemovalThatFailsDoesNotHideANewerCopy) {
    const InstalledProduct older(L"tuep_1", L"01");
    const InstalledProduct newer(L"companion", L"05");
    older.MoveCachedPackage(L"a_corvi.msi");
    newer.MoveCachedPackage(L"b_corvi.msi");
    MakeKey(HKEY_LOCAL_MACHINE, L"Software\\Classes\\Installer\\Products\\Orphan");
    Register(L"LSX_TUEPStatus", 1);
    EXPECT_EQ(Call(kInstallVersion2), kKeepInstalledCopy);
    EXPECT_EQ(Decisions().back(), L"Skipping install as - 3.0.0 installed");
    EXPECT_TRUE(StartedTuep());
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), 1U);
}

/// Every allocation of the library fails in its turn.
TEST_F(CheckForClients, AnyAllocationMayFail) {
    CORVI_HOOK(hooks_, MsiEnumRelatedProductsW, [](LPCWSTR, DWORD, DWORD index, LPWSTR code) -> UINT {
        lstrcpyW(code, L"{00000000-0000-4000-8000-000000000001}");
        return index == 0 ? ERROR_SUCCESS : ERROR_NO_MORE_ITEMS;
    });
    CORVI_HOOK(hooks_, MsiGetProductInfoW, [](LPCWSTR, LPCWSTR, LPWSTR buffer, LPDWORD) -> UINT {
        lstrcpyW(buffer, L"1.0000000000000000000000.2.3");
        return ERROR_SUCCESS;
    });
    Register(L"HX_TUEPStatus", 1);
    // The first error of a thread needs memory that the language's runtime cannot do without.
    EXPECT_EQ(Call(L"x"), kGoOn);
    session_.SetActionData(kInstallVersion2);
    int calls = 0;
    int failing = 0;
    CORVI_HOOK(hooks_, malloc,
               [&](size_t size) -> void* { return ++calls == failing ? nullptr : std::malloc(size); });
    do {
        ++failing;
        calls = 0;
        EXPECT_THAT(library_.Call("CheckForClients", session_.Handle()),
                    testing::AnyOf(kGoOn, kKeepInstalledCopy));
    } while (calls >= failing);
    EXPECT_GT(failing, 20);
}

TEST_F(CheckForClients, AFailedEnumerationLogsBothLinesAndCountsAsNoCopy) {
    Register(L"HX_TUEPStatus", 1);
    CORVI_HOOK(hooks_, MsiEnumRelatedProductsW,
               [](LPCWSTR, DWORD, DWORD, LPWSTR) -> UINT { return ERROR_BAD_CONFIGURATION; });
    EXPECT_EQ(Call(kInstallVersion2), kKeepInstalledCopy);
    EXPECT_THAT(Decisions(),
                ElementsAre(L"GetRelatedMSIVersions", L"getRelatedMSIProducts::No Related Products found",
                            L"getRelatedMSIProducts::Related Products found"));
}

TEST_F(CheckForClients, AnErrorWhileACopyIsReadIsLoggedAndLeavesTheResult) {
    const InstalledProduct older(L"tuep_1", L"01");
    Register(L"HX_TUEPStatus", 1);
    CORVI_HOOK(hooks_, MsiGetProductInfoW,
               [](LPCWSTR, LPCWSTR, LPWSTR, LPDWORD) -> UINT { throw std::length_error("too long"); });
    EXPECT_EQ(Call(kInstallVersion2), kKeepInstalledCopy);
    EXPECT_EQ(Decisions().back(), L"Unable to obtain MSI infomation. %hs Attempt to uninstall using msiexec");
}

TEST_F(CheckForClients, TheEnumerationIsAskedForTheUpgradeCodeOfTuep) {
    Register(L"LSX_TUEPStatus", 1);
    std::wstring upgradeCode;
    CORVI_HOOK(hooks_, MsiEnumRelatedProductsW, [&](LPCWSTR code, DWORD, DWORD, LPWSTR) -> UINT {
        upgradeCode = code;
        return ERROR_NO_MORE_ITEMS;
    });
    EXPECT_EQ(Call(kInstallVersion2), kGoOn);
    EXPECT_EQ(upgradeCode, L"{14FF974F-1802-43D4-B8FE-78AF51D911D6}");
}

TEST_F(CheckForClients, RefusedWritesChangeNoResult) {
    Register(L"HX_TUEPStatus", 1);
    CORVI_HOOK(hooks_, RegSetValueExW, [](HKEY, LPCWSTR, DWORD, DWORD, const BYTE*, DWORD) -> LSTATUS {
        return ERROR_ACCESS_DENIED;
    });
    CORVI_HOOK(hooks_, RegDeleteValueW, [](HKEY, LPCWSTR) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    EXPECT_EQ(Call(kInstallVersion2), kKeepInstalledCopy);
    EXPECT_EQ(Call(kUninstall), kKeepTuepForOthers);
}

TEST_F(CheckForClients, TheClaimantsKeyIsOpenedWithAllAccessAndElseCreatedToSetTheValue) {
    std::vector<REGSAM> masks;
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   if (std::wstring(path) == kAnalytics) {
                       masks.push_back(access);
                       return ERROR_ACCESS_DENIED;
                   }
                   return RegOpenKeyExW(root, path, options, access, key);
               });
    CORVI_HOOK(hooks_, RegCreateKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD reserved, LPWSTR type, DWORD options, REGSAM access,
                   const LPSECURITY_ATTRIBUTES security, PHKEY key, LPDWORD disposition) -> LSTATUS {
                   masks.push_back(access);
                   EXPECT_EQ(options, DWORD{REG_OPTION_NON_VOLATILE});
                   return RegCreateKeyExW(root, path, reserved, type, options, access, security, key,
                                          disposition);
               });
    EXPECT_EQ(Call(kInstallVersion2), kGoOn);
    EXPECT_THAT(masks, ElementsAre(REGSAM{KEY_ALL_ACCESS}, REGSAM{KEY_SET_VALUE}));
    EXPECT_EQ(Claimant(), L"LSX");
}

TEST_F(CheckForClients, AClaimantThatCannotBeRecordedChangesNoResult) {
    Register(L"HX_TUEPStatus", 1);
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   return std::wstring(path) == kAnalytics ? ERROR_ACCESS_DENIED
                                                           : RegOpenKeyExW(root, path, options, access, key);
               });
    CORVI_HOOK(hooks_, RegCreateKeyExW,
               [](HKEY, LPCWSTR, DWORD, LPWSTR, DWORD, REGSAM, const LPSECURITY_ATTRIBUTES, PHKEY,
                  LPDWORD) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    EXPECT_EQ(Call(kUninstall), kKeepTuepForOthers);
    EXPECT_EQ(Claimant(), std::nullopt);
}

TEST_F(CheckForClients, ActionDataThatLacksAKeyIsDecidedAndLeavesNoError) {
    // Without any key there is no client to record.
    for (const wchar_t* actionData : {L"", L"x", L"ClientNam"}) {
        EXPECT_EQ(Call(actionData), kGoOn);
        EXPECT_EQ(Claimant(), std::nullopt);
    }
    // The client is known, the rest is too short to be read.
    EXPECT_EQ(Call(L"ClientName=A"), kGoOn);
    EXPECT_EQ(Claimant(), L"A");
}

TEST_F(CheckForClients, AnAbsentActionIsTheTextFromItsKeysLengthOn) {
    Register(L"HX_TUEPStatus", 1);
    // Index 6 of the text is the "l" of the client's name.
    EXPECT_EQ(Call(L"x;;;;;all;ClientName=LSX;CurrentVersion=1.0"), kKeepTuepForOthers);
    EXPECT_THAT(session_.LogLines(), Contains(L"Action all"));
}

TEST_F(CheckForClients, AnEmptyClientNameHasAStatusOfItsOwn) {
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Call(L"ClientName=;Action=;CurrentVersion=1.0"), kKeepInstalledCopy);
    EXPECT_EQ(Registered(L"_TUEPStatus"), 1U);
    EXPECT_EQ(Claimant(), L"");
}

TEST_F(CheckForClients, LongAndStrangeNamesAreKeptAsTheyAre) {
    Register(L"HX_TUEPStatus", 1);
    const std::wstring name = L"100%s %n " + std::wstring(4000, L'n');
    EXPECT_EQ(Call(L"ClientName=" + name + L";Action=;CurrentVersion=1.0"), kKeepInstalledCopy);
    EXPECT_EQ(Registered(name + L"_TUEPStatus"), 1U);
}

TEST_F(CheckForClients, AnInvalidSessionIsAnEmptyRequest) {
    EXPECT_EQ(library_.Call("CheckForClients", 0), kGoOn);
    EXPECT_EQ(Claimant(), std::nullopt);
}

/// A copy that only the registry knows of, quicker to plant than to install.
void PlantOlderCopy() {
    const std::wstring product =
        L"Software\\Microsoft\\Windows\\CurrentVersion\\Installer\\UserData\\S-1-5-18\\Products\\0123";
    const std::wstring properties = product + L"\\InstallProperties";
    WriteText(HKEY_LOCAL_MACHINE, properties, L"DisplayName", L"TAVO User Experience Program Installer");
    WriteText(HKEY_LOCAL_MACHINE, properties, L"UninstallString", L"MsiExec.exe /I{0}");
    WriteText(HKEY_LOCAL_MACHINE, properties, L"LocalPackage", L"C:\\windows\\Installer\\none.msi");
    WriteText(HKEY_LOCAL_MACHINE, L"Software\\Classes\\Installer\\Products\\0123", L"ProductName",
              L"TAVO User Experience Program Installer");
}

/// Every registry call fails in its turn: the answer stays one of the three, and nothing is thrown.
TEST_F(CheckForClients, AnyRegistryCallMayFail) {
    int calls = 0;
    int failing = 0;
    const auto fails = [&] { return ++calls == failing; };
    CORVI_HOOK(hooks_, MsiEnumRelatedProductsW, [](LPCWSTR, DWORD, DWORD index, LPWSTR code) -> UINT {
        lstrcpyW(code, L"{00000000-0000-4000-8000-000000000001}");
        return index == 0 ? ERROR_SUCCESS : ERROR_NO_MORE_ITEMS;
    });
    CORVI_HOOK(hooks_, MsiGetProductInfoW, [](LPCWSTR, LPCWSTR, LPWSTR buffer, LPDWORD) -> UINT {
        lstrcpyW(buffer, L"1.0");
        return ERROR_SUCCESS;
    });
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   return fails() ? ERROR_ACCESS_DENIED : RegOpenKeyExW(root, path, options, access, key);
               });
    CORVI_HOOK(hooks_, RegQueryInfoKeyW,
               [&](HKEY key, LPWSTR type, LPDWORD typeLength, LPDWORD reserved, LPDWORD subkeys,
                   LPDWORD longest, LPDWORD longestType, LPDWORD values, LPDWORD longestValue,
                   LPDWORD longestData, LPDWORD security, PFILETIME written) -> LSTATUS {
                   return fails() ? ERROR_ACCESS_DENIED
                                  : RegQueryInfoKeyW(key, type, typeLength, reserved, subkeys, longest,
                                                     longestType, values, longestValue, longestData, security,
                                                     written);
               });
    CORVI_HOOK(hooks_, RegGetValueW,
               [&](HKEY root, LPCWSTR path, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
                   LPDWORD size) -> LSTATUS {
                   return fails() ? ERROR_ACCESS_DENIED
                                  : RegGetValueW(root, path, name, flags, type, data, size);
               });
    do {
        ++failing;
        calls = 0;
        Clean();
        PlantOlderCopy();
        Register(L"HX_TUEPStatus", 1);
        UINT result = kKeepTuepForOthers;
        EXPECT_NO_THROW(result = Call(kInstallVersion2));
        EXPECT_THAT(result, testing::AnyOf(kGoOn, kKeepInstalledCopy));
        EXPECT_EQ(Claimant(), L"LSX");
    } while (calls >= failing);
    EXPECT_GT(failing, 30);
}

// --- In a package's own sequence ---

class InAPackage : public CheckForClients {
protected:
    InAPackage() { hooks_.RestoreAll(); }
    void TearDown() override {
        // Without a register the uninstall is not refused.
        DropKey(HKEY_LOCAL_MACHINE, kRegister);
        RunMsiexec(L" /x {C11E57A0-6D2B-4B1C-9E55-0A1B2C3D4E01} /qn ALLUSERS=1");
        CheckForClients::TearDown();
    }

    static DWORD Run(const std::wstring& option) {
        return RunMsiexec(L" " + option + L" C:\\corvi\\arbitration_client.msi /qn ALLUSERS=1");
    }
    static bool IsInstalled() {
        return MsiQueryProductStateW(L"{C11E57A0-6D2B-4B1C-9E55-0A1B2C3D4E01}") == INSTALLSTATE_DEFAULT;
    }
};

TEST_F(InAPackage, AnInstallReplacesAnOlderCopy) {
    const InstalledProduct older(L"tuep_1", L"01");
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Run(L"/i"), 0U);
    EXPECT_TRUE(IsInstalled());
    EXPECT_FALSE(older.IsKnown());
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), 1U);
    EXPECT_EQ(Claimant(), L"LSX");
}

TEST_F(InAPackage, AnUninstallWhileAnotherHoldsTuepEndsAsCancelled) {
    EXPECT_EQ(Run(L"/i"), 0U);
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Run(L"/x"), 1602U);
    EXPECT_TRUE(IsInstalled());
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), 2U);
    Register(L"HX_TUEPStatus", 2);
    EXPECT_EQ(Run(L"/x"), 0U);
    EXPECT_FALSE(IsInstalled());
}

TEST_F(InAPackage, AnInstallWithANewerCopyIsAnsweredWith259) {
    const InstalledProduct newer(L"tuep_10", L"03");
    Register(L"HX_TUEPStatus", 1);
    EXPECT_EQ(Run(L"/i"), 0U);
    EXPECT_EQ(IsInstalled(), !InstallerSkipsTheRest());
    EXPECT_TRUE(newer.IsKnown());
    EXPECT_EQ(Registered(L"LSX_TUEPStatus"), 1U);
}

}  // namespace
}  // namespace corvi::test
