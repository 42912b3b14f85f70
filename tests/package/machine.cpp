#include "tests/package/machine.h"

#include <msi.h>

#include <filesystem>
#include <system_error>

#include "tests/support/installer_run.h"
#include "tests/support/platform.h"

namespace corvi::test {

bool MachineKeyExists(const std::wstring& key) {
    HKEY opened = nullptr;
    const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &opened);
    RegCloseKey(opened);
    return status == ERROR_SUCCESS;
}

std::optional<std::wstring> MachineValue(const std::wstring& key, const std::wstring& name) {
    wchar_t text[2048] = {};
    DWORD size = sizeof(text) - sizeof(wchar_t);
    DWORD type = 0;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str(), RRF_RT_ANY, &type, text, &size) !=
        ERROR_SUCCESS) {
        return std::nullopt;
    }
    if (type == REG_DWORD) {
        DWORD number = 0;
        memcpy(&number, text, sizeof(number));
        return std::to_wstring(number);
    }
    return std::wstring(text);
}

void SetMachineText(const std::wstring& key, const std::wstring& name, const std::wstring& text) {
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str(), REG_SZ, text.c_str(),
                    static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

void SetMachineNumber(const std::wstring& key, const std::wstring& name, DWORD number) {
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str(), REG_DWORD, &number, sizeof(number));
}

bool FileExists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool StartFolderIsGone(const std::wstring& folder) {
    std::error_code ignored;
    return !FileExists(folder) || (std::filesystem::is_empty(folder, ignored) && ConsoleHostHoldsFolder());
}

std::vector<std::wstring> InstalledProducts(const std::wstring& upgradeCode) {
    std::vector<std::wstring> codes;
    wchar_t code[39] = {};
    while (MsiEnumRelatedProductsW(upgradeCode.c_str(), 0, static_cast<DWORD>(codes.size()), code) ==
           ERROR_SUCCESS) {
        codes.emplace_back(code);
    }
    return codes;
}

void UninstallProducts(const std::wstring& upgradeCode, const std::wstring& properties) {
    for (const std::wstring& code : InstalledProducts(upgradeCode)) {
        RunInstaller(L"/x " + code + L" " + properties);
    }
}

}  // namespace corvi::test
