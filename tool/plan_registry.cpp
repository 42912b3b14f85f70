#include "tool/plan_registry.h"

#include <winternl.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tool/plan_machine.h"

// Not in the compiler's headers; ntdll has it on every Windows.
extern "C" NTSTATUS NTAPI NtQueryKey(HANDLE key, int informationClass, PVOID information, ULONG length,
                                     PULONG needed);

namespace corvi::tool::plan {
namespace {

constexpr int kKeyNameInformation = 3;
constexpr REGSAM kViews = KEY_WOW64_32KEY | KEY_WOW64_64KEY;
constexpr wchar_t kMachine[] = L"\\REGISTRY\\MACHINE";
constexpr wchar_t kEmulatedNode[] = L"\\WOW6432NODE";
constexpr wchar_t kMachineSoftware[] = L"\\REGISTRY\\MACHINE\\SOFTWARE";
constexpr std::size_t kLongestShownData = 200;

struct Root {
    HKEY key;
    const wchar_t* shown;
};

const Root kRoots[] = {
    {HKEY_LOCAL_MACHINE, L"HKLM"}, {HKEY_CURRENT_USER, L"HKCU"},   {HKEY_CLASSES_ROOT, L"HKCR"},
    {HKEY_USERS, L"HKU"},          {HKEY_CURRENT_CONFIG, L"HKCC"},
};

struct Value {
    std::wstring name;
    bool present = false;
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
};

// What was noted about one key.
struct KeyNotes {
    /// What the machine has under this name, and below it, does not show any more: it was deleted, or there
    /// was nothing when the key was created.
    bool hidesReal = false;
    /// The key is there although it hides the machine's: it was created.
    bool created = false;
    std::wstring name;  ///< the key's own name as it was created
    std::map<std::wstring, Value> values;
};

/// By the platform's own full name of the key in upper case, the same for every way to reach it.
std::map<std::wstring, KeyNotes> notes;

/// A key that the action has open.
struct Key {
    HKEY real = nullptr;  ///< null for one that only the notes know
    std::wstring shown;   ///< "HKLM\SOFTWARE\QEL"
    REGSAM access = 0;
    std::optional<std::wstring> id;  ///< the index into the notes, asked for when it is needed
    std::optional<std::vector<std::wstring>> realSubkeys;

    ~Key() {
        if (real != nullptr) {
            RegCloseKey(real);
        }
    }
};

std::unordered_map<HKEY, std::shared_ptr<Key>> openKeys;

std::wstring Upper(std::wstring text) {
    std::transform(text.begin(), text.end(), text.begin(), [](wchar_t character) {
        return character < 128 ? static_cast<wchar_t>(std::towupper(character))
                               : reinterpret_cast<std::uintptr_t>(CharUpperW(
                                     reinterpret_cast<LPWSTR>(static_cast<std::uintptr_t>(character)))) &
                                     0xFFFFU;
    });
    return text;
}

/// "A\B" for "\A\\B\": the platform takes all of them for the same key.
std::wstring Tidy(LPCWSTR path) {
    std::wstring tidy;
    for (const wchar_t* next = path; next != nullptr && *next != L'\0'; ++next) {
        if (*next != L'\\' || (!tidy.empty() && tidy.back() != L'\\')) {
            tidy += *next;
        }
    }
    if (!tidy.empty() && tidy.back() == L'\\') {
        tidy.pop_back();
    }
    return tidy;
}

std::wstring Join(const std::wstring& path, const std::wstring& below) {
    return below.empty() ? path : path + L'\\' + below;
}

std::wstring PlatformName(HKEY key) {
    std::vector<ULONG> buffer(32768);
    ULONG needed = 0;
    if (NtQueryKey(key, kKeyNameInformation, buffer.data(), static_cast<ULONG>(buffer.size() * sizeof(ULONG)),
                   &needed) < 0) {
        return {};
    }
    return {reinterpret_cast<const wchar_t*>(buffer.data() + 1), buffer.front() / sizeof(wchar_t)};
}

std::shared_ptr<Key> OpenRoot(const Root& root) {
    auto key = std::make_shared<Key>();
    key->shown = root.shown;
    key->access = MAXIMUM_ALLOWED;
    key->id = root.key == HKEY_LOCAL_MACHINE ? kMachine : L"";
    if (root.key != HKEY_LOCAL_MACHINE) {
        HKEY opened = nullptr;
        if (RegOpenKeyExW(root.key, nullptr, 0, MAXIMUM_ALLOWED, &opened) == ERROR_SUCCESS &&
            opened != root.key) {
            key->id = Upper(PlatformName(opened));
            RegCloseKey(opened);
        }
    }
    if (key->id->empty()) {
        key->id = root.key == HKEY_CLASSES_ROOT ? L"\\REGISTRY\\MACHINE\\SOFTWARE\\CLASSES"
                                                : std::wstring(L"\\REGISTRY\\") + root.shown;
    }
    return key;
}

std::shared_ptr<Key> FindKey(HKEY handle) {
    static std::unordered_map<HKEY, std::shared_ptr<Key>> roots;
    if (const auto open = openKeys.find(handle); open != openKeys.end()) {
        return open->second;
    }
    const auto* root = std::find_if(std::begin(kRoots), std::end(kRoots),
                                    [handle](const Root& candidate) { return candidate.key == handle; });
    if (root == std::end(kRoots)) {
        return nullptr;
    }
    auto& key = roots[handle];
    if (key == nullptr) {
        key = OpenRoot(*root);
    }
    return key;
}

/// The handle under which the platform knows the key; a root's is its own.
HKEY RealHandle(HKEY handle, const Key& key) { return openKeys.count(handle) != 0 ? key.real : handle; }

const std::wstring& Id(Key& key) {
    if (!key.id) {
        key.id = Upper(PlatformName(key.real));
    }
    return *key.id;
}

KeyNotes* NotesOn(const std::wstring& id) {
    const auto found = notes.find(id);
    return found == notes.end() ? nullptr : &found->second;
}

/// True when what the machine has under this name shows.
bool IsRealVisible(const std::wstring& id) {
    if (notes.empty()) {
        return true;
    }
    for (std::size_t end = id.find(L'\\', 1);; end = id.find(L'\\', end + 1)) {
        const KeyNotes* above = NotesOn(id.substr(0, end));
        if (above != nullptr && above->hidesReal) {
            return false;
        }
        if (end == std::wstring::npos) {
            return true;
        }
    }
}

bool IsCreated(const std::wstring& id) {
    const KeyNotes* own = NotesOn(id);
    return own != nullptr && own->hidesReal && own->created;
}

/// True when anything was noted about the key itself or the keys directly below it.
bool IsTouched(const std::wstring& id) {
    if (notes.empty()) {
        return false;
    }
    if (notes.count(id) != 0 || !IsRealVisible(id)) {
        return true;
    }
    const auto below = notes.lower_bound(id + L'\\');
    return below != notes.end() && below->first.compare(0, id.size() + 1, id + L'\\') == 0;
}

/// The key behind a name, as it would be now.
struct Found {
    LSTATUS status = ERROR_SUCCESS;
    std::shared_ptr<Key> key;
};

/// The name under which the platform would know root\subkey, whether it is there or not.
std::wstring IdOf(HKEY rootHandle, Key& root, const std::wstring& subkey, REGSAM view) {
    if (subkey.empty() || (root.real == nullptr && openKeys.count(rootHandle) != 0)) {
        return Join(Id(root), Upper(subkey));
    }
    for (std::size_t end = subkey.size(); end != std::wstring::npos && end > 0;
         end = subkey.rfind(L'\\', end - 1)) {
        HKEY above = nullptr;
        if (RegOpenKeyExW(RealHandle(rootHandle, root), subkey.substr(0, end).c_str(), 0,
                          KEY_QUERY_VALUE | view, &above) == ERROR_SUCCESS) {
            const std::wstring name = Upper(PlatformName(above));
            RegCloseKey(above);
            return Join(name, Upper(end == subkey.size() ? std::wstring() : subkey.substr(end + 1)));
        }
    }
    return Join(Id(root), Upper(subkey));
}

/// Without regard to the notes where there are none: one call of the platform, as the action makes it.
Found Find(HKEY rootHandle, LPCWSTR subkey, REGSAM access) {
    const auto root = FindKey(rootHandle);
    if (root == nullptr) {
        return {ERROR_INVALID_HANDLE, nullptr};
    }
    const std::wstring path = Tidy(subkey);
    auto key = std::make_shared<Key>();
    key->shown = Join(root->shown, path);
    key->access = access;
    const HKEY realRoot = RealHandle(rootHandle, *root);
    LSTATUS status = ERROR_FILE_NOT_FOUND;
    if (realRoot != nullptr) {
        status = RegOpenKeyExW(realRoot, path.c_str(), 0, access, &key->real);
        if (key->real == realRoot) {
            // Opening a root by an empty name may give the root itself, which nobody may close.
            key->real = nullptr;
            return {status, status == ERROR_SUCCESS ? root : nullptr};
        }
    }
    if (notes.empty()) {
        return {status, status == ERROR_SUCCESS ? key : nullptr};
    }
    const std::wstring id = key->real != nullptr ? Id(*key) : IdOf(rootHandle, *root, path, access & kViews);
    if (IsRealVisible(id)) {
        return {status, status == ERROR_SUCCESS ? key : nullptr};
    }
    if (!IsCreated(id)) {
        return {ERROR_FILE_NOT_FOUND, nullptr};
    }
    if (key->real != nullptr) {
        RegCloseKey(std::exchange(key->real, nullptr));
    }
    key->id = id;
    return {ERROR_SUCCESS, key};
}

HKEY Register(std::shared_ptr<Key> key) {
    const auto handle = static_cast<HKEY>(NewStandInHandle());
    openKeys[handle] = std::move(key);
    return handle;
}

bool MayWrite(const Key& key) {
    return (key.access & (KEY_SET_VALUE | GENERIC_WRITE | GENERIC_ALL | MAXIMUM_ALLOWED)) != 0;
}

/// The key's name as the program shows it: the 32-bit view's by the name under which it is stored.
std::wstring Shown(Key& key) {
    const std::wstring& id = Id(key);
    const std::wstring software = L"HKLM\\SOFTWARE";
    const std::size_t end = std::size(kMachineSoftware) - 1;
    const std::wstring upper = Upper(key.shown);
    if (id.compare(0, end, kMachineSoftware) != 0 ||
        id.compare(end, std::size(kEmulatedNode) - 1, kEmulatedNode) != 0 ||
        upper.compare(0, software.size(), software) != 0 ||
        upper.compare(software.size(), std::size(kEmulatedNode) - 1, kEmulatedNode) == 0) {
        return key.shown;
    }
    return key.shown.substr(0, software.size()) + L"\\Wow6432Node" + key.shown.substr(software.size());
}

/// The key is no longer there for whoever holds it open.
bool IsGone(Key& key) { return !notes.empty() && key.real != nullptr && !IsRealVisible(Id(key)); }

const Value* NotedValue(const std::wstring& id, LPCWSTR name) {
    const KeyNotes* own = NotesOn(id);
    if (own == nullptr) {
        return nullptr;
    }
    const auto found = own->values.find(Upper(name != nullptr ? name : L""));
    return found == own->values.end() ? nullptr : &found->second;
}

LSTATUS CopyData(const std::vector<BYTE>& bytes, void* data, LPDWORD size) {
    const auto needed = static_cast<DWORD>(bytes.size());
    if (size == nullptr) {
        return data == nullptr ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER;
    }
    const DWORD room = std::exchange(*size, needed);
    if (data == nullptr) {
        return ERROR_SUCCESS;
    }
    if (room < needed) {
        return ERROR_MORE_DATA;
    }
    std::memcpy(data, bytes.data(), bytes.size());
    return ERROR_SUCCESS;
}

std::wstring TextIn(const std::vector<BYTE>& data) {
    std::wstring text(data.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), data.data(), text.size() * sizeof(wchar_t));
    return text;
}

std::wstring Cut(std::wstring text) {
    if (text.size() > kLongestShownData) {
        text.resize(kLongestShownData);
        text += L"...";
    }
    return text;
}

std::wstring HexIn(const std::vector<BYTE>& data) {
    constexpr wchar_t kDigits[] = L"0123456789abcdef";
    std::wstring text;
    for (const BYTE byte : data) {
        text += text.empty() ? L"" : L" ";
        text += kDigits[byte >> 4U];
        text += kDigits[byte & 15U];
    }
    return text;
}

std::wstring ListIn(const std::vector<BYTE>& data) {
    std::wstring text;
    const std::wstring all = TextIn(data);
    for (std::size_t start = 0; start < all.size();) {
        const std::size_t end = std::min(all.find(L'\0', start), all.size());
        if (end > start) {
            text += (text.empty() ? L"\"" : L", \"") + all.substr(start, end - start) + L'"';
        }
        start = end + 1;
    }
    return text.empty() ? L"an empty list" : text;
}

std::wstring DataInWords(DWORD type, const std::vector<BYTE>& data) {
    switch (type) {
        case REG_SZ:
        case REG_EXPAND_SZ: {
            const std::wstring text = TextIn(data);
            return L'"' + Cut(text.substr(0, text.find(L'\0'))) + L'"';
        }
        case REG_DWORD:
            if (data.size() == sizeof(DWORD)) {
                DWORD number = 0;
                std::memcpy(&number, data.data(), sizeof(number));
                return std::to_wstring(number);
            }
            break;
        case REG_MULTI_SZ:
            return Cut(ListIn(data));
        default:
            break;
    }
    return Cut(HexIn(data));
}

std::wstring ShownValue(LPCWSTR name) { return name == nullptr || *name == L'\0' ? L"(default)" : name; }

// What the machine has below a key

template <typename Name>
void CollectNames(std::vector<std::wstring>& names, Name nameAt) {
    std::vector<wchar_t> buffer(32768);
    for (DWORD index = 0;; ++index) {
        auto length = static_cast<DWORD>(buffer.size());
        if (nameAt(index, buffer.data(), &length) != ERROR_SUCCESS) {
            return;
        }
        names.emplace_back(buffer.data(), length);
    }
}

std::vector<std::wstring> RealSubkeys(HKEY real) {
    std::vector<std::wstring> names;
    CollectNames(names, [real](DWORD index, wchar_t* name, DWORD* length) {
        return RegEnumKeyExW(real, index, name, length, nullptr, nullptr, nullptr, nullptr);
    });
    return names;
}

std::vector<std::wstring> RealValues(HKEY real) {
    std::vector<std::wstring> names;
    CollectNames(names, [real](DWORD index, wchar_t* name, DWORD* length) {
        return RegEnumValueW(real, index, name, length, nullptr, nullptr, nullptr, nullptr);
    });
    return names;
}

/// The subkeys as they would be now: the machine's, without those that went, then those that came.
std::vector<std::wstring> Subkeys(HKEY real, Key& key) {
    const std::wstring& id = Id(key);
    std::vector<std::wstring> names;
    if (real != nullptr && IsRealVisible(id)) {
        if (!key.realSubkeys) {
            key.realSubkeys = RealSubkeys(real);
        }
        std::copy_if(key.realSubkeys->begin(), key.realSubkeys->end(), std::back_inserter(names),
                     [&](const std::wstring& name) {
                         const KeyNotes* below = NotesOn(id + L'\\' + Upper(name));
                         return below == nullptr || !below->hidesReal;
                     });
    }
    const std::wstring prefix = id + L'\\';
    for (auto below = notes.lower_bound(prefix);
         below != notes.end() && below->first.compare(0, prefix.size(), prefix) == 0; ++below) {
        if (below->second.created && below->first.find(L'\\', prefix.size()) == std::wstring::npos) {
            names.push_back(below->second.name);
        }
    }
    return names;
}

std::vector<std::wstring> Values(HKEY real, Key& key) {
    const std::wstring& id = Id(key);
    const KeyNotes* own = NotesOn(id);
    std::vector<std::wstring> names;
    if (real != nullptr && IsRealVisible(id)) {
        for (std::wstring& name : RealValues(real)) {
            if (own == nullptr || own->values.count(Upper(name)) == 0) {
                names.push_back(std::move(name));
            }
        }
    }
    if (own != nullptr) {
        for (const auto& [upper, value] : own->values) {
            if (value.present) {
                names.push_back(value.name);
            }
        }
    }
    return names;
}

LSTATUS CopyName(const std::vector<std::wstring>& names, DWORD index, LPWSTR name, LPDWORD length) {
    if (index >= names.size()) {
        return ERROR_NO_MORE_ITEMS;
    }
    const std::wstring& found = names[index];
    if (name == nullptr || length == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    if (*length <= found.size()) {
        return ERROR_MORE_DATA;
    }
    std::copy(found.begin(), found.end(), name);
    name[found.size()] = L'\0';
    *length = static_cast<DWORD>(found.size());
    return ERROR_SUCCESS;
}

DWORD Longest(const std::vector<std::wstring>& names) {
    std::size_t longest = 0;
    for (const std::wstring& name : names) {
        longest = std::max(longest, name.size());
    }
    return static_cast<DWORD>(longest);
}

/// How many keys there are below a key, seen as they would be now.
std::uint64_t CountBelow(HKEY handle, LPCWSTR subkey, REGSAM view) {
    const Found found = Find(handle, subkey, KEY_READ | view);
    if (found.key == nullptr) {
        return 0;
    }
    const HKEY own = Register(found.key);
    std::uint64_t count = 0;
    for (const std::wstring& name : Subkeys(found.key->real, *found.key)) {
        count += 1 + CountBelow(own, name.c_str(), view);
    }
    openKeys.erase(own);
    return count;
}

void NoteDeletion(const std::wstring& id) {
    const std::wstring prefix = id + L'\\';
    auto below = notes.lower_bound(prefix);
    while (below != notes.end() && below->first.compare(0, prefix.size(), prefix) == 0) {
        below = notes.erase(below);
    }
    KeyNotes deleted;
    deleted.hidesReal = true;
    notes[id] = std::move(deleted);
}

KeyNotes& NotesFor(Key& key) { return notes[Id(key)]; }

/// Whether the platform would let the action make a key there: asked of the nearest key above that the
/// machine has.
LSTATUS MayCreate(HKEY rootHandle, Key& root, const std::wstring& subkey, REGSAM view) {
    const HKEY real = RealHandle(rootHandle, root);
    if (real == nullptr) {
        return ERROR_SUCCESS;
    }
    std::size_t end = subkey.rfind(L'\\');
    for (;;) {
        HKEY above = nullptr;
        const std::wstring path = end == std::wstring::npos ? std::wstring() : subkey.substr(0, end);
        const LSTATUS status = RegOpenKeyExW(real, path.c_str(), 0, KEY_CREATE_SUB_KEY | view, &above);
        if (status == ERROR_SUCCESS && above != real) {
            RegCloseKey(above);
        }
        if (status != ERROR_FILE_NOT_FOUND || path.empty()) {
            return status;
        }
        end = path.rfind(L'\\');
    }
}

/// Notes root\subkey and every key above it that is not there. id: the key's; path: its part below root.
void NoteCreation(const std::wstring& id, const std::wstring& path, HKEY rootHandle, REGSAM view) {
    std::size_t idEnd = id.size();
    std::size_t end = path.size();
    while (end != std::wstring::npos && end > 0) {
        const std::wstring upper = id.substr(0, idEnd);
        if (end != path.size() &&
            Find(rootHandle, path.substr(0, end).c_str(), KEY_QUERY_VALUE | view).status == ERROR_SUCCESS) {
            return;
        }
        const std::size_t start = path.rfind(L'\\', end - 1);
        KeyNotes created;
        created.hidesReal = true;
        created.created = true;
        created.name = path.substr(start == std::wstring::npos ? 0 : start + 1,
                                   start == std::wstring::npos ? end : end - start - 1);
        notes[upper] = std::move(created);
        idEnd = id.rfind(L'\\', idEnd - 1);
        end = start;
    }
}

LSTATUS DeleteFound(HKEY handle, LPCWSTR subkey, REGSAM view, bool withSubkeys) {
    // Deleted by name: the platform asks for the rights on the key itself, whatever the handle may.
    const REGSAM rights = withSubkeys ? DELETE | KEY_ENUMERATE_SUB_KEYS | KEY_QUERY_VALUE : DELETE | KEY_READ;
    const Found found = Find(handle, subkey, rights | view);
    if (found.key == nullptr) {
        return found.status;
    }
    if (!withSubkeys && !Subkeys(found.key->real, *found.key).empty()) {
        return ERROR_ACCESS_DENIED;
    }
    Change change{Deed::DeleteKey, Shown(*found.key)};
    change.folders = CountBelow(handle, subkey, view);
    NoteDeletion(Id(*found.key));
    Journal().Add(std::move(change));
    return ERROR_SUCCESS;
}

/// What RegDeleteTreeW does without a subkey: the key stays and is empty.
LSTATUS EmptyKey(HKEY handle, Key& key) {
    Change change{Deed::DeleteKey, Shown(key) + L"\\*"};
    const std::wstring id = Id(key);
    KeyNotes emptied;
    emptied.hidesReal = true;
    emptied.created = true;
    emptied.name = key.shown.substr(key.shown.rfind(L'\\') + 1);
    change.folders = CountBelow(handle, nullptr, key.access & kViews);
    NoteDeletion(id);
    notes[id] = std::move(emptied);
    Journal().Add(std::move(change));
    return ERROR_SUCCESS;
}

LSTATUS DeleteValueOf(Key& key, LPCWSTR name) {
    if (!MayWrite(key)) {
        return ERROR_ACCESS_DENIED;
    }
    const std::wstring& id = Id(key);
    const Value* noted = NotedValue(id, name);
    const bool present = noted != nullptr ? noted->present
                                          : key.real != nullptr && IsRealVisible(id) &&
                                                RegQueryValueExW(key.real, name, nullptr, nullptr, nullptr,
                                                                 nullptr) == ERROR_SUCCESS;
    if (!present) {
        return ERROR_FILE_NOT_FOUND;
    }
    NotesFor(key).values[Upper(name != nullptr ? name : L"")] =
        Value{name != nullptr ? name : L"", false, REG_NONE, {}};
    Journal().Add({Deed::DeleteValue, Shown(key), ShownValue(name)});
    return ERROR_SUCCESS;
}

struct TypeFlag {
    DWORD flag;
    DWORD type;
};

constexpr TypeFlag kTypeFlags[] = {
    {RRF_RT_REG_NONE, REG_NONE},     {RRF_RT_REG_SZ, REG_SZ},       {RRF_RT_REG_EXPAND_SZ, REG_EXPAND_SZ},
    {RRF_RT_REG_BINARY, REG_BINARY}, {RRF_RT_REG_DWORD, REG_DWORD}, {RRF_RT_REG_MULTI_SZ, REG_MULTI_SZ},
    {RRF_RT_REG_QWORD, REG_QWORD},
};

/// A noted value as RegGetValueW gives it: of a type that is asked for, an expandable text expanded.
LSTATUS GiveNoted(const Value& value, DWORD flags, LPDWORD type, PVOID data, LPDWORD size) {
    std::vector<BYTE> bytes = value.data;
    DWORD given = value.type;
    if (given == REG_EXPAND_SZ && (flags & RRF_NOEXPAND) == 0) {
        std::wstring text = TextIn(bytes);
        text.resize(std::wcslen(text.c_str()));
        std::wstring expanded(32768, L'\0');
        expanded.resize(ExpandEnvironmentStringsW(text.c_str(), expanded.data(), 32768));
        const auto* start = reinterpret_cast<const BYTE*>(expanded.data());
        bytes.assign(start, start + expanded.size() * sizeof(wchar_t));
        given = REG_SZ;
    }
    const bool wanted = std::any_of(std::begin(kTypeFlags), std::end(kTypeFlags), [&](const TypeFlag& entry) {
        return (flags & entry.flag) != 0 && entry.type == given;
    });
    if (!wanted) {
        return ERROR_UNSUPPORTED_TYPE;
    }
    if (type != nullptr) {
        *type = given;
    }
    return CopyData(bytes, data, size);
}

}  // namespace

LSTATUS WINAPI OpenKey(HKEY root, LPCWSTR subkey, DWORD /*options*/, REGSAM access, PHKEY result) {
    Found found = Find(root, subkey, access);
    if (found.key == nullptr) {
        *result = nullptr;
        return found.status;
    }
    *result = Register(std::move(found.key));
    return ERROR_SUCCESS;
}

LSTATUS WINAPI CreateKey(HKEY root, LPCWSTR subkey, DWORD reserved, LPWSTR /*className*/, DWORD options,
                         REGSAM access, LPSECURITY_ATTRIBUTES /*security*/, PHKEY result,
                         LPDWORD disposition) {
    *result = nullptr;
    const LSTATUS opened = OpenKey(root, subkey, reserved, access, result);
    if (opened != ERROR_FILE_NOT_FOUND) {
        if (disposition != nullptr) {
            *disposition = REG_OPENED_EXISTING_KEY;
        }
        return opened;
    }
    const auto parent = FindKey(root);
    const std::wstring path = Tidy(subkey);
    const REGSAM view = access & kViews;
    if (const LSTATUS allowed = MayCreate(root, *parent, path, view); allowed != ERROR_SUCCESS) {
        return allowed;
    }
    auto key = std::make_shared<Key>();
    key->shown = Join(parent->shown, path);
    key->access = access;
    key->id = IdOf(root, *parent, path, view);
    NoteCreation(*key->id, path, root, view);
    Change change{Deed::CreateKey, Shown(*key)};
    change.note = (options & REG_OPTION_VOLATILE) != 0 ? L"until the next restart" : L"";
    Journal().Add(std::move(change));
    if (disposition != nullptr) {
        *disposition = REG_CREATED_NEW_KEY;
    }
    *result = Register(std::move(key));
    return ERROR_SUCCESS;
}

LSTATUS WINAPI CloseKey(HKEY key) {
    if (openKeys.erase(key) > 0 || FindKey(key) != nullptr) {
        return ERROR_SUCCESS;
    }
    return ERROR_INVALID_HANDLE;
}

LSTATUS WINAPI QueryValue(HKEY handle, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
                          LPDWORD size) {
    const auto key = FindKey(handle);
    if (key == nullptr) {
        return ERROR_INVALID_HANDLE;
    }
    const HKEY real = RealHandle(handle, *key);
    if (notes.empty()) {
        return RegQueryValueExW(real, name, reserved, type, data, size);
    }
    if (IsGone(*key)) {
        return ERROR_KEY_DELETED;
    }
    if (const Value* noted = NotedValue(Id(*key), name)) {
        if (!noted->present) {
            return ERROR_FILE_NOT_FOUND;
        }
        if (type != nullptr) {
            *type = noted->type;
        }
        return CopyData(noted->data, data, size);
    }
    return real == nullptr ? ERROR_FILE_NOT_FOUND : RegQueryValueExW(real, name, reserved, type, data, size);
}

LSTATUS WINAPI GetValue(HKEY handle, LPCWSTR subkey, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
                        LPDWORD size) {
    const auto key = FindKey(handle);
    if (key == nullptr) {
        return ERROR_INVALID_HANDLE;
    }
    const HKEY real = RealHandle(handle, *key);
    if (notes.empty()) {
        return RegGetValueW(real, subkey, name, flags, type, data, size);
    }
    const bool isOwn = subkey == nullptr || *subkey == L'\0';
    const Found found = isOwn ? Found{ERROR_SUCCESS, key} : Find(handle, subkey, KEY_QUERY_VALUE);
    if (found.key == nullptr) {
        return found.status;
    }
    if (isOwn && IsGone(*key)) {
        return ERROR_KEY_DELETED;
    }
    if (const Value* noted = NotedValue(Id(*found.key), name)) {
        return noted->present ? GiveNoted(*noted, flags, type, data, size) : ERROR_FILE_NOT_FOUND;
    }
    const HKEY source = isOwn ? real : found.key->real;
    return source == nullptr ? ERROR_FILE_NOT_FOUND
                             : RegGetValueW(source, nullptr, name, flags, type, data, size);
}

LSTATUS WINAPI SetValue(HKEY handle, LPCWSTR name, DWORD /*reserved*/, DWORD type, const BYTE* data,
                        DWORD size) {
    const auto key = FindKey(handle);
    if (key == nullptr) {
        return ERROR_INVALID_HANDLE;
    }
    if (!MayWrite(*key)) {
        return ERROR_ACCESS_DENIED;
    }
    if (IsGone(*key)) {
        return ERROR_KEY_DELETED;
    }
    Value value{name != nullptr ? name : L"", true, type,
                std::vector<BYTE>(data, data + (data != nullptr ? size : 0))};
    Journal().Add({Deed::SetValue, Shown(*key), ShownValue(name), DataInWords(type, value.data)});
    NotesFor(*key).values[Upper(value.name)] = std::move(value);
    return ERROR_SUCCESS;
}

LSTATUS WINAPI DeleteValue(HKEY handle, LPCWSTR name) {
    const auto key = FindKey(handle);
    if (key == nullptr) {
        return ERROR_INVALID_HANDLE;
    }
    return IsGone(*key) ? ERROR_KEY_DELETED : DeleteValueOf(*key, name);
}

LSTATUS WINAPI DeleteKeyValue(HKEY handle, LPCWSTR subkey, LPCWSTR name) {
    const Found found = Find(handle, subkey, KEY_SET_VALUE | KEY_QUERY_VALUE);
    return found.key == nullptr ? found.status : DeleteValueOf(*found.key, name);
}

LSTATUS WINAPI DeleteKey(HKEY handle, LPCWSTR subkey) { return DeleteFound(handle, subkey, 0, false); }

LSTATUS WINAPI DeleteKeyOfView(HKEY handle, LPCWSTR subkey, REGSAM view, DWORD /*reserved*/) {
    return DeleteFound(handle, subkey, view & kViews, false);
}

LSTATUS WINAPI DeleteTree(HKEY handle, LPCWSTR subkey) {
    if (subkey != nullptr && *subkey != L'\0') {
        return DeleteFound(handle, subkey, 0, true);
    }
    const auto key = FindKey(handle);
    return key == nullptr ? ERROR_INVALID_HANDLE : EmptyKey(handle, *key);
}

LSTATUS WINAPI EnumKey(HKEY handle, DWORD index, LPWSTR name, LPDWORD length, LPDWORD reserved,
                       LPWSTR className, LPDWORD classLength, PFILETIME written) {
    const auto key = FindKey(handle);
    if (key == nullptr) {
        return ERROR_INVALID_HANDLE;
    }
    const HKEY real = RealHandle(handle, *key);
    if (notes.empty() || !IsTouched(Id(*key))) {
        return RegEnumKeyExW(real, index, name, length, reserved, className, classLength, written);
    }
    return IsGone(*key) ? ERROR_KEY_DELETED : CopyName(Subkeys(real, *key), index, name, length);
}

LSTATUS WINAPI EnumValue(HKEY handle, DWORD index, LPWSTR name, LPDWORD length, LPDWORD reserved,
                         LPDWORD type, LPBYTE data, LPDWORD size) {
    const auto key = FindKey(handle);
    if (key == nullptr) {
        return ERROR_INVALID_HANDLE;
    }
    const HKEY real = RealHandle(handle, *key);
    if (notes.empty() || !IsTouched(Id(*key))) {
        return RegEnumValueW(real, index, name, length, reserved, type, data, size);
    }
    if (IsGone(*key)) {
        return ERROR_KEY_DELETED;
    }
    const LSTATUS status = CopyName(Values(real, *key), index, name, length);
    return status == ERROR_SUCCESS && (type != nullptr || size != nullptr)
               ? QueryValue(handle, name, nullptr, type, data, size)
               : status;
}

LSTATUS WINAPI QueryInfoKey(HKEY handle, LPWSTR className, LPDWORD classLength, LPDWORD reserved,
                            LPDWORD subkeys, LPDWORD longestSubkey, LPDWORD longestClass, LPDWORD values,
                            LPDWORD longestValue, LPDWORD largestData, LPDWORD descriptorSize,
                            PFILETIME written) {
    const auto key = FindKey(handle);
    if (key == nullptr) {
        return ERROR_INVALID_HANDLE;
    }
    const HKEY real = RealHandle(handle, *key);
    const bool touched = !notes.empty() && IsTouched(Id(*key));
    if (touched && IsGone(*key)) {
        return ERROR_KEY_DELETED;
    }
    if (real != nullptr) {
        const LSTATUS status =
            RegQueryInfoKeyW(real, className, classLength, reserved, subkeys, longestSubkey, longestClass,
                             values, longestValue, largestData, descriptorSize, written);
        if (status != ERROR_SUCCESS || !touched) {
            return status;
        }
    }
    const auto set = [](LPDWORD target, std::size_t number) {
        if (target != nullptr) {
            *target = static_cast<DWORD>(number);
        }
    };
    const std::vector<std::wstring> subkeyNames = Subkeys(real, *key);
    const std::vector<std::wstring> valueNames = Values(real, *key);
    set(subkeys, subkeyNames.size());
    set(longestSubkey, Longest(subkeyNames));
    set(values, valueNames.size());
    set(longestValue, Longest(valueNames));
    if (real == nullptr) {
        set(classLength, 0);
        set(longestClass, 0);
    }
    return ERROR_SUCCESS;
}

void HideMachineKey(const std::wstring& path) {
    const auto machine = FindKey(HKEY_LOCAL_MACHINE);
    NoteDeletion(IdOf(HKEY_LOCAL_MACHINE, *machine, path, 0));
}

}  // namespace corvi::tool::plan
