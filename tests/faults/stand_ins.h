#pragma once

#include <windows.h>

#include <shellapi.h>

#include <string>

namespace corvi::test {

// What would be slow or without end on the real platform: started programs, services and the clock. A
// started program has ended at once with 0 after it printed one line. Services live in the process.

/// Forgets all services and sets the clock back.
void ResetStandIns();

/// Makes a service that runs. Stopping takes it two queries.
void AddService(const std::wstring& name, const std::wstring& binaryPath, bool running = true);
/// Makes a service that somebody has told to stop: two queries later it has.
void AddStoppingService(const std::wstring& name, const std::wstring& binaryPath);

BOOL WINAPI StartProgram(LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES,
                         LPSECURITY_ATTRIBUTES, BOOL inherit, DWORD flags, LPVOID environment,
                         LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION process);
BOOL WINAPI StartThroughShell(SHELLEXECUTEINFOW* information);

SC_HANDLE WINAPI OpenManager(LPCWSTR machine, LPCWSTR database, DWORD access);
SC_HANDLE WINAPI OpenOneService(SC_HANDLE manager, LPCWSTR name, DWORD access);
SC_HANDLE WINAPI CreateOneService(SC_HANDLE manager, LPCWSTR name, LPCWSTR displayName, DWORD access,
                                  DWORD type, DWORD start, DWORD error, LPCWSTR binaryPath, LPCWSTR group,
                                  LPDWORD tag, LPCWSTR dependencies, LPCWSTR account, LPCWSTR password);
BOOL WINAPI CloseService(SC_HANDLE handle);
BOOL WINAPI QueryOneStatus(SC_HANDLE service, LPSERVICE_STATUS status);
BOOL WINAPI QueryOneStatusEx(SC_HANDLE service, SC_STATUS_TYPE level, LPBYTE buffer, DWORD size,
                             LPDWORD needed);
BOOL WINAPI QueryOneConfig(SC_HANDLE service, LPQUERY_SERVICE_CONFIGW config, DWORD size, LPDWORD needed);
BOOL WINAPI ControlOneService(SC_HANDLE service, DWORD control, LPSERVICE_STATUS status);
BOOL WINAPI StartOneService(SC_HANDLE service, DWORD count, LPCWSTR* arguments);
BOOL WINAPI DeleteOneService(SC_HANDLE service);
BOOL WINAPI ConfigureOneService(SC_HANDLE service, DWORD level, LPVOID information);

void WINAPI PassTime(DWORD milliseconds);
DWORD WINAPI TickCount();

/// What services and their handles are called, for the notes: "TUEPLauncher"; "" for none.
std::wstring ServiceName(SC_HANDLE service);

}  // namespace corvi::test
