#pragma once

#include <string>

namespace corvi {

/// Erases what Windows Installer keeps in the registry for every product of that display name
/// (compared without regard to case), and the cached package files, without running an uninstaller.
/// Throws RegKeyError when a key that is there cannot be opened or a required value cannot be read: the
/// name of every product, a matching one or not, that the machine's classes or a user's advertisements
/// list, and the cached package of a matching installed product. What is done by then stays done.
/// Where the platform does not tell the Windows directory, the notes of cached folders stay.
void RemoveProductRegistration(const std::wstring& productName);

}  // namespace corvi
