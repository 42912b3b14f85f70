#include "runtime/registry_walk.h"

#include <algorithm>
#include <cwchar>
#include <functional>
#include <unordered_set>
#include <utility>

#include "runtime/registry.h"
#include "runtime/standard_output.h"
#include "runtime/text.h"

namespace corvi {
namespace {

struct RootName {
    HKEY root;
    const wchar_t* prefix;
};

const RootName kRootNames[] = {
    {HKEY_CLASSES_ROOT, L"HKEY_CLASSES_ROOT\\"},     {HKEY_CURRENT_USER, L"HKEY_CURRENT_USER\\"},
    {HKEY_LOCAL_MACHINE, L"HKEY_LOCAL_MACHINE\\"},   {HKEY_USERS, L"HKEY_USERS\\"},
    {HKEY_CURRENT_CONFIG, L"HKEY_CURRENT_CONFIG\\"},
};

/// Written as it stands: nothing takes the place of the two "%s".
constexpr wchar_t kNullRootTrace[] = L"QueryKey: %s---------hkey is NULL---------------%s\n";

constexpr DWORD kClassCapacity = 260;
constexpr DWORD kKeyNameLimit = 255;
constexpr DWORD kValueNameLimit = 16383;
constexpr DWORD kTreeNameCapacity = 260;

/// Keys are never nested deeper than this; what seems deeper is a registry link that leads back into
/// its own ancestors.
constexpr int kDeepestLevel = 512;

constexpr REGSAM kTreeAccess = KEY_ALL_ACCESS | KEY_WOW64_32KEY;

std::wstring RootPrefix(HKEY root) {
    const auto* found = std::find_if(std::begin(kRootNames), std::end(kRootNames),
                                     [root](const RootName& name) { return name.root == root; });
    return found == std::end(kRootNames) ? L"" : found->prefix;
}

/// Appends to a list of paths what the list does not hold yet. The index beside the list keeps the cost
/// of a walk proportional to the number of keys; it knows the paths by their positions, not as copies.
class PathList {
public:
    explicit PathList(std::vector<std::wstring>& paths)
        : paths_(paths), index_(paths.size(), HashAt{&paths}, EqualAt{&paths}) {
        for (size_t position = 0; position < paths.size(); ++position) {
            index_.insert(position);
        }
    }

    /// True when the path was not in the list.
    bool Add(std::wstring path) {
        paths_.push_back(std::move(path));
        const bool added = index_.insert(paths_.size() - 1).second;
        if (!added) {
            paths_.pop_back();
        }
        return added;
    }

private:
    struct HashAt {
        const std::vector<std::wstring>* paths;
        size_t operator()(size_t position) const { return std::hash<std::wstring>()((*paths)[position]); }
    };
    struct EqualAt {
        const std::vector<std::wstring>* paths;
        bool operator()(size_t left, size_t right) const { return (*paths)[left] == (*paths)[right]; }
    };

    std::vector<std::wstring>& paths_;
    std::unordered_set<size_t, HashAt, EqualAt> index_;
};

/// One walk below one root.
class KeyWalk {
public:
    /// keys and values may be the same list. valueNames: the names to list; empty for all.
    KeyWalk(HKEY root, PathList& keys, PathList& values, const std::vector<std::wstring>& valueNames)
        : root_(root),
          prefix_(RootPrefix(root)),
          keys_(keys),
          values_(values),
          valueNames_(valueNames),
          name_(size_t{kValueNameLimit} + 1, L'\0') {}

    void Walk(HKEY key, const std::wstring& path, int level = 0) {
        wchar_t className[kClassCapacity] = {};
        DWORD classSize = kClassCapacity;
        DWORD subkeyCount = 0;
        DWORD valueCount = 0;
        RegQueryInfoKeyW(key, className, &classSize, nullptr, &subkeyCount, nullptr, nullptr, &valueCount,
                         nullptr, nullptr, nullptr, nullptr);
        for (DWORD index = 0; index < subkeyCount; ++index) {
            VisitSubkey(key, index, path, level);
        }
        for (DWORD index = 0; index < valueCount; ++index) {
            VisitValue(key, index, path);
        }
    }

private:
    void VisitSubkey(HKEY key, DWORD index, const std::wstring& path, int level) {
        DWORD length = kKeyNameLimit;
        if (RegEnumKeyExW(key, index, name_.data(), &length, nullptr, nullptr, nullptr, nullptr) !=
            ERROR_SUCCESS) {
            return;
        }
        const std::wstring name(name_.data(), std::min(length, kKeyNameLimit));
        const std::wstring relative = path.empty() ? name : path + L'\\' + name;
        if (!keys_.Add(prefix_ + relative)) {
            return;
        }
        if (root_ == nullptr) {
            WriteStandardOutput(kNullRootTrace);
            return;
        }
        // A name that holds a terminator cannot be opened; cut there, it would name another key.
        if (name.find(L'\0') == std::wstring::npos && level < kDeepestLevel) {
            if (const RegKey subkey = RegKey::TryOpen(root_, relative, KEY_READ)) {
                Walk(subkey.Get(), relative, level + 1);
            }
        }
    }

    void VisitValue(HKEY key, DWORD index, const std::wstring& path) {
        DWORD length = kValueNameLimit;
        if (RegEnumValueW(key, index, name_.data(), &length, nullptr, nullptr, nullptr, nullptr) !=
            ERROR_SUCCESS) {
            return;
        }
        const std::wstring name(name_.data(), std::min(length, kValueNameLimit));
        if (IsWanted(name)) {
            values_.Add(prefix_ + path + L'\\' + name);
        }
    }

    bool IsWanted(const std::wstring& name) const {
        return valueNames_.empty() ||
               std::any_of(valueNames_.begin(), valueNames_.end(),
                           [&name](const std::wstring& wanted) { return EqualsIgnoringCase(name, wanted); });
    }

    HKEY root_;
    std::wstring prefix_;
    PathList& keys_;
    PathList& values_;
    const std::vector<std::wstring>& valueNames_;
    std::vector<wchar_t> name_;
};

/// Appends text to the path buffer after length characters. False, with the path unchanged, when it
/// does not fit: a cut name would be another key's.
bool AppendToPath(wchar_t* path, size_t length, const std::wstring& text) {
    if (length + text.size() >= kKeyTreePathCapacity) {
        return false;
    }
    std::copy(text.begin(), text.end(), path + length);
    path[length + text.size()] = L'\0';
    return true;
}

/// The name of the first subkey; empty when there is none.
std::wstring FirstSubkey(HKEY key) {
    wchar_t name[kTreeNameCapacity] = {};
    DWORD length = kTreeNameCapacity;
    const LSTATUS status = RegEnumKeyExW(key, 0, name, &length, nullptr, nullptr, nullptr, nullptr);
    return status == ERROR_SUCCESS ? std::wstring(name, std::min(length, kTreeNameCapacity)) : L"";
}

/// Deletes the subkeys one after the other, always the first one, until one resists. length: of the
/// path, with its trailing backslash.
void DeleteSubkeys(HKEY key, wchar_t* path, size_t length) {
    std::wstring last;
    for (std::wstring name = FirstSubkey(key); !name.empty(); name = FirstSubkey(key)) {
        // One that is still there after its deletion succeeded would be deleted for ever.
        const bool deletable = name != last && name.find(L'\0') == std::wstring::npos;
        if (!deletable || !AppendToPath(path, length, name) || !DeleteKeyTree(path)) {
            return;
        }
        last = name;
    }
}

bool DeleteKey(const wchar_t* path) {
    return RegDeleteKeyExW(HKEY_LOCAL_MACHINE, path, KEY_WOW64_32KEY, 0) == ERROR_SUCCESS;
}

}  // namespace

void ListKeyPaths(HKEY root, HKEY openKey, const std::wstring& path, std::vector<std::wstring>& paths) {
    PathList list(paths);
    KeyWalk(root, list, list, {}).Walk(openKey, path);
}

void ListKeyAndValuePaths(HKEY root, HKEY openKey, const std::wstring& path,
                          std::vector<std::wstring>& keyPaths, std::vector<std::wstring>& valuePaths,
                          const std::vector<std::wstring>& valueNames) {
    PathList keys(keyPaths);
    PathList values(valuePaths);
    KeyWalk(root, keys, values, valueNames).Walk(openKey, path);
}

bool DeleteKeyTree(wchar_t* path) {
    const size_t length = wcsnlen(path, kKeyTreePathCapacity);
    if (length == 0 || length == kKeyTreePathCapacity) {
        return false;
    }
    if (DeleteKey(path)) {
        return true;
    }
    LSTATUS status = ERROR_SUCCESS;
    RegKey key = RegKey::TryOpen(HKEY_LOCAL_MACHINE, path, kTreeAccess, &status);
    if (!key) {
        if (status == ERROR_ACCESS_DENIED) {
            RegKey::TryOpen(HKEY_LOCAL_MACHINE, path, kTreeAccess, &status);
        }
        // Nothing is deleted after a refusal, not even when the second open succeeded.
        return status == ERROR_FILE_NOT_FOUND;
    }
    const bool hasBackslash = path[length - 1] == L'\\';
    if (hasBackslash || AppendToPath(path, length, L"\\")) {
        DeleteSubkeys(key.Get(), path, wcslen(path));
    }
    path[length] = L'\0';
    key.Close();
    return DeleteKey(path);
}

}  // namespace corvi
