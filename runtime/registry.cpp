#include "runtime/registry.h"

#include <algorithm>
#include <utility>

#include "runtime/text.h"

namespace corvi {
namespace {

constexpr wchar_t kRunKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr size_t kUninstallTextCapacity = 260;

void ThrowIfFailed(LSTATUS status, const char* message) {
    if (status != ERROR_SUCCESS) {
        throw RegKeyError(status, message);
    }
}

/// A zeroed buffer that takes byteCount bytes and still ends in a terminator: stored data may have an
/// odd size and no terminator of its own. Its data() is never null.
std::wstring BufferForBytes(DWORD byteCount) { return std::wstring(byteCount / sizeof(wchar_t) + 2, L'\0'); }

/// Cuts a buffer to the whole characters that a read returned.
void CutToBytes(std::wstring& buffer, DWORD byteCount) {
    buffer.resize(std::min<size_t>(byteCount / sizeof(wchar_t), buffer.size()));
}

/// The text in a buffer, up to its first terminator.
std::wstring TextIn(std::wstring buffer) {
    buffer.resize(std::min(buffer.find(L'\0'), buffer.size()));
    return buffer;
}

/// Splits at every terminator, empty pieces included. What stands behind the last one is dropped.
std::vector<std::wstring> SplitAtTerminators(const std::wstring& data) {
    std::vector<std::wstring> pieces;
    std::wstring piece;
    for (const wchar_t character : data) {
        if (character == L'\0') {
            pieces.push_back(std::move(piece));
            piece.clear();
        } else {
            piece += character;
        }
    }
    return pieces;
}

/// The beginning of a text, as much of it as the uninstall error has room for.
std::string Narrowed(const std::wstring& text) {
    return Narrow(text.substr(0, kUninstallTextCapacity), CP_ACP);
}

/// What RegGetValueW gave for a value.
struct ValueRead {
    LSTATUS sizing = ERROR_SUCCESS;
    LSTATUS reading = ERROR_SUCCESS;
    std::wstring data;
};

/// Reads a text value of any length. The platform ends texts itself that are stored without terminators, and
/// then wants more room than it said; a value may also grow between two calls.
ValueRead ReadValue(HKEY key, const std::wstring& subkey, const std::wstring& valueName, DWORD type) {
    constexpr DWORD kAddedTerminators = 2 * sizeof(wchar_t);
    const auto get = [&](wchar_t* data, DWORD& size) {
        return RegGetValueW(key, subkey.c_str(), valueName.c_str(), type, nullptr, data, &size);
    };
    ValueRead read;
    DWORD needed = 0;
    read.sizing = get(nullptr, needed);
    DWORD room = 0;
    DWORD size = 0;
    do {
        room = needed + kAddedTerminators;
        size = room;
        read.data = BufferForBytes(room);
        read.reading = get(read.data.data(), size);
        needed = size;
    } while (read.reading == ERROR_MORE_DATA && needed > room);
    CutToBytes(read.data, size);
    return read;
}

/// Collects count names of at most longest characters; enumerate is called with index, buffer and its
/// size in characters (in: capacity, out: length).
template <typename Enumerate>
std::vector<std::wstring> CollectNames(DWORD count, DWORD longest, Enumerate enumerate) {
    std::vector<std::wstring> names;
    std::vector<wchar_t> buffer(size_t{longest} + 1, L'\0');
    for (DWORD index = 0; index < count; ++index) {
        DWORD length = longest + 1;
        ThrowIfFailed(enumerate(index, buffer.data(), &length), kEnumerateFailed);
        names.emplace_back(buffer.data(), std::min(length, longest));
    }
    return names;
}

/// Opens or creates a key. Gives the platform's result; without success key stays empty.
LSTATUS CreateKey(HKEY root, const std::wstring& subkey, REGSAM access, RegKey& key) {
    HKEY created = nullptr;
    const LSTATUS status = RegCreateKeyExW(root, subkey.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, access,
                                           nullptr, &created, nullptr);
    if (status == ERROR_SUCCESS) {
        key = RegKey(created);
    }
    return status;
}

}  // namespace

RegKeyError::RegKeyError(LSTATUS code, const char* message)
    : std::system_error(static_cast<int>(code), std::system_category(), message) {}

RegKeyError::RegKeyError(LSTATUS code, const std::string& message)
    : std::system_error(static_cast<int>(code), std::system_category(), message) {}

RegKey::~RegKey() { Close(); }

RegKey::RegKey(RegKey&& other) noexcept : key_(std::exchange(other.key_, nullptr)) {}

RegKey& RegKey::operator=(RegKey&& other) noexcept {
    if (this != &other) {
        Close();
        key_ = std::exchange(other.key_, nullptr);
    }
    return *this;
}

void RegKey::Close() noexcept {
    if (key_ != nullptr) {
        RegCloseKey(std::exchange(key_, nullptr));
    }
}

RegKey RegKey::Open(HKEY root, const std::wstring& subkey, REGSAM access) {
    LSTATUS status = ERROR_SUCCESS;
    RegKey key = TryOpen(root, subkey, access, &status);
    ThrowIfFailed(status, kOpenKeyFailed);
    return key;
}

RegKey RegKey::TryOpen(HKEY root, const std::wstring& subkey, REGSAM access, LSTATUS* status) {
    HKEY key = nullptr;
    const LSTATUS result = RegOpenKeyExW(root, subkey.c_str(), 0, access, &key);
    if (status != nullptr) {
        *status = result;
    }
    return RegKey(result == ERROR_SUCCESS ? key : nullptr);
}

RegKey RegKey::OpenIfPresent(HKEY root, const std::wstring& subkey, REGSAM access) {
    LSTATUS status = ERROR_SUCCESS;
    RegKey key = TryOpen(root, subkey, access, &status);
    if (status != ERROR_FILE_NOT_FOUND) {
        ThrowIfFailed(status, kOpenKeyFailed);
    }
    return key;
}

RegKey RegKey::Create(HKEY root, const std::wstring& subkey, REGSAM access) {
    RegKey key;
    ThrowIfFailed(CreateKey(root, subkey, access, key), kCreateKeyFailed);
    return key;
}

RegKey RegKey::TryCreate(HKEY root, const std::wstring& subkey, REGSAM access) {
    RegKey key;
    CreateKey(root, subkey, access, key);
    return key;
}

RegKey RegKey::OpenOrCreate(HKEY root, const std::wstring& subkey) {
    if (RegKey existing = TryOpen(root, subkey, KEY_ALL_ACCESS)) {
        return existing;
    }
    return TryCreate(root, subkey, KEY_SET_VALUE);
}

std::wstring RegKey::GetString(const std::wstring& subkey, const std::wstring& valueName,
                               Unreadable unreadable) const {
    ValueRead read = ReadValue(key_, subkey, valueName, RRF_RT_REG_SZ);
    if (read.reading == ERROR_SUCCESS) {
        return TextIn(std::move(read.data));
    }
    if (unreadable == Unreadable::Throws) {
        // Kept: the code is that of the sizing call, even where only the read failed.
        throw RegKeyError(read.sizing, kGetValueFailed);
    }
    return {};
}

std::optional<std::wstring> RegKey::QueryText(const std::wstring& valueName, DWORD capacityBytes) const {
    std::wstring text = BufferForBytes(capacityBytes);
    DWORD type = REG_NONE;
    DWORD size = capacityBytes;
    if (RegQueryValueExW(key_, valueName.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(text.data()),
                         &size) != ERROR_SUCCESS ||
        (type != REG_SZ && type != REG_EXPAND_SZ)) {
        return std::nullopt;
    }
    CutToBytes(text, size);
    return TextIn(std::move(text));
}

bool RegKey::CanQuery(const std::wstring& valueName, DWORD capacityBytes) const {
    std::vector<BYTE> data(capacityBytes);
    DWORD size = capacityBytes;
    return RegQueryValueExW(key_, valueName.c_str(), nullptr, nullptr, data.data(), &size) == ERROR_SUCCESS;
}

DWORD RegKey::GetDword(const std::wstring& valueName) const {
    DWORD value = 0;
    DWORD size = sizeof(value);
    ThrowIfFailed(RegGetValueW(key_, nullptr, valueName.c_str(), RRF_RT_REG_DWORD, nullptr, &value, &size),
                  kGetValueFailed);
    return value;
}

std::vector<std::wstring> RegKey::GetMultiString(const std::wstring& valueName) const {
    const ValueRead read = ReadValue(key_, L"", valueName, RRF_RT_REG_MULTI_SZ);
    ThrowIfFailed(read.sizing, kGetValueFailed);
    ThrowIfFailed(read.reading, kGetValueFailed);
    return SplitAtTerminators(read.data);
}

bool RegKey::SetMultiString(const std::wstring& valueName, const std::vector<std::wstring>& strings) const {
    std::wstring data;
    for (const std::wstring& string : strings) {
        data += string;
        data += L'\0';
    }
    data += L'\0';
    return RegSetValueExW(key_, valueName.c_str(), 0, REG_MULTI_SZ,
                          reinterpret_cast<const BYTE*>(data.data()),
                          static_cast<DWORD>(data.size() * sizeof(wchar_t))) == ERROR_SUCCESS;
}

LSTATUS RegKey::SetString(const std::wstring& valueName, const std::wstring& text) const {
    return RegSetValueExW(key_, valueName.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                          static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

LSTATUS RegKey::SetDword(const std::wstring& valueName, DWORD value) const {
    return RegSetValueExW(key_, valueName.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                          sizeof(value));
}

std::vector<std::wstring> RegKey::EnumSubkeys() const {
    DWORD count = 0;
    DWORD longest = 0;
    ThrowIfFailed(RegQueryInfoKeyW(key_, nullptr, nullptr, nullptr, &count, &longest, nullptr, nullptr,
                                   nullptr, nullptr, nullptr, nullptr),
                  kQueryKeyFailed);
    return CollectNames(count, longest, [this](DWORD index, wchar_t* name, DWORD* length) {
        return RegEnumKeyExW(key_, index, name, length, nullptr, nullptr, nullptr, nullptr);
    });
}

std::vector<std::wstring> RegKey::EnumValues() const {
    DWORD count = 0;
    DWORD longest = 0;
    ThrowIfFailed(RegQueryInfoKeyW(key_, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &count,
                                   &longest, nullptr, nullptr, nullptr),
                  kQueryKeyFailed);
    return CollectNames(count, longest, [this](DWORD index, wchar_t* name, DWORD* length) {
        return RegEnumValueW(key_, index, name, length, nullptr, nullptr, nullptr, nullptr);
    });
}

std::string UninstallWriteErrorText(const std::wstring& valueName, const std::wstring& data) {
    const std::string text = "Unable to write to uninstall registry for value = " + Narrowed(valueName) +
                             " data = " + Narrowed(data) + ".";
    return text.substr(0, kUninstallTextCapacity - 1);
}

std::wstring ReadMachineText(const std::wstring& key, const std::wstring& valueName) {
    const RegKey source = RegKey::TryOpen(HKEY_LOCAL_MACHINE, key, KEY_READ);
    return source ? source.GetString(L"", valueName, Unreadable::IsEmpty) : std::wstring();
}

bool WriteMachineString(const std::wstring& key, const std::wstring& valueName, const std::wstring& text) {
    const RegKey target = RegKey::OpenOrCreate(HKEY_LOCAL_MACHINE, key);
    return target && target.SetString(valueName, text) == ERROR_SUCCESS;
}

LSTATUS DeleteRunValue(const std::wstring& name) {
    LSTATUS status = ERROR_SUCCESS;
    const RegKey run = RegKey::TryOpen(HKEY_LOCAL_MACHINE, kRunKey, KEY_ALL_ACCESS, &status);
    return run ? RegDeleteValueW(run.Get(), name.c_str()) : status;
}

}  // namespace corvi
