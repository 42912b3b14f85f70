#pragma once

#include <windows.h>

#include <shellapi.h>
#include <tlhelp32.h>

#include <cstddef>
#include <string>

namespace corvi::tool::plan {

// Programs as a plan starts them: each is noted, has ended at once with code 0 and has printed nothing.
// One that the platform could not start is refused with the platform's error. Each function stands in for
// the platform's of the same name.

BOOL WINAPI StartProcess(LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES processSecurity,
                         LPSECURITY_ATTRIBUTES threadSecurity, BOOL inherit, DWORD flags, LPVOID environment,
                         LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION started);
BOOL WINAPI StartThroughShell(SHELLEXECUTEINFOW* information);
DWORD WINAPI WaitForOne(HANDLE object, DWORD milliseconds);
DWORD WINAPI WaitForSeveral(DWORD count, const HANDLE* objects, BOOL all, DWORD milliseconds);
BOOL WINAPI ExitCode(HANDLE process, LPDWORD code);
BOOL WINAPI EndProcess(HANDLE process, UINT code);
BOOL WINAPI FirstProcess(HANDLE snapshot, LPPROCESSENTRY32W entry);
BOOL WINAPI NextProcess(HANDLE snapshot, LPPROCESSENTRY32W entry);
/// For files, processes and everything else.
BOOL WINAPI CloseAny(HANDLE object);

// The C runtime's ways to end the process.
void ExitByRuntime(int code);
void AbortByRuntime();
void ExitWithRuntimeError(int code);

/// True when the plan has ended every process of that image name.
bool IsEnded(const std::wstring& image);
/// How many image names the plan has ended.
std::size_t EndedNames();

/// The program that a command line starts, absolute, found as the platform finds it; empty when there is
/// none, *error then tells why.
std::wstring ProgramOf(const std::wstring& commandLine, DWORD* error);

}  // namespace corvi::tool::plan
