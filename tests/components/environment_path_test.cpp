#include "components/environment_path.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "runtime/registry.h"
#include "tests/components/registry_values.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/test_thread.h"

namespace corvi::test {
namespace {

constexpr wchar_t kEnvironment[] = L"System\\CurrentControlSet\\Control\\Session Manager\\Environment";
constexpr wchar_t kPath[] = L"Path";
const std::wstring kEntry = L"C:\\Windows\\System32\\TAVO;";

struct Broadcast {
    HWND window;
    UINT message;
    WPARAM wide;
    std::wstring text;
    UINT flags;
    UINT timeout;
    bool hasResult;
};

class SystemPath : public testing::Test {
protected:
    SystemPath() : hooks_(library_.Module()) {
        CORVI_HOOK(
            hooks_, SendMessageTimeoutW,
            [this](HWND window, UINT message, WPARAM wide, LPARAM text, UINT flags, UINT timeout,
                   PDWORD_PTR result) -> LRESULT {
                // NOLINTNEXTLINE(performance-no-int-to-ptr): how a message carries a text
                const auto* const words = reinterpret_cast<const wchar_t*>(text);
                broadcasts_.push_back({window, message, wide, words, flags, timeout, result != nullptr});
                pathAtBroadcast_ = Path();
                return 1;
            });
    }

    static std::optional<StoredValue> Path() { return ReadStored(kEnvironment, kPath); }
    static StoredValue Plain(const std::wstring& text) { return {REG_SZ, text + L'\0'}; }

    UINT Call() { return library_.Call("SetEnvPath_IPU_WA", 0); }

    // The error that leaves the action.
    std::pair<int, std::string> Error() {
        try {
            Call();
        } catch (const RegKeyError& error) {
            return {error.code().value(), error.what()};
        }
        return {0, "nothing was thrown"};
    }

    KeptValue kept_{kEnvironment, kPath};
    Library library_;
    ImportHooks hooks_;
    std::vector<Broadcast> broadcasts_;
    std::optional<StoredValue> pathAtBroadcast_;
};

TEST_F(SystemPath, EntryIsPutInFrontOfTheWholeOldText) {
    StoreText(kEnvironment, kPath, L"C:\\windows;D:\\tools");
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(Path(), Plain(kEntry + L"C:\\windows;D:\\tools"));
}

TEST_F(SystemPath, EmptyTextBecomesTheEntryAlone) {
    StoreText(kEnvironment, kPath, L"");
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(Path(), Plain(kEntry));
}

TEST_F(SystemPath, SecondRunChangesNothing) {
    StoreText(kEnvironment, kPath, L"C:\\windows");
    Call();
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(Path(), Plain(kEntry + L"C:\\windows"));
    EXPECT_EQ(broadcasts_.size(), 1U);
}

TEST_F(SystemPath, TextHoldingTheEntryAnywhereStaysAsItIsAndNobodyIsTold) {
    for (const std::wstring& text : {L"C:\\windows;" + kEntry + L"D:\\tools", kEntry, L"D:\\a;" + kEntry}) {
        StoreText(kEnvironment, kPath, text, REG_EXPAND_SZ);
        EXPECT_EQ(Call(), 0U);
        EXPECT_EQ(Path(), (StoredValue{REG_EXPAND_SZ, text + L'\0'}));
    }
    EXPECT_TRUE(broadcasts_.empty());
}

TEST_F(SystemPath, EntryInsideALongerElementCounts) {
    StoreText(kEnvironment, kPath, L"D:\\mirror-of-" + kEntry + L"C:\\windows");
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(Path(), Plain(L"D:\\mirror-of-" + kEntry + L"C:\\windows"));
    EXPECT_TRUE(broadcasts_.empty());
}

TEST_F(SystemPath, FolderWithoutTheTrailingSemicolonDoesNotCount) {
    StoreText(kEnvironment, kPath, L"C:\\windows;C:\\Windows\\System32\\TAVO");
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(Path(), Plain(kEntry + L"C:\\windows;C:\\Windows\\System32\\TAVO"));
}

TEST_F(SystemPath, EntryInAnotherCaseDoesNotCount) {
    StoreText(kEnvironment, kPath, L"c:\\windows\\system32\\tavo;C:\\windows");
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(Path(), Plain(kEntry + L"c:\\windows\\system32\\tavo;C:\\windows"));
}

TEST_F(SystemPath, ExpandableTextIsReadExpandedAndWrittenBackAsPlainText) {
    StoreText(kEnvironment, kPath, L"%SystemRoot%\\system32;D:\\tools", REG_EXPAND_SZ);
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(Path(), Plain(kEntry + L"C:\\windows\\system32;D:\\tools"));
}

TEST_F(SystemPath, LongTextIsKeptWhole) {
    std::wstring text;
    for (int index = 0; index < 2000; ++index) {
        text += L"D:\\tools\\" + std::to_wstring(index) + L";";
    }
    StoreText(kEnvironment, kPath, text);
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(Path(), Plain(kEntry + text));
}

TEST_F(SystemPath, UnterminatedTextIsTakenAsItIs) {
    Store(kEnvironment, kPath, REG_SZ, L"C:\\windows");
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(Path(), Plain(kEntry + L"C:\\windows"));
}

TEST_F(SystemPath, NothingIsLogged) {
    StoreText(kEnvironment, kPath, L"C:\\windows");
    InstallerSession session;
    EXPECT_EQ(library_.Call("SetEnvPath_IPU_WA", session.Handle()), 0U);
    EXPECT_TRUE(session.Messages().empty());
}

TEST_F(SystemPath, ChangeIsBroadcastOnceItIsWritten) {
    StoreText(kEnvironment, kPath, L"C:\\windows");
    Call();
    ASSERT_EQ(broadcasts_.size(), 1U);
    const Broadcast& broadcast = broadcasts_.front();
    EXPECT_EQ(broadcast.window, HWND_BROADCAST);
    EXPECT_EQ(broadcast.message, static_cast<UINT>(WM_SETTINGCHANGE));
    EXPECT_EQ(broadcast.wide, 0U);
    EXPECT_EQ(broadcast.text, L"Environment");
    EXPECT_EQ(broadcast.flags, static_cast<UINT>(SMTO_ABORTIFHUNG));
    EXPECT_EQ(broadcast.timeout, 100U);
    EXPECT_FALSE(broadcast.hasResult);
    EXPECT_EQ(pathAtBroadcast_, Plain(kEntry + L"C:\\windows"));
}

TEST_F(SystemPath, MissingValueLeavesTheActionAsARegistryError) {
    DeleteStored(kEnvironment, kPath);
    const auto [code, text] = Error();
    EXPECT_EQ(code, ERROR_FILE_NOT_FOUND);
    EXPECT_THAT(text, testing::StartsWith("Unable to get registry value"));
    EXPECT_EQ(Path(), std::nullopt);
    EXPECT_TRUE(broadcasts_.empty());
}

TEST_F(SystemPath, ValueOfAnotherTypeLeavesTheActionAsARegistryError) {
    StoreNumber(kEnvironment, kPath, 7);
    const auto [code, text] = Error();
    EXPECT_EQ(code, ERROR_UNSUPPORTED_TYPE);
    EXPECT_THAT(text, testing::StartsWith("Unable to get registry value"));
    EXPECT_EQ(Path()->type, static_cast<DWORD>(REG_DWORD));
}

TEST_F(SystemPath, KeyThatCannotBeOpenedLeavesTheActionAsARegistryError) {
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [](HKEY, LPCWSTR, DWORD, REGSAM, PHKEY) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    const auto [code, text] = Error();
    EXPECT_EQ(code, ERROR_ACCESS_DENIED);
    EXPECT_THAT(text, testing::StartsWith("Unable to open registry key"));
}

TEST_F(SystemPath, ValueThatCannotBeWrittenLeavesTheActionInTheWordsOfTheUninstallWriter) {
    StoreText(kEnvironment, kPath, L"C:\\windows");
    CORVI_HOOK(hooks_, RegSetValueExW, [](HKEY, LPCWSTR, DWORD, DWORD, const BYTE*, DWORD) -> LSTATUS {
        return ERROR_ACCESS_DENIED;
    });
    const auto [code, text] = Error();
    EXPECT_EQ(code, ERROR_ACCESS_DENIED);
    EXPECT_THAT(text, testing::StartsWith("Unable to write to uninstall registry for value = Path data = "
                                          "C:\\Windows\\System32\\TAVO;C:\\windows."));
    EXPECT_EQ(Path(), Plain(L"C:\\windows"));
    EXPECT_TRUE(broadcasts_.empty());
}

TEST_F(SystemPath, ErrorThatIsNoRegistryErrorIsCaught) {
    StoreText(kEnvironment, kPath, L"C:\\windows");
    CORVI_HOOK(hooks_, GetWindowsDirectoryW, [](LPWSTR, UINT) -> UINT { throw std::bad_alloc(); });
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(Path(), Plain(L"C:\\windows"));
}

TEST(SuitePathEntry, StandsOnTheWindowsDriveWhateverTheWindowsDirectoryIsCalled) {
    EXPECT_EQ(SuitePathEntry(), kEntry);
    ImportHooks hooks(GetModuleHandleW(nullptr));
    CORVI_HOOK(hooks, GetWindowsDirectoryW, [](LPWSTR directory, UINT) -> UINT {
        wcscpy(directory, L"E:\\WINNT");
        return 8;
    });
    EXPECT_EQ(SuitePathEntry(), L"E:\\Windows\\System32\\TAVO;");
}

TEST_F(SystemPath, AnUnknownWindowsDirectoryAddsNothing) {
    StoreText(kEnvironment, kPath, L"C:\\windows", REG_EXPAND_SZ);
    for (const UINT answer : {0U, 300U}) {
        CORVI_HOOK(hooks_, GetWindowsDirectoryW, [=](LPWSTR, UINT) -> UINT { return answer; });
        EXPECT_EQ(Call(), 0U);
        EXPECT_EQ(Path(), (StoredValue{REG_EXPAND_SZ, std::wstring(L"C:\\windows") + L'\0'}));
    }
    EXPECT_TRUE(broadcasts_.empty());
}

// Wine lets any handle write; Windows does not.
TEST_F(SystemPath, KeyIsOpenedForReadingAndWriting) {
    StoreText(kEnvironment, kPath, L"C:\\windows");
    std::vector<REGSAM> masks;
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR key, DWORD options, REGSAM access, PHKEY opened) -> LSTATUS {
                   EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
                   EXPECT_STREQ(key, kEnvironment);
                   masks.push_back(access);
                   return RegOpenKeyExW(root, key, options, access, opened);
               });
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(masks, (std::vector<REGSAM>{0x2001F}));
}

TEST_F(SystemPath, KeyIsClosedAfterTheBroadcast) {
    StoreText(kEnvironment, kPath, L"C:\\windows");
    size_t broadcastsAtClose = 0;
    CORVI_HOOK(hooks_, RegCloseKey, [&](HKEY key) -> LSTATUS {
        broadcastsAtClose = broadcasts_.size();
        return RegCloseKey(key);
    });
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(broadcastsAtClose, 1U);
}

TEST(AddToSystemPath, TakesAnyValueAndEntry) {
    const KeptValue kept(kEnvironment, L"CorviModules");
    StoreText(kEnvironment, L"CorviModules", L"D:\\modules");
    AddToSystemPath(L"CorviModules", L"E:\\more;");
    EXPECT_EQ(ReadStored(kEnvironment, L"CorviModules"),
              (StoredValue{REG_SZ, std::wstring(L"E:\\more;D:\\modules") + L'\0'}));
}

// The program with three windows, one of which hangs, on a desktop of its own: there, windows can be made
// although the machine has no display. A broadcast reaches the windows of the calling thread's desktop.
class ForeignWindows {
public:
    ForeignWindows() {
        std::filesystem::remove(kSettingChanges);
        RegSetKeyValueW(HKEY_CURRENT_USER, kGraphicsKey, kGraphicsValue, REG_SZ, L"null",
                        5 * sizeof(wchar_t));
        desktop_ = CreateDesktopW(L"corvi", nullptr, nullptr, 0, GENERIC_ALL, nullptr);
        ready_ = CreateEventW(nullptr, TRUE, FALSE, L"CorviWindowsReady");
        stop_ = CreateEventW(nullptr, TRUE, FALSE, L"CorviWindowsStop");
        wchar_t program[] = L"C:\\corvi\\top_level_windows.exe";
        wchar_t desktopName[] = L"corvi";
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        startup.lpDesktop = desktopName;
        CreateProcessW(nullptr, program, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process_);
    }
    ~ForeignWindows() {
        SetEvent(stop_);
        if (WaitForSingleObject(process_.hProcess, 10000) != WAIT_OBJECT_0) {
            TerminateProcess(process_.hProcess, 1);
        }
        for (const HANDLE handle : {process_.hProcess, process_.hThread, ready_, stop_}) {
            CloseHandle(handle);
        }
        CloseDesktop(desktop_);
        RegDeleteKeyValueW(HKEY_CURRENT_USER, kGraphicsKey, kGraphicsValue);
        std::filesystem::remove(kSettingChanges);
    }
    ForeignWindows(const ForeignWindows&) = delete;
    ForeignWindows& operator=(const ForeignWindows&) = delete;

    // Waits until the windows are there; false when they cannot be made.
    bool Exist() const {
        const HANDLE outcomes[] = {ready_, process_.hProcess};
        return WaitForMultipleObjects(2, outcomes, FALSE, 20000) == WAIT_OBJECT_0;
    }

    // Moves the calling thread, whose end closes the handle.
    static bool EnterDesktop() {
        return SetThreadDesktop(OpenDesktopW(L"corvi", 0, FALSE, GENERIC_ALL)) != FALSE;
    }

    // What the windows received so far, in any order.
    static std::vector<std::string> SettingChanges() {
        std::vector<std::string> changes;
        std::ifstream file(kSettingChanges);
        for (std::string line; std::getline(file, line);) {
            changes.push_back(line);
        }
        return changes;
    }

private:
    static inline const std::filesystem::path kSettingChanges = L"C:\\corvi\\setting_changes.txt";
    static constexpr wchar_t kGraphicsKey[] = L"Software\\Wine\\Drivers";
    static constexpr wchar_t kGraphicsValue[] = L"Graphics";

    HDESK desktop_ = nullptr;
    HANDLE ready_ = nullptr;
    HANDLE stop_ = nullptr;
    PROCESS_INFORMATION process_ = {};
};

// Runs the action on a thread of the windows' desktop and gives the time that it took.
std::chrono::steady_clock::duration RunBesideForeignWindows(const Library& library) {
    std::chrono::steady_clock::duration elapsed{};
    RunOnOwnThread([&] {
        EXPECT_TRUE(ForeignWindows::EnterDesktop());
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(library.Call("SetEnvPath_IPU_WA", 0), 0U);
        elapsed = std::chrono::steady_clock::now() - start;
    });
    return elapsed;
}

TEST(EnvironmentBroadcast, ReachesRealWindowsPastOneThatHangsWithinItsBound) {
    const KeptValue kept(kEnvironment, kPath);
    const Library library;
    const ForeignWindows windows;
    ASSERT_TRUE(windows.Exist());

    StoreText(kEnvironment, kPath, L"C:\\windows");
    // Without its bound the broadcast would wait for ever; a busy machine may take its time.
    EXPECT_LT(RunBesideForeignWindows(library), std::chrono::seconds(60));
    const auto reached = testing::UnorderedElementsAre("first Environment", "last Environment");
    EXPECT_THAT(windows.SettingChanges(), reached);

    RunBesideForeignWindows(library);
    EXPECT_THAT(windows.SettingChanges(), reached) << "an unchanged path must not be broadcast";
}

}  // namespace
}  // namespace corvi::test
