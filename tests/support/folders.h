#pragma once

#include <windows.h>

#include <filesystem>
#include <functional>
#include <string>

namespace corvi::test {

/// True when there is something of that name, a link that leads nowhere included. path: absolute, not a
/// drive's root.
bool IsThere(const std::wstring& path);

/// Calls visit(path, attributes) for each entry of a folder, in the platform's order; for none when there is
/// no such folder. folder: without trailing backslash.
void ForEachEntry(const std::wstring& folder,
                  const std::function<void(const std::wstring& path, DWORD attributes)>& visit);

/// Removes a folder with all that is in it, if it is there; a link in it goes, what it leads to stays. Waits
/// up to ten seconds for a program that is ending and still holds something. Throws
/// std::filesystem::filesystem_error when it stays.
void RemoveFolder(const std::filesystem::path& folder);

/// The same where an error has nowhere to go, in a destructor: a folder that stays fails the test.
void RemoveFolderAtEnd(const std::filesystem::path& folder) noexcept;

/// Makes a link. link: absolute path; target: as the link holds it, with backslashes ("..\target"). A folder
/// that is there gets a link to a folder, anything else one to a file. Throws std::runtime_error.
void MakeLink(const std::wstring& link, const std::wstring& target);

/// Deletes a file, an empty folder or a link itself, by a handle that is closed: none of the functions that
/// delete by name is called, which a test may have replaced. False when the platform refuses.
bool DeleteOnClose(const std::wstring& path);

/// Removes a link, never its target. Throws std::runtime_error.
void RemoveLink(const std::wstring& link);

}  // namespace corvi::test
