#include <windows.h>

#include <string>

#include "bench/rows.h"
#include "msiregistry/registration_cleanup.h"
#include "runtime/registry.h"

namespace corvi::bench {
namespace {

constexpr wchar_t kUserDataKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Installer\\UserData\\";
constexpr wchar_t kProductName[] = L"Corvi measured product";
constexpr wchar_t kPackedCode[] = L"0123456789ABCDEF0123456789ABCDEF";
constexpr wchar_t kOtherPackedCode[] = L"FEDCBA9876543210FEDCBA9876543210";
constexpr int kComponentsOfProduct = 20;

/// Whose installer data is measured, and how many component keys it holds.
struct User {
    std::wstring sid;
    int components;

    std::wstring Key() const { return kUserDataKey + sid; }
    std::wstring ComponentsKey() const { return Key() + L"\\Components"; }
    std::wstring PropertiesKey() const {
        return Key() + L"\\Products\\" + kPackedCode + L"\\InstallProperties";
    }
    std::wstring ComponentKey(int number) const {
        const std::wstring digits = std::to_wstring(number);
        return ComponentsKey() + L"\\" + std::wstring(32 - digits.size(), L'0') + digits;
    }
};

const User kSmaller = {L"S-1-5-18", 20000};
const User kLarger = {L"S-1-5-21-1", 40000};

void SetText(const std::wstring& path, const wchar_t* name, const std::wstring& text) {
    Require(RegSetKeyValueW(HKEY_LOCAL_MACHINE, path.c_str(), name, REG_SZ, text.c_str(),
                            static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS,
            "writing a registration");
}

// Each component belongs to another product. They are made once and stay.
void HaveComponents(const User& user) {
    if (!RegKey::TryOpen(HKEY_LOCAL_MACHINE, user.ComponentsKey(), KEY_READ)) {
        for (int number = 0; number < user.components; ++number) {
            SetText(user.ComponentKey(number), kOtherPackedCode, L"C:\\other\\file.dll");
        }
    }
}

void Register(const User& user) {
    HaveComponents(user);
    SetText(user.PropertiesKey(), L"DisplayName", kProductName);
    SetText(user.PropertiesKey(), L"LocalPackage", L"C:\\corvi\\no-package.msi");
    SetText(user.PropertiesKey(), L"UninstallString",
            L"MsiExec.exe /I{00112233-4455-6677-8899-AABBCCDDEEFF}");
    for (int number = 0; number < kComponentsOfProduct; ++number) {
        SetText(user.ComponentKey(number * user.components / kComponentsOfProduct), kPackedCode,
                L"C:\\measured\\file.dll");
    }
}

void CheckRemoved(const User& user) {
    Require(!RegKey::TryOpen(HKEY_LOCAL_MACHINE, user.PropertiesKey(), KEY_READ),
            "removing the registration");
}

// What cannot be avoided: each component key is opened and its values are enumerated.
void WalkComponents(const User& user) {
    const RegKey components = RegKey::Open(HKEY_LOCAL_MACHINE, user.ComponentsKey(), KEY_READ);
    wchar_t name[256] = {};
    DWORD length = 256;
    int values = 0;
    for (DWORD index = 0; RegEnumKeyExW(components.Get(), index, name, &length, nullptr, nullptr, nullptr,
                                        nullptr) == ERROR_SUCCESS;
         ++index, length = 256) {
        HKEY component = nullptr;
        if (RegOpenKeyExW(components.Get(), name, 0, kReadWriteAccess, &component) != ERROR_SUCCESS) {
            continue;
        }
        wchar_t value[256] = {};
        DWORD valueLength = 256;
        for (DWORD number = 0; RegEnumValueW(component, number, value, &valueLength, nullptr, nullptr,
                                             nullptr, nullptr) == ERROR_SUCCESS;
             ++number, valueLength = 256) {
            ++values;
        }
        RegCloseKey(component);
    }
    Require(values >= user.components, "walking the components");
}

// Each round takes the measured product out of one user's data; the walk is over the same keys.
Way Cleanup(const char* name, const User& user) {
    return {name, [&user] { Register(user); }, [] { RemoveProductRegistration(kProductName); },
            [&user] { CheckRemoved(user); }};
}

Way Walk(const User& user) {
    return {"bare walk of the component keys", [&user] { HaveComponents(user); },
            [&user] { WalkComponents(user); }};
}

}  // namespace

Row RemoveProductRegistrationRow() {
    const char* const name = "RemoveProductRegistration, 20,000 components";
    return {name, Cleanup(name, kSmaller), {{Walk(kSmaller), 1.5}}};
}

Row RemoveProductRegistrationGrowthRow() {
    const char* const name = "RemoveProductRegistration, 40,000 components";
    return {name,
            Cleanup(name, kLarger),
            {{Walk(kLarger), 1.5}, {Cleanup("RemoveProductRegistration, 20,000 components", kSmaller), 2.2}}};
}

}  // namespace corvi::bench
