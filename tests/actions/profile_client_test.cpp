#include <windows.h>

#include <aclapi.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sddl.h>
#include <shlobj.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <numeric>
#include <regex>
#include <system_error>

#include "tests/actions/suite_journal.h"
#include "tests/support/folders.h"
#include "tests/support/handle_count.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/scheduled_tasks.h"
#include "tests/support/scratch_key.h"
#include "tests/support/tool_recorder.h"
#include "tests/tasks/scripted_scheduler.h"

namespace corvi::test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;
using Lines = std::vector<std::wstring>;

constexpr wchar_t kFolder[] = L"C:\\Program Files\\TAVO\\Performance Profile Client";
constexpr wchar_t kFolderX86[] = L"C:\\Program Files (x86)\\TAVO\\Performance Profile Client";
constexpr wchar_t kDataFolder[] = L"C:\\ProgramData\\TAVO\\PPC";
constexpr wchar_t kServices[] = L"SYSTEM\\CurrentControlSet\\Services\\";
constexpr wchar_t kActionData[] = L"TaskName=StartTUEP;CommandToLaunch=C:\\x\\TUEPDU.exe;Username=";

/// What stopping each of the two clients asks for.
const Lines kStopPpc = {L"kill TAVOPPCM.exe", L"kill TAVOPPCDU.exe", L"kill TAVOPPCUF.exe",
                        L"open PPCL 0x2c",    L"open PPCL 0x10000",  L"delete",
                        L"kill TAVOPPCUF.exe"};
const Lines kStopTuep = {L"kill TUEPMaster.exe",   L"kill TUEPUF.exe",           L"kill TUEPDU.exe",
                         L"kill TUEPAC.exe",       L"kill TUEPUC.exe",           L"open TUEPLauncher 0x2c",
                         L"kill TUEPLauncher.exe", L"open TUEPLauncher 0x10000", L"delete"};
const Lines kStartTuepService = {L"open TUEPLauncher 0xf01ff", L"start"};

const Lines kDriversUpTo24 = {L"TAVOKyrnMasterDriver",    L"TAVOKyrnMasterDriverV18",
                              L"TAVOKyrnMasterDriverV19", L"TAVOKyrnMasterDriverV20",
                              L"TAVOKyrnMasterDriverV22", L"TAVOKyrnMasterDriverV24"};
constexpr wchar_t kDriver26[] = L"TAVOKyrnMasterDriverV26";

Lines Joined(const std::vector<Lines>& parts) {
    return std::accumulate(parts.begin(), parts.end(), Lines(), [](Lines all, const Lines& part) {
        all.insert(all.end(), part.begin(), part.end());
        return all;
    });
}

Lines FilesOf(const std::wstring& folder) {
    return {L"file " + folder + L"\\TAVOPPCUF.exe", L"file " + folder + L"\\PPCSL.dll"};
}

Lines RemovalOf(const std::wstring& driver) {
    return {L"open " + driver + L" 0xf003f", L"control 1", L"delete"};
}

void WriteFile(const fs::path& path) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << "x";
}

/// A driver service's key with its image path; the service manager does not know it.
class DriverService {
public:
    DriverService(const std::wstring& name, const std::wstring& imagePath) : key_(kServices + name) {
        key_.SetValue(L"", L"ImagePath", REG_EXPAND_SZ, imagePath.c_str(),
                      (imagePath.size() + 1) * sizeof(wchar_t));
    }

private:
    ScratchKey key_;
};

class ProfileClient : public testing::Test {
public:
    ~ProfileClient() override {
        // A program that ran there may still be ending.
        RemoveFolderAtEnd(L"C:\\Program Files\\TAVO");
        RemoveFolderAtEnd(L"C:\\Program Files (x86)\\TAVO");
        RemoveFolderAtEnd(L"C:\\ProgramData\\TAVO");
    }

protected:
    UINT Call(const char* action) { return library.Call(action, session.Handle()); }

    UINT PostInstall(const std::wstring& actionData = kActionData) {
        session.SetActionData(actionData);
        return Call("PostInstallPPC");
    }

    /// The value "GUID" as the suite reads it.
    std::wstring Guid() const {
        wchar_t text[100] = {};
        DWORD size = sizeof(text);
        RegGetValueW(HKEY_LOCAL_MACHINE, tuep.Path().c_str(), L"GUID", RRF_RT_REG_SZ, nullptr, text, &size);
        return text;
    }

    static DWORD Number(const std::wstring& key, const std::wstring& name) {
        DWORD number = 0xFFFFFFFF;
        DWORD size = sizeof(number);
        RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str(), RRF_RT_REG_DWORD, nullptr, &number,
                     &size);
        return number;
    }

    /// Gives the platform's special folders another path; an empty one cannot be named.
    void NameFolders(std::function<std::wstring(int)> name) {
        CORVI_HOOK(journal.Hooks(), SHGetFolderLocation,
                   [this, name](HWND window, int csidl, HANDLE token, DWORD flags,
                                PIDLIST_ABSOLUTE* list) -> HRESULT {
                       folder = name(csidl);
                       return folder.empty() ? E_FAIL
                                             : CORVI_ORIGINAL(journal.Hooks(), SHGetFolderLocation)(
                                                   window, csidl, token, flags, list);
                   });
        CORVI_HOOK(journal.Hooks(), SHGetPathFromIDListW, [this](LPCITEMIDLIST, LPWSTR path) -> BOOL {
            path[folder.copy(path, MAX_PATH - 1)] = L'\0';
            return TRUE;
        });
    }

    void ThrowFromTheServiceManager() {
        CORVI_HOOK(journal.Hooks(), OpenSCManagerW,
                   [](LPCWSTR, LPCWSTR, DWORD) -> SC_HANDLE { throw std::runtime_error("injected"); });
    }

    std::wstring folder;
    ScratchKey tavo{L"SOFTWARE\\TAVO"};
    ScratchKey tuep{L"SOFTWARE\\TUEP"};
    ScratchKey driver{L"SYSTEM\\CurrentControlSet\\Services\\tavofendr"};
    ScratchKey performance{L"SYSTEM\\CurrentControlSet\\Services\\PerfOS\\Performance"};
    Library library;
    InstallerSession session;
    SuiteJournal journal{library.Module()};
};

// PreInstallPPC

using PreInstallPpc = ProfileClient;

TEST_F(PreInstallPpc, StopsBothClientsInOrder) {
    EXPECT_EQ(Call("PreInstallPPC"), 0U);
    EXPECT_THAT(journal.Entries(), ElementsAreArray(Joined({kStopPpc, FilesOf(kFolder), kStopTuep})));
    EXPECT_THAT(session.LogLines(), IsEmpty());
}

TEST_F(PreInstallPpc, ImagesAreNamedToTheKillToolWithoutASwitchToForceTheirEnd) {
    std::wstring commandLine;
    std::wstring directory;
    CORVI_HOOK(journal.Hooks(), CreateProcessW,
               [&](LPCWSTR, LPWSTR command, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID,
                   LPCWSTR workingDirectory, LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL {
                   commandLine = command;
                   directory = workingDirectory;
                   return FALSE;
               });
    Call("PreInstallPPC");
    EXPECT_EQ(commandLine, L"\"" + directory + L"\\TaskKill.exe\" /IM TUEPLauncher.exe");
}

TEST_F(PreInstallPpc, DeletesTheFolderWithEverythingInIt) {
    WriteFile(kFolder + L"\\sub\\file.txt"s);
    WriteFile(kFolderX86 + L"\\file.txt"s);
    EXPECT_EQ(Call("PreInstallPPC"), 0U);
    EXPECT_FALSE(fs::exists(kFolder));
    EXPECT_TRUE(fs::exists(kFolderX86)) << "only the uninstall removes the 32-bit folder";
}

TEST_F(PreInstallPpc, StopsTheOlderClientBeforeItsFolderIsDeleted) {
    WriteFile(kFolder + L"\\file.txt"s);
    bool isThere = false;
    CORVI_HOOK(journal.Hooks(), OpenServiceW, [&](SC_HANDLE, LPCWSTR name, DWORD) -> SC_HANDLE {
        isThere = isThere || (name == L"PPCL"s && fs::exists(kFolder));
        return nullptr;
    });
    EXPECT_EQ(Call("PreInstallPPC"), 0U);
    EXPECT_TRUE(isThere);
}

TEST_F(PreInstallPpc, DeletesTheFolderBeforeTheFilesThatMayHaveComeBack) {
    WriteFile(kFolder + L"\\file.txt"s);
    std::vector<bool> folderIsThere;
    CORVI_HOOK(journal.Hooks(), DeleteFileW, [&](LPCWSTR path) -> BOOL {
        if (std::wstring(path).ends_with(L"\\PPCSL.dll")) {
            folderIsThere.push_back(fs::exists(kFolder));
        }
        return CORVI_ORIGINAL(journal.Hooks(), DeleteFileW)(path);
    });
    EXPECT_EQ(Call("PreInstallPPC"), 0U);
    EXPECT_THAT(folderIsThere, ElementsAre(false));
}

TEST_F(PreInstallPpc, DeletesAFolderThatComesBackASecondTime) {
    bool goneBeforeTuep = false;
    CORVI_HOOK(journal.Hooks(), DeleteFileW, [&](LPCWSTR path) -> BOOL {
        if (std::wstring(path) == kFolder + L"\\PPCSL.dll"s) {
            fs::create_directories(kFolder);
        }
        return CORVI_ORIGINAL(journal.Hooks(), DeleteFileW)(path);
    });
    CORVI_HOOK(journal.Hooks(), OpenServiceW, [&](SC_HANDLE, LPCWSTR name, DWORD) -> SC_HANDLE {
        goneBeforeTuep = name == L"TUEPLauncher"s && !fs::exists(kFolder);
        return nullptr;
    });
    EXPECT_EQ(Call("PreInstallPPC"), 0U);
    EXPECT_TRUE(goneBeforeTuep);
}

TEST_F(PreInstallPpc, DeletesAFolderThatComesBackUntilTuepIsStopped) {
    CORVI_HOOK(journal.Hooks(), OpenServiceW, [&](SC_HANDLE, LPCWSTR, DWORD) -> SC_HANDLE {
        fs::create_directories(kFolder);
        return nullptr;
    });
    EXPECT_EQ(Call("PreInstallPPC"), 0U);
    EXPECT_FALSE(fs::exists(kFolder));
}

TEST_F(PreInstallPpc, RemovesDriverServicesOfTheFolderInAnyLetterCaseInTheListsOrder) {
    std::vector<std::unique_ptr<DriverService>> services;
    Lines lines;
    Lines removals;
    for (const std::wstring& name : kDriversUpTo24) {
        services.push_back(std::make_unique<DriverService>(
            name, L"\\??\\C:\\Program Files\\TAVO\\PERFORMANCE Profile Client\\" + name + L".sys"));
        std::wstring lowered =
            L"\\??\\c:\\program files\\tavo\\performance profile client\\" + name + L".sys";
        std::transform(lowered.begin(), lowered.end(), lowered.begin(), towlower);
        lines.push_back(L"UnInstallPPC() Service location - " + lowered);
        removals = Joined({removals, RemovalOf(name)});
    }
    EXPECT_EQ(Call("PreInstallPPC"), 0U);
    EXPECT_THAT(session.LogLines(), ElementsAreArray(lines));
    EXPECT_THAT(journal.Entries(),
                ElementsAreArray(Joined({kStopPpc, FilesOf(kFolder), kStopTuep, removals})));
}

TEST_F(PreInstallPpc, KeepsADriverServiceOfTheSystemDriversFolder) {
    const DriverService elsewhere(kDriversUpTo24[0], L"system32\\drivers\\TAVOKyrnMasterDriver.sys");
    const DriverService empty(kDriversUpTo24[1], L"");
    EXPECT_EQ(Call("PreInstallPPC"), 0U);
    EXPECT_THAT(session.LogLines(), IsEmpty());
    EXPECT_THAT(journal.Entries(), Not(Contains(StartsWith(L"open TAVOKyrn"))));
}

TEST_F(PreInstallPpc, StopsBeforeTheLastDriverOfTheUninstall) {
    const DriverService service(kDriver26, L"C:\\Performance Profile Client\\x.sys");
    EXPECT_EQ(Call("PreInstallPPC"), 0U);
    EXPECT_THAT(session.LogLines(), IsEmpty());
}

TEST_F(PreInstallPpc, SwallowsAnErrorOnTheWay) {
    ThrowFromTheServiceManager();
    EXPECT_EQ(Call("PreInstallPPC"), 0U);
    EXPECT_THAT(journal.Entries(), ElementsAre(kStopPpc[0], kStopPpc[1], kStopPpc[2]));
}

TEST_F(PreInstallPpc, AFilePathThatDoesNotFitItsBufferIsLeftAlone) {
    for (const size_t length : {size_t{210}, size_t{211}}) {
        const std::wstring deep = L"C:\\" + std::wstring(length, L'd');
        NameFolders([&](int) { return deep; });
        EXPECT_EQ(Call("PreInstallPPC"), 0U);
        const std::wstring path = deep + L"\\TAVO\\Performance Profile Client\\PPCSL.dll";
        // Cut, the other file's path would name a third one.
        if (path.size() == 255) {
            EXPECT_THAT(journal.EntriesOf({L"file"}), ElementsAre(L"file " + path));
        } else {
            EXPECT_EQ(path.size(), 256U);
            EXPECT_EQ(journal.EntriesOf({L"file"}).size(), 1U) << "that of the round before";
        }
    }
}

/// What lies where a path leads that is built on no folder at all.
class OnTheDrivesRoot {
public:
    OnTheDrivesRoot() {
        WriteFile(L"C:\\TAVO\\Performance Profile Client\\TAVOPPCUF.exe");
        WriteFile(L"C:\\TAVO\\Performance Profile Client\\PPCSL.dll");
    }
    ~OnTheDrivesRoot() { RemoveFolderAtEnd(L"C:\\TAVO"); }
    OnTheDrivesRoot(const OnTheDrivesRoot&) = delete;
    OnTheDrivesRoot& operator=(const OnTheDrivesRoot&) = delete;

    bool IsComplete() const {
        return fs::exists(L"C:\\TAVO\\Performance Profile Client\\TAVOPPCUF.exe") &&
               fs::exists(L"C:\\TAVO\\Performance Profile Client\\PPCSL.dll");
    }
};

TEST_F(PreInstallPpc, WithoutTheProgramFilesFolderDeletesNothingAndGoesOn) {
    const OnTheDrivesRoot bystander;
    WriteFile(kFolder + L"\\file.txt"s);
    const DriverService driverService(kDriversUpTo24[0], L"C:\\Performance Profile Client\\x.sys");
    NameFolders([](int csidl) { return csidl == CSIDL_PROGRAM_FILES ? L"" : L"C:\\windows"; });
    EXPECT_EQ(Call("PreInstallPPC"), 0U);
    EXPECT_TRUE(bystander.IsComplete());
    EXPECT_TRUE(fs::exists(kFolder + L"\\file.txt"s));
    EXPECT_THAT(journal.Entries(),
                ElementsAreArray(Joined({kStopPpc, kStopTuep, RemovalOf(kDriversUpTo24[0])})));
}

// PostInstallPPC

class PostInstallPpc : public ProfileClient {
protected:
    ToolRecorder tools;
};

TEST_F(PostInstallPpc, LogsWhatItWasGivenAndTheStateOfTheHandover) {
    EXPECT_EQ(PostInstall(L"TaskName=T 1;CommandToLaunch=C:\\a b.exe;Username=Some One"), 0U);
    EXPECT_THAT(session.LogLines(),
                ElementsAre(L"CustomActionData: TaskName=T 1;CommandToLaunch=C:\\a b.exe;Username=Some One",
                            L"Task Name T 1", L"Command to launch C:\\a b.exe", L"Username Some One",
                            L"AfterInstallPPC::Registry status 2"));
}

TEST_F(PostInstallPpc, RegistersTheTaskThatItsDataOrders) {
    const ScriptedScheduler scheduler(library.Module());
    EXPECT_EQ(PostInstall(L"TaskName=T 1;CommandToLaunch=C:\\a b.exe;Username=Some One"), 0U);
    EXPECT_EQ(scheduler.taskPath, L"T 1");
    EXPECT_THAT(scheduler.xml, HasSubstr(L"<Command>C:\\a b.exe</Command>"));
    EXPECT_EQ(scheduler.user, L"Some One");
}

TEST_F(PostInstallPpc, ClosesTheEventSourceThatItFound) {
    HANDLE source = nullptr;
    std::vector<HANDLE> closed;
    CORVI_HOOK(journal.Hooks(), RegisterEventSourceW, [&](LPCWSTR server, LPCWSTR name) -> HANDLE {
        source = CORVI_ORIGINAL(journal.Hooks(), RegisterEventSourceW)(server, name);
        return source;
    });
    CORVI_HOOK(journal.Hooks(), DeregisterEventSource, [&](HANDLE handle) -> BOOL {
        closed.push_back(handle);
        return CORVI_ORIGINAL(journal.Hooks(), DeregisterEventSource)(handle);
    });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(closed, ElementsAre(source));
}

TEST_F(PostInstallPpc, LogsAnotherStateOfTheHandoverAsADecimalNumber) {
    CORVI_HOOK(journal.Hooks(), RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   return path == L"SOFTWARE\\TAVO\\TAVOAnalytics"s
                              ? ERROR_KEY_DELETED
                              : CORVI_ORIGINAL(journal.Hooks(), RegOpenKeyExW)(root, path, options, access,
                                                                               key);
               });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(session.LogLines().back(), L"AfterInstallPPC::Registry status 1018");
}

TEST_F(PostInstallPpc, CreatesAndStartsTheServiceRegistersTheTaskAndRunsIt) {
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(journal.Entries(),
                ElementsAreArray(Joined({{L"create TUEPLauncher"},
                                         kStartTuepService,
                                         {L"task", L"shell schtasks| /run /TN StartTUEP"}})));
}

TEST_F(PostInstallPpc, CountersGuidAndAccessComeBeforeTheServiceAndTheTaskBeforeTheHandover) {
    fs::create_directories(kDataFolder);
    tavo.SetText(L"TAVOAnalytics", L"TUEPClient", L"LSX");
    CORVI_HOOK(
        journal.Hooks(), RegSetValueExW,
        [&](HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) -> LSTATUS {
            journal.Add(L"set "s + name);
            return CORVI_ORIGINAL(journal.Hooks(), RegSetValueExW)(key, name, reserved, type, data, size);
        });
    CORVI_HOOK(journal.Hooks(), RegDeleteValueW, [&](HKEY key, LPCWSTR name) -> LSTATUS {
        journal.Add(L"forget "s + name);
        return CORVI_ORIGINAL(journal.Hooks(), RegDeleteValueW)(key, name);
    });
    CORVI_HOOK(journal.Hooks(), SetSecurityInfo,
               [&](HANDLE, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID, PSID, PACL, PACL) -> DWORD {
                   journal.Add(L"access");
                   return ERROR_SUCCESS;
               });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(journal.Entries(),
                ElementsAreArray(Joined(
                    {{L"set Disable Performance Counters", L"set GUID", L"access", L"create TUEPLauncher"},
                     kStartTuepService,
                     {L"task", L"shell schtasks| /run /TN StartTUEP", L"set LSX_TUEPStatus",
                      L"set LSX_TUEPStatus", L"forget TUEPClient"}})));
}

TEST_F(PostInstallPpc, WithoutAnEventSourceStopsTheInstallBeforeAnythingIsDone) {
    std::wstring source;
    CORVI_HOOK(journal.Hooks(), RegisterEventSourceW, [&](LPCWSTR machine, LPCWSTR name) -> HANDLE {
        source = name;
        EXPECT_EQ(machine, nullptr);
        return nullptr;
    });
    EXPECT_EQ(PostInstall(), 1603U);
    EXPECT_EQ(source, L"Application");
    EXPECT_THAT(journal.Entries(), IsEmpty());
    EXPECT_EQ(Guid(), L"");
    EXPECT_EQ(session.LogLines().size(), 4U);
}

TEST_F(PostInstallPpc, ActionDataThatIsTooShortDoesNothing) {
    EXPECT_EQ(PostInstall(L"x"), 0U);
    EXPECT_THAT(session.LogLines(), ElementsAre(L"CustomActionData: x"));
    EXPECT_THAT(journal.Entries(), IsEmpty());
    EXPECT_EQ(Guid(), L"");
}

TEST_F(PostInstallPpc, SwallowsAnErrorOnTheWay) {
    ThrowFromTheServiceManager();
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(journal.Entries(), IsEmpty());
}

TEST_F(PostInstallPpc, TurnsTheCountersOnByATextAndNotANumber) {
    EXPECT_EQ(PostInstall(), 0U);
    DWORD type = 0;
    EXPECT_THAT(performance.Bytes(L"Disable Performance Counters", &type), ElementsAre('0', 0, 0, 0));
    EXPECT_EQ(type, static_cast<DWORD>(REG_SZ));
}

TEST_F(PostInstallPpc, GivesTheMachineAGuidWithoutBraces) {
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_TRUE(std::regex_match(
        Guid(), std::wregex(L"[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}")));
}

TEST_F(PostInstallPpc, RunTwiceKeepsTheFirstGuid) {
    EXPECT_EQ(PostInstall(), 0U);
    const std::wstring first = Guid();
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(Guid(), first);
}

TEST_F(PostInstallPpc, KeepsAGuidWhateverItHolds) {
    tuep.SetText(L"", L"GUID", L"");
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(Guid(), L"");
}

TEST_F(PostInstallPpc, OpensTheGuidsKeyForReadingOnlyWhenAGuidIsThere) {
    tuep.SetText(L"", L"GUID", L"x");
    std::vector<REGSAM> masks;
    CORVI_HOOK(journal.Hooks(), RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   if (_wcsicmp(path, L"Software\\TUEP") == 0) {
                       EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
                       masks.push_back(access);
                   }
                   return CORVI_ORIGINAL(journal.Hooks(), RegOpenKeyExW)(root, path, options, access, key);
               });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(masks, ElementsAre(REGSAM{KEY_READ}));
}

TEST_F(PostInstallPpc, AGuidThatCannotBeMadeIsNotWrittenAndTheRestFollows) {
    CORVI_HOOK(journal.Hooks(), CoCreateGuid, [](GUID*) -> HRESULT { return E_FAIL; });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(tuep.Bytes(L"GUID"), IsEmpty());
    EXPECT_THAT(journal.Entries(), Contains(L"task"));

    CORVI_HOOK(journal.Hooks(), CoCreateGuid, [](GUID* guid) -> HRESULT {
        *guid = {};
        return S_OK;
    });
    CORVI_HOOK(journal.Hooks(), StringFromGUID2, [](REFGUID, LPOLESTR, int) -> int { return 0; });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(tuep.Bytes(L"GUID"), IsEmpty());
}

TEST_F(PostInstallPpc, ReplacesAGuidThatIsTooLongToBeRead) {
    tuep.SetText(L"", L"GUID", std::wstring(260, L'x'));
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(Guid().size(), 36U);
    tuep.SetText(L"", L"GUID", std::wstring(259, L'x'));
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(tuep.Bytes(L"GUID").size(), 520U);
}

TEST_F(PostInstallPpc, WithoutATuepClientWritesNoStatusAndStillDeletesTheAbsentValue) {
    tavo.Add(L"TAVOAnalytics");
    Lines deleted;
    CORVI_HOOK(journal.Hooks(), RegDeleteValueW, [&](HKEY, LPCWSTR name) -> LSTATUS {
        deleted.emplace_back(name);
        return ERROR_FILE_NOT_FOUND;
    });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(deleted, ElementsAre(L"TUEPClient"));
    EXPECT_EQ(session.LogLines().back(), L"AfterInstallPPC::Registry status 0");
    EXPECT_THAT(tuep.Bytes(L"LSX_TUEPStatus"), IsEmpty());
}

TEST_F(PostInstallPpc, MarksTheClientAndTheDriversCopyForLsx) {
    tavo.SetText(L"TAVOAnalytics", L"TUEPClient", L"LSX");
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(Number(tuep.Path(), L"LSX_TUEPStatus"), 1U);
    EXPECT_EQ(Number(driver.Path() + L"\\State\\TUEP", L"LSX_TUEPStatus"), 1U);
    EXPECT_EQ(session.LogLines().back(), L"AfterInstallPPC::Client Name LSX");
    EXPECT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TAVO\\TAVOAnalytics", L"TUEPClient", RRF_RT_ANY,
                           nullptr, nullptr, nullptr),
              ERROR_FILE_NOT_FOUND);
}

TEST_F(PostInstallPpc, AClientsNameCountsUpTo520BytesAndGoesHoweverLongItIs) {
    const std::wstring longest(259, L'c');
    tavo.SetText(L"TAVOAnalytics", L"TUEPClient", longest);
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(Number(tuep.Path(), longest + L"_TUEPStatus"), 1U);

    const std::wstring tooLong(260, L'd');
    tavo.SetText(L"TAVOAnalytics", L"TUEPClient", tooLong);
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(Number(tuep.Path(), tooLong + L"_TUEPStatus"), 0xFFFFFFFF);
    EXPECT_EQ(session.LogLines().back(), L"AfterInstallPPC::Registry status 0");
    EXPECT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TAVO\\TAVOAnalytics", L"TUEPClient", RRF_RT_ANY,
                           nullptr, nullptr, nullptr),
              ERROR_FILE_NOT_FOUND);
}

TEST_F(PostInstallPpc, MarksAnyOtherClientInTheRegisterOnly) {
    tavo.SetText(L"TAVOAnalytics", L"TUEPClient", L"Other");
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(Number(tuep.Path(), L"Other_TUEPStatus"), 1U);
    EXPECT_FALSE(driver.Exists(L"State\\TUEP"));
}

TEST_F(PostInstallPpc, SkipsADataFolderThatDoesNotExist) {
    bool changed = false;
    CORVI_HOOK(journal.Hooks(), SetSecurityInfo,
               [&](HANDLE, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID, PSID, PACL, PACL) -> DWORD {
                   changed = true;
                   return ERROR_SUCCESS;
               });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_FALSE(changed);
    EXPECT_FALSE(fs::exists(kDataFolder));
}

/// An access list's entries as "TYPE FLAGS MASK SID".
std::vector<std::string> EntriesOf(PACL list) {
    std::vector<std::string> entries;
    for (DWORD index = 0; index < list->AceCount; ++index) {
        void* entry = nullptr;
        GetAce(list, index, &entry);
        auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
        char* sid = nullptr;
        ConvertSidToStringSidA(&allowed->SidStart, &sid);
        entries.push_back(std::to_string(allowed->Header.AceType) + " " +
                          std::to_string(allowed->Header.AceFlags) + " " + std::to_string(allowed->Mask) +
                          " " + sid);
        LocalFree(sid);
    }
    return entries;
}

class PostInstallPpcAccess : public PostInstallPpc {
protected:
    PostInstallPpcAccess() {
        fs::create_directories(kDataFolder);
        CORVI_HOOK(journal.Hooks(), SetSecurityInfo,
                   [this](HANDLE, SE_OBJECT_TYPE type, SECURITY_INFORMATION parts, PSID owner, PSID group,
                          PACL list, PACL audit) -> DWORD {
                       EXPECT_EQ(type, SE_FILE_OBJECT);
                       EXPECT_EQ(parts, static_cast<DWORD>(DACL_SECURITY_INFORMATION));
                       EXPECT_TRUE(owner == nullptr && group == nullptr && audit == nullptr);
                       written.push_back(EntriesOf(list));
                       return ERROR_SUCCESS;
                   });
    }

    std::vector<std::vector<std::string>> written;
};

TEST_F(PostInstallPpcAccess, AddsFullInheritedControlForUsersAndKeepsTheEntriesThatWereThere) {
    std::vector<std::string> before;
    CORVI_HOOK(journal.Hooks(), GetSecurityInfo,
               [&](HANDLE object, SE_OBJECT_TYPE type, SECURITY_INFORMATION parts, PSID* owner, PSID* group,
                   PACL* list, PACL* audit, PSECURITY_DESCRIPTOR* descriptor) -> DWORD {
                   const DWORD result = CORVI_ORIGINAL(journal.Hooks(), GetSecurityInfo)(
                       object, type, parts, owner, group, list, audit, descriptor);
                   before = EntriesOf(*list);
                   return result;
               });
    EXPECT_EQ(PostInstall(), 0U);
    ASSERT_EQ(written.size(), 1U);
    EXPECT_FALSE(before.empty());
    EXPECT_THAT(written[0], IsSupersetOf(before));
    EXPECT_EQ(written[0].size(), before.size() + 1);
    // Allowed, inherited by files and folders, everything.
    EXPECT_THAT(written[0], Contains("0 3 " + std::to_string(GENERIC_ALL) + " S-1-5-32-545"));
}

TEST_F(PostInstallPpcAccess, AsksForOneEntryThatGrantsAGroupGivenBySid) {
    EXPLICIT_ACCESSW entry = {};
    ULONG count = 0;
    CORVI_HOOK(journal.Hooks(), SetEntriesInAclW,
               [&](ULONG entryCount, PEXPLICIT_ACCESSW entries, PACL oldList, PACL* newList) -> DWORD {
                   count = entryCount;
                   entry = *entries;
                   return CORVI_ORIGINAL(journal.Hooks(), SetEntriesInAclW)(entryCount, entries, oldList,
                                                                            newList);
               });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(entry.grfAccessPermissions, static_cast<DWORD>(GENERIC_ALL));
    EXPECT_EQ(entry.grfAccessMode, GRANT_ACCESS);
    EXPECT_EQ(entry.grfInheritance, static_cast<DWORD>(SUB_CONTAINERS_AND_OBJECTS_INHERIT));
    EXPECT_EQ(entry.Trustee.TrusteeForm, TRUSTEE_IS_SID);
    EXPECT_EQ(entry.Trustee.TrusteeType, TRUSTEE_IS_GROUP);
}

TEST_F(PostInstallPpcAccess, OpensTheFolderUnsharedAndForItsAccessListOnly) {
    DWORD access = 0;
    DWORD sharing = 1;
    DWORD disposition = 0;
    DWORD flags = 0;
    CORVI_HOOK(journal.Hooks(), CreateFileW,
               [&](LPCWSTR path, DWORD wanted, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD how,
                   DWORD flag, HANDLE model) -> HANDLE {
                   if (fs::path(path) == kDataFolder) {
                       access = wanted;
                       sharing = share;
                       disposition = how;
                       flags = flag;
                   }
                   return CORVI_ORIGINAL(journal.Hooks(), CreateFileW)(path, wanted, share, security, how,
                                                                       flag, model);
               });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(access, static_cast<DWORD>(READ_CONTROL | WRITE_DAC));
    EXPECT_EQ(sharing, 0U);
    EXPECT_EQ(disposition, static_cast<DWORD>(OPEN_EXISTING));
    EXPECT_EQ(flags, static_cast<DWORD>(FILE_FLAG_BACKUP_SEMANTICS));
    EXPECT_EQ(written.size(), 1U);
}

TEST_F(PostInstallPpcAccess, GrantsAFolderWhoseNameIsWrittenInOtherLetters) {
    fs::remove_all(L"C:\\ProgramData\\TAVO");
    fs::create_directories(L"C:\\ProgramData\\Tavo\\ppc");
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(written.size(), 1U);
}

TEST_F(PostInstallPpcAccess, LeavesAPlantedLinkAlone) {
    CORVI_HOOK(journal.Hooks(), GetFileInformationByHandle,
               [](HANDLE, LPBY_HANDLE_FILE_INFORMATION information) -> BOOL {
                   *information = {};
                   information->dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
                   return TRUE;
               });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(written, IsEmpty());
}

TEST_F(PostInstallPpcAccess, GrantsAFolderWhoseReparsePointIsNoLink) {
    DWORD tag = 0;
    CORVI_HOOK(journal.Hooks(), GetFileInformationByHandle,
               [](HANDLE, LPBY_HANDLE_FILE_INFORMATION information) -> BOOL {
                   *information = {};
                   information->dwFileAttributes = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
                   return TRUE;
               });
    CORVI_HOOK(journal.Hooks(), GetFileInformationByHandleEx,
               [&](HANDLE object, FILE_INFO_BY_HANDLE_CLASS kind, LPVOID data, DWORD size) -> BOOL {
                   if (kind != FileAttributeTagInfo) {
                       return CORVI_ORIGINAL(journal.Hooks(), GetFileInformationByHandleEx)(object, kind,
                                                                                            data, size);
                   }
                   *static_cast<FILE_ATTRIBUTE_TAG_INFO*>(data) = {FILE_ATTRIBUTE_REPARSE_POINT, tag};
                   return TRUE;
               });
    tag = IO_REPARSE_TAG_MOUNT_POINT;
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(written, IsEmpty());
    // A folder of a container's layer.
    tag = 0x90001018;
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_EQ(written.size(), 1U);
}

TEST_F(PostInstallPpcAccess, LeavesTheTargetOfAPlantedLinkAlone) {
    CORVI_HOOK(journal.Hooks(), GetFinalPathNameByHandleW,
               [&](HANDLE object, LPWSTR path, DWORD size, DWORD flags) -> DWORD {
                   CORVI_ORIGINAL(journal.Hooks(), GetFinalPathNameByHandleW)(object, path, size, flags);
                   // The PPC that was opened is a link to another folder.
                   const std::wstring real = path;
                   const std::wstring shown = real.ends_with(L"\\TAVO\\PPC") ? L"\\\\?\\C:\\windows" : real;
                   path[shown.copy(path, size - 1)] = L'\0';
                   return static_cast<DWORD>(shown.size());
               });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(written, IsEmpty());
}

TEST_F(PostInstallPpcAccess, LeavesAFolderBehindALinkAboveItAlone) {
    CORVI_HOOK(journal.Hooks(), GetFinalPathNameByHandleW,
               [&](HANDLE object, LPWSTR path, DWORD size, DWORD flags) -> DWORD {
                   CORVI_ORIGINAL(journal.Hooks(), GetFinalPathNameByHandleW)(object, path, size, flags);
                   // TAVO leads to another folder that has a PPC of its own.
                   const std::wstring real = path;
                   const size_t found = real.find(L"\\TAVO\\");
                   const std::wstring shown =
                       found == std::wstring::npos ? real : L"\\\\?\\C:\\Program Files" + real.substr(found);
                   path[shown.copy(path, size - 1)] = L'\0';
                   return static_cast<DWORD>(shown.size());
               });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(written, IsEmpty());
}

TEST_F(PostInstallPpcAccess, LeavesAFolderAloneWhenThePlatformDoesNotTellWhereItsBaseLies) {
    CORVI_HOOK(journal.Hooks(), GetFinalPathNameByHandleW,
               [&](HANDLE object, LPWSTR path, DWORD size, DWORD flags) -> DWORD {
                   CORVI_ORIGINAL(journal.Hooks(), GetFinalPathNameByHandleW)(object, path, size, flags);
                   const std::wstring shown =
                       std::wstring(path).ends_with(L"\\TAVO\\PPC") ? L"\\TAVO\\PPC" : L"";
                   path[shown.copy(path, size - 1)] = L'\0';
                   return static_cast<DWORD>(shown.size());
               });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(written, IsEmpty());
}

TEST_F(PostInstallPpcAccess, LeavesAFileOfThatNameAlone) {
    fs::remove(kDataFolder);
    WriteFile(kDataFolder);
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(written, IsEmpty());
}

TEST_F(PostInstallPpcAccess, WritesNoListWhenTheOldOneCannotBeRead) {
    CORVI_HOOK(journal.Hooks(), GetSecurityInfo,
               [](HANDLE, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID*, PSID*, PACL*, PACL*,
                  PSECURITY_DESCRIPTOR*) -> DWORD { return ERROR_ACCESS_DENIED; });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(written, IsEmpty());
    EXPECT_THAT(journal.Entries(), Contains(L"create TUEPLauncher"));
}

TEST_F(PostInstallPpcAccess, AFolderWithoutAListIsOpenToAllAndGetsNone) {
    CORVI_HOOK(journal.Hooks(), GetSecurityInfo,
               [](HANDLE, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID*, PSID*, PACL* list, PACL*,
                  PSECURITY_DESCRIPTOR* descriptor) -> DWORD {
                   *list = nullptr;
                   *descriptor = LocalAlloc(LMEM_FIXED, 16);
                   return ERROR_SUCCESS;
               });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(written, IsEmpty());
    EXPECT_THAT(journal.Entries(), Contains(L"create TUEPLauncher"));
}

TEST_F(PostInstallPpcAccess, CommonApplicationDataMayBeADrivesRoot) {
    fs::create_directories(L"C:\\TAVO\\PPC");
    NameFolders([](int) { return L"C:\\"; });
    EXPECT_EQ(PostInstall(), 0U);
    RemoveFolder(L"C:\\TAVO");
    EXPECT_EQ(written.size(), 1U);
}

TEST_F(PostInstallPpcAccess, WithoutCommonApplicationDataNoFolderIsOpened) {
    NameFolders([](int) { return L""; });
    Lines opened;
    CORVI_HOOK(journal.Hooks(), CreateFileW,
               [&](LPCWSTR path, DWORD wanted, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD how,
                   DWORD flag, HANDLE model) -> HANDLE {
                   opened.emplace_back(path);
                   return CORVI_ORIGINAL(journal.Hooks(), CreateFileW)(path, wanted, share, security, how,
                                                                       flag, model);
               });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(opened, IsEmpty());
    EXPECT_THAT(written, IsEmpty());
    EXPECT_THAT(journal.Entries(), Contains(L"create TUEPLauncher"));
}

TEST_F(PostInstallPpcAccess, WritesNoListWhenTheNewOneCannotBeMade) {
    CORVI_HOOK(journal.Hooks(), SetEntriesInAclW,
               [](ULONG, PEXPLICIT_ACCESSW, PACL, PACL*) -> DWORD { return ERROR_NOT_ENOUGH_MEMORY; });
    EXPECT_EQ(PostInstall(), 0U);
    EXPECT_THAT(written, IsEmpty());
}

TEST_F(PostInstallPpcAccess, LeaksNothing) {
    PostInstall();
    const auto before = OpenHandleCount();
    for (int round = 0; round < 50; ++round) {
        PostInstall();
    }
    EXPECT_EQ(OpenHandleCount(), before);
}

// The whole action on the machine itself, but for the tools.
TEST(PostInstallPpcOnTheMachine, MakesTheServiceAndTheTask) {
    ToolRecorder tools;
    tools.StandInForSystemTool(L"schtasks.exe");
    const ScratchKey tuep(L"SOFTWARE\\TUEP");
    const Library library;
    InstallerSession session;
    session.SetActionData(L"TaskName=CorviPpcTask;CommandToLaunch=C:\\corvi\\recorder.exe;Username=");
    EXPECT_EQ(library.Call("PostInstallPPC", session.Handle()), 0U);

    const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    const SC_HANDLE service = OpenServiceW(manager, L"TUEPLauncher", SERVICE_ALL_ACCESS);
    EXPECT_NE(service, nullptr);
    DeleteService(service);
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
    EXPECT_TRUE(TaskExists(L"CorviPpcTask"));
    RemoveTask(L"CorviPpcTask");
    const auto runs = tools.WaitForRuns(1);
    ASSERT_EQ(runs.size(), 1U);
    EXPECT_THAT(runs[0].commandLine, EndsWith(L" /run /TN CorviPpcTask"));
}

// AfterInstallPPC

class AfterInstallPpc : public ProfileClient {
protected:
    static constexpr wchar_t kSessionManager[] = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager";
    static constexpr wchar_t kPending[] = L"PendingFileRenameOperations";

    AfterInstallPpc() {
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kSessionManager, kPending);
        CORVI_HOOK(journal.Hooks(), RegSetValueExW,
                   [this](HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data,
                          DWORD size) -> LSTATUS {
                       const LSTATUS status = CORVI_ORIGINAL(journal.Hooks(), RegSetValueExW)(
                           key, name, reserved, type, data, size);
                       writes.push_back(
                           {name, type, status,
                            std::wstring(reinterpret_cast<const wchar_t*>(data), size / sizeof(wchar_t))});
                       return status;
                   });
    }

public:
    ~AfterInstallPpc() override { RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kSessionManager, kPending); }

protected:
    static void SetPending(const std::wstring& data) {
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSessionManager, kPending, REG_MULTI_SZ, data.data(),
                        static_cast<DWORD>(data.size() * sizeof(wchar_t)));
    }
    static std::wstring Pending() {
        std::wstring data(1000, L'\0');
        DWORD size = 2000;
        RegGetValueW(HKEY_LOCAL_MACHINE, kSessionManager, kPending, RRF_RT_REG_MULTI_SZ, nullptr, data.data(),
                     &size);
        data.resize(size / sizeof(wchar_t));
        return data;
    }

    struct Write {
        std::wstring name;
        DWORD type;
        LSTATUS status;
        std::wstring data;
    };
    std::vector<Write> writes;
};

TEST_F(AfterInstallPpc, StartsTheServiceWhenNoRenameIsPending) {
    EXPECT_EQ(Call("AfterInstallPPC"), 0U);
    EXPECT_THAT(journal.Entries(), ElementsAreArray(kStartTuepService));
    EXPECT_THAT(writes, IsEmpty());
    EXPECT_THAT(session.LogLines(), IsEmpty());
}

TEST_F(AfterInstallPpc, OffersThePrunedListAndTheRefusalLeavesTheListAsItWas) {
    const std::wstring data =
        L"\\??\\C:\\keep\0\0\\??\\C:\\Program Files\\TAVO\\Performance Profile Client\\x.dll\0\0"
        L"\\??\\C:\\performance profile client\0\0"s;
    SetPending(data);
    EXPECT_EQ(Call("AfterInstallPPC"), 0U);
    ASSERT_EQ(writes.size(), 1U);
    EXPECT_EQ(writes[0].name, kPending);
    EXPECT_EQ(writes[0].type, static_cast<DWORD>(REG_MULTI_SZ));
    // The match regards case.
    EXPECT_EQ(writes[0].data, L"\\??\\C:\\keep\0\\??\\C:\\performance profile client\0\0"s);
    EXPECT_EQ(writes[0].status, ERROR_ACCESS_DENIED);
    EXPECT_EQ(Pending(), data);
    EXPECT_THAT(journal.Entries(), ElementsAreArray(kStartTuepService));
}

TEST_F(AfterInstallPpc, OpensTheKeyForReadingBothTimes) {
    SetPending(L"a\0\0"s);
    std::vector<REGSAM> masks;
    CORVI_HOOK(journal.Hooks(), RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   masks.push_back(access);
                   return CORVI_ORIGINAL(journal.Hooks(), RegOpenKeyExW)(root, path, options, access, key);
               });
    EXPECT_EQ(Call("AfterInstallPPC"), 0U);
    EXPECT_THAT(masks, ElementsAre(0x20019U, 0x20019U));
}

TEST_F(AfterInstallPpc, AListWithoutMatchingOrEmptyEntriesIsLeftUntouched) {
    CORVI_HOOK(journal.Hooks(), RegGetValueW,
               [](HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID data, LPDWORD size) -> LSTATUS {
                   // "a" and "b" with one terminator each: data that ends with no empty entry.
                   const wchar_t list[] = {L'a', 0, L'b', 0};
                   if (data != nullptr) {
                       std::copy(std::begin(list), std::end(list), static_cast<wchar_t*>(data));
                   }
                   *size = sizeof(list);
                   return ERROR_SUCCESS;
               });
    EXPECT_EQ(Call("AfterInstallPPC"), 0U);
    EXPECT_THAT(writes, IsEmpty());
    EXPECT_THAT(journal.Entries(), ElementsAreArray(kStartTuepService));
}

TEST_F(AfterInstallPpc, AKeyThatCannotBeOpenedLetsTheRegistryErrorOut) {
    CORVI_HOOK(journal.Hooks(), RegOpenKeyExW,
               [](HKEY, LPCWSTR, DWORD, REGSAM, PHKEY) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    try {
        Call("AfterInstallPPC");
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), 5);
        EXPECT_THAT(error.what(), StartsWith("Unable to open registry key"));
    }
    EXPECT_THAT(journal.Entries(), IsEmpty());
}

TEST_F(AfterInstallPpc, AKeyThatCannotBeOpenedAgainLetsTheRegistryErrorOut) {
    SetPending(L"a\0\0"s);
    int opens = 0;
    CORVI_HOOK(journal.Hooks(), RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   return ++opens == 2 ? ERROR_ACCESS_DENIED
                                       : CORVI_ORIGINAL(journal.Hooks(), RegOpenKeyExW)(root, path, options,
                                                                                        access, key);
               });
    try {
        Call("AfterInstallPPC");
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_THAT(error.what(), StartsWith("Unable to open registry key"));
    }
    EXPECT_THAT(journal.Entries(), IsEmpty());
}

TEST_F(AfterInstallPpc, AListOfAnotherTypeIsNothingToPrune) {
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSessionManager, kPending, REG_SZ, L"a", 4);
    EXPECT_EQ(Call("AfterInstallPPC"), 0U);
    EXPECT_THAT(writes, IsEmpty());
    EXPECT_THAT(journal.Entries(), ElementsAreArray(kStartTuepService));
}

TEST_F(AfterInstallPpc, AListThatCannotBeReadIsNothingToPrune) {
    SetPending(L"\\Performance Profile Client\0\0"s);
    for (const LSTATUS error : {ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_MEMORY, ERROR_KEY_DELETED}) {
        CORVI_HOOK(journal.Hooks(), RegGetValueW,
                   [=](HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID, LPDWORD) -> LSTATUS { return error; });
        EXPECT_EQ(Call("AfterInstallPPC"), 0U);
    }
    EXPECT_THAT(writes, IsEmpty());
    EXPECT_THAT(journal.Entries(),
                ElementsAreArray(Joined({kStartTuepService, kStartTuepService, kStartTuepService})));
}

TEST_F(AfterInstallPpc, OtherErrorsAreSwallowed) {
    ThrowFromTheServiceManager();
    EXPECT_EQ(Call("AfterInstallPPC"), 0U);
}

// UnInstallPPC

class UnInstallPpc : public ProfileClient {
protected:
    UnInstallPpc() {
        wchar_t directory[MAX_PATH + 1] = {};
        GetTempPathW(MAX_PATH, directory);
        temporary = directory;
    }

public:
    ~UnInstallPpc() override {
        RemoveFolderAtEnd(temporary + L"PPCtemp");
        RemoveFolderAtEnd(temporary + L"PPCx86");
    }

protected:
    Lines Moves() const {
        return {L"move "s + kFolder + L"|" + temporary + L"PPCtemp|2", L"move " + temporary + L"PPCtemp||4",
                L"move "s + kFolderX86 + L"|" + temporary + L"PPCx86|2", L"move " + temporary + L"PPCx86||4"};
    }

    std::wstring temporary;
};

const Lines kTrees = {L"tree SOFTWARE\\TAVO\\PPC\\",
                      L"tree SOFTWARE\\TAVO\\DU\\",
                      L"tree SYSTEM\\CurrentControlSet\\Services\\tavofendr\\State\\DU\\",
                      L"tree SYSTEM\\CurrentControlSet\\Services\\tavofendr\\State\\TUEP\\",
                      L"tree SOFTWARE\\TAVO\\DUTrack\\",
                      L"key32 SOFTWARE\\TAVO\\PPC",
                      L"key32 SOFTWARE\\TAVO\\DU",
                      L"key32 SOFTWARE\\TAVO\\DUTrack",
                      L"key32 SYSTEM\\CurrentControlSet\\Services\\tavofendr\\State\\DU",
                      L"key32 SYSTEM\\CurrentControlSet\\Services\\tavofendr\\State\\TUEP"};

TEST_F(UnInstallPpc, TakesItsStepsInOrder) {
    EXPECT_EQ(Call("UnInstallPPC"), 0U);
    EXPECT_THAT(journal.Entries(), ElementsAreArray(Joined({{L"shell schtasks| /delete /TN StartTUEP /F"},
                                                            kStopPpc,
                                                            FilesOf(kFolder),
                                                            kStopTuep,
                                                            Moves(),
                                                            kTrees})));
    EXPECT_EQ(Number(L"SOFTWARE\\TAVO\\Install", L"TUEP"), 1U);
}

TEST_F(UnInstallPpc, WithoutEitherFolderLogsFourMovesThatFailed) {
    EXPECT_EQ(Call("UnInstallPPC"), 0U);
    const std::wstring failed = L"Sable_CA Failed to MoveFile UnInstallPPC() - ";
    EXPECT_THAT(session.LogLines(), ElementsAre(failed + kFolder, failed + temporary + L"PPCtemp",
                                                failed + kFolderX86, failed + temporary + L"PPCx86"));
}

TEST_F(UnInstallPpc, DeletesBothFolders) {
    WriteFile(kFolder + L"\\sub\\file.txt"s);
    WriteFile(kFolderX86 + L"\\file.txt"s);
    EXPECT_EQ(Call("UnInstallPPC"), 0U);
    EXPECT_FALSE(fs::exists(kFolder));
    EXPECT_FALSE(fs::exists(kFolderX86));
    EXPECT_FALSE(fs::exists(temporary + L"PPCtemp"));
}

TEST_F(UnInstallPpc, StopsBothClientsBeforeTheFolderIsDeleted) {
    WriteFile(kFolder + L"\\file.txt"s);
    std::vector<bool> isThere;
    CORVI_HOOK(journal.Hooks(), OpenServiceW, [&](SC_HANDLE, LPCWSTR, DWORD) -> SC_HANDLE {
        isThere.push_back(fs::exists(kFolder));
        return nullptr;
    });
    EXPECT_EQ(Call("UnInstallPPC"), 0U);
    // Each of the two services is opened to be stopped and to be deleted.
    EXPECT_THAT(isThere, ElementsAre(true, true, true, true));
    EXPECT_FALSE(fs::exists(kFolder));
}

TEST_F(UnInstallPpc, LogsADriverServiceBeforeItIsOpened) {
    const DriverService service(kDriver26, L"C:\\Performance Profile Client\\x.sys");
    Lines lastLines;
    CORVI_HOOK(journal.Hooks(), OpenServiceW, [&](SC_HANDLE, LPCWSTR name, DWORD) -> SC_HANDLE {
        if (name == std::wstring(kDriver26)) {
            lastLines.push_back(session.LogLines().back());
        }
        return nullptr;
    });
    EXPECT_EQ(Call("UnInstallPPC"), 0U);
    EXPECT_THAT(lastLines,
                ElementsAre(L"UnInstallPPC() Service location - c:\\performance profile client\\x.sys"));
}

TEST_F(UnInstallPpc, MovesWhatIsInUseOutOfTheWayForTheRestart) {
    WriteFile(kFolder + L"\\held.txt"s);
    const HANDLE held =
        CreateFileW((kFolder + L"\\held.txt"s).c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(Call("UnInstallPPC"), 0U);
    CloseHandle(held);
    EXPECT_FALSE(fs::exists(kFolder));
    EXPECT_TRUE(fs::exists(temporary + L"PPCtemp\\held.txt"));
    EXPECT_EQ(session.LogLines().size(), 2U) << "the other folder's two";
    std::wstring pending(2000, L'\0');
    DWORD size = 4000;
    RegGetValueW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Control\\Session Manager",
                 L"PendingFileRenameOperations", RRF_RT_REG_MULTI_SZ, nullptr, pending.data(), &size);
    EXPECT_NE(pending.find(L"\\??\\" + temporary + L"PPCtemp"), std::wstring::npos);
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Control\\Session Manager",
                       L"PendingFileRenameOperations");
}

TEST_F(UnInstallPpc, DeletesTheFolderOf64BitProgramsThenTheOtherAndThenMovesWhatIsLeft) {
    WriteFile(kFolder + L"\\file.txt"s);
    WriteFile(kFolderX86 + L"\\file.txt"s);
    EXPECT_EQ(Call("UnInstallPPC"), 0U);
    Lines steps = journal.EntriesOf({L"file", L"move"});
    std::erase_if(steps, [](const std::wstring& entry) {
        return entry.starts_with(L"file ") && !entry.ends_with(L"\\file.txt");
    });
    ASSERT_EQ(steps.size(), 6U);
    EXPECT_THAT(steps[0], EndsWith(kFolder + L"\\file.txt"s));
    EXPECT_THAT(steps[1], EndsWith(kFolderX86 + L"\\file.txt"s));
    EXPECT_EQ(Lines(steps.begin() + 2, steps.end()), Moves());
}

TEST_F(UnInstallPpc, SetsTheInstallersFlagBeforeTheDriverServicesGo) {
    const DriverService service(kDriver26, L"C:\\Performance Profile Client\\c.sys");
    CORVI_HOOK(
        journal.Hooks(), RegSetValueExW,
        [&](HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) -> LSTATUS {
            journal.Add(L"set "s + name);
            return CORVI_ORIGINAL(journal.Hooks(), RegSetValueExW)(key, name, reserved, type, data, size);
        });
    EXPECT_EQ(Call("UnInstallPPC"), 0U);
    const Lines entries = journal.Entries();
    const Lines last = Joined({{kTrees.back(), L"set TUEP"}, RemovalOf(kDriver26)});
    ASSERT_GT(entries.size(), last.size());
    EXPECT_EQ(Lines(entries.end() - static_cast<ptrdiff_t>(last.size()), entries.end()), last);
}

TEST_F(UnInstallPpc, AFolderThatCannotBeNamedIsNeitherDeletedNorMoved) {
    const OnTheDrivesRoot bystander;
    const std::vector<int> all = {CSIDL_PROGRAM_FILES, CSIDL_PROGRAM_FILESX86};
    for (const int unknown : all) {
        WriteFile(kFolder + L"\\file.txt"s);
        WriteFile(kFolderX86 + L"\\file.txt"s);
        session.ClearMessages();
        NameFolders([&](int csidl) {
            const std::wstring name =
                csidl == CSIDL_PROGRAM_FILES ? L"C:\\Program Files" : L"C:\\Program Files (x86)";
            return csidl == unknown ? L"" : name;
        });
        const size_t before = journal.EntriesOf({L"move"}).size();
        EXPECT_EQ(Call("UnInstallPPC"), 0U);
        const Lines moves = journal.EntriesOf({L"move"});
        const bool first = unknown == CSIDL_PROGRAM_FILES;
        EXPECT_TRUE(bystander.IsComplete());
        EXPECT_EQ(fs::exists(kFolder), first);
        EXPECT_EQ(fs::exists(kFolderX86), !first);
        EXPECT_EQ(Lines(moves.begin() + static_cast<ptrdiff_t>(before), moves.end()),
                  first ? Lines({Moves()[2], Moves()[3]}) : Lines({Moves()[0], Moves()[1]}));
        EXPECT_EQ(session.LogLines().size(), 2U);
    }
    EXPECT_EQ(Number(L"SOFTWARE\\TAVO\\Install", L"TUEP"), 1U) << "the rest follows";
}

TEST_F(UnInstallPpc, WithoutATemporaryDirectoryNothingIsMoved) {
    for (const DWORD answer : {DWORD{0}, DWORD{MAX_PATH}, DWORD{MAX_PATH + 100}}) {
        WriteFile(kFolder + L"\\file.txt"s);
        CORVI_HOOK(journal.Hooks(), GetTempPathW, [=](DWORD, LPWSTR) -> DWORD { return answer; });
        EXPECT_EQ(Call("UnInstallPPC"), 0U);
        EXPECT_FALSE(fs::exists(kFolder)) << "it is deleted all the same";
    }
    EXPECT_THAT(journal.EntriesOf({L"move"}), IsEmpty());
    EXPECT_THAT(session.LogLines(), IsEmpty());
    EXPECT_EQ(Number(L"SOFTWARE\\TAVO\\Install", L"TUEP"), 1U);
}

TEST_F(UnInstallPpc, DeletesTheTreesOfBothViewsAndNothingBesideThem) {
    const ScratchKey tavo32(L"SOFTWARE\\TAVO", KEY_WOW64_32KEY);
    for (const ScratchKey* view : {static_cast<const ScratchKey*>(&tavo), &tavo32}) {
        for (const wchar_t* tree : {L"PPC\\a\\b", L"DU\\a", L"DUTrack\\a", L"Other"}) {
            view->Add(tree);
        }
    }
    for (const wchar_t* tree : {L"State\\DU\\a", L"State\\TUEP\\a", L"State\\Other"}) {
        driver.Add(tree);
    }
    EXPECT_EQ(Call("UnInstallPPC"), 0U);
    for (const ScratchKey* view : {static_cast<const ScratchKey*>(&tavo), &tavo32}) {
        for (const wchar_t* tree : {L"PPC", L"DU", L"DUTrack"}) {
            EXPECT_FALSE(view->Exists(tree)) << fs::path(tree);
        }
        EXPECT_TRUE(view->Exists(L"Other"));
    }
    EXPECT_FALSE(driver.Exists(L"State\\DU"));
    EXPECT_FALSE(driver.Exists(L"State\\TUEP"));
    EXPECT_TRUE(driver.Exists(L"State\\Other"));
}

TEST_F(UnInstallPpc, TreesWithLongNamesGoWithinTheRoomOfTheirPaths) {
    const ScratchKey tavo32(L"SOFTWARE\\TAVO", KEY_WOW64_32KEY);
    const std::wstring below = L"\\" + std::wstring(220, L'a') + L"\\" + std::wstring(220, L'b');
    for (const wchar_t* tree : {L"PPC", L"DU", L"DUTrack"}) {
        tavo32.Add(tree + below);
    }
    EXPECT_EQ(Call("UnInstallPPC"), 0U);
    EXPECT_EQ(_heapchk(), _HEAPOK);
    for (const wchar_t* tree : {L"PPC", L"DU", L"DUTrack"}) {
        EXPECT_FALSE(tavo32.Exists(tree)) << fs::path(tree);
    }
}

TEST_F(UnInstallPpc, RemovesTheLastDriverServiceTooAndKeepsThoseOfOtherFolders) {
    const DriverService first(kDriversUpTo24[0], L"C:\\performance profile client\\a.sys");
    const DriverService kept(kDriversUpTo24[3], L"system32\\drivers\\b.sys");
    const DriverService last(kDriver26, L"C:\\Performance Profile Client\\c.sys");
    EXPECT_EQ(Call("UnInstallPPC"), 0U);
    const Lines entries = journal.Entries();
    const Lines removals = Joined({RemovalOf(kDriversUpTo24[0]), RemovalOf(kDriver26)});
    ASSERT_GT(entries.size(), removals.size());
    EXPECT_EQ(Lines(entries.end() - static_cast<ptrdiff_t>(removals.size()), entries.end()), removals);
    EXPECT_THAT(session.LogLines(),
                IsSupersetOf({L"UnInstallPPC() Service location - c:\\performance profile client\\a.sys",
                              L"UnInstallPPC() Service location - c:\\performance profile client\\c.sys"}));
    EXPECT_EQ(session.LogLines().size(), 6U);
}

TEST_F(UnInstallPpc, SwallowsAnErrorOnTheWay) {
    ThrowFromTheServiceManager();
    EXPECT_EQ(Call("UnInstallPPC"), 0U);
    EXPECT_THAT(session.LogLines(), IsEmpty());
}

}  // namespace
}  // namespace corvi::test
