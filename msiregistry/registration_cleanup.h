#pragma once

#include <string>

namespace corvi {

/// Erases what Windows Installer keeps in the registry for every product of that display name
/// (compared without regard to case), and the cached package files, without running an uninstaller.
/// Throws RegKeyError when a key that is there cannot be opened or a required value of a matching
/// product cannot be read; what is done by then stays done.
void RemoveProductRegistration(const std::wstring& productName);

}  // namespace corvi
