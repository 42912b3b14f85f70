#pragma once

#include <string>

namespace corvi {

/// The path of a special folder by its CSIDL number, without trailing backslash. 1 on success, 0 on
/// failure; path stays as it was when no text could be had. Stands on SHGetFolderLocation.
int GetKnownFolderPath(int csidl, std::wstring& path);

/// The same as a result: the folder's path, or an empty text when the platform cannot name it. A path
/// built on an empty text names something else, on the current drive: nothing is deleted or moved there.
std::wstring KnownFolder(int csidl);

/// The Windows directory without trailing backslash ("C:\Windows"; buffer of 260 characters), or an empty
/// text when the platform does not give it. Stands on GetWindowsDirectoryW.
std::wstring GetWindowsFolder();

/// The Windows directory up to and including its first backslash: "C:\", the root of its drive. A text
/// without a backslash is given whole; empty when the platform does not give the directory.
std::wstring GetWindowsDriveRoot();

/// The directory for temporary files as the platform gives it, with its trailing backslash; empty when the
/// platform does not give it, or not in a buffer of capacity characters. Stands on GetTempPathW.
std::wstring GetTemporaryDirectory(size_t capacity = 260);

}  // namespace corvi
