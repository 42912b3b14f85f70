#pragma once

#include <optional>
#include <string>

namespace corvi {

/// The Windows version as "major.build.revision" ("10.22631.2861"), read from "SOFTWARE\Microsoft\Windows
/// NT\CurrentVersion": CurrentMajorVersionNumber, CurrentBuild, UBR. Throws RegKeyError when the key
/// cannot be opened or a value cannot be read.
std::wstring GetWindowsVersion();

/// The three groups of a version text.
struct WindowsVersionGroups {
    std::wstring major;
    std::wstring build;
    std::wstring revision;
};

/// Matches the whole text against the regular expression (\d+)\.(\d+).(\d+).* with its meaning, back-
/// tracking included: the second separator is any character, so "10.22631" matches with groups 10, 226
/// and 1. Nothing when the text does not match.
std::optional<WindowsVersionGroups> MatchWindowsVersion(const std::wstring& text);

/// Non-zero when this process runs under 32-bit emulation on a 64-bit system; 0 when the platform cannot
/// tell. IsWow64Process is looked up once, when the library is loaded.
int IsRunningUnderWow64();

}  // namespace corvi
