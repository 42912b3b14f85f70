#include "tests/msiregistry/registry_tools.h"

#include <memory>
#include <stdexcept>
#include <utility>

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
constexpr DWORD kUsualData = 65536;

std::vector<std::wstring> NamesOfSubkeys(HKEY key) {
    std::vector<std::wstring> names;
    wchar_t name[256] = {};
    DWORD length = 256;
    for (DWORD index = 0;
         RegEnumKeyExW(key, index, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++index) {
        names.emplace_back(name, length);
        length = 256;
    }
    return names;
}

std::vector<std::wstring> NamesOfValues(HKEY key) {
    std::vector<std::wstring> names;
    std::vector<wchar_t> name(kLongestName);
    DWORD length = kLongestName;
    for (DWORD index = 0;
         RegEnumValueW(key, index, name.data(), &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++index) {
        names.emplace_back(name.data(), length);
        length = kLongestName;
    }
    return names;
}

/// A walk with one call a value and one buffer for all: it goes over the whole registry.
class Exporter {
public:
    void Export(HKEY key, const std::wstring& path) {
        lines_.push_back(path);
        ExportValues(key, path);
        for (const std::wstring& name : NamesOfSubkeys(key)) {
            if (const Key below = OpenToRead(key, name)) {
                Export(below.get(), std::wstring(path).append(L"\\").append(name));
            }
        }
    }

    std::vector<std::wstring> Take() { return std::move(lines_); }

private:
    void ExportValues(HKEY key, const std::wstring& path) {
        for (DWORD index = 0;; ++index) {
            DWORD length = kLongestName;
            DWORD size = static_cast<DWORD>(data_.size());
            DWORD type = 0;
            const LSTATUS status =
                RegEnumValueW(key, index, name_.data(), &length, nullptr, &type, data_.data(), &size);
            if (status == ERROR_MORE_DATA) {
                data_.resize(size);
                --index;
            } else if (status == ERROR_SUCCESS) {
                lines_.push_back(path + L"\\\\" + std::wstring(name_.data(), length) + L" " +
                                 std::to_wstring(type) + L" " +
                                 std::wstring(data_.data(), data_.data() + size));
            } else {
                return;
            }
        }
    }

    std::vector<std::wstring> lines_;
    std::vector<wchar_t> name_ = std::vector<wchar_t>(kLongestName);
    std::vector<BYTE> data_ = std::vector<BYTE>(kUsualData);
};

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
    return open ? NamesOfValues(open.get()) : std::vector<std::wstring>();
}

std::vector<std::wstring> SubkeyNames(HKEY root, const std::wstring& key) {
    const Key open = OpenToRead(root, key);
    return open ? NamesOfSubkeys(open.get()) : std::vector<std::wstring>();
}

void DropKey(HKEY root, const std::wstring& key) { RegDeleteTreeW(root, key.c_str()); }

std::vector<std::wstring> ExportRegistry(HKEY root, const std::wstring& key) {
    Exporter exporter;
    if (const Key open = OpenToRead(root, key)) {
        exporter.Export(open.get(), key);
    }
    return exporter.Take();
}

}  // namespace corvi::test
