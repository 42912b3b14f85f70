#pragma once

#include <windows.h>

#include <msi.h>

#include <optional>
#include <string>

#include "runtime/system_info.h"

namespace corvi {

/// Registers a COM server through "regsvr32.exe /s", after an unregistration whose outcome does not
/// count. dllName: its file name; directory: where it is, with trailing backslash (the second command
/// puts one more backslash between the two). 0, or ERROR_INSTALL_FAILURE when regsvr32 failed. Not logged.
UINT RegisterComDll(const std::wstring& dllName, const std::wstring& directory);

/// Unregisters a COM server through "regsvr32.exe /u /s". Arguments and result as above.
UINT UnregisterComDll(const std::wstring& dllName, const std::wstring& directory);

/// Loads a media-source DLL (full path), calls its "OptxScanCameras" with true (it has been registered)
/// or false (it is about to be unregistered), and unloads it. The outcome is logged on the session and
/// changes nothing else. Stands on LoadLibraryW and GetProcAddress.
void RunCameraScan(MSIHANDLE session, bool registered, const std::wstring& mediaSourcePath);

/// What a Windows version text ("10.22631.2861") says.
struct WindowsVersionVerdict {
    WindowsVersionGroups groups;
    bool isWindows11;
};

/// Takes a version text apart and tells whether it means Windows 11: major "10" and build and revision
/// not before 22000.348, all compared as texts. Nothing when the text is no version text.
std::optional<WindowsVersionVerdict> IsWindows11(const std::wstring& versionText);

}  // namespace corvi
