#pragma once

#include <string>

namespace corvi {

/// Stops and deletes a service when its executable lies in a directory.
/// directory: any spelling of an existing directory, with or without trailing backslash, or "*" for
/// wherever the executable lies. The service's binary path is taken as stored: one with quotes has no
/// directory that could be examined.
/// Waits about 3 s at most for the service to stop and deletes it then in any case. Its lines go to the
/// installer log on cleanupSession, which drops them, and the binary path to standard output.
/// Throws std::system_error "Unable to call QueryServiceConfig" and FileSystemError "equivalent"; the
/// service is then left alone.
void DeleteServiceInDirectory(const std::wstring& serviceName, const std::wstring& directory);

}  // namespace corvi
