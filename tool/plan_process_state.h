#pragma once

#include <windows.h>

#include <cstdio>

namespace corvi::tool::plan {

// What the action asks of its own process and of the session's windows. Each function stands in for the
// platform's or the C runtime's of the same name.

/// The clock moves on by what is waited, and nobody waits.
void WINAPI PassTime(DWORD milliseconds);
DWORD WINAPI TickCount();
ULONGLONG WINAPI LongTickCount();

/// A library of the suite that the action loads: its file is read, nothing of it is run. GetProcAddress
/// knows the one function of it that the action calls, and what the platform's libraries only tell.
HMODULE WINAPI LoadOneLibrary(LPCWSTR path);
BOOL WINAPI UnloadLibrary(HMODULE module);
FARPROC WINAPI FindFunction(HMODULE module, LPCSTR name);

LRESULT WINAPI TellWindows(HWND window, UINT message, WPARAM first, LPARAM second, UINT flags,
                           UINT milliseconds, PDWORD_PTR result);
void WINAPI TellShell(LONG event, UINT flags, LPCVOID first, LPCVOID second);

// Standard output: collected.
int PutText(const char* text, std::FILE* file);
int PutWideText(const wchar_t* text, std::FILE* file);

}  // namespace corvi::tool::plan
