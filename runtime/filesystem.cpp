#include "runtime/filesystem.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <iterator>

#include "runtime/installer_log.h"
#include "runtime/kernel_handle.h"
#include "runtime/process.h"
#include "runtime/session.h"
#include "runtime/text.h"
#include "runtime/tree_walk.h"

namespace corvi {
namespace {

constexpr wchar_t kDeleteFailed[] = L"Unable to delete directory %s. Error code: %s";

constexpr char kExists[] = "exists";
constexpr char kEquivalent[] = "equivalent";
constexpr char kRemove[] = "remove";
constexpr char kRemoveAll[] = "remove_all";
constexpr char kIterate[] = "recursive_directory_iterator::recursive_directory_iterator";

// What the platform answers when there is nothing of that name.
constexpr DWORD kMissingCodes[] = {ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_INVALID_DRIVE,
                                   ERROR_BAD_NETPATH,    ERROR_BAD_NET_NAME,   ERROR_INVALID_NAME,
                                   ERROR_BAD_PATHNAME,   ERROR_DIRECTORY};

// A tree of which something is left, though nothing failed but removals that a restart makes up for.
constexpr uintmax_t kNotAllRemoved = static_cast<uintmax_t>(-1);

bool MeansMissing(DWORD code) {
    return std::find(std::begin(kMissingCodes), std::end(kMissingCodes), code) != std::end(kMissingCodes);
}

// Access is denied to what is loaded as a module, runs as a program or waits for its last handle to be
// closed; the folders above it then still hold something.
// A folder is shared differently as well by whoever has it as current directory.
bool MeansInUse(DWORD code, DWORD attributes) {
    return code == ERROR_ACCESS_DENIED || code == ERROR_DIR_NOT_EMPTY ||
           (code == ERROR_SHARING_VIOLATION && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0);
}

bool HasAttributes(DWORD attributes) { return attributes != INVALID_FILE_ATTRIBUTES; }

void ThrowUnlessMissing(DWORD code, const char* operation) {
    if (!MeansMissing(code)) {
        throw FileSystemError(code, operation);
    }
}

// What stands at path itself, a link included; no attributes when there is nothing.
EntryKind KindOrMissing(const std::wstring& path, const char* operation) {
    const EntryKind kind = KindOf(path);
    if (!HasAttributes(kind.attributes)) {
        ThrowUnlessMissing(GetLastError(), operation);
    }
    return kind;
}

FileHandle OpenForQuery(const std::wstring& path) {
    return FileHandle(CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

BY_HANDLE_FILE_INFORMATION Identity(const std::wstring& path) {
    const FileHandle file = OpenForQuery(PlatformPath(path));
    BY_HANDLE_FILE_INFORMATION identity = {};
    if (!file || GetFileInformationByHandle(file.Get(), &identity) == FALSE) {
        throw FileSystemError(GetLastError(), kEquivalent);
    }
    return identity;
}

// The attributes of what path names, seen through links; INVALID_FILE_ATTRIBUTES and GetLastError when
// nothing is there.
DWORD TargetAttributes(const std::wstring& path) {
    const std::wstring platformPath = PlatformPath(path);
    const DWORD attributes = GetFileAttributesW(platformPath.c_str());
    if (!HasAttributes(attributes) || (attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
        return attributes;
    }
    const FileHandle target = OpenForQuery(platformPath);
    return target || !MeansMissing(GetLastError()) ? attributes : INVALID_FILE_ATTRIBUTES;
}

// As PathExists, but throws when the platform cannot tell.
bool ExistsForCertain(const std::wstring& path) {
    const bool exists = HasAttributes(TargetAttributes(path));
    if (!exists) {
        ThrowUnlessMissing(GetLastError(), kExists);
    }
    return exists;
}

// Removes one file, link or empty folder, read-only or not. Gives the platform's code.
DWORD RemoveEntry(const std::wstring& path, DWORD attributes) {
    if ((attributes & FILE_ATTRIBUTE_READONLY) != 0) {
        SetFileAttributesW(path.c_str(), attributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY));
    }
    const BOOL removed = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? RemoveDirectoryW(path.c_str())
                                                                      : DeleteFileW(path.c_str());
    if (removed != FALSE) {
        return ERROR_SUCCESS;
    }
    // A refusal without a code is a refusal all the same.
    const DWORD error = GetLastError();
    return error != ERROR_SUCCESS ? error : ERROR_ACCESS_DENIED;
}

// The outcome of removing a tree, entry by entry.
class RemovalCount {
public:
    /// Removes one entry and counts it.
    void Remove(const std::wstring& path, DWORD attributes) {
        const DWORD code = RemoveEntry(path, attributes);
        if (code == ERROR_SUCCESS) {
            ++removed_;
        } else if (MeansInUse(code, attributes)) {
            complete_ = false;
        } else {
            ThrowUnlessMissing(code, kRemoveAll);
        }
    }
    uintmax_t Result() const { return complete_ ? removed_ : kNotAllRemoved; }

private:
    uintmax_t removed_ = 0;
    bool complete_ = true;
};

// Removes path and everything below it, contents before their folder, never through a link. Gives the
// number of removed entries, 0 when there was nothing, or kNotAllRemoved when all is gone but what is
// in use. Any other refusal, a sharing violation above all, throws and leaves what was not reached.
uintmax_t RemoveAll(const std::wstring& path) {
    const EntryKind kind = KindOrMissing(path, kRemoveAll);
    if (!HasAttributes(kind.attributes)) {
        return 0;
    }
    RemovalCount count;
    if (IsRealFolder(kind)) {
        TreeWalk walk(path, kRemoveAll, TreeWalk::Unlistable::CountsAsEmpty);
        while (walk.Next()) {
            if (walk.IsLeaving() || !IsRealFolder(walk.Kind())) {
                count.Remove(walk.Path(), walk.Kind().attributes);
            }
        }
    }
    count.Remove(path, kind.attributes);
    return count.Result();
}

bool ClearReadOnly(const std::wstring& path) {
    const EntryKind kind = KindOf(path);
    if (!HasAttributes(kind.attributes)) {
        return false;
    }
    // What is written to a link may reach its target: only when there is something to clear.
    if (IsLink(kind) && (kind.attributes & FILE_ATTRIBUTE_READONLY) == 0) {
        return true;
    }
    return SetFileAttributesW(path.c_str(), kind.attributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY)) !=
           FALSE;
}

// False when path is still there: it is in use, or a folder that still holds something.
bool RemoveUnlessInUse(const std::wstring& path, DWORD attributes) {
    const DWORD code = RemoveEntry(path, attributes);
    if (code != ERROR_SUCCESS && !MeansInUse(code, attributes)) {
        ThrowUnlessMissing(code, kRemove);
    }
    return code == ERROR_SUCCESS;
}

void DeleteAtRestart(const std::wstring& path) {
    MoveFileExW(path.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT);
}

// The restart works its list off from the front and removes no folder that holds something: contents
// must be scheduled before their folder.
void RemoveOrScheduleContents(const std::wstring& folder) {
    TreeWalk walk(folder, kIterate, TreeWalk::Unlistable::CountsAsEmpty);
    while (walk.Next()) {
        if (!walk.IsLeaving() && IsRealFolder(walk.Kind())) {
            continue;
        }
        const std::wstring entry = walk.Path();
        if (!ClearReadOnly(entry) || !RemoveUnlessInUse(entry, walk.Kind().attributes)) {
            DeleteAtRestart(entry);
        }
    }
}

bool IsRemovedInFull(uintmax_t removed) { return removed != 0 && removed != kNotAllRemoved; }

void RemoveFolder(const std::wstring& path) {
    if (!ExistsForCertain(path)) {
        return;
    }
    const std::wstring folder = PlatformPath(WithoutTrailingSeparators(path));
    const EntryKind kind = KindOrMissing(folder, kExists);
    if (!HasAttributes(kind.attributes) || RemoveAll(folder) != kNotAllRemoved) {
        return;
    }
    // A link that cannot be removed has no contents of its own; opened, it may show its target's.
    if (!IsLink(kind)) {
        RemoveOrScheduleContents(folder);
    }
    if (!ClearReadOnly(folder) || !IsRemovedInFull(RemoveAll(folder))) {
        DeleteAtRestart(PlatformPath(path));
    }
}

void ReportDeleteFailure(const std::wstring& path, const char* description) noexcept {
    try {
        WriteInstallerLog(cleanupSession, kDeleteFailed, path.c_str(), Widen(description, CP_ACP).c_str());
    } catch (...) {
        // No memory for the line; the installer drops it anyway.
    }
}

// The length of "C:", "\\server", "\\?" or "\??" at the start of path, 0 when there is none.
size_t RootNameLength(const std::wstring& path) {
    const auto separatorAt = [&](size_t index) {
        return index < path.size() && IsPathSeparator(path[index]);
    };
    const wchar_t drive = path.empty() ? L'\0' : static_cast<wchar_t>(path[0] | 0x20);
    if (path.size() >= 2 && path[1] == L':' && drive >= L'a' && drive <= L'z') {
        return 2;
    }
    if (!separatorAt(0) || path.size() < 3) {
        return 0;
    }
    if (path[1] == L'?' && path[2] == L'?' && separatorAt(3) && !separatorAt(4)) {
        return 3;
    }
    // Read as a server's name, the prefixes "\\?" and "\\." have their right length.
    if (separatorAt(1) && !separatorAt(2)) {
        return std::min(path.find_first_of(L"\\/", 3), path.size());
    }
    return 0;
}

}  // namespace

FileSystemError::FileSystemError(DWORD code, const char* operation)
    : std::system_error(static_cast<int>(code), std::system_category(), operation) {}

bool PathExists(const std::wstring& path) { return HasAttributes(TargetAttributes(path)); }

bool IsDirectory(const std::wstring& path) {
    const DWORD attributes = TargetAttributes(path);
    return HasAttributes(attributes) && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool IsFile(const std::wstring& path) {
    const DWORD attributes = TargetAttributes(path);
    return HasAttributes(attributes) && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

std::wstring ParentPath(const std::wstring& path) {
    size_t root = RootNameLength(path);
    while (root < path.size() && IsPathSeparator(path[root])) {
        ++root;
    }
    size_t end = path.size();
    while (end > root && !IsPathSeparator(path[end - 1])) {
        --end;
    }
    while (end > root && IsPathSeparator(path[end - 1])) {
        --end;
    }
    return path.substr(0, end);
}

bool AreSameObject(const std::wstring& left, const std::wstring& right) {
    const BY_HANDLE_FILE_INFORMATION first = Identity(left);
    const BY_HANDLE_FILE_INFORMATION second = Identity(right);
    return first.dwVolumeSerialNumber == second.dwVolumeSerialNumber &&
           first.nFileIndexHigh == second.nFileIndexHigh && first.nFileIndexLow == second.nFileIndexLow;
}

bool RemoveOne(const std::wstring& path) {
    const std::wstring entry = PlatformPath(WithoutTrailingSeparators(path));
    const EntryKind kind = KindOrMissing(entry, kRemove);
    if (!HasAttributes(kind.attributes)) {
        return false;
    }
    const DWORD code = RemoveEntry(entry, kind.attributes);
    if (code != ERROR_SUCCESS) {
        ThrowUnlessMissing(code, kRemove);
    }
    return code == ERROR_SUCCESS;
}

void DeleteFolder(const std::wstring& path) noexcept {
    try {
        RemoveFolder(path);
    } catch (const std::exception& error) {
        ReportDeleteFailure(path, error.what());
    } catch (...) {
        ReportDeleteFailure(path, "");
    }
}

void GrantTreeToUsers(const std::wstring& path, const std::wstring& owner,
                      const std::wstring& workingDirectory) {
    // The tool's C runtime would take a separator before the closing quote and that quote for a quote inside
    // the name.
    const std::wstring folder = WithoutTrailingSeparators(path);
    const EntryKind kind = KindOf(PlatformPath(folder));
    if (!HasAttributes(kind.attributes) || !IsRealFolder(kind)) {
        return;
    }
    GrantUsersFullControl(folder, owner, workingDirectory.c_str());
    try {
        TreeWalk walk(path, kIterate, TreeWalk::Unlistable::EndsWalk);
        while (walk.Next()) {
            if (!walk.IsLeaving() && !IsLink(walk.Kind())) {
                GrantUsersFullControl(walk.Path(), owner, workingDirectory.c_str());
            }
        }
    } catch (const FileSystemError&) {
        // The rest of the folder keeps its permissions.
    }
}

}  // namespace corvi
