#pragma once

#include <windows.h>

#include <msi.h>

#include <string>

namespace corvi {

/// Runs `cmd.exe /C "command"` hidden (CREATE_NO_WINDOW), collects what it prints on standard output
/// and standard error, and logs "RunCommandline: %s - %s\n" with the command and the output when it has
/// ended. workingDirectory: null or empty for the current one. session: the handle to log on, 0 for
/// none. Gives the exit code, or the platform error of a failed start or of an exit code that cannot be
/// read; the wait then ends, and nothing is logged. Gives 259 (STILL_ACTIVE), with nothing logged, when the
/// output's pipe can no longer be asked while the child runs. No time limit; polls without pause. A child
/// that ends with 259 cannot be told from one that runs: it is waited for without end. Stands on
/// CreateProcessW, GetExitCodeProcess and PeekNamedPipe.
int RunCommandline(const std::wstring& command, const wchar_t* workingDirectory, MSIHANDLE session);

/// Starts a command line hidden and, if wait is set, waits for its end without time limit. commandLine:
/// writable, as CreateProcessW wants it. workingDirectory: empty for the current one. True when the
/// program was started; its exit code is not read.
bool RunProcessAndWait(wchar_t* commandLine, const std::wstring& workingDirectory, bool wait);

/// The text on a failed start: the command line and the platform's error number. RunProcessAndWait
/// composes it and writes it nowhere.
std::wstring LaunchFailureText(const std::wstring& commandLine, DWORD error);

/// RunProcessAndWait over a copy of command in a buffer of 519 characters, its terminator included. A
/// command of 519 characters or more ends the process with 0xC0000417 (invalid C runtime parameter), on
/// every C runtime: a cut one could name another program, folder or image.
bool RunFromCommandBuffer(const std::wstring& command, const std::wstring& workingDirectory, bool wait);

/// Starts a file through the shell, hidden and without any message box, and waits at most
/// timeoutMilliseconds. Gives the exit code, 259 when it still runs (it is not ended), or the platform
/// error of a failed start or of an exit code that cannot be read, as of a start that gives no process.
/// Stands on ShellExecuteExW and GetExitCodeProcess.
int ShellExecuteAndWait(const std::wstring& file, const std::wstring& parameters, DWORD timeoutMilliseconds);

/// Starts the task scheduler's command-line tool "schtasks" through the shell, hidden, without waiting.
/// True when it was started. The outcome is logged on launchSession, which drops it.
bool LaunchApplication(const wchar_t* parameters);

/// The path of the system's tool that ends programs, "C:\Windows\System32\TaskKill.exe"; only
/// "\TaskKill.exe" when the system folder is unknown.
std::wstring KillToolPath();

/// Runs the tool of KillToolPath with " /IM " and the given text (an image name and the caller's own
/// switches, "X.exe /F") by RunFromCommandBuffer, in the system folder, and waits for it. True when the
/// tool was started; its exit code is not read.
bool KillProcessByName(const std::wstring& imageText);

/// Makes owner the owner of path (icacls /setowner) and grants the local Users group full control of
/// it (icacls /grant Users:F). Results are not checked. workingDirectory as for RunCommandline.
void GrantUsersFullControl(const std::wstring& path, const std::wstring& owner,
                           const wchar_t* workingDirectory);

}  // namespace corvi
