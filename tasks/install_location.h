#pragma once

#include <string>

namespace corvi {

/// The directory in which the settings application and the recording server are installed, as the
/// installer wrote it (usually with a trailing backslash): "Location" below HKEY_LOCAL_MACHINE
/// "SOFTWARE\QEL Technologies\Install\HXNext". Throws RegKeyError when the key or the value cannot be
/// read.
std::wstring ReadInstallLocation();

/// The path of a program in the install location. A backslash is always put between the two, so a
/// location that ends in one gives a doubled one. Kept: the registered task shows it.
std::wstring InstalledProgram(const std::wstring& location, const std::wstring& fileName);

}  // namespace corvi
