#include "services/app_shutdown.h"

#include <windows.h>

#include <shellapi.h>
#include <shlobj.h>
#include <shlwapi.h>
#include <tlhelp32.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cwchar>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <system_error>

#include "runtime/registry.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/platform.h"
#include "tests/support/running_program.h"
#include "tests/support/scratch_key.h"
#include "tests/support/tool_recorder.h"

namespace corvi::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Lines = std::vector<std::wstring>;

constexpr wchar_t kSettingsAppKey[] = L"SOFTWARE\\QEL Technologies\\Install\\HXNext";
constexpr wchar_t kRecordingServerKey[] = L"SOFTWARE\\QEL Technologies\\Install\\TAVO DVR";

/// A directory that is there only for one test.
class InstallLocation {
public:
    explicit InstallLocation(std::wstring path) : path_(std::move(path)) {
        std::filesystem::create_directories(path_);
    }
    ~InstallLocation() {
        for (int attempt = 0; attempt < 200; ++attempt) {
            std::error_code error;
            std::filesystem::remove_all(path_, error);
            if (!error) {
                return;
            }
            Sleep(10);
        }
    }
    InstallLocation(const InstallLocation&) = delete;
    InstallLocation& operator=(const InstallLocation&) = delete;

private:
    std::filesystem::path path_;
};

/// Calls an action and sees that it writes nothing to the installer log.
UINT CallSilently(const char* action) {
    const Library library;
    const InstallerSession session;
    const UINT result = library.Call(action, session.Handle());
    EXPECT_THAT(session.Messages(), IsEmpty());
    return result;
}

/// What left an action: the error's code and text.
struct Escaped {
    int code = 0;
    std::string text;
};

Escaped CallExpectingError(const char* action) {
    const Library library;
    try {
        library.Call(action, 0);
    } catch (const RegKeyError& error) {
        return {error.code().value(), error.what()};
    }
    return {-1, "nothing left the action"};
}

// ---- ShutDownPQRNext and ShutDownDVR: the same but for key, tool and test of presence

struct PoliteShutdown {
    const char* action;
    const wchar_t* key;
    const wchar_t* tool;
};

std::ostream& operator<<(std::ostream& stream, const PoliteShutdown& shutdown) {
    return stream << shutdown.action;
}

class ShutDown : public testing::TestWithParam<PoliteShutdown> {
protected:
    ShutDown() : key(GetParam().key) {}

    void SetLocation(const std::wstring& location) const { key.SetText(L"", L"Location", location); }

    ScratchKey key;
};

INSTANTIATE_TEST_SUITE_P(Polite, ShutDown,
                         testing::Values(PoliteShutdown{"ShutDownPQRNext", kSettingsAppKey, L"hxcmd.exe"},
                                         PoliteShutdown{"ShutDownDVR", kRecordingServerKey,
                                                        L"LSServCmd.exe"}),
                         [](const auto& shutdown) { return std::string(shutdown.param.action); });

TEST_P(ShutDown, RunsTheToolWithExitInTheInstallLocation) {
    const InstallLocation directory(L"C:\\corvi\\Suite App");
    ToolRecorder tools;
    tools.StandInFor(L"C:\\corvi\\Suite App\\" + std::wstring(GetParam().tool));
    SetLocation(L"C:\\corvi\\Suite App");
    EXPECT_EQ(CallSilently(GetParam().action), 0U);
    const auto runs = tools.WaitForRuns(1);
    ASSERT_EQ(runs.size(), 1U);
    EXPECT_EQ(runs[0].commandLine, L"\"C:\\corvi\\Suite App\\" + std::wstring(GetParam().tool) + L"\" exit");
    EXPECT_EQ(runs[0].currentDirectory, L"C:\\corvi\\Suite App");
}

TEST_P(ShutDown, ALocationWithATrailingSeparatorGetsNoSecondOne) {
    const InstallLocation directory(L"C:\\corvi\\Suite App");
    ToolRecorder tools;
    tools.StandInFor(L"C:\\corvi\\Suite App\\" + std::wstring(GetParam().tool));
    for (const wchar_t* location : {L"C:\\corvi\\Suite App\\", L"C:/corvi/Suite App/"}) {
        tools.ClearRuns();
        SetLocation(location);
        EXPECT_EQ(CallSilently(GetParam().action), 0U);
        const auto runs = tools.WaitForRuns(1);
        ASSERT_EQ(runs.size(), 1U);
        EXPECT_EQ(runs[0].commandLine, L"\"" + std::wstring(location) + GetParam().tool + L"\" exit");
    }
}

TEST_P(ShutDown, ALocationWithNonAsciiCharactersArrivesWhole) {
    const std::wstring location = L"C:\\corvi\\R\u00E9glages \u65E5\u672C";
    const InstallLocation directory(location);
    ToolRecorder tools;
    tools.StandInFor(location + L"\\" + GetParam().tool);
    SetLocation(location);
    EXPECT_EQ(CallSilently(GetParam().action), 0U);
    const auto runs = tools.WaitForRuns(1);
    ASSERT_EQ(runs.size(), 1U);
    EXPECT_EQ(runs[0].commandLine, L"\"" + location + L"\\" + GetParam().tool + L"\" exit");
}

TEST_P(ShutDown, TheToolIsNotWaitedFor) {
    const InstallLocation directory(L"C:\\corvi\\Suite App");
    const std::wstring tool = L"C:\\corvi\\Suite App\\" + std::wstring(GetParam().tool);
    CopyFileW(L"C:\\corvi\\sleeper.exe", tool.c_str(), FALSE);
    SetLocation(L"C:\\corvi\\Suite App");
    const Library library;
    ImportHooks hooks(library.Module());
    HANDLE process = nullptr;
    int waits = 0;
    CORVI_HOOK(hooks, CreateProcessW,
               [&](LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES processSecurity,
                   LPSECURITY_ATTRIBUTES threadSecurity, BOOL inherit, DWORD flags, LPVOID environment,
                   LPCWSTR directoryText, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION started) -> BOOL {
                   EXPECT_EQ(flags, DWORD{CREATE_NO_WINDOW});
                   const BOOL done =
                       ::CreateProcessW(application, commandLine, processSecurity, threadSecurity, inherit,
                                        flags, environment, directoryText, startup, started);
                   DuplicateHandle(GetCurrentProcess(), started->hProcess, GetCurrentProcess(), &process, 0,
                                   FALSE, DUPLICATE_SAME_ACCESS);
                   return done;
               });
    CORVI_HOOK(hooks, WaitForSingleObject, [&](HANDLE, DWORD) -> DWORD {
        ++waits;
        return WAIT_OBJECT_0;
    });
    EXPECT_EQ(library.Call(GetParam().action, 0), 0U);
    EXPECT_EQ(waits, 0);
    ASSERT_NE(process, nullptr);
    EXPECT_EQ(WaitForSingleObject(process, 0), DWORD{WAIT_TIMEOUT}) << "it still runs";
    TerminateProcess(process, 0);
    WaitForSingleObject(process, 10000);
    CloseHandle(process);
}

TEST_P(ShutDown, AToolMissingFromAnExistingLocationGives1603) {
    const InstallLocation directory(L"C:\\corvi\\Suite App");
    SetLocation(L"C:\\corvi\\Suite App");
    EXPECT_EQ(CallSilently(GetParam().action), 1603U);
}

TEST_P(ShutDown, ALocationThatIsAFileHasNoTool) {
    SetLocation(L"C:\\corvi\\sleeper.exe");
    EXPECT_EQ(CallSilently(GetParam().action), 1603U);
}

TEST_P(ShutDown, ALocationThatDoesNotExistGivesZeroAndRunsNothing) {
    const Library library;
    ImportHooks hooks(library.Module());
    int started = 0;
    CORVI_HOOK(hooks, CreateProcessW,
               [&](LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID,
                   LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL {
                   ++started;
                   return FALSE;
               });
    for (const wchar_t* location : {L"C:\\corvi\\no such directory", L"", L"\"C:\\corvi\"", L"%s%n"}) {
        SetLocation(location);
        EXPECT_EQ(library.Call(GetParam().action, 0), 0U);
    }
    EXPECT_EQ(started, 0);
}

TEST_P(ShutDown, AToolThatCannotBeStartedStillGivesZero) {
    const InstallLocation directory(L"C:\\corvi\\Suite App");
    std::ofstream(std::filesystem::path(L"C:\\corvi\\Suite App") / GetParam().tool) << "no program";
    SetLocation(L"C:\\corvi\\Suite App");
    EXPECT_EQ(CallSilently(GetParam().action), 0U);
}

TEST_P(ShutDown, ACommandThatDoesNotFitItsBufferIsNotRunAndEndsTheProcess) {
    const std::wstring location = L"\\\\?\\C:\\corvi\\" + std::wstring(500, L'x');
    SetLocation(location);
    const Library library;
    ImportHooks hooks(library.Module());
    Lines started;
    // The names exist as far as the action can see.
    CORVI_HOOK(hooks, GetFileAttributesW, [](LPCWSTR) -> DWORD { return FILE_ATTRIBUTE_DIRECTORY; });
    CORVI_HOOK(hooks, PathFileExistsW, [](LPCWSTR) -> BOOL { return TRUE; });
    CORVI_HOOK(hooks, CreateProcessW,
               [&](LPCWSTR, LPWSTR commandLine, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD,
                   LPVOID, LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL {
                   started.emplace_back(commandLine);
                   return FALSE;
               });
    std::vector<UINT> ends;
    CORVI_HOOK(hooks, TerminateProcess, [&](HANDLE, UINT exitCode) -> BOOL {
        ends.push_back(exitCode);
        return TRUE;
    });
    library.Call(GetParam().action, 0);
    EXPECT_THAT(started, IsEmpty());
    EXPECT_THAT(ends, ElementsAre(0xC0000417U));
    SetLocation(location.substr(0, 400));
    EXPECT_EQ(library.Call(GetParam().action, 0), 0U);
    EXPECT_THAT(ends, SizeIs(1));
    EXPECT_THAT(started, ElementsAre(L"\"" + location.substr(0, 400) + L"\\" + GetParam().tool + L"\" exit"));
}

TEST_P(ShutDown, AMissingKeyLeavesTheActionAsARegistryError) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, GetParam().key);
    const Escaped escaped = CallExpectingError(GetParam().action);
    EXPECT_EQ(escaped.code, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(escaped.text.rfind("Unable to open registry key: ", 0), 0U) << escaped.text;
}

TEST_P(ShutDown, AMissingOrWrongTypedLocationRaisesLikeAMissingKey) {
    const Escaped missing = CallExpectingError(GetParam().action);
    EXPECT_EQ(missing.code, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(missing.text.rfind("Unable to get registry value: ", 0), 0U) << missing.text;
    key.SetNumber(L"", L"Location", 1);
    const Escaped wrongType = CallExpectingError(GetParam().action);
    EXPECT_EQ(wrongType.code, ERROR_UNSUPPORTED_TYPE);
    EXPECT_EQ(wrongType.text.rfind("Unable to get registry value: ", 0), 0U) << wrongType.text;
}

TEST_P(ShutDown, TheKeyIsOpenedForReadingAndClosedBeforeTheToolRuns) {
    const InstallLocation directory(L"C:\\corvi\\Suite App");
    ToolRecorder tools;
    tools.StandInFor(L"C:\\corvi\\Suite App\\" + std::wstring(GetParam().tool));
    SetLocation(L"C:\\corvi\\Suite App");
    const Library library;
    ImportHooks hooks(library.Module());
    std::vector<std::string> steps;
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) -> LSTATUS {
                   EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
                   EXPECT_STREQ(subkey, GetParam().key);
                   EXPECT_EQ(access, 0x20019U);
                   steps.emplace_back("open");
                   return ::RegOpenKeyExW(root, subkey, options, access, opened);
               });
    CORVI_HOOK(hooks, RegCloseKey, [&](HKEY opened) -> LSTATUS {
        steps.emplace_back("close");
        return ::RegCloseKey(opened);
    });
    CORVI_HOOK(hooks, CreateProcessW,
               [&](LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID,
                   LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL {
                   steps.emplace_back("run");
                   return FALSE;
               });
    EXPECT_EQ(library.Call(GetParam().action, 0), 0U);
    EXPECT_THAT(steps, ElementsAre("open", "close", "run"));
}

TEST(ShutDownDVR, TheToolsPresenceIsTestedWithTheShellsFunction) {
    const ScratchKey key(kRecordingServerKey);
    key.SetText(L"", L"Location", L"C:\\corvi");
    const Library library;
    ImportHooks hooks(library.Module());
    Lines tested;
    CORVI_HOOK(hooks, PathFileExistsW, [&](LPCWSTR path) -> BOOL {
        tested.emplace_back(path);
        return FALSE;
    });
    EXPECT_EQ(library.Call("ShutDownDVR", 0), 1603U);
    EXPECT_THAT(tested, ElementsAre(L"C:\\corvi\\LSServCmd.exe"));
}

// ---- TerminateHXNextApp and TerminateDVRApp

/// One attempt of the library to start a program.
struct Start {
    std::wstring commandLine;
    std::wstring directory;
    bool started;
    DWORD error;
};

/// Notes every attempt, and lets it go on.
class StartRecorder {
public:
    explicit StartRecorder(ImportHooks& hooks) {
        CORVI_HOOK(hooks, CreateProcessW,
                   [this](LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES processSecurity,
                          LPSECURITY_ATTRIBUTES threadSecurity, BOOL inherit, DWORD flags, LPVOID environment,
                          LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION started) -> BOOL {
                       EXPECT_EQ(application, nullptr);
                       EXPECT_EQ(flags, DWORD{CREATE_NO_WINDOW});
                       const std::wstring text = commandLine;
                       const BOOL done =
                           ::CreateProcessW(application, commandLine, processSecurity, threadSecurity,
                                            inherit, flags, environment, directory, startup, started);
                       const DWORD error = done != FALSE ? 0 : GetLastError();
                       starts.push_back({text, directory != nullptr ? directory : L"", done != FALSE, error});
                       SetLastError(error);
                       return done;
                   });
    }
    std::vector<Start> starts;
};

std::wstring SystemDirectory() {
    wchar_t path[MAX_PATH] = {};
    SHGetFolderPathW(nullptr, CSIDL_SYSTEM, nullptr, 0, path);
    return path;
}

std::wstring KillCommand(const std::wstring& imageName) {
    return L"\"" + SystemDirectory() + L"\\TaskKill.exe\" /IM " + imageName + L" /F";
}

TEST(TerminateDVRApp, EveryRunningServerIsEnded) {
    const RunningProgram first(L"TAVOLSServ.exe");
    const RunningProgram second(L"TAVOLSServ.exe");
    const RunningProgram other(L"TAVOLSServ2.exe");
    EXPECT_EQ(CallSilently("TerminateDVRApp"), 0U);
    // The action hands one name to the tool. Where the tool ends only the first process of that name, the
    // other one runs on.
    if (TaskKillEndsEveryProcess()) {
        EXPECT_TRUE(first.Ends());
        EXPECT_TRUE(second.Ends());
    } else {
        EXPECT_NE(first.Runs(), second.Runs());
    }
    EXPECT_TRUE(other.Runs());
}

TEST(TerminateDVRApp, WithoutARunningServerTheToolStillRunsAndZeroIsReturned) {
    ToolRecorder tools;
    tools.StandInForSystemTool(L"taskkill.exe", 128);
    EXPECT_EQ(CallSilently("TerminateDVRApp"), 0U) << "the tool's own exit code is not read";
    const auto runs = tools.Runs();
    ASSERT_EQ(runs.size(), 1U) << "it is waited for";
    EXPECT_EQ(runs[0].commandLine, KillCommand(L"TAVOLSServ.exe")) << "no trailing quote here";
}

TEST(TerminateDVRApp, AKillToolThatCannotBeStartedGives1603) {
    const Library library;
    ImportHooks hooks(library.Module());
    CORVI_HOOK(hooks, SHGetPathFromIDListW, [](PCIDLIST_ABSOLUTE, LPWSTR path) -> BOOL {
        std::wcscpy(path, L"C:\\corvi\\no such directory");
        return TRUE;
    });
    StartRecorder recorder(hooks);
    EXPECT_EQ(library.Call("TerminateDVRApp", 0), 1603U);
    ASSERT_EQ(recorder.starts.size(), 1U);
    EXPECT_EQ(recorder.starts[0].commandLine,
              L"\"C:\\corvi\\no such directory\\TaskKill.exe\" /IM TAVOLSServ.exe /F");
}

TEST(TerminateDVRApp, TheToolIsAwaitedWithoutATimeLimit) {
    const Library library;
    ImportHooks hooks(library.Module());
    std::vector<DWORD> limits;
    CORVI_HOOK(hooks, WaitForSingleObject, [&](HANDLE handle, DWORD milliseconds) -> DWORD {
        limits.push_back(milliseconds);
        return ::WaitForSingleObject(handle, 30000);
    });
    EXPECT_EQ(library.Call("TerminateDVRApp", 0), 0U);
    EXPECT_THAT(limits, ElementsAre(INFINITE));
}

TEST(TerminateDVRApp, ASystemFolderThatIsUnknownLeavesABarePathAndGives1603) {
    const Library library;
    ImportHooks hooks(library.Module());
    CORVI_HOOK(hooks, SHGetFolderLocation, [](HWND, int csidl, HANDLE, DWORD, PIDLIST_ABSOLUTE*) -> HRESULT {
        EXPECT_EQ(csidl, 0x25);
        return E_FAIL;
    });
    StartRecorder recorder(hooks);
    EXPECT_EQ(library.Call("TerminateDVRApp", 0), 1603U);
    ASSERT_EQ(recorder.starts.size(), 1U);
    EXPECT_EQ(recorder.starts[0].commandLine, L"\"\\TaskKill.exe\" /IM TAVOLSServ.exe /F");
}

TEST(TerminateHXNextApp, BothKillCommandsEndInATrailingQuoteAndNameThemselvesAsCurrentDirectory) {
    const Library library;
    ImportHooks hooks(library.Module());
    StartRecorder recorder(hooks);
    EXPECT_EQ(library.Call("TerminateHXNextApp", 0), 0U);
    ASSERT_EQ(recorder.starts.size(), 2U);
    EXPECT_EQ(recorder.starts[0].commandLine, KillCommand(L"LumenSettings.exe") + L"\"");
    EXPECT_EQ(recorder.starts[1].commandLine, KillCommand(L"LumenSoftware.exe") + L"\"");
    for (const Start& start : recorder.starts) {
        EXPECT_EQ(start.directory, start.commandLine);
    }
}

TEST(TerminateHXNextApp, TheOddCurrentDirectoryKeepsTheToolFromStarting) {
    const RunningProgram settings(L"LumenSettings.exe");
    const RunningProgram software(L"LumenSoftware.exe");
    const Library library;
    ImportHooks hooks(library.Module());
    StartRecorder recorder(hooks);
    EXPECT_EQ(library.Call("TerminateHXNextApp", 0), 0U);
    ASSERT_EQ(recorder.starts.size(), 2U);
    for (const Start& start : recorder.starts) {
        EXPECT_FALSE(start.started);
        EXPECT_EQ(start.error, DWORD{ERROR_DIRECTORY});
    }
    EXPECT_TRUE(settings.Runs());
    EXPECT_TRUE(software.Runs());
}

TEST(TerminateHXNextApp, WithTheSettingsApplicationNotRunningBothRunsTakePlaceInOrderAndAreAwaited) {
    ToolRecorder tools;
    tools.StandInForSystemTool(L"taskkill.exe", 128);
    const Library library;
    ImportHooks hooks(library.Module());
    // The tool is started for real, only without the directory that would refuse it.
    CORVI_HOOK(hooks, CreateProcessW,
               [](LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES processSecurity,
                  LPSECURITY_ATTRIBUTES threadSecurity, BOOL inherit, DWORD flags, LPVOID environment,
                  LPCWSTR, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION started) -> BOOL {
                   return ::CreateProcessW(application, commandLine, processSecurity, threadSecurity, inherit,
                                           flags, environment, nullptr, startup, started);
               });
    EXPECT_EQ(library.Call("TerminateHXNextApp", 0), 0U);
    const auto runs = tools.Runs();
    ASSERT_EQ(runs.size(), 2U);
    EXPECT_EQ(runs[0].commandLine, KillCommand(L"LumenSettings.exe") + L"\"");
    EXPECT_EQ(runs[1].commandLine, KillCommand(L"LumenSoftware.exe") + L"\"");
}

TEST(TerminateHXNextApp, GivesZeroAndLogsNothing) { EXPECT_EQ(CallSilently("TerminateHXNextApp"), 0U); }

// ---- ExitHXApplication

TEST(ExitHXApplication, RunsTheSettingsApplicationsToolWithExitAndWaitsForIt) {
    const InstallLocation directory(L"C:\\corvi\\Suite App");
    const ScratchKey key(kSettingsAppKey);
    key.SetText(L"", L"Location", L"C:\\corvi\\Suite App");
    ToolRecorder tools;
    tools.StandInFor(L"C:\\corvi\\Suite App\\hxcmd.exe");
    ExitHXApplication();
    const auto runs = tools.Runs();
    ASSERT_EQ(runs.size(), 1U);
    EXPECT_EQ(runs[0].program, L"hxcmd.exe");
    const std::wstring& commandLine = runs[0].commandLine;
    EXPECT_NE(commandLine.find(L"hxcmd.exe"), std::wstring::npos);
    EXPECT_EQ(commandLine.substr(commandLine.size() - 5), L" exit");
}

/// Notes what the shell is asked to start, and refuses it.
struct ShellRecorder {
    explicit ShellRecorder(ImportHooks& hooks) {
        CORVI_HOOK(hooks, ShellExecuteExW, [this](SHELLEXECUTEINFOW* information) -> BOOL {
            files.emplace_back(information->lpFile);
            parameters.emplace_back(information->lpParameters);
            SetLastError(ERROR_FILE_NOT_FOUND);
            return FALSE;
        });
    }
    Lines files;
    Lines parameters;
};

TEST(ExitHXApplication, ALocationWithATrailingSeparatorGetsASecondOne) {
    const ScratchKey key(kSettingsAppKey);
    ImportHooks hooks(GetModuleHandleW(nullptr));
    ShellRecorder shell(hooks);
    key.SetText(L"", L"Location", L"C:\\Dir\\");
    ExitHXApplication();
    key.SetText(L"", L"Location", L"C:\\Dir");
    ExitHXApplication();
    EXPECT_THAT(shell.files, ElementsAre(L"C:\\Dir\\\\hxcmd.exe", L"C:\\Dir\\hxcmd.exe"));
    EXPECT_THAT(shell.parameters, ElementsAre(L"exit", L"exit"));
}

TEST(ExitHXApplication, OpensItsOwnSpellingOfTheKeyWithItsOwnAccessAndClosesItFirst) {
    const ScratchKey key(kSettingsAppKey);
    key.SetText(L"", L"Location", L"C:\\Dir");
    ImportHooks hooks(GetModuleHandleW(nullptr));
    std::vector<std::string> steps;
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) -> LSTATUS {
                   EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
                   EXPECT_STREQ(subkey, L"SOFTWARE\\QEL Technologies\\Install\\HXNext\\");
                   EXPECT_EQ(access, 0x2001FU);
                   steps.emplace_back("open");
                   return CORVI_ORIGINAL(hooks, RegOpenKeyExW)(root, subkey, options, access, opened);
               });
    CORVI_HOOK(hooks, RegCloseKey, [&](HKEY opened) -> LSTATUS {
        steps.emplace_back("close");
        return CORVI_ORIGINAL(hooks, RegCloseKey)(opened);
    });
    CORVI_HOOK(hooks, ShellExecuteExW, [&](SHELLEXECUTEINFOW*) -> BOOL {
        steps.emplace_back("run");
        return FALSE;
    });
    ExitHXApplication();
    EXPECT_THAT(steps, ElementsAre("open", "close", "run"));
}

TEST(ExitHXApplication, AToolThatHangsIsWaitedFor30000MillisecondsAndLeftRunning) {
    const InstallLocation directory(L"C:\\corvi\\Suite App");
    const ScratchKey key(kSettingsAppKey);
    key.SetText(L"", L"Location", L"C:\\corvi\\Suite App");
    CopyFileW(L"C:\\corvi\\sleeper.exe", L"C:\\corvi\\Suite App\\hxcmd.exe", FALSE);
    ImportHooks hooks(GetModuleHandleW(nullptr));
    std::vector<DWORD> limits;
    HANDLE tool = nullptr;
    CORVI_HOOK(hooks, WaitForSingleObject, [&](HANDLE handle, DWORD milliseconds) -> DWORD {
        limits.push_back(milliseconds);
        DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &tool, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
        return WAIT_TIMEOUT;
    });
    ExitHXApplication();
    hooks.RestoreAll();
    EXPECT_THAT(limits, ElementsAre(30000U));
    EXPECT_EQ(WaitForSingleObject(tool, 0), DWORD{WAIT_TIMEOUT}) << "it is not ended";
    TerminateProcess(tool, 0);
    WaitForSingleObject(tool, 10000);
    CloseHandle(tool);
}

TEST(ExitHXApplication, EveryErrorIsSwallowed) {
    ImportHooks hooks(GetModuleHandleW(nullptr));
    ShellRecorder shell(hooks);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSettingsAppKey);
    ExitHXApplication();
    const ScratchKey key(kSettingsAppKey);
    ExitHXApplication();
    key.SetNumber(L"", L"Location", 1);
    ExitHXApplication();
    EXPECT_THAT(shell.files, IsEmpty()) << "key missing, value missing, value of another type";
    hooks.RestoreAll();
    key.SetText(L"", L"Location", L"C:\\corvi\\no such directory");
    ExitHXApplication();
}

}  // namespace
}  // namespace corvi::test
