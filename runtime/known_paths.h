#pragma once

#include <string>

namespace corvi {

/// The path of a special folder by its CSIDL number, without trailing backslash. 1 on success, 0 on
/// failure; path stays as it was when no text could be had. Stands on SHGetFolderLocation.
int GetKnownFolderPath(int csidl, std::wstring& path);

/// The root of the drive that holds the Windows directory ("C:\"), or an empty text on failure. Stands
/// on GetWindowsDirectoryW.
std::wstring GetWindowsDriveRoot();

/// The directory for temporary files as the platform gives it, with its trailing backslash (buffer of
/// 260 characters); empty on failure. Stands on GetTempPathW.
std::wstring GetTemporaryDirectory();

}  // namespace corvi
