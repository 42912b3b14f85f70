#pragma once

#include <windows.h>

namespace corvi::tool::plan {

// The services as they would be after the changes that were noted so far: a stopped one has stopped at
// once, a started one runs, a deleted one is gone. Each function stands in for the platform's of the same
// name; the manager and every service that is only asked are the machine's own.

SC_HANDLE WINAPI OpenManager(LPCWSTR machine, LPCWSTR database, DWORD access);
SC_HANDLE WINAPI OpenOneService(SC_HANDLE manager, LPCWSTR name, DWORD access);
SC_HANDLE WINAPI CreateOneService(SC_HANDLE manager, LPCWSTR name, LPCWSTR displayName, DWORD access,
                                  DWORD type, DWORD start, DWORD errorControl, LPCWSTR binaryPath,
                                  LPCWSTR group, LPDWORD tag, LPCWSTR dependencies, LPCWSTR account,
                                  LPCWSTR password);
BOOL WINAPI CloseService(SC_HANDLE handle);
BOOL WINAPI ServiceStatus(SC_HANDLE service, LPSERVICE_STATUS status);
BOOL WINAPI ServiceStatusOfClass(SC_HANDLE service, SC_STATUS_TYPE type, LPBYTE buffer, DWORD size,
                                 LPDWORD needed);
BOOL WINAPI ServiceConfiguration(SC_HANDLE service, LPQUERY_SERVICE_CONFIGW configuration, DWORD size,
                                 LPDWORD needed);
BOOL WINAPI ControlOneService(SC_HANDLE service, DWORD control, LPSERVICE_STATUS status);
BOOL WINAPI StartOneService(SC_HANDLE service, DWORD count, LPCWSTR* arguments);
BOOL WINAPI DeleteOneService(SC_HANDLE service);
BOOL WINAPI ConfigureService(SC_HANDLE service, DWORD level, LPVOID information);

/// The clock of a plan moved on: a service that was stopping has stopped, one that was starting runs.
void LetServicesSettle();

}  // namespace corvi::tool::plan
