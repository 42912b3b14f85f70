#pragma once

#include <windows.h>

#include <msi.h>

#include <string>

namespace corvi {

/// Removes, for all users, the MSIX packages whose name matches a PowerShell wildcard pattern, through
/// Windows PowerShell. Logs the command on the session and gives its exit code, or the platform error of
/// a failed start.
int RemoveAppxPackage(MSIHANDLE session, const std::wstring& familyPattern);

}  // namespace corvi
