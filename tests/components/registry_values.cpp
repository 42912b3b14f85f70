#include "tests/components/registry_values.h"

#include <ostream>
#include <stdexcept>
#include <utility>

namespace corvi::test {
namespace {

void Require(LSTATUS status, const char* what) {
    if (status != ERROR_SUCCESS) {
        throw std::runtime_error(std::string(what) + ": " + std::to_string(status));
    }
}

HKEY MakeKey(const std::wstring& key) {
    HKEY opened = nullptr;
    Require(RegCreateKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &opened,
                            nullptr),
            "cannot make a key");
    return opened;
}

void StoreBytes(const std::wstring& key, const std::wstring& name, DWORD type, const BYTE* data,
                size_t size) {
    const HKEY opened = MakeKey(key);
    const LSTATUS status = RegSetValueExW(opened, name.c_str(), 0, type, data, static_cast<DWORD>(size));
    RegCloseKey(opened);
    Require(status, "cannot store a value");
}

std::optional<std::vector<BYTE>> ReadBytes(const std::wstring& key, const std::wstring& name, DWORD& type) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    DWORD size = 0;
    LSTATUS status = RegQueryValueExW(opened, name.c_str(), nullptr, &type, nullptr, &size);
    std::vector<BYTE> data(size);
    if (status == ERROR_SUCCESS && size != 0) {
        status = RegQueryValueExW(opened, name.c_str(), nullptr, &type, data.data(), &size);
    }
    RegCloseKey(opened);
    return status == ERROR_SUCCESS ? std::optional(data) : std::nullopt;
}

}  // namespace

bool operator==(const StoredValue& left, const StoredValue& right) {
    return left.type == right.type && left.characters == right.characters;
}

void PrintTo(const StoredValue& value, std::ostream* stream) {
    *stream << "type " << value.type << ", \"";
    for (const wchar_t character : value.characters) {
        *stream << (character == L'\0' ? std::string("\\0") : std::string(1, static_cast<char>(character)));
    }
    *stream << '"';
}

std::wstring TextOf(const StoredValue& value) {
    return value.characters.substr(0, value.characters.find(L'\0'));
}

std::optional<StoredValue> ReadStored(const std::wstring& key, const std::wstring& name) {
    DWORD type = REG_NONE;
    const auto data = ReadBytes(key, name, type);
    if (!data) {
        return std::nullopt;
    }
    return StoredValue{
        type, std::wstring(reinterpret_cast<const wchar_t*>(data->data()), data->size() / sizeof(wchar_t))};
}

void Store(const std::wstring& key, const std::wstring& name, DWORD type, const std::wstring& characters) {
    // The platform adds a terminator where the caller's buffer goes on with one.
    const std::wstring followed = characters + L'#';
    StoreBytes(key, name, type, reinterpret_cast<const BYTE*>(followed.data()),
               characters.size() * sizeof(wchar_t));
}

void StoreText(const std::wstring& key, const std::wstring& name, const std::wstring& text, DWORD type) {
    Store(key, name, type, text + L'\0');
}

void StoreNumber(const std::wstring& key, const std::wstring& name, DWORD number) {
    StoreBytes(key, name, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof(number));
}

void DeleteStored(const std::wstring& key, const std::wstring& name) {
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str());
}

bool KeyExists(const std::wstring& key) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS) {
        return false;
    }
    RegCloseKey(opened);
    return true;
}

std::wstring MultiString(const std::vector<std::wstring>& strings) {
    std::wstring data;
    for (const std::wstring& string : strings) {
        data += string + L'\0';
    }
    return data + L'\0';
}

KeptValue::KeptValue(std::wstring key, std::wstring name) : key_(std::move(key)), name_(std::move(name)) {
    data_ = ReadBytes(key_, name_, type_);
}

KeptValue::~KeptValue() {
    if (data_) {
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, key_.c_str(), name_.c_str(), type_, data_->data(),
                        static_cast<DWORD>(data_->size()));
    } else {
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, key_.c_str(), name_.c_str());
    }
}

TemporaryKey::TemporaryKey(std::wstring key) : key_(std::move(key)) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, key_.c_str());
}

TemporaryKey::~TemporaryKey() { RegDeleteTreeW(HKEY_LOCAL_MACHINE, key_.c_str()); }

void TemporaryKey::Create() const { RegCloseKey(MakeKey(key_)); }

}  // namespace corvi::test
