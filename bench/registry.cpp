#include <windows.h>

#include <vector>

#include "bench/rows.h"
#include "runtime/registry.h"
#include "runtime/registry_walk.h"

namespace corvi::bench {
namespace {

constexpr wchar_t kKey[] = L"SOFTWARE\\CorviBench";
constexpr int kKeysPerLevel = 100;

// Keys below one key, in groups of a hundred: each group is a key with 99 more below it, and each key
// holds one value.
void MakeKeys(const std::wstring& path, int count) {
    HKEY group = nullptr;
    for (int number = 0; number < count; ++number) {
        if (number % kKeysPerLevel == 0) {
            RegCloseKey(group);
            Require(RegCreateKeyW(HKEY_LOCAL_MACHINE,
                                  (path + L"\\Group" + std::to_wstring(number / kKeysPerLevel)).c_str(),
                                  &group) == ERROR_SUCCESS,
                    "making a key");
            continue;
        }
        const std::wstring name = L"Key" + std::to_wstring(number);
        Require(RegSetKeyValueW(group, name.c_str(), L"Value", REG_SZ, L"x", 4) == ERROR_SUCCESS,
                "making a key");
    }
    RegCloseKey(group);
}

std::wstring KeysOf(int count) {
    const std::wstring path = std::wstring(kKey) + L"\\" + std::to_wstring(count);
    HKEY key = nullptr;
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, path.c_str(), &key) == ERROR_SUCCESS) {
        RegCloseKey(key);
    } else {
        MakeKeys(path, count);
    }
    return path;
}

void List(const std::wstring& path, int count) {
    std::vector<std::wstring> paths;
    const RegKey key = RegKey::Open(HKEY_LOCAL_MACHINE, path, KEY_READ);
    ListKeyPaths(HKEY_LOCAL_MACHINE, key.Get(), path, paths);
    Require(paths.size() >= static_cast<size_t>(count), "listing the keys");
}

// Opens and enumerates everything and keeps nothing.
int EnumerateBare(HKEY key) {
    wchar_t name[256] = {};
    int found = 0;
    DWORD length = 256;
    for (DWORD index = 0;
         RegEnumKeyExW(key, index, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++index, length = 256) {
        HKEY subkey = nullptr;
        if (RegOpenKeyExW(key, name, 0, KEY_READ, &subkey) == ERROR_SUCCESS) {
            found += 1 + EnumerateBare(subkey);
            RegCloseKey(subkey);
        }
    }
    length = 256;
    for (DWORD index = 0;
         RegEnumValueW(key, index, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++index, length = 256) {
        ++found;
    }
    return found;
}

void EnumerateBare(const std::wstring& path, int count) {
    const RegKey key = RegKey::Open(HKEY_LOCAL_MACHINE, path, KEY_READ);
    Require(EnumerateBare(key.Get()) >= count, "enumerating the keys");
}

}  // namespace

Row ListKeyPathsRow() {
    const std::wstring keys = KeysOf(20000);
    return {"ListKeyPaths, 20,000 keys",
            {"ListKeyPaths", nullptr, [=] { List(keys, 20000); }},
            {{{"bare loop: enumerate and open", nullptr, [=] { EnumerateBare(keys, 20000); }}, 1.3}}};
}

Row ListKeyPathsGrowthRow() {
    const std::wstring keys = KeysOf(40000);
    const std::wstring half = KeysOf(20000);
    return {"ListKeyPaths, 40,000 keys",
            {"ListKeyPaths", nullptr, [=] { List(keys, 40000); }},
            {{{"bare loop: enumerate and open", nullptr, [=] { EnumerateBare(keys, 40000); }}, 1.3},
             {{"ListKeyPaths, 20,000 keys", nullptr, [=] { List(half, 20000); }}, 2.2}}};
}

}  // namespace corvi::bench
