#include "tests/msiregistry/registry_tools.h"

#include <memory>
#include <stdexcept>

namespace corvi::test {
namespace {

struct CloseKey {
    using pointer = HKEY;
    void operator()(HKEY key) const { RegCloseKey(key); }
};
using Key = std::unique_ptr<HKEY, CloseKey>;

Key Create(HKEY root, const std::wstring& path) {
    HKEY key = nullptr;
    const LSTATUS status = RegCreateKeyExW(root, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                           KEY_ALL_ACCESS, nullptr, &key, nullptr);
    if (status != ERROR_SUCCESS) {
        throw std::runtime_error("cannot create a key: " + std::to_string(status));
    }
    return Key(key);
}

Key OpenToRead(HKEY root, const std::wstring& path) {
    HKEY key = nullptr;
    RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, &key);
    return Key(key);
}

void Write(HKEY root, const std::wstring& path, const std::wstring& name, DWORD type, const void* data,
           size_t size) {
    const Key key = Create(root, path);
    RegSetValueExW(key.get(), name.c_str(), 0, type, static_cast<const BYTE*>(data),
                   static_cast<DWORD>(size));
}

constexpr DWORD kLongestName = 16384;

std::vector<std::wstring> Names(HKEY key, decltype(&RegEnumValueW) enumerate) {
    std::vector<std::wstring> names;
    std::vector<wchar_t> name(kLongestName);
    DWORD length = kLongestName;
    for (DWORD index = 0;
         enumerate(key, index, name.data(), &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++index) {
        names.emplace_back(name.data(), length);
        length = kLongestName;
    }
    return names;
}

LSTATUS WINAPI EnumerateKey(HKEY key, DWORD index, LPWSTR name, LPDWORD length, LPDWORD, LPDWORD, LPBYTE,
                            LPDWORD) {
    return RegEnumKeyExW(key, index, name, length, nullptr, nullptr, nullptr, nullptr);
}

void Export(HKEY key, const std::wstring& path, std::vector<std::wstring>& lines) {
    lines.push_back(path);
    for (const std::wstring& name : Names(key, &RegEnumValueW)) {
        DWORD type = 0;
        DWORD size = 0;
        RegQueryValueExW(key, name.c_str(), nullptr, &type, nullptr, &size);
        std::vector<BYTE> data(size);
        RegQueryValueExW(key, name.c_str(), nullptr, &type, data.data(), &size);
        lines.push_back(path + L"\\\\" + name + L" " + std::to_wstring(type) + L" " +
                        std::wstring(data.begin(), data.end()));
    }
    for (const std::wstring& name : Names(key, &EnumerateKey)) {
        if (const Key below = OpenToRead(key, name)) {
            Export(below.get(), path + L"\\" + name, lines);
        }
    }
}

}  // namespace

void WriteText(HKEY root, const std::wstring& key, const std::wstring& name, const std::wstring& text,
               DWORD type) {
    Write(root, key, name, type, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
}

void WriteNumber(HKEY root, const std::wstring& key, const std::wstring& name, DWORD value) {
    Write(root, key, name, REG_DWORD, &value, sizeof(value));
}

void MakeKey(HKEY root, const std::wstring& key) { Create(root, key); }

bool KeyExists(HKEY root, const std::wstring& key) { return OpenToRead(root, key) != nullptr; }

bool ValueExists(HKEY root, const std::wstring& key, const std::wstring& name) {
    return RegGetValueW(root, key.c_str(), name.c_str(), RRF_RT_ANY, nullptr, nullptr, nullptr) ==
           ERROR_SUCCESS;
}

std::optional<std::wstring> ReadText(HKEY root, const std::wstring& key, const std::wstring& name) {
    std::wstring text(1024, L'\0');
    DWORD size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    if (RegGetValueW(root, key.c_str(), name.c_str(), RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND,
                     nullptr, text.data(), &size) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    return text.c_str();
}

std::optional<DWORD> ReadNumber(HKEY root, const std::wstring& key, const std::wstring& name) {
    DWORD value = 0;
    DWORD size = sizeof(value);
    if (RegGetValueW(root, key.c_str(), name.c_str(), RRF_RT_REG_DWORD, nullptr, &value, &size) !=
        ERROR_SUCCESS) {
        return std::nullopt;
    }
    return value;
}

std::vector<std::wstring> ValueNames(HKEY root, const std::wstring& key) {
    const Key open = OpenToRead(root, key);
    return open ? Names(open.get(), &RegEnumValueW) : std::vector<std::wstring>();
}

std::vector<std::wstring> SubkeyNames(HKEY root, const std::wstring& key) {
    const Key open = OpenToRead(root, key);
    return open ? Names(open.get(), &EnumerateKey) : std::vector<std::wstring>();
}

void DropKey(HKEY root, const std::wstring& key) { RegDeleteTreeW(root, key.c_str()); }

std::vector<std::wstring> ExportRegistry(HKEY root) {
    std::vector<std::wstring> lines;
    Export(root, L"", lines);
    return lines;
}

}  // namespace corvi::test
