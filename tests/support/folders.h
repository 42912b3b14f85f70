#pragma once

#include <filesystem>
#include <string>

namespace corvi::test {

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
