#pragma once

#include <string>

namespace corvi {

/// The value of the system environment that holds the search path for programs and libraries.
inline constexpr wchar_t kSystemPathValue[] = L"Path";

/// Puts an entry, its own trailing ";" included, in front of a value (kSystemPathValue) of the system
/// environment and tells all top-level windows, at most 100 ms each. A value that holds the entry
/// anywhere stays as it is; an empty entry is in every value. The value becomes REG_SZ whatever it was.
/// Throws RegKeyError when the key or value cannot be read or the value cannot be written. Stands on
/// RegSetValueExW and SendMessageTimeoutW.
void AddToSystemPath(const std::wstring& valueName, const std::wstring& entry);

/// The suite's entry of the system path: the Windows drive's root and "Windows\System32\TAVO;". Empty, which
/// adds nothing, when the Windows directory is unknown: without its drive the entry would name a folder of
/// whatever directory a program runs in.
std::wstring SuitePathEntry();

}  // namespace corvi
