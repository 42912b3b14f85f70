#include <windows.h>

#include <msi.h>
#include <shlwapi.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "runtime/action_policy.h"
#include "runtime/filesystem.h"
#include "runtime/registry.h"
#include "runtime/session.h"
#include "runtime/text.h"
#include "runtime/tree_walk.h"
#include "runtime/unique_handle.h"
#include "services/settings_application.h"

namespace corvi {
namespace {

// Below HKEY_LOCAL_MACHINE.
constexpr wchar_t kBrandingKey[] = L"SOFTWARE\\TAVOBranding";

/// A value of the settings application's key.
constexpr wchar_t kBrandingDirectoryValue[] = L"HXBrandingInstallDir";

/// Room for that value: 259 characters and the terminator.
constexpr DWORD kDirectoryBytes = 520;

/// Both the entry of the branding list that retains skins and the mark of a skin's path.
constexpr wchar_t kSkins[] = L"Skins";

/// Room for the path of a single file to delete, in characters with terminator.
constexpr size_t kFilePathCapacity = 256;

struct FindHandleTraits {
    using Handle = HANDLE;
    static Handle None() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Handle handle) noexcept { FindClose(handle); }
};
using FindHandle = UniqueHandle<FindHandleTraits>;

/// Entry paths and retained texts are compared in this form.
std::wstring WithForwardSlashes(std::wstring text) {
    std::replace(text.begin(), text.end(), L'\\', L'/');
    return text;
}

/// Throws RegKeyError when the value's type cannot be asked.
bool IsPlainString(const RegKey& key, const std::wstring& valueName) {
    DWORD type = REG_NONE;
    const LSTATUS status = RegQueryValueExW(key.Get(), valueName.c_str(), nullptr, &type, nullptr, nullptr);
    if (status != ERROR_SUCCESS) {
        throw RegKeyError(status, kGetValueFailed);
    }
    return type == REG_SZ;
}

/// What survives: the names of the branding key's subkeys and the data of its REG_SZ values, that with
/// forward slashes. Empty without the key. Throws RegKeyError when the key is there but not readable to
/// the end: content that nobody could tell from retained content must not be deleted.
std::vector<std::wstring> ReadBrandingList() {
    const RegKey branding = RegKey::OpenIfPresent(HKEY_LOCAL_MACHINE, kBrandingKey, KEY_READ);
    if (!branding) {
        return {};
    }
    std::vector<std::wstring> list = branding.EnumSubkeys();
    for (const std::wstring& name : branding.EnumValues()) {
        if (IsPlainString(branding, name)) {
            list.push_back(WithForwardSlashes(branding.GetString(L"", name, Unreadable::Throws)));
        }
    }
    return list;
}

/// The directory to clean, as it is stored: an expandable text is not expanded. Empty when key or value is
/// missing, when the value is no text or when it is longer than its room, for a cut path would name another
/// directory.
std::wstring ReadBrandingDirectory() {
    // Kept: the key's own spelling here, with a trailing separator.
    const RegKey settings =
        RegKey::TryOpen(HKEY_LOCAL_MACHINE, std::wstring(kSettingsAppKey) + L"\\", KEY_READ);
    return settings ? settings.QueryText(kBrandingDirectoryValue, kDirectoryBytes).value_or(std::wstring())
                    : std::wstring();
}

/// True when the directory is a link to another one, which an ordinary user may have put in its place, or
/// when that cannot be told.
bool MayBeLink(const std::wstring& directory) {
    // Behind a trailing separator the platform looks through the link.
    std::wstring name = directory.substr(0, directory.find_last_not_of(L"\\/") + 1);
    if (!name.empty() && name.back() == L':') {
        name += L'\\';  // the drive's root, not the current directory on it
    }
    const EntryKind kind = KindOf(name);
    return kind.attributes == INVALID_FILE_ATTRIBUTES || IsLink(kind);
}

bool IsDotName(const std::wstring& name) { return name == L"." || name == L".."; }

/// The paths of what lies directly in a directory, with forward slashes. A separator always comes
/// between directory and name, even after one that the directory ends in: retained texts are compared
/// with exactly that form.
std::vector<std::wstring> ListEntries(const std::wstring& directory) {
    std::vector<std::wstring> entries;
    if (PathIsDirectoryW(directory.c_str()) == FALSE) {
        return entries;
    }
    const std::wstring pattern = WithTrailingSeparator(directory) + L"*.*";
    WIN32_FIND_DATAW data = {};
    const FindHandle find(FindFirstFileW(pattern.c_str(), &data));
    if (!find) {
        return entries;
    }
    do {
        if (!IsDotName(data.cFileName)) {
            entries.push_back(WithForwardSlashes(directory + L'\\' + data.cFileName));
        }
    } while (FindNextFileW(find.Get(), &data) != FALSE);
    return entries;
}

bool Contains(const std::vector<std::wstring>& list, const std::wstring& text) {
    return std::find(list.begin(), list.end(), text) != list.end();
}

bool IsRetained(const std::wstring& entry, const std::vector<std::wstring>& brandingList) {
    const bool isSkin = entry.find(kSkins) != std::wstring::npos;
    return (isSkin && Contains(brandingList, kSkins)) || Contains(brandingList, entry);
}

/// Deletes one file; one that cannot be deleted, a read-only one for instance, stays.
void DeleteOneFile(const std::wstring& path) {
    // A path cut to the room for it would name another file.
    if (path.size() < kFilePathCapacity) {
        _wremove(path.c_str());
    }
}

void DeleteEntry(const std::wstring& entry) {
    if (PathIsDirectoryW(entry.c_str()) != FALSE) {
        DeleteFolder(entry);
    } else {
        DeleteOneFile(entry);
    }
}

UINT DeleteAllButBrandingContent() {
    const std::vector<std::wstring> brandingList = ReadBrandingList();
    const std::wstring directory = ReadBrandingDirectory();
    if (!PathExists(directory) || MayBeLink(directory)) {
        return ERROR_SUCCESS;
    }
    for (const std::wstring& entry : ListEntries(directory)) {
        if (!IsRetained(entry, brandingList)) {
            DeleteEntry(entry);
        }
    }
    return ERROR_SUCCESS;
}

}  // namespace
}  // namespace corvi

extern "C" {

UINT __stdcall DeleteandRetainValues(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([] { return corvi::DeleteAllButBrandingContent(); });
}

}  // extern "C"
