#pragma once

namespace corvi {

// Where the settings application stands in the registry. Every path is relative to its root key and has no
// trailing separator.

/// Below HKEY_LOCAL_MACHINE: where it is installed, in kLocationValue. The recording server's tasks go by
/// the same key.
inline constexpr wchar_t kSettingsAppInstallKey[] = L"SOFTWARE\\QEL Technologies\\Install\\HXNext";

/// REG_SZ, an install directory with or without trailing separator. The recording server and the
/// command-line client name theirs by the same value of a key of their own.
inline constexpr wchar_t kLocationValue[] = L"Location";

/// Its settings: the machine's below HKEY_LOCAL_MACHINE, a user's below HKEY_CURRENT_USER.
inline constexpr wchar_t kSettingsAppKey[] = L"SOFTWARE\\TAVO\\HX";

/// Below HKEY_LOCAL_MACHINE: the package of the command-line client that came before it, with kLocationValue.
/// A 32-bit installer wrote it to the 32-bit view.
inline constexpr wchar_t kCommandLineClientKey[] = L"SOFTWARE\\QEL\\ACE\\Packages\\Core-Static";

}  // namespace corvi
