#include "components/camera_registration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "runtime/registry.h"
#include "tests/components/registry_values.h"
#include "tests/components/started_commands.h"
#include "tests/support/folders.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/tool_recorder.h"

namespace corvi::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

const std::wstring kDirectory = L"C:\\corvi\\cameras\\";
constexpr wchar_t kServer[] = L"OptxServer.dll";
constexpr wchar_t kMedia[] = L"OptxMedia.dll";
const fs::path kJournal = L"C:\\corvi\\components.txt";

constexpr wchar_t kVersionKey[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
constexpr wchar_t kEnvironment[] = L"System\\CurrentControlSet\\Control\\Session Manager\\Environment";
const std::wstring kPathEntry = L"C:\\Windows\\System32\\TAVO;";

HMODULE ThisProgram() { return GetModuleHandleW(nullptr); }

// A directory with both components, as an install leaves it.
class InstalledComponents {
public:
    InstalledComponents() {
        Remove();
        fs::create_directories(kDirectory);
        fs::copy_file(L"C:\\corvi\\com_server.dll", kDirectory + kServer);
        fs::copy_file(L"C:\\corvi\\media_source.dll", kDirectory + kMedia);
    }
    ~InstalledComponents() { Remove(); }
    InstalledComponents(const InstalledComponents&) = delete;
    InstalledComponents& operator=(const InstalledComponents&) = delete;

    // What the component answers from now on to "register", "unregister" or "scan".
    static void Script(const std::wstring& dll, const std::wstring& request, long answer) {
        std::ofstream(fs::path(kDirectory + dll + L"." + request)) << answer;
    }

    // Puts the component without a scan entry in the media source's place.
    static void TakeScanEntryAway() {
        fs::remove(kDirectory + kMedia);
        fs::copy_file(L"C:\\corvi\\com_server.dll", kDirectory + kMedia);
    }

    // What the components were asked for so far, in order.
    static std::vector<std::string> Journal() {
        std::vector<std::string> events;
        std::ifstream file(kJournal);
        for (std::string line; std::getline(file, line);) {
            events.push_back(line);
        }
        return events;
    }

    // The path under which a component is registered; empty when it is not.
    static std::wstring RegisteredPath(const std::wstring& dll) {
        const auto stored = ReadStored(L"SOFTWARE\\Classes\\CLSID\\" + dll + L"\\InprocServer32", L"");
        return stored ? TextOf(*stored) : std::wstring();
    }
    static bool IsRegistered(const std::wstring& dll) {
        return !RegisteredPath(dll).empty() && fs::equivalent(RegisteredPath(dll), kDirectory + dll);
    }

private:
    static void Remove() {
        // The console of a command that has ended may hold the directory for a moment.
        RemoveFolderAtEnd(kDirectory);
        fs::remove(kJournal);
        for (const wchar_t* dll : {kServer, kMedia}) {
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, (std::wstring(L"SOFTWARE\\Classes\\CLSID\\") + dll).c_str());
        }
    }
};

// The commands of the steps, as regsvr32 gets them.
const std::wstring kUnregister = L"regsvr32.exe /u /s \"C:\\corvi\\cameras\\";
const std::wstring kRegister = L"regsvr32.exe /s \"C:\\corvi\\cameras\\\\";
std::wstring Unregistering(const std::wstring& dll) { return kUnregister + dll + L"\""; }
std::wstring Registering(const std::wstring& dll) { return kRegister + dll + L"\""; }

class ComRegistration : public testing::Test {
protected:
    InstalledComponents components_;
    StartedCommands started_{ThisProgram()};
};

TEST_F(ComRegistration, RegisteringUnregistersFirstAndDoublesTheBackslashInTheSecondCommand) {
    EXPECT_EQ(RegisterComDll(kServer, kDirectory), 0U);
    EXPECT_THAT(started_.All(), ElementsAre(StartedCommand{Unregistering(kServer), kDirectory},
                                            StartedCommand{Registering(kServer), kDirectory}));
    EXPECT_THAT(components_.Journal(), ElementsAre("unregister OptxServer.dll", "register OptxServer.dll"));
    EXPECT_TRUE(components_.IsRegistered(kServer));
}

TEST_F(ComRegistration, FailedUnregistrationBeforeRegisteringIsIgnored) {
    components_.Script(kServer, L"unregister", E_FAIL);
    EXPECT_EQ(RegisterComDll(kServer, kDirectory), 0U);
    EXPECT_TRUE(components_.IsRegistered(kServer));
}

TEST_F(ComRegistration, FailedRegistrationGives1603) {
    components_.Script(kServer, L"register", E_FAIL);
    EXPECT_EQ(RegisterComDll(kServer, kDirectory), 1603U);
    EXPECT_FALSE(components_.IsRegistered(kServer));
}

TEST_F(ComRegistration, MissingDllAndMissingDirectoryGive1603) {
    EXPECT_EQ(RegisterComDll(L"missing.dll", kDirectory), 1603U);
    EXPECT_EQ(RegisterComDll(kServer, L"C:\\corvi\\no such folder\\"), 1603U);
    EXPECT_EQ(UnregisterComDll(L"missing.dll", kDirectory), 1603U);
    EXPECT_THAT(components_.Journal(), IsEmpty());
}

TEST_F(ComRegistration, UnregisteringRunsTheFirstCommandOnly) {
    RegisterComDll(kServer, kDirectory);
    EXPECT_EQ(UnregisterComDll(kServer, kDirectory), 0U);
    ASSERT_EQ(started_.All().size(), 3U);
    EXPECT_EQ(started_.All().back(), (StartedCommand{Unregistering(kServer), kDirectory}));
    EXPECT_FALSE(components_.IsRegistered(kServer));
}

TEST_F(ComRegistration, FailedUnregistrationGives1603) {
    components_.Script(kServer, L"unregister", E_FAIL);
    EXPECT_EQ(UnregisterComDll(kServer, kDirectory), 1603U);
}

class CameraScanTest : public testing::Test {
protected:
    InstalledComponents components_;
    InstallerSession session_;
};

TEST_F(CameraScanTest, CallsTheEntryWithTheFlagLogsItsAnswerAndUnloadsTheLibrary) {
    components_.Script(kMedia, L"scan", 7);
    RunCameraScan(session_.Handle(), true, kDirectory + kMedia);
    RunCameraScan(session_.Handle(), false, kDirectory + kMedia);
    EXPECT_THAT(components_.Journal(), ElementsAre("scan 1 OptxMedia.dll", "scan 0 OptxMedia.dll"));
    EXPECT_THAT(session_.LogLines(), ElementsAre(L"OptxScanCameras(1): 7", L"OptxScanCameras(0): 7"));
    EXPECT_EQ(GetModuleHandleW(kMedia), nullptr);
}

TEST_F(CameraScanTest, NegativeAnswerIsLoggedAsASignedNumber) {
    components_.Script(kMedia, L"scan", E_FAIL);
    RunCameraScan(session_.Handle(), true, kDirectory + kMedia);
    EXPECT_THAT(session_.LogLines(), ElementsAre(L"OptxScanCameras(1): -2147467259"));
}

TEST_F(CameraScanTest, LibraryThatCannotBeLoadedIsLoggedUnderAFixedName) {
    RunCameraScan(session_.Handle(), true, kDirectory + L"missing.dll");
    EXPECT_THAT(session_.LogLines(), ElementsAre(L"load VirtualCameraMediaSource.dll failed: 126"));
}

TEST_F(CameraScanTest, FileThatIsNoLibraryIsLoggedWithItsOwnCode) {
    std::ofstream(fs::path(kDirectory + L"text.dll")) << "no library";
    RunCameraScan(session_.Handle(), true, kDirectory + L"text.dll");
    EXPECT_THAT(session_.LogLines(), ElementsAre(L"load VirtualCameraMediaSource.dll failed: 193"));
}

TEST_F(CameraScanTest, MissingEntryIsLoggedAndTheLibraryUnloaded) {
    components_.TakeScanEntryAway();
    RunCameraScan(session_.Handle(), true, kDirectory + kMedia);
    EXPECT_THAT(session_.LogLines(), ElementsAre(L"GetProcAddress(OptxScanCameras) failed: 127"));
    EXPECT_EQ(GetModuleHandleW(kMedia), nullptr);
}

bool CountsAsWindows11(const std::wstring& version) {
    const auto verdict = IsWindows11(version);
    EXPECT_TRUE(verdict.has_value());
    return verdict && verdict->isWindows11;
}

TEST(IsWindows11, RevisionsOfTheFirstBuildAreComparedAsTexts) {
    EXPECT_TRUE(CountsAsWindows11(L"10.22000.348"));
    EXPECT_FALSE(CountsAsWindows11(L"10.22000.1000"));
    EXPECT_FALSE(CountsAsWindows11(L"10.22000.347"));
    EXPECT_FALSE(CountsAsWindows11(L"10.22000.34"));
    EXPECT_TRUE(CountsAsWindows11(L"10.22000.3480"));
    EXPECT_TRUE(CountsAsWindows11(L"10.22000.35"));
    EXPECT_TRUE(CountsAsWindows11(L"10.22000.9"));
}

TEST(IsWindows11, BuildsAreComparedAsTexts) {
    EXPECT_TRUE(CountsAsWindows11(L"10.22621.1"));
    EXPECT_FALSE(CountsAsWindows11(L"10.19045.3803"));
    EXPECT_TRUE(CountsAsWindows11(L"10.9999.1"));
    EXPECT_FALSE(CountsAsWindows11(L"10.100000.1"));
    EXPECT_TRUE(CountsAsWindows11(L"10.220000.1"));
    EXPECT_FALSE(CountsAsWindows11(L"10.2200.999"));
}

TEST(IsWindows11, MajorVersionIsTenExactly) {
    EXPECT_FALSE(CountsAsWindows11(L"6.3.9600"));
    EXPECT_FALSE(CountsAsWindows11(L"11.22621.1"));
    EXPECT_FALSE(CountsAsWindows11(L"010.22621.1"));
    EXPECT_FALSE(CountsAsWindows11(L"100.22621.1"));
}

TEST(IsWindows11, GivesTheThreeGroups) {
    const auto verdict = IsWindows11(L"10.22631.2861");
    ASSERT_TRUE(verdict.has_value());
    EXPECT_EQ(verdict->groups.major, L"10");
    EXPECT_EQ(verdict->groups.build, L"22631");
    EXPECT_EQ(verdict->groups.revision, L"2861");
}

TEST(IsWindows11, TextThatIsNoVersionGivesNothing) {
    for (const wchar_t* text : {L"", L"10", L"10..348", L"ten.22000.348", L"10x22631.2861"}) {
        EXPECT_FALSE(IsWindows11(text).has_value()) << std::string(text, text + wcslen(text));
    }
}

// Both actions, through the DLL, on a machine that a test shapes.
class CameraAction : public testing::Test {
protected:
    CameraAction() : started_(library_.Module()) {
        // For speed: what they do is of no interest but to the tests that let them run.
        started_.RefuseOnly(L"icacls ", ERROR_FILE_NOT_FOUND);
        StoreText(kEnvironment, L"Path", L"C:\\windows");
        SetWindowsVersion(10, L"22631", 2861);
        session_.SetActionData(
            L"InstallDir=C:\\corvi\\cameras\\;DLLName=OptxServer.dll;Username=Installer;"
            L"VCDLLName=OptxMedia.dll");
    }

    static void SetWindowsVersion(DWORD major, const std::wstring& build, DWORD revision) {
        StoreNumber(kVersionKey, L"CurrentMajorVersionNumber", major);
        StoreText(kVersionKey, L"CurrentBuild", build);
        StoreNumber(kVersionKey, L"UBR", revision);
    }

    static std::wstring Path() { return TextOf(ReadStored(kEnvironment, L"Path").value()); }
    static bool IsPathExtended() { return Path() == kPathEntry + L"C:\\windows"; }

    UINT Install() { return library_.Call("SetPermissionsRegisterDLL", session_.Handle()); }
    UINT Uninstall() { return library_.Call("UnregisterDLL", session_.Handle()); }

    // Both components as a successful install leaves them, and nothing noted yet.
    static void RegisterBoth() {
        for (const wchar_t* dll : {kServer, kMedia}) {
            const HMODULE module = LoadLibraryW((kDirectory + dll).c_str());
            const auto entry = reinterpret_cast<HRESULT(__stdcall*)()>(
                reinterpret_cast<void*>(GetProcAddress(module, "DllRegisterServer")));
            ASSERT_EQ(entry(), S_OK);
            FreeLibrary(module);
        }
        fs::remove(kJournal);
    }

    // The commands without those of the permission step.
    std::vector<std::wstring> RegistrationCommands() const {
        auto commands = started_.Commands();
        std::erase_if(commands, [](const std::wstring& command) { return command.rfind(L"icacls", 0) == 0; });
        return commands;
    }

    // The lines behind the one of the action data.
    std::vector<std::wstring> Lines() const {
        auto lines = session_.LogLines();
        if (!lines.empty()) {
            EXPECT_THAT(lines.front(), testing::StartsWith(L"CustomActionData: "));
            lines.erase(lines.begin());
        }
        return lines;
    }

    KeptValue path_{kEnvironment, L"Path"};
    KeptValue major_{kVersionKey, L"CurrentMajorVersionNumber"};
    KeptValue build_{kVersionKey, L"CurrentBuild"};
    KeptValue revision_{kVersionKey, L"UBR"};
    InstalledComponents components_;
    Library library_;
    InstallerSession session_;
    StartedCommands started_;
};

using SetPermissionsRegisterDll = CameraAction;
using UnregisterDll = CameraAction;

TEST_F(SetPermissionsRegisterDll, Windows11WithMediaSourceRegistersItScansAndRegistersTheServer) {
    EXPECT_EQ(Install(), 0U);
    EXPECT_THAT(components_.Journal(),
                ElementsAre("unregister OptxMedia.dll", "register OptxMedia.dll", "scan 1 OptxMedia.dll",
                            "unregister OptxServer.dll", "register OptxServer.dll"));
    EXPECT_THAT(RegistrationCommands(), ElementsAre(Unregistering(kMedia), Registering(kMedia),
                                                    Unregistering(kServer), Registering(kServer)));
    EXPECT_TRUE(components_.IsRegistered(kServer));
    EXPECT_TRUE(components_.IsRegistered(kMedia));
    EXPECT_TRUE(IsPathExtended());
}

TEST_F(SetPermissionsRegisterDll, LogsItsInputsTheVersionAndTheScan) {
    Install();
    EXPECT_THAT(
        session_.LogLines(),
        ElementsAre(L"CustomActionData: InstallDir=C:\\corvi\\cameras\\;DLLName=OptxServer.dll;"
                    L"Username=Installer;VCDLLName=OptxMedia.dll",
                    L"DLL Path C:\\corvi\\cameras\\", L"DLL Name OptxServer.dll", L"Username Installer",
                    L"VC Dll Name OptxMedia.dll", L"OS Version: 10-22631-2861", L"OptxScanCameras(1): 0"));
}

TEST_F(SetPermissionsRegisterDll, LogsItsInputsBeforeItStartsAnything) {
    std::wstring lastLine;
    started_.BeforeEach([&](size_t before) {
        if (before == 0) {
            lastLine = session_.LogLines().back();
        }
    });
    Install();
    EXPECT_EQ(lastLine, L"VC Dll Name OptxMedia.dll");
}

TEST_F(SetPermissionsRegisterDll, WholeTreeIsHandedToTheUsersBeforeAnyRegistration) {
    fs::create_directories(kDirectory + L"inner");
    std::ofstream(fs::path(kDirectory + L"inner\\data.bin")) << "x";
    EXPECT_EQ(Install(), 0U);
    const auto& started = started_.All();
    const auto isPermission = [](const StartedCommand& command) {
        return command.command.rfind(L"icacls ", 0) == 0;
    };
    const auto firstOther = std::find_if_not(started.begin(), started.end(), isPermission);
    // The directory, two components, a folder and its file: two commands for each.
    EXPECT_EQ(std::distance(started.begin(), firstOther), 10);
    EXPECT_TRUE(std::none_of(firstOther, started.end(), isPermission));
    EXPECT_EQ(started[0], (StartedCommand{L"icacls \"C:\\corvi\\cameras\" /setowner Installer", kDirectory}));
    EXPECT_EQ(started[1], (StartedCommand{L"icacls \"C:\\corvi\\cameras\" /grant Users:F", kDirectory}));
    EXPECT_THAT(std::vector<StartedCommand>(started.begin(), firstOther),
                testing::Contains(StartedCommand{
                    L"icacls \"C:\\corvi\\cameras\\inner\\data.bin\" /setowner Installer", kDirectory}));
}

TEST_F(SetPermissionsRegisterDll, IcaclsRunsForEachEntryAndItsFailureChangesNothingElse) {
    ToolRecorder tools;
    tools.StandInForSystemTool(L"icacls.exe", 5);
    started_.RefuseNone();
    EXPECT_EQ(Install(), 0U);
    const auto runs = tools.Runs();
    ASSERT_EQ(runs.size(), 6U);
    EXPECT_EQ(fs::path(runs[2].currentDirectory) / L"", kDirectory);
    EXPECT_TRUE(components_.IsRegistered(kServer));
}

TEST_F(SetPermissionsRegisterDll, Windows11WithoutTheMediaSourceFileRegistersTheServerOnly) {
    fs::remove(kDirectory + kMedia);
    EXPECT_EQ(Install(), 0U);
    EXPECT_THAT(RegistrationCommands(), ElementsAre(Unregistering(kServer), Registering(kServer)));
    EXPECT_THAT(Lines().back(), L"OS Version: 10-22631-2861");
    EXPECT_TRUE(components_.IsRegistered(kServer));
    EXPECT_TRUE(IsPathExtended());
}

TEST_F(SetPermissionsRegisterDll, Windows11WithFailingMediaSourceGives1603AndLeavesTheServerAlone) {
    components_.Script(kMedia, L"register", E_FAIL);
    EXPECT_EQ(Install(), 1603U);
    EXPECT_THAT(components_.Journal(), ElementsAre("unregister OptxMedia.dll", "register OptxMedia.dll"));
    EXPECT_FALSE(components_.IsRegistered(kServer));
    EXPECT_TRUE(IsPathExtended());
}

TEST_F(SetPermissionsRegisterDll, ExitCodeThatCannotBeReadGives1603) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, GetExitCodeProcess, [](HANDLE, LPDWORD) -> BOOL {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
    EXPECT_EQ(Install(), 1603U);
    EXPECT_TRUE(IsPathExtended());
}

TEST_F(SetPermissionsRegisterDll, EmptyMediaSourceNameRegistersTheServerOnly) {
    session_.SetActionData(
        L"InstallDir=C:\\corvi\\cameras\\;DLLName=OptxServer.dll;Username=Installer;VCDLLName=");
    EXPECT_EQ(Install(), 0U);
    EXPECT_THAT(RegistrationCommands(), ElementsAre(Unregistering(kServer), Registering(kServer)));
    EXPECT_THAT(Lines().back(), L"OS Version: 10-22631-2861");
    EXPECT_TRUE(components_.IsRegistered(kServer));
}

TEST_F(SetPermissionsRegisterDll, FolderOfTheMediaSourcesNameRegistersTheServerOnly) {
    fs::remove(kDirectory + kMedia);
    fs::create_directory(kDirectory + kMedia);
    EXPECT_EQ(Install(), 0U);
    EXPECT_THAT(RegistrationCommands(), ElementsAre(Unregistering(kServer), Registering(kServer)));
}

TEST_F(SetPermissionsRegisterDll, AnUnknownWindowsDirectoryLeavesThePathAsItIs) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, GetWindowsDirectoryW, [](LPWSTR, UINT) -> UINT { return 0; });
    EXPECT_EQ(Install(), 0U);
    EXPECT_TRUE(components_.IsRegistered(kServer));
    EXPECT_EQ(Path(), L"C:\\windows");
}

TEST_F(SetPermissionsRegisterDll, Windows11WithFailingServerGives1603) {
    components_.Script(kServer, L"register", E_FAIL);
    EXPECT_EQ(Install(), 1603U);
    EXPECT_TRUE(components_.IsRegistered(kMedia));
    EXPECT_TRUE(IsPathExtended());
}

TEST_F(SetPermissionsRegisterDll, OlderWindowsRegistersTheServerOnly) {
    SetWindowsVersion(10, L"19045", 3803);
    EXPECT_EQ(Install(), 0U);
    EXPECT_THAT(components_.Journal(), ElementsAre("unregister OptxServer.dll", "register OptxServer.dll"));
    EXPECT_THAT(Lines().back(), L"OS Version: 10-19045-3803");
    EXPECT_TRUE(IsPathExtended());
}

TEST_F(SetPermissionsRegisterDll, RevisionThatSortsBeforeTheFirstOneCountsAsOlder) {
    SetWindowsVersion(10, L"22000", 1000);
    EXPECT_EQ(Install(), 0U);
    EXPECT_THAT(components_.Journal(), ElementsAre("unregister OptxServer.dll", "register OptxServer.dll"));
}

TEST_F(SetPermissionsRegisterDll, FirstRevisionOfWindows11RegistersTheMediaSource) {
    SetWindowsVersion(10, L"22000", 348);
    EXPECT_EQ(Install(), 0U);
    EXPECT_TRUE(components_.IsRegistered(kMedia));
}

TEST_F(SetPermissionsRegisterDll, OlderWindowsWithFailingServerGives1603) {
    SetWindowsVersion(6, L"3", 9600);
    components_.Script(kServer, L"register", E_FAIL);
    EXPECT_EQ(Install(), 1603U);
    EXPECT_THAT(Lines().back(), L"OS Version: 6-3-9600");
    EXPECT_TRUE(IsPathExtended());
}

TEST_F(SetPermissionsRegisterDll, VersionThatDoesNotMatchRegistersTheServerOnlyAndIsNotLogged) {
    SetWindowsVersion(10, L"", 1);
    EXPECT_EQ(Install(), 0U);
    EXPECT_THAT(components_.Journal(), ElementsAre("unregister OptxServer.dll", "register OptxServer.dll"));
    EXPECT_THAT(Lines().back(), L"VC Dll Name OptxMedia.dll");
    EXPECT_TRUE(IsPathExtended());
}

TEST_F(SetPermissionsRegisterDll, VersionThatDoesNotMatchWithFailingServerGives1603) {
    SetWindowsVersion(10, L"", 1);
    components_.Script(kServer, L"register", E_FAIL);
    EXPECT_EQ(Install(), 1603U);
    EXPECT_TRUE(IsPathExtended());
}

TEST_F(SetPermissionsRegisterDll, UnreadableVersionCountsAsOneThatDoesNotMatch) {
    DeleteStored(kVersionKey, L"UBR");
    EXPECT_EQ(Install(), 0U);
    EXPECT_THAT(components_.Journal(), ElementsAre("unregister OptxServer.dll", "register OptxServer.dll"));
    EXPECT_THAT(Lines().back(), L"VC Dll Name OptxMedia.dll");
    EXPECT_TRUE(IsPathExtended());
}

TEST_F(SetPermissionsRegisterDll, MissingScanEntryIsLoggedAndChangesNoResult) {
    components_.TakeScanEntryAway();
    EXPECT_EQ(Install(), 0U);
    EXPECT_THAT(Lines().back(), L"GetProcAddress(OptxScanCameras) failed: 127");
    EXPECT_TRUE(components_.IsRegistered(kServer));
}

TEST_F(SetPermissionsRegisterDll, MediaSourceThatCannotBeLoadedForTheScanIsLoggedAndChangesNoResult) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, LoadLibraryW, [](LPCWSTR) -> HMODULE {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    });
    EXPECT_EQ(Install(), 0U);
    EXPECT_THAT(Lines().back(), L"load VirtualCameraMediaSource.dll failed: 8");
    EXPECT_TRUE(components_.IsRegistered(kServer));
}

TEST_F(SetPermissionsRegisterDll, AnswerOfTheScanChangesNoResult) {
    components_.Script(kMedia, L"scan", E_FAIL);
    EXPECT_EQ(Install(), 0U);
    EXPECT_TRUE(components_.IsRegistered(kServer));
}

TEST_F(SetPermissionsRegisterDll, KeyThatIsPartOfALongerOneTakesTheFirstOccurrence) {
    session_.SetActionData(
        L"VCDLLName=OptxMedia.dll;DLLName=OptxServer.dll;Username=Installer;"
        L"InstallDir=C:\\corvi\\cameras\\");
    EXPECT_EQ(Install(), 0U);
    EXPECT_THAT(Lines(), testing::Contains(L"DLL Name OptxMedia.dll"));
    EXPECT_FALSE(components_.IsRegistered(kServer));
}

TEST_F(SetPermissionsRegisterDll, ActionDataThatCannotBeTakenApartRegistersNothingAndGivesZero) {
    session_.SetActionData(L"short");
    EXPECT_EQ(Install(), 0U);
    EXPECT_THAT(session_.LogLines(), ElementsAre(L"CustomActionData: short"));
    EXPECT_THAT(started_.All(), IsEmpty());
    EXPECT_TRUE(IsPathExtended());
}

TEST_F(SetPermissionsRegisterDll, MissingActionDataRegistersNothingAndGivesZero) {
    session_.SetActionData(L"");
    EXPECT_EQ(Install(), 0U);
    EXPECT_THAT(session_.LogLines(), ElementsAre(L"CustomActionData: "));
    EXPECT_THAT(started_.All(), IsEmpty());
    EXPECT_TRUE(IsPathExtended());
}

TEST_F(SetPermissionsRegisterDll, MissingInstallDirectoryFailsTheRegistration) {
    session_.SetActionData(L"InstallDir=C:\\corvi\\none\\;DLLName=a.dll;Username=u;VCDLLName=b.dll");
    EXPECT_EQ(Install(), 1603U);
    EXPECT_EQ(started_.Commands(), RegistrationCommands()) << "there is nothing to give permissions on";
    EXPECT_TRUE(IsPathExtended());
}

TEST_F(SetPermissionsRegisterDll, UnreadablePathLeavesTheActionAsARegistryErrorAfterTheRegistration) {
    DeleteStored(kEnvironment, L"Path");
    try {
        Install();
        FAIL() << "nothing was thrown";
    } catch (const RegKeyError& error) {
        EXPECT_EQ(error.code().value(), ERROR_FILE_NOT_FOUND);
        EXPECT_THAT(error.what(), testing::StartsWith("Unable to get registry value"));
    }
    EXPECT_TRUE(components_.IsRegistered(kServer));
}

TEST_F(SetPermissionsRegisterDll, PathThatCannotBeWrittenLeavesTheActionAsARegistryError) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegSetValueExW, [](HKEY, LPCWSTR, DWORD, DWORD, const BYTE*, DWORD) -> LSTATUS {
        return ERROR_ACCESS_DENIED;
    });
    EXPECT_THROW(Install(), RegKeyError);
    EXPECT_EQ(Path(), L"C:\\windows");
}

TEST_F(SetPermissionsRegisterDll, PathThatHoldsTheEntryStays) {
    StoreText(kEnvironment, L"Path", kPathEntry + L"D:\\tools");
    EXPECT_EQ(Install(), 0U);
    EXPECT_EQ(Path(), kPathEntry + L"D:\\tools");
}

TEST_F(UnregisterDll, Windows11WithMediaSourceScansAndUnregistersItAndLeavesTheServer) {
    RegisterBoth();
    EXPECT_EQ(Uninstall(), 0U);
    EXPECT_THAT(components_.Journal(), ElementsAre("scan 0 OptxMedia.dll", "unregister OptxMedia.dll"));
    EXPECT_THAT(started_.All(), ElementsAre(StartedCommand{Unregistering(kMedia), kDirectory}));
    EXPECT_FALSE(components_.IsRegistered(kMedia));
    EXPECT_TRUE(components_.IsRegistered(kServer));
}

TEST_F(UnregisterDll, LogsItsInputsTheVersionAndTheScan) {
    Uninstall();
    EXPECT_THAT(Lines(), ElementsAre(L"DLL Path C:\\corvi\\cameras\\", L"DLL Name OptxServer.dll",
                                     L"VC DLL Name OptxMedia.dll", L"OS Version: 10-22631-2861",
                                     L"OptxScanCameras(0): 0"));
}

TEST_F(UnregisterDll, TouchesNeitherPermissionsNorPath) {
    EXPECT_EQ(Uninstall(), 0U);
    EXPECT_EQ(started_.Commands(), RegistrationCommands());
    EXPECT_EQ(Path(), L"C:\\windows");
}

TEST_F(UnregisterDll, Windows11WithFailingMediaSourceGives1603) {
    components_.Script(kMedia, L"unregister", E_FAIL);
    EXPECT_EQ(Uninstall(), 1603U);
}

TEST_F(UnregisterDll, FailedScanIsLoggedAndChangesNoResult) {
    components_.TakeScanEntryAway();
    EXPECT_EQ(Uninstall(), 0U);
    EXPECT_THAT(Lines().back(), L"GetProcAddress(OptxScanCameras) failed: 127");
    EXPECT_THAT(components_.Journal(), ElementsAre("unregister OptxMedia.dll"));
}

TEST_F(UnregisterDll, Windows11WithoutTheMediaSourceFileUnregistersTheServer) {
    RegisterBoth();
    fs::remove(kDirectory + kMedia);
    EXPECT_EQ(Uninstall(), 0U);
    EXPECT_THAT(started_.All(), ElementsAre(StartedCommand{Unregistering(kServer), kDirectory}));
    EXPECT_FALSE(components_.IsRegistered(kServer));
}

TEST_F(UnregisterDll, EmptyMediaSourceNameUnregistersTheServer) {
    RegisterBoth();
    session_.SetActionData(
        L"InstallDir=C:\\corvi\\cameras\\;DLLName=OptxServer.dll;Username=Installer;VCDLLName=");
    EXPECT_EQ(Uninstall(), 0U);
    EXPECT_THAT(started_.All(), ElementsAre(StartedCommand{Unregistering(kServer), kDirectory}));
    EXPECT_FALSE(components_.IsRegistered(kServer));
}

TEST_F(UnregisterDll, OlderWindowsUnregistersTheServer) {
    SetWindowsVersion(10, L"19045", 3803);
    RegisterBoth();
    EXPECT_EQ(Uninstall(), 0U);
    EXPECT_THAT(components_.Journal(), ElementsAre("unregister OptxServer.dll"));
    EXPECT_TRUE(components_.IsRegistered(kMedia));
    EXPECT_THAT(Lines().back(), L"OS Version: 10-19045-3803");
}

TEST_F(UnregisterDll, OlderWindowsWithFailingServerGives1603) {
    SetWindowsVersion(10, L"19045", 3803);
    components_.Script(kServer, L"unregister", E_FAIL);
    EXPECT_EQ(Uninstall(), 1603U);
}

TEST_F(UnregisterDll, ExitCodeThatCannotBeReadGives1603) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, GetExitCodeProcess, [](HANDLE, LPDWORD) -> BOOL {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
    EXPECT_EQ(Uninstall(), 1603U);
}

TEST_F(UnregisterDll, VersionThatDoesNotMatchUnregistersTheServerOnlyAndIsNotLogged) {
    SetWindowsVersion(10, L"", 1);
    EXPECT_EQ(Uninstall(), 0U);
    EXPECT_THAT(components_.Journal(), ElementsAre("unregister OptxServer.dll"));
    EXPECT_THAT(Lines().back(), L"VC DLL Name OptxMedia.dll");
}

TEST_F(UnregisterDll, UnreadableVersionCountsAsOneThatDoesNotMatch) {
    DeleteStored(kVersionKey, L"CurrentMajorVersionNumber");
    components_.Script(kServer, L"unregister", E_FAIL);
    EXPECT_EQ(Uninstall(), 1603U);
    EXPECT_THAT(components_.Journal(), ElementsAre("unregister OptxServer.dll"));
    EXPECT_THAT(Lines().back(), L"VC DLL Name OptxMedia.dll");
}

TEST_F(UnregisterDll, ActionDataThatCannotBeTakenApartUnregistersNothingAndGivesZero) {
    session_.SetActionData(L"short");
    EXPECT_EQ(Uninstall(), 0U);
    EXPECT_THAT(session_.LogLines(), ElementsAre(L"CustomActionData: short"));
    EXPECT_THAT(started_.All(), IsEmpty());
}

}  // namespace
}  // namespace corvi::test
