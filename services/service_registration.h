#pragma once

#include <string>

#include "services/service_handle.h"

namespace corvi {

/// Creates the service "TUEPLauncher" (the user-experience program's data uploader) with delayed
/// automatic start. An existing service is left as it is; failures are swallowed.
void InstallDataUploaderService();

/// The binary path of a service as the service manager stores it. Throws std::system_error "Unable to call
/// QueryServiceConfig" on an error of QueryServiceConfigW.
std::wstring GetServiceBinaryPath(const ServiceHandle& service);

/// The "ImagePath" of a service from its registry key, as stored; empty when key or value is missing or
/// cannot be read.
std::wstring GetServiceImagePath(const std::wstring& serviceName);

}  // namespace corvi
