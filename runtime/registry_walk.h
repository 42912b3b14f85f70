#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace corvi {

/// Appends to paths the full path text ("HKEY_LOCAL_MACHINE\SOFTWARE\X\A") of every key and value below
/// openKey: at each level the subkeys, each followed by what is below it, then the values. A text that
/// paths already holds (exact comparison, entries of earlier walks included) is not added again, and a
/// key among them is not entered. Registry errors skip the entry; nothing is thrown for them.
/// root: the predefined root that path is relative to; one that has no name among the five classic
/// roots gives no prefix; null means that nothing is opened below the first level, and a trace line is
/// written to standard output instead. openKey: root\path, opened for reading by the caller. path:
/// without root name and trailing backslash, or empty.
/// Stands on RegQueryInfoKeyW, RegEnumKeyExW, RegEnumValueW.
void ListKeyPaths(HKEY root, HKEY openKey, const std::wstring& path, std::vector<std::wstring>& paths);

/// The same walk with two lists: key paths go to keyPaths as above; a value's full path goes to
/// valuePaths when valueNames is empty or holds its name (without regard to case), unless valuePaths
/// already holds it.
void ListKeyAndValuePaths(HKEY root, HKEY openKey, const std::wstring& path,
                          std::vector<std::wstring>& keyPaths, std::vector<std::wstring>& valuePaths,
                          const std::vector<std::wstring>& valueNames);

/// The capacity, in characters with terminator, of the path buffer of DeleteKeyTree.
inline constexpr size_t kKeyTreePathCapacity = 520;

/// Deletes a key with everything below it, relative to HKEY_LOCAL_MACHINE and always in the 32-bit
/// view, deepest keys first. path: a writable buffer of kKeyTreePathCapacity characters, with or
/// without trailing backslash; it is used as scratch space. True when the key is gone or was not there.
/// A key whose first open is refused is not deleted even when a second open succeeds.
/// Stands on RegDeleteKeyExW, RegEnumKeyExW.
bool DeleteKeyTree(wchar_t* path);

}  // namespace corvi
