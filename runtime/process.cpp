#include "runtime/process.h"

#include <shellapi.h>
#include <shlobj.h>

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <optional>
#include <string_view>

#include "runtime/installer_log.h"
#include "runtime/kernel_handle.h"
#include "runtime/known_paths.h"
#include "runtime/session.h"
#include "runtime/text.h"

namespace corvi {
namespace {

constexpr DWORD kPipeBufferSize = 4096;

constexpr ULONG kWaitableLaunchMask =
    SEE_MASK_NOCLOSEPROCESS | SEE_MASK_NOASYNC | SEE_MASK_FLAG_NO_UI | SEE_MASK_NOZONECHECKS;

constexpr wchar_t kTaskTool[] = L"schtasks";
constexpr wchar_t kKillTool[] = L"TaskKill.exe";

// The buffer for the command lines of tools, in characters, terminator included.
constexpr size_t kCommandCapacity = 519;

// What the C runtime ends a process with when an argument is invalid and nobody handles it.
constexpr UINT kInvalidRuntimeParameter = 0xC0000417;

struct ShellFailure {
    INT_PTR value;
    const wchar_t* text;
};

constexpr ShellFailure kShellFailures[] = {
    {0, L"The operating system is out of memory or resources"},
    {SE_ERR_FNF, L"File not found."},
    {SE_ERR_PNF, L"Path not found."},
    {SE_ERR_ACCESSDENIED, L"Access denied."},
    {SE_ERR_OOM, L"Out of memory."},
    {SE_ERR_SHARE, L"Cannot share an open file."},
    {SE_ERR_ASSOCINCOMPLETE, L"File association information not complete."},
    // The leading blank belongs to the text.
    {SE_ERR_DDETIMEOUT, L" The DDE transaction could not be completed because the request timed out"},
    {SE_ERR_DDEFAIL, L"DDE operation failed."},
    {SE_ERR_DDEBUSY, L"DDE operation is busy."},
    {SE_ERR_NOASSOC, L"File association not available."},
    {SE_ERR_DLLNOTFOUND, L"Dynamic-link library not found."},
};
constexpr wchar_t kUnknownShellFailure[] = L"Unknown error, could be SE_ERR_FNF, or SE_ERR_PNF";

struct Pipe {
    KernelHandle readEnd;
    KernelHandle writeEnd;
};

struct Child {
    KernelHandle process;
    KernelHandle thread;
};

// The platform refuses an empty working directory; the current one is asked for by null.
const wchar_t* WorkingDirectoryOrNull(const wchar_t* directory) {
    return directory != nullptr && *directory != L'\0' ? directory : nullptr;
}

void StopInheritance(const KernelHandle& handle) {
    SetHandleInformation(handle.Get(), HANDLE_FLAG_INHERIT, 0);
}

// The error of a call that has just failed: never 0, which callers take for success.
DWORD LastErrorOr(DWORD fallback) {
    const DWORD error = GetLastError();
    return error != ERROR_SUCCESS ? error : fallback;
}

// A process's exit code, or the platform's error when it cannot be read. isKnown: which of the two it is.
DWORD ReadExitCode(const KernelHandle& process, bool& isKnown) {
    DWORD exitCode = 0;
    isKnown = GetExitCodeProcess(process.Get(), &exitCode) != FALSE;
    return isKnown ? exitCode : LastErrorOr(ERROR_INVALID_HANDLE);
}

// Starts a command line without a window. Nothing when it was started, else the platform error.
std::optional<DWORD> StartHidden(wchar_t* commandLine, const wchar_t* workingDirectory, bool inheritHandles,
                                 STARTUPINFOW& startup, Child& child) {
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION started{};
    if (CreateProcessW(nullptr, commandLine, nullptr, nullptr, inheritHandles ? TRUE : FALSE,
                       CREATE_NO_WINDOW, nullptr, WorkingDirectoryOrNull(workingDirectory), &startup,
                       &started) == FALSE) {
        return LastErrorOr(ERROR_GEN_FAILURE);
    }
    child.process.Reset(started.hProcess);
    child.thread.Reset(started.hThread);
    return std::nullopt;
}

// Starts the command in the command interpreter with its output going to the pipe. Failures of the pipe
// are not failures of the start: the command then runs without its output being seen.
std::optional<DWORD> StartInterpreter(const std::wstring& command, const wchar_t* workingDirectory,
                                      Pipe& output, Child& child) {
    SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
    // The second pipe is never connected; it only has to be there while the child starts.
    Pipe unused;
    CreatePipe(output.readEnd.Put(), output.writeEnd.Put(), &inheritable, kPipeBufferSize);
    CreatePipe(unused.readEnd.Put(), unused.writeEnd.Put(), &inheritable, kPipeBufferSize);
    StopInheritance(output.readEnd);
    StopInheritance(unused.writeEnd);

    STARTUPINFOW startup{};
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output.writeEnd.Get();
    startup.hStdError = output.writeEnd.Get();
    // The command is not escaped: the interpreter strips the outermost pair of quotes and keeps the rest.
    std::wstring commandLine = L"cmd.exe /C \"" + command + L"\"";
    return StartHidden(commandLine.data(), workingDirectory, true, startup, child);
}

// Takes what waits in the pipe. The room for it is twice its size and is appended whole, so zero bytes
// follow what was read. Kept: the log line shows the output up to the first of them.
void CollectOutput(HANDLE readEnd, DWORD waiting, std::string& collected) {
    std::string chunk(size_t{waiting} * 2, '\0');
    DWORD read = 0;
    if (ReadFile(readEnd, chunk.data(), static_cast<DWORD>(chunk.size()), &read, nullptr) != FALSE &&
        read > 0) {
        collected += chunk;
    }
}

// The output up to its first zero byte, from the console's code page.
std::wstring WidenConsoleText(const std::string& output) {
    const UINT consolePage = GetConsoleOutputCP();
    std::string_view shown = output;
    shown = shown.substr(0, shown.find('\0'));
    return Widen(shown, consolePage != 0 ? consolePage : GetOEMCP());
}

// Reads until the child has ended. True when it ended, false when its exit code could not be read (exitCode
// is then the platform's error) or the pipe could not be asked. The exit code is sampled before the pipe is
// read, so what the child wrote before it ended is still collected.
bool CollectUntilExit(const Child& child, const Pipe& pipe, DWORD& exitCode, std::string& collected) {
    do {
        bool isKnown = false;
        exitCode = ReadExitCode(child.process, isKnown);
        if (!isKnown) {
            return false;
        }
        DWORD waiting = 0;
        if (PeekNamedPipe(pipe.readEnd.Get(), nullptr, 0, nullptr, &waiting, nullptr) == FALSE) {
            return false;
        }
        if (waiting > 0) {
            CollectOutput(pipe.readEnd.Get(), waiting, collected);
        }
    } while (exitCode == STILL_ACTIVE);
    return true;
}

std::wstring KillToolIn(const std::wstring& systemFolder) { return systemFolder + L"\\" + kKillTool; }

const wchar_t* ShellFailureText(HINSTANCE instance) {
    const auto value = reinterpret_cast<INT_PTR>(instance);
    const auto* const failure =
        std::find_if(std::begin(kShellFailures), std::end(kShellFailures),
                     [&](const ShellFailure& candidate) { return candidate.value == value; });
    return failure != std::end(kShellFailures) ? failure->text : kUnknownShellFailure;
}

}  // namespace

int RunCommandline(const std::wstring& command, const wchar_t* workingDirectory, MSIHANDLE session) {
    Pipe output;
    Child child;
    const auto error = StartInterpreter(command, workingDirectory, output, child);
    if (error) {
        return static_cast<int>(*error);
    }
    DWORD exitCode = 0;
    std::string collected;
    if (CollectUntilExit(child, output, exitCode, collected)) {
        WriteInstallerLog(session, L"RunCommandline: %s - %s\n", command.c_str(),
                          WidenConsoleText(collected).c_str());
    }
    return static_cast<int>(exitCode);
}

std::wstring LaunchFailureText(const std::wstring& commandLine, DWORD error) {
    return L"\nFailed to lauch >" + commandLine + L"<\n Last error return: " + std::to_wstring(error) + L"\n";
}

bool RunProcessAndWait(wchar_t* commandLine, const std::wstring& workingDirectory, bool wait) {
    STARTUPINFOW startup{};
    Child child;
    const auto error = StartHidden(commandLine, workingDirectory.c_str(), false, startup, child);
    if (error) {
        // For whoever looks at the stopped process: it is written nowhere.
        [[maybe_unused]] const std::wstring text = LaunchFailureText(commandLine, *error);
        return false;
    }
    if (wait) {
        WaitForSingleObject(child.process.Get(), INFINITE);
    }
    return true;
}

bool RunFromCommandBuffer(const std::wstring& command, const std::wstring& workingDirectory, bool wait) {
    wchar_t buffer[kCommandCapacity] = {};
    if (wcsncpy_s(buffer, kCommandCapacity, command.c_str(), kCommandCapacity) != 0) {
        // Not every C runtime ends the process by itself over a text that does not fit.
        TerminateProcess(GetCurrentProcess(), kInvalidRuntimeParameter);
        return false;
    }
    return RunProcessAndWait(buffer, workingDirectory, wait);
}

int ShellExecuteAndWait(const std::wstring& file, const std::wstring& parameters, DWORD timeoutMilliseconds) {
    SHELLEXECUTEINFOW information{};
    information.cbSize = sizeof(information);
    information.fMask = kWaitableLaunchMask;
    information.lpVerb = L"open";
    information.lpFile = file.c_str();
    information.lpParameters = parameters.c_str();
    information.nShow = SW_HIDE;
    if (ShellExecuteExW(&information) == FALSE) {
        return static_cast<int>(LastErrorOr(ERROR_GEN_FAILURE));
    }
    const KernelHandle process(information.hProcess);
    WaitForSingleObject(process.Get(), timeoutMilliseconds);
    bool isKnown = false;
    return static_cast<int>(ReadExitCode(process, isKnown));
}

bool LaunchApplication(const wchar_t* parameters) {
    SHELLEXECUTEINFOW information{};
    information.cbSize = sizeof(information);
    information.fMask = SEE_MASK_NOCLOSEPROCESS;
    information.lpVerb = L"open";
    information.lpFile = kTaskTool;
    information.lpParameters = parameters;
    information.nShow = SW_HIDE;
    if (ShellExecuteExW(&information) == FALSE) {
        WriteInstallerLog(launchSession, L"Sable_CA failed to launch the following: %s",
                          ShellFailureText(information.hInstApp));
        return false;
    }
    const KernelHandle process(information.hProcess);
    WriteInstallerLog(launchSession, L"Sable_CA launched the following successfully: %s", kTaskTool);
    return true;
}

std::wstring KillToolPath() { return KillToolIn(KnownFolder(CSIDL_SYSTEM)); }

bool KillProcessByName(const std::wstring& imageText) {
    const std::wstring systemFolder = KnownFolder(CSIDL_SYSTEM);
    return RunFromCommandBuffer(L"\"" + KillToolIn(systemFolder) + L"\" /IM " + imageText, systemFolder,
                                true);
}

void GrantUsersFullControl(const std::wstring& path, const std::wstring& owner,
                           const wchar_t* workingDirectory) {
    RunCommandline(L"icacls \"" + path + L"\" /setowner " + owner, workingDirectory, 0);
    RunCommandline(L"icacls \"" + path + L"\" /grant Users:F", workingDirectory, 0);
}

}  // namespace corvi
