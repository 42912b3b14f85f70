#pragma once

#include <windows.h>

#include <msi.h>

#include <string>

namespace corvi {

/// PowerShell wildcard patterns on package names: the context menu's packages, the chat companion's
/// included, and the chat companion's alone.
inline constexpr wchar_t kContextMenuPackages[] = L"TavoCorporationInc-LSXCM*";
inline constexpr wchar_t kChatPackages[] = L"TavoCorporationInc-LSXCMCHAT*";

/// Imports a certificate file (full path) into the local machine's trusted root store through Windows
/// PowerShell. Gives its exit code, or the platform error of a failed start. Not logged.
int ImportCertificate(const std::wstring& certificatePath);

/// Adds an MSIX package file (full path) through Windows PowerShell. Result as above. Not logged.
int AddAppxPackage(const std::wstring& packagePath);

/// Runs the command that is to remove, for all users, the MSIX packages whose name matches a PowerShell
/// wildcard pattern. Logs the command on the session and gives its exit code, or the platform error of a
/// failed start. On Windows it removes nothing and gives 9009 or 255: the command interpreter, not
/// PowerShell, takes the pipe, and looks for a program called Remove-AppxPackage.
int RemoveAppxPackage(MSIHANDLE session, const std::wstring& familyPattern);

}  // namespace corvi
