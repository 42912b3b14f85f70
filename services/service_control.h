#pragma once

#include <windows.h>

#include <msi.h>

#include <string>

#include "runtime/unique_handle.h"

namespace corvi {

struct ServiceHandleTraits {
    using Handle = SC_HANDLE;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle handle) noexcept { CloseServiceHandle(handle); }
};

/// The service manager or one service.
using ServiceHandle = UniqueHandle<ServiceHandleTraits>;

/// Stops a service and waits until it has stopped, at most about 30,000 ms from the call. 1 when it is
/// stopped at the end (or was already), 0 otherwise. Reports to the debugger output only.
int StopServiceAndWait(std::wstring serviceName);

/// Starts the service "TUEPLauncher" and waits while it makes progress. True when it runs at the end or
/// was neither stopped nor stopping. Reports to the debugger output only.
bool StartServiceAndWait();

/// Stops and deletes a service without waiting. Each failing step is logged on the session, and the
/// next step follows regardless.
void StopAndDeleteService(MSIHANDLE session, std::wstring serviceName);

/// Deletes a service: opens the manager with full access and the service with DELETE access. Failures
/// are ignored.
void DeleteServiceByName(const std::wstring& serviceName);

/// Creates the service "TUEPLauncher" (the user-experience program's data uploader) with delayed
/// automatic start. An existing service is left as it is; failures are swallowed.
void InstallDataUploaderService();

/// The binary path of a service as the service manager stores it. On an error of QueryServiceConfigW
/// closes both handles and throws std::system_error with "Unable to call QueryServiceConfig".
std::wstring GetServiceBinaryPath(ServiceHandle& manager, ServiceHandle& service);

/// The "ImagePath" of a service from its registry key, as stored; empty when key or value is missing.
std::wstring GetServiceImagePath(const std::wstring& serviceName);

}  // namespace corvi
