#include "runtime/tree_walk.h"

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <utility>

#include "runtime/filesystem.h"

namespace corvi {
namespace {

// A folder's path must leave room for a short file name ("\12345678.123") below MAX_PATH.
constexpr size_t kLongestPlainPath = MAX_PATH - 13;
constexpr size_t kListingBytes = size_t{64} * 1024;

constexpr const wchar_t* kVerbatimPrefixes[] = {L"\\\\?\\", L"\\\\.\\", L"\\??\\"};
constexpr const wchar_t* kDeviceNames[] = {L"CON", L"PRN", L"AUX", L"NUL"};
constexpr const wchar_t* kNumberedDeviceNames[] = {L"COM", L"LPT"};

bool EndsInDotOrBlank(const std::wstring& name) {
    return !name.empty() && (name.back() == L'.' || name.back() == L' ');
}

bool IsDeviceName(const std::wstring& name) {
    const size_t length = std::min(name.find_first_of(L". "), name.size());
    const auto startsWith = [&](const wchar_t* device) { return _wcsnicmp(name.c_str(), device, 3) == 0; };
    return (length == 3 && std::any_of(std::begin(kDeviceNames), std::end(kDeviceNames), startsWith)) ||
           (length == 4 &&
            std::any_of(std::begin(kNumberedDeviceNames), std::end(kNumberedDeviceNames), startsWith));
}

// The platform drops trailing dots and blanks and finds devices in every folder, unless told otherwise.
bool IsMisreadName(const std::wstring& name) { return EndsInDotOrBlank(name) || IsDeviceName(name); }

// The path made absolute, without the dots and blanks that the platform drops; empty when it cannot be done.
std::wstring FullPath(const std::wstring& path) {
    std::wstring full(path.size() + MAX_PATH, L'\0');
    DWORD length = GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (length >= full.size()) {
        full.resize(length);
        length = GetFullPathNameW(path.c_str(), length, full.data(), nullptr);
    }
    full.resize(length < full.size() ? length : 0);
    return full;
}

bool IsVerbatim(const std::wstring& path) {
    return std::any_of(std::begin(kVerbatimPrefixes), std::end(kVerbatimPrefixes),
                       [&](const wchar_t* prefix) { return path.compare(0, 4, prefix) == 0; });
}

// Empty when the path cannot be made absolute: behind the prefix the platform reads it as it stands, so that
// a relative one would name something else.
std::wstring VerbatimPath(const std::wstring& path) {
    if (IsVerbatim(path)) {
        return path;
    }
    const std::wstring full = FullPath(path);
    if (full.empty()) {
        return {};
    }
    return full.compare(0, 2, L"\\\\") == 0 ? L"\\\\?\\UNC" + full.substr(1) : L"\\\\?\\" + full;
}

// "C:" alone is the current folder of that drive: a separator would make it the root.
std::wstring ReadyForName(std::wstring folder) {
    const bool isBareDrive = folder.size() == 2 && folder.back() == L':';
    if (!folder.empty() && !IsPathSeparator(folder.back()) && !isBareDrive) {
        folder += L'\\';
    }
    return folder;
}

// The tag of the reparse point that an open handle stands for; 0 when the platform does not tell it.
DWORD ReparseTag(const FileHandle& entry) {
    FILE_ATTRIBUTE_TAG_INFO information = {};
    return GetFileInformationByHandleEx(entry.Get(), FileAttributeTagInfo, &information,
                                        sizeof(information)) != FALSE
               ? information.ReparseTag
               : 0;
}

bool IsReparsePoint(DWORD attributes) { return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0; }

// Opens an entry itself, not what a link leads to.
FileHandle OpenEntry(const std::wstring& path, DWORD access, DWORD sharing) {
    return FileHandle(CreateFileW(path.c_str(), access, sharing, nullptr, OPEN_EXISTING,
                                  FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

}  // namespace

bool IsPathSeparator(wchar_t character) { return character == L'\\' || character == L'/'; }

bool IsLink(const EntryKind& kind) {
    return IsReparsePoint(kind.attributes) &&
           (kind.reparseTag == 0 || IsReparseTagNameSurrogate(kind.reparseTag));
}

bool IsRealFolder(const EntryKind& kind) {
    return (kind.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && !IsLink(kind);
}

EntryKind KindOf(const std::wstring& path) {
    EntryKind kind;
    kind.attributes = GetFileAttributesW(path.c_str());
    if (kind.attributes != INVALID_FILE_ATTRIBUTES && IsReparsePoint(kind.attributes)) {
        kind.reparseTag = ReparseTag(
            OpenEntry(path, FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE));
    }
    return kind;
}

EntryKind KindOf(const FileHandle& entry) {
    BY_HANDLE_FILE_INFORMATION information = {};
    if (GetFileInformationByHandle(entry.Get(), &information) == FALSE) {
        return {};
    }
    return {information.dwFileAttributes,
            IsReparsePoint(information.dwFileAttributes) ? ReparseTag(entry) : 0};
}

std::wstring WithoutTrailingSeparators(std::wstring path) {
    while (path.size() > 1 && IsPathSeparator(path.back()) && path[path.size() - 2] != L':') {
        path.pop_back();
    }
    return path;
}

std::wstring PlatformPath(const std::wstring& path) {
    const std::wstring verbatim = path.size() > kLongestPlainPath ? VerbatimPath(path) : std::wstring();
    return verbatim.empty() ? path : verbatim;
}

TreeWalk::TreeWalk(const std::wstring& root, const char* operation, Unlistable unlistable)
    : operation_(operation),
      unlistable_(unlistable),
      root_(ReadyForName(EndsInDotOrBlank(root) && !IsVerbatim(root) ? FullPath(root) : root)),
      verbatimRoot_(ReadyForName(VerbatimPath(root))) {
    if (root_.empty() || verbatimRoot_.empty()) {
        throw FileSystemError(GetLastError(), operation_);
    }
    Enter(PlatformPath(WithoutTrailingSeparators(root)), Level());
}

bool TreeWalk::Next() {
    if (std::exchange(entersNext_, false)) {
        Level level;
        level.pathLength = below_.size() + 1;
        level.verbatim = verbatim_;
        Enter(Path(), std::move(level));
    }
    if (levels_.empty()) {
        return false;
    }
    if (Level& level = levels_.back(); level.next < level.entries.size()) {
        Show(level, level.entries[level.next++]);
        leaving_ = false;
        entersNext_ = IsRealFolder(kind_);
        return true;
    }
    levels_.pop_back();
    if (levels_.empty()) {
        return false;
    }
    const Level& parent = levels_.back();
    Show(parent, parent.entries[parent.next - 1]);
    leaving_ = true;
    return true;
}

std::wstring TreeWalk::Path() const {
    const bool tooLong = root_.size() + below_.size() > kLongestPlainPath;
    return (verbatim_ || tooLong ? verbatimRoot_ : root_) + below_;
}

void TreeWalk::Show(const Level& level, const Entry& entry) {
    if (level.pathLength > 0) {
        below_.resize(level.pathLength - 1);
        below_ += L'\\';
    } else {
        below_.clear();
    }
    below_ += entry.name;
    kind_ = entry.kind;
    verbatim_ = level.verbatim || IsMisreadName(entry.name);
}

void TreeWalk::Enter(const std::wstring& folder, Level level) {
    level.folder = OpenEntry(folder, FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE);
    const EntryKind kind = level.folder ? KindOf(level.folder) : EntryKind();
    if (kind.attributes == INVALID_FILE_ATTRIBUTES) {
        EndUnlessEmpty(GetLastError());
    } else if (IsRealFolder(kind)) {
        ListEntries(level);
    } else if (!IsLink(kind)) {
        throw FileSystemError(ERROR_DIRECTORY, operation_);
    }
    levels_.push_back(std::move(level));
}

void TreeWalk::ListEntries(Level& level) const {
    std::vector<ULONGLONG> buffer(kListingBytes / sizeof(ULONGLONG));
    while (GetFileInformationByHandleEx(level.folder.Get(), FileFullDirectoryInfo, buffer.data(),
                                        kListingBytes) != FALSE) {
        const auto* bytes = reinterpret_cast<const char*>(buffer.data());
        for (ULONG step = 1; step != 0; bytes += step) {
            const auto* found = reinterpret_cast<const FILE_FULL_DIR_INFO*>(bytes);
            std::wstring name(found->FileName, found->FileNameLength / sizeof(wchar_t));
            if (name != L"." && name != L"..") {
                // For a reparse point the size of the extended attributes is its tag.
                const DWORD tag = IsReparsePoint(found->FileAttributes) ? found->EaSize : 0;
                level.entries.push_back({std::move(name), {found->FileAttributes, tag}});
            }
            step = found->NextEntryOffset;
        }
    }
    // The root of an empty drive has not even "." to list.
    const DWORD code = GetLastError();
    if (code != ERROR_NO_MORE_FILES && code != ERROR_FILE_NOT_FOUND) {
        EndUnlessEmpty(code);
    }
}

void TreeWalk::EndUnlessEmpty(DWORD code) const {
    const bool deniedOrGone =
        code == ERROR_ACCESS_DENIED || code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND;
    if (!deniedOrGone || unlistable_ == Unlistable::EndsWalk) {
        throw FileSystemError(code, operation_);
    }
}

}  // namespace corvi
