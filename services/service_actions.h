#pragma once

#include <string>

namespace corvi {

/// Stops and deletes a service when its executable lies in a directory.
/// directory: any spelling of an existing directory, with or without trailing backslash, or "*" for
/// wherever the executable lies. The executable's directory is the service's binary path as stored, up to
/// its last separator, nothing taken off. A quote in front stays part of it, so that such a path has no
/// directory that could be examined. Arguments without a separator change nothing; with one, the directory
/// is looked for in them.
/// Waits about 3 s at most for the service to stop and deletes it then in any case. Its lines go to the
/// installer log on cleanupSession, which drops them, and the binary path to standard output.
/// Throws std::system_error "Unable to call QueryServiceConfig" and FileSystemError "equivalent"; the
/// service is then left alone.
void DeleteServiceInDirectory(const std::wstring& serviceName, const std::wstring& directory);

}  // namespace corvi
