#pragma once

#include <windows.h>

#include <msi.h>

#include <string>

namespace corvi {

/// The service of the user-experience program (TUEP), its data uploader.
inline constexpr wchar_t kTuepService[] = L"TUEPLauncher";

/// Stops a service and waits until it has stopped. 1 when it is stopped at the end (or was already), 0
/// otherwise. The limit of 30,000 ms from the call is looked at between two pauses only. While a stop that
/// somebody else asked for is pending a pause is 1,000 to 10,000 ms. After the own stop control it is the
/// wait hint as the service reports it, in milliseconds: it may be 0, and then the service is asked without
/// pause; it may lead far beyond the limit; and a hint of 0xFFFFFFFF never ends.
/// Reports to the debugger output only. Stands on ControlService and QueryServiceStatusEx.
int StopServiceAndWait(const std::wstring& serviceName);

/// Starts the service "TUEPLauncher" and waits while it makes progress, without limit. A service that is
/// still stopping is waited for in the same way first. True when it runs at the end or was neither stopped
/// nor stopping. Reports to the debugger output only.
bool StartServiceAndWait();

/// Stops and deletes a service without waiting. Each failing step is logged on the session, and the
/// next step follows regardless.
void StopAndDeleteService(MSIHANDLE session, const std::wstring& serviceName);

/// Deletes a service: opens the manager with full access and the service with DELETE access. Failures
/// are ignored.
void DeleteServiceByName(const std::wstring& serviceName);

}  // namespace corvi
