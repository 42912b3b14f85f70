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

std::wstring KeysOf(int count) { return std::wstring(kKey) + L"\\" + std::to_wstring(count); }

// They are made once and stay.
void HaveKeys(int count) {
    if (!RegKey::TryOpen(HKEY_LOCAL_MACHINE, KeysOf(count), KEY_READ)) {
        MakeKeys(KeysOf(count), count);
    }
}

void List(int count) {
    const std::wstring path = KeysOf(count);
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

void EnumerateAll(int count) {
    const RegKey key = RegKey::Open(HKEY_LOCAL_MACHINE, KeysOf(count), KEY_READ);
    Require(EnumerateBare(key.Get()) >= count, "enumerating the keys");
}

Way Listing(const char* name, int count) {
    return {name, [=] { HaveKeys(count); }, [=] { List(count); }};
}

Way Enumeration(int count) {
    return {"bare loop: enumerate and open", [=] { HaveKeys(count); }, [=] { EnumerateAll(count); }};
}

}  // namespace

Row ListKeyPathsRow() {
    const char* const name = "ListKeyPaths, 20,000 keys";
    return {name, Listing(name, 20000), {{Enumeration(20000), 1.3}}};
}

Row ListKeyPathsGrowthRow() {
    const char* const name = "ListKeyPaths, 40,000 keys";
    return {name,
            Listing(name, 40000),
            {{Enumeration(40000), 1.3}, {Listing("ListKeyPaths, 20,000 keys", 20000), 2.2}}};
}

}  // namespace corvi::bench
