#pragma once

#include <windows.h>

#include <msi.h>

#include <string>

namespace corvi {

/// Imports a certificate file (full path) into the local machine's trusted root store through Windows
/// PowerShell. Gives its exit code, or the platform error of a failed start. Not logged.
int ImportCertificate(const std::wstring& certificatePath);

/// Adds an MSIX package file (full path) through Windows PowerShell. Result as above. Not logged.
int AddAppxPackage(const std::wstring& packagePath);

/// Removes, for all users, the MSIX packages whose name matches a PowerShell wildcard pattern, through
/// Windows PowerShell. Logs the command on the session and gives its exit code, or the platform error of
/// a failed start.
int RemoveAppxPackage(MSIHANDLE session, const std::wstring& familyPattern);

}  // namespace corvi
