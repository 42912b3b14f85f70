#include "tasks/install_location.h"

#include "runtime/registry.h"

namespace corvi {
namespace {

constexpr wchar_t kInstallKey[] = L"SOFTWARE\\QEL Technologies\\Install\\HXNext";
constexpr wchar_t kLocationValue[] = L"Location";

}  // namespace

std::wstring ReadInstallLocation() {
    const RegKey key = RegKey::Open(HKEY_LOCAL_MACHINE, kInstallKey, kReadWriteAccess);
    return key.GetString(std::wstring(), kLocationValue, true);
}

std::wstring InstalledProgram(const std::wstring& location, const std::wstring& fileName) {
    return location + L'\\' + fileName;
}

}  // namespace corvi
