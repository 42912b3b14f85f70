#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace corvi::test {

/// One stored value: its type and its data, taken as characters (terminators included).
struct StoredValue {
    DWORD type;
    std::wstring characters;
};
bool operator==(const StoredValue& left, const StoredValue& right);
void PrintTo(const StoredValue& value, std::ostream* stream);

/// The characters before the first terminator.
std::wstring TextOf(const StoredValue& value);

// All keys below are relative to HKEY_LOCAL_MACHINE.

std::optional<StoredValue> ReadStored(const std::wstring& key, const std::wstring& name);

/// Stores exactly these characters, with no terminator but those among them. The key is made if needed.
void Store(const std::wstring& key, const std::wstring& name, DWORD type, const std::wstring& characters);

/// Stores a terminated text.
void StoreText(const std::wstring& key, const std::wstring& name, const std::wstring& text,
               DWORD type = REG_SZ);
void StoreNumber(const std::wstring& key, const std::wstring& name, DWORD number);
void DeleteStored(const std::wstring& key, const std::wstring& name);

bool KeyExists(const std::wstring& key);

/// The data of a multi-string as it should be: each string and its terminator, then one more.
std::wstring MultiString(const std::vector<std::wstring>& strings);

/// Puts a value back as it was, missing included, when it goes out of scope.
class KeptValue {
public:
    KeptValue(std::wstring key, std::wstring name);
    ~KeptValue();
    KeptValue(const KeptValue&) = delete;
    KeptValue& operator=(const KeptValue&) = delete;

private:
    std::wstring key_;
    std::wstring name_;
    DWORD type_ = REG_NONE;
    std::optional<std::vector<BYTE>> data_;
};

/// A key that is not there at first and, with everything below it, is gone at the end.
class TemporaryKey {
public:
    explicit TemporaryKey(std::wstring key);
    ~TemporaryKey();
    TemporaryKey(const TemporaryKey&) = delete;
    TemporaryKey& operator=(const TemporaryKey&) = delete;

    void Create() const;

private:
    std::wstring key_;
};

}  // namespace corvi::test
