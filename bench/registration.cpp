#include <windows.h>

#include <string>

#include "bench/rows.h"
#include "msiregistry/registration_cleanup.h"
#include "runtime/registry.h"

namespace corvi::bench {
namespace {

constexpr wchar_t kUserKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Installer\\UserData\\S-1-5-18";
constexpr wchar_t kProductName[] = L"Corvi measured product";
constexpr wchar_t kPackedCode[] = L"0123456789ABCDEF0123456789ABCDEF";
constexpr wchar_t kOtherPackedCode[] = L"FEDCBA9876543210FEDCBA9876543210";
constexpr int kComponentsOfProduct = 20;

std::wstring ComponentsPath() { return std::wstring(kUserKey) + L"\\Components"; }

std::wstring ProductPath() {
    return std::wstring(kUserKey) + L"\\Products\\" + kPackedCode + L"\\InstallProperties";
}

std::wstring ComponentPath(int number) {
    const std::wstring digits = std::to_wstring(number);
    return ComponentsPath() + L"\\" + std::wstring(32 - digits.size(), L'0') + digits;
}

void SetText(const std::wstring& path, const wchar_t* name, const std::wstring& text) {
    Require(RegSetKeyValueW(HKEY_LOCAL_MACHINE, path.c_str(), name, REG_SZ, text.c_str(),
                            static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS,
            "writing a registration");
}

int componentCount = 0;

// The machine's components: each belongs to another product.
void HaveComponents(int count) {
    if (count < componentCount) {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, ComponentsPath().c_str());
        componentCount = 0;
    }
    for (; componentCount < count; ++componentCount) {
        SetText(ComponentPath(componentCount), kOtherPackedCode, L"C:\\other\\file.dll");
    }
}

void RegisterProduct(int components) {
    HaveComponents(components);
    SetText(ProductPath(), L"DisplayName", kProductName);
    SetText(ProductPath(), L"LocalPackage", L"C:\\corvi\\no-package.msi");
    SetText(ProductPath(), L"UninstallString", L"MsiExec.exe /I{00112233-4455-6677-8899-AABBCCDDEEFF}");
    for (int number = 0; number < kComponentsOfProduct; ++number) {
        SetText(ComponentPath(number * components / kComponentsOfProduct), kPackedCode,
                L"C:\\measured\\file.dll");
    }
}

void RemoveRegistration() {
    RemoveProductRegistration(kProductName);
    Require(!RegKey::TryOpen(HKEY_LOCAL_MACHINE, ProductPath(), KEY_READ), "removing the registration");
}

// What cannot be avoided: each component key is opened and its values are enumerated.
void WalkComponents() {
    const RegKey components = RegKey::Open(HKEY_LOCAL_MACHINE, ComponentsPath(), KEY_READ);
    wchar_t name[256] = {};
    DWORD length = 256;
    int values = 0;
    for (DWORD index = 0; RegEnumKeyExW(components.Get(), index, name, &length, nullptr, nullptr, nullptr,
                                        nullptr) == ERROR_SUCCESS;
         ++index, length = 256) {
        HKEY component = nullptr;
        if (RegOpenKeyExW(components.Get(), name, 0, KEY_READ | KEY_SET_VALUE, &component) != ERROR_SUCCESS) {
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
    Require(values >= componentCount, "walking the components");
}

Row RegistrationRow(const char* name, int components) {
    return {
        name,
        {"RemoveProductRegistration", [=] { RegisterProduct(components); }, RemoveRegistration},
        {{{"bare walk of the component keys", [=] { RegisterProduct(components); }, WalkComponents}, 1.5}}};
}

}  // namespace

Row RemoveProductRegistrationRow() {
    return RegistrationRow("RemoveProductRegistration, 20,000 components", 20000);
}

Row RemoveProductRegistrationGrowthRow() {
    return RegistrationRow("RemoveProductRegistration, 40,000 components", 40000);
}

}  // namespace corvi::bench
