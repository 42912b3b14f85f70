#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace corvi {

/// What the registry wrapper throws: the platform's error code in the system category and one of the
/// messages below; what() is the standard composition of both.
class RegKeyError : public std::system_error {
public:
    RegKeyError(LSTATUS code, const char* message);
    RegKeyError(LSTATUS code, const std::string& message);
};

inline constexpr char kOpenKeyFailed[] = "Unable to open registry key";
inline constexpr char kGetValueFailed[] = "Unable to get registry value";
inline constexpr char kCreateKeyFailed[] = "Unable to get create registry key";
inline constexpr char kQueryKeyFailed[] = "Unable to get query key information";
/// Raised for subkeys and, by the same words, for values.
inline constexpr char kEnumerateFailed[] = "Unable to get enumerate subkeys";

/// Read access with the rights to set values and create subkeys (0x2001F): query, set, create subkey,
/// enumerate, notify, read control.
inline constexpr REGSAM kReadWriteAccess = KEY_READ | KEY_SET_VALUE | KEY_CREATE_SUB_KEY;

/// What a read does when there is nothing of its type to read.
enum class Unreadable { Throws, IsEmpty };

/// Owns one open registry key and closes it in its destructor. Movable, not copyable.
class RegKey {
public:
    RegKey() noexcept = default;
    /// Takes over an open key handle (null for none).
    explicit RegKey(HKEY key) noexcept : key_(key) {}
    ~RegKey();
    RegKey(RegKey&& other) noexcept;
    RegKey& operator=(RegKey&& other) noexcept;
    RegKey(const RegKey&) = delete;
    RegKey& operator=(const RegKey&) = delete;

    /// Opens root\subkey with the access mask (view flags included) through RegOpenKeyExW. Throws
    /// RegKeyError with the returned code and "Unable to open registry key".
    static RegKey Open(HKEY root, const std::wstring& subkey, REGSAM access);

    /// The same without throwing: an empty RegKey when the key cannot be opened. *status, if given,
    /// receives the platform's result.
    static RegKey TryOpen(HKEY root, const std::wstring& subkey, REGSAM access, LSTATUS* status = nullptr);

    /// The same for a key that need not be there: an empty RegKey when it is missing. Throws when it is there
    /// and cannot be opened.
    static RegKey OpenIfPresent(HKEY root, const std::wstring& subkey, REGSAM access);

    /// Opens root\subkey with the access mask or creates it (non-volatile) through RegCreateKeyExW. root: a
    /// predefined key or an open one. Throws RegKeyError with the returned code and "Unable to get create
    /// registry key".
    static RegKey Create(HKEY root, const std::wstring& subkey, REGSAM access);

    /// The same without throwing: an empty RegKey when the key can be neither opened nor created.
    static RegKey TryCreate(HKEY root, const std::wstring& subkey, REGSAM access);

    /// Opens root\subkey with KEY_ALL_ACCESS or, failing that, creates it (non-volatile) with
    /// KEY_SET_VALUE. An empty RegKey when neither works; nothing is thrown.
    static RegKey OpenOrCreate(HKEY root, const std::wstring& subkey);

    explicit operator bool() const noexcept { return key_ != nullptr; }
    HKEY Get() const noexcept { return key_; }
    void Close() noexcept;

    /// Reads a REG_SZ value (an expandable one arrives expanded) of this key or of the subkey below it
    /// (empty: this key) of any length, up to its first terminator. When it cannot be read: throws
    /// RegKeyError "Unable to get registry value" or gives an empty text. The error carries the code of
    /// the first, sizing RegGetValueW call, which may be 0.
    std::wstring GetString(const std::wstring& subkey, const std::wstring& valueName,
                           Unreadable unreadable) const;

    /// Reads a REG_SZ or REG_EXPAND_SZ value of this key as it is stored, unexpanded, up to its first
    /// terminator, by one RegQueryValueExW with room for capacityBytes. Nothing when it cannot be read, does
    /// not fit or has another type; throws nothing for that.
    std::optional<std::wstring> QueryText(const std::wstring& valueName, DWORD capacityBytes) const;

    /// True when a value of this key, of any type, can be read by one RegQueryValueExW with room for
    /// capacityBytes.
    bool CanQuery(const std::wstring& valueName, DWORD capacityBytes) const;

    /// Reads a REG_DWORD value. Throws RegKeyError "Unable to get registry value".
    DWORD GetDword(const std::wstring& valueName) const;

    /// Reads a REG_MULTI_SZ value of any length, split at every terminator that the platform hands over,
    /// empty pieces included: "a", "b" gives three entries, the last one empty. Callers count on that. What
    /// stands behind the last terminator is dropped; the platform may end a list itself that is stored
    /// without its terminators. Throws RegKeyError "Unable to get registry value".
    std::vector<std::wstring> GetMultiString(const std::wstring& valueName) const;

    /// Writes a REG_MULTI_SZ value: each string followed by one terminator, then one more. True when
    /// RegSetValueExW succeeded.
    bool SetMultiString(const std::wstring& valueName, const std::vector<std::wstring>& strings) const;

    /// Writes a REG_SZ value, (length + 1) * 2 bytes. Gives the result of RegSetValueExW.
    LSTATUS SetString(const std::wstring& valueName, const std::wstring& text) const;

    /// Writes a REG_DWORD value. Gives the result of RegSetValueExW.
    LSTATUS SetDword(const std::wstring& valueName, DWORD value) const;

    /// The names of the subkeys in index order. Throws RegKeyError "Unable to get query key
    /// information" or "Unable to get enumerate subkeys".
    std::vector<std::wstring> EnumSubkeys() const;

    /// The names of the values in index order. Throws as EnumSubkeys does, by the same two messages.
    std::vector<std::wstring> EnumValues() const;

private:
    HKEY key_ = nullptr;
};

/// The error text of a failed write of an uninstall entry: "Unable to write to uninstall registry for
/// value = %ls data = %ls.", cut to 259 bytes. Shared by AddToSystemPath.
std::string UninstallWriteErrorText(const std::wstring& valueName, const std::wstring& data);

/// Reads a REG_SZ value below HKEY_LOCAL_MACHINE (an expandable one arrives expanded), opened with KEY_READ.
/// Empty when the key cannot be opened or the value cannot be read.
std::wstring ReadMachineText(const std::wstring& key, const std::wstring& valueName);

/// Writes one REG_SZ value below HKEY_LOCAL_MACHINE: opens the key with KEY_ALL_ACCESS or creates it
/// with KEY_SET_VALUE. True when the value was written.
bool WriteMachineString(const std::wstring& key, const std::wstring& valueName, const std::wstring& text);

/// Deletes one value of the machine's Run key ("SOFTWARE\Microsoft\Windows\CurrentVersion\Run", opened
/// with KEY_ALL_ACCESS). Gives the result of RegDeleteValueW or of the failed open.
LSTATUS DeleteRunValue(const std::wstring& name);

}  // namespace corvi
