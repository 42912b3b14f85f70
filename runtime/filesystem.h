#pragma once

#include <windows.h>

#include <string>
#include <system_error>

namespace corvi {

/// The error of a file-system operation: the platform's error code in the system category and, in
/// what(), the operation's name ("exists", "remove", "remove_all", "equivalent",
/// "recursive_directory_iterator::recursive_directory_iterator") with the system's description.
class FileSystemError : public std::system_error {
public:
    FileSystemError(DWORD code, const char* operation);
};

/// True when path names a file or directory, seen through links: a link that leads nowhere does not exist,
/// nor does a plain file with a trailing separator, nor an empty or malformed path. False as well when the
/// platform cannot tell; true for a link whose target is refused.
bool PathExists(const std::wstring& path);

/// True when path names an existing directory, seen through links.
bool IsDirectory(const std::wstring& path);

/// True when path names an existing file.
bool IsFile(const std::wstring& path);

/// The path without its last element and the separators before it; "\" and "/" both separate and the
/// root is kept. Pure text: quotes and arguments are not understood. "C:\a\b.exe" gives "C:\a",
/// "C:\b.exe" gives "C:\", "b.exe" gives an empty text.
std::wstring ParentPath(const std::wstring& path);

/// True when both paths name the same object on disk (volume serial number and file identifier), with
/// or without trailing separator. Throws FileSystemError "equivalent" when either cannot be opened.
bool AreSameObject(const std::wstring& left, const std::wstring& right);

/// Removes one file or empty directory; a link is removed itself, never its target. True when it was
/// removed, false when nothing of that name was there. Throws FileSystemError "remove" otherwise.
bool RemoveOne(const std::wstring& path);

/// Deletes a folder with everything in it, read-only entries included, never following a link. What is
/// in use as a loaded module, a running program or somebody's current directory is scheduled for deletion at
/// the next restart. Returns normally whatever happens: a file that somebody holds open without sharing ends
/// the removal, and what was not reached by then stays. path: with or without trailing backslash; nothing is
/// done when it names nothing (PathExists). A plain file is removed as well, and a link itself, with or
/// without trailing backslash. Stands on RemoveDirectoryW, DeleteFileW, MoveFileExW.
void DeleteFolder(const std::wstring& path) noexcept;

/// Calls GrantUsersFullControl on a folder, without its trailing separators, and on every file and folder
/// below it. Links are entries of the folder that holds them and are neither entered nor passed on. Does
/// nothing when path is no directory, or is a link; the first error of the walk ends it.
/// Once this was done all users own what it was done to: they can put a link in the place of the empty
/// folder, and an elevated program that goes on with its path opens the link's target. Granting the path
/// again is safe, for a link is not granted.
void GrantTreeToUsers(const std::wstring& path, const std::wstring& owner,
                      const std::wstring& workingDirectory);

}  // namespace corvi
