#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace corvi::test {

/// A registry key below HKEY_LOCAL_MACHINE that a test may fill at will: empty at the start, gone with
/// everything below it at the end.
class ScratchKey {
public:
    /// path: relative to HKEY_LOCAL_MACHINE. view: 0 or KEY_WOW64_32KEY.
    explicit ScratchKey(std::wstring path, REGSAM view = 0) : path_(std::move(path)), view_(view) {
        Remove();
        CloseKey(Create(L""));
    }
    ~ScratchKey() { Remove(); }
    ScratchKey(const ScratchKey&) = delete;
    ScratchKey& operator=(const ScratchKey&) = delete;

    const std::wstring& Path() const { return path_; }

    /// Makes a subkey ("A\\B"; empty for the key itself).
    void Add(const std::wstring& subkey) const { CloseKey(Create(subkey)); }

    /// Writes a value of the subkey (empty: the key itself), which is made when it is missing.
    void SetValue(const std::wstring& subkey, const std::wstring& name, DWORD type, const void* data,
                  size_t size) const {
        const HKEY key = Create(subkey);
        RegSetValueExW(key, name.c_str(), 0, type, static_cast<const BYTE*>(data), static_cast<DWORD>(size));
        CloseKey(key);
    }
    void SetText(const std::wstring& subkey, const std::wstring& name, const std::wstring& text) const {
        SetValue(subkey, name, REG_SZ, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
    }
    void SetNumber(const std::wstring& subkey, const std::wstring& name, DWORD number) const {
        SetValue(subkey, name, REG_DWORD, &number, sizeof(number));
    }

    bool Exists(const std::wstring& subkey = L"") const {
        HKEY key = nullptr;
        const LSTATUS status =
            RegOpenKeyExW(HKEY_LOCAL_MACHINE, Full(subkey).c_str(), 0, KEY_READ | view_, &key);
        if (status == ERROR_SUCCESS) {
            RegCloseKey(key);
        }
        return status == ERROR_SUCCESS;
    }

    /// The stored bytes of a value; empty when there is none.
    std::vector<BYTE> Bytes(const std::wstring& name, DWORD* type = nullptr) const {
        HKEY key = nullptr;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path_.c_str(), 0, KEY_READ | view_, &key) != ERROR_SUCCESS) {
            return {};
        }
        DWORD size = 0;
        RegQueryValueExW(key, name.c_str(), nullptr, type, nullptr, &size);
        std::vector<BYTE> data(size);
        RegQueryValueExW(key, name.c_str(), nullptr, type, data.data(), &size);
        RegCloseKey(key);
        return data;
    }

private:
    static void CloseKey(HKEY key) { RegCloseKey(key); }

    std::wstring Full(const std::wstring& subkey) const {
        return subkey.empty() ? path_ : path_ + L'\\' + subkey;
    }

    HKEY Create(const std::wstring& subkey) const {
        HKEY key = nullptr;
        if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, Full(subkey).c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | view_,
                            nullptr, &key, nullptr) != ERROR_SUCCESS) {
            throw std::runtime_error("cannot make a scratch key");
        }
        return key;
    }

    void Remove() const {
        HKEY key = nullptr;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path_.c_str(), 0, KEY_ALL_ACCESS | view_, &key) ==
            ERROR_SUCCESS) {
            RegDeleteTreeW(key, nullptr);
            RegCloseKey(key);
            RegDeleteKeyExW(HKEY_LOCAL_MACHINE, path_.c_str(), view_, 0);
        }
    }

    std::wstring path_;
    REGSAM view_;
};

}  // namespace corvi::test
