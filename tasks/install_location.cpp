#include "tasks/install_location.h"

#include "runtime/registry.h"
#include "services/settings_application.h"

namespace corvi {

std::wstring ReadInstallLocation() {
    const RegKey key = RegKey::Open(HKEY_LOCAL_MACHINE, kSettingsAppInstallKey, kReadWriteAccess);
    return key.GetString(L"", kLocationValue, Unreadable::Throws);
}

std::wstring InstalledProgram(const std::wstring& location, const std::wstring& fileName) {
    return location + L'\\' + fileName;
}

}  // namespace corvi
