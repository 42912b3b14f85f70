#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "runtime/kernel_handle.h"

namespace corvi {

/// What an entry is.
struct EntryKind {
    DWORD attributes = INVALID_FILE_ATTRIBUTES;  ///< the entry's own, or this when there is none
    DWORD reparseTag = 0;                        ///< of a reparse point; 0 when the platform does not tell it
};

/// True for a link (a symbolic link, a junction, a mounted volume): a reparse point whose tag stands for
/// another name, or whose tag is unknown. Whatever stands behind it is not ours to touch: a walk never goes
/// through it. Deduplicated, cloud and container entries are reparse points too, but no links.
bool IsLink(const EntryKind& kind);

/// True for a folder that a walk may enter.
bool IsRealFolder(const EntryKind& kind);

/// What stands at path itself, no link followed; attributes INVALID_FILE_ATTRIBUTES and GetLastError when
/// nothing does. path: as PlatformPath gives it, without trailing separator, behind which the platform looks
/// through a link. Stands on GetFileAttributesW.
EntryKind KindOf(const std::wstring& path);

/// What an open handle stands for; attributes INVALID_FILE_ATTRIBUTES and GetLastError when the platform does
/// not tell it. Stands on GetFileInformationByHandle.
EntryKind KindOf(const FileHandle& entry);

/// True for "\\" and "/".
bool IsPathSeparator(wchar_t character);

/// The path without the separators at its end, behind which the platform looks through a link instead of at
/// it. A root keeps its own: "\", "C:\".
std::wstring WithoutTrailingSeparators(std::wstring path);

/// The path as the platform calls take it: as it stands or, when it is too long for that, as an
/// absolute path with the prefix "\\?\" (as it stands all the same when the platform cannot make it
/// absolute). path: absolute or relative, either separator.
std::wstring PlatformPath(const std::wstring& path);

/// Goes through everything below a folder, in the order in which the platform lists it: each entry
/// before what is below it, and each folder a second time after what is below it. Links are entries;
/// they are never entered. Each folder, the root too, is opened on itself, listed as a whole, and held
/// against being renamed, removed or replaced while its entries are visited; it is let go before it is
/// visited the second time. What comes into a folder after it was listed is not visited.
/// Stands on CreateFileW and GetFileInformationByHandleEx.
class TreeWalk {
public:
    /// What becomes of a walk that comes to a folder to which access is denied or which is gone by now: it
    /// ends by an error, or goes on as if the folder were empty. Every other error ends it in either case.
    enum class Unlistable { EndsWalk, CountsAsEmpty };

    /// root: the folder, absolute or relative, with or without trailing separator; it is not visited
    /// itself. operation: the name under which errors are thrown. Throws FileSystemError when root is no
    /// folder, cannot be made absolute or, as unlistable says, cannot be listed. A root that is a link has
    /// no entries.
    TreeWalk(const std::wstring& root, const char* operation, Unlistable unlistable);

    /// Goes on to the next visit; false when there is none. Enters the folder that was visited last, and
    /// throws FileSystemError when it cannot be listed, as unlistable says.
    bool Next();

    /// The path of the visited entry: the root's path, as it was given, with the names below it (a root
    /// that ends in a dot or a blank is made absolute first, as the platform reads it). One that the
    /// platform would otherwise misread (too long, a name with trailing dots or blanks, the name of a
    /// device) has the prefix "\\?\".
    std::wstring Path() const;

    /// What the visited entry was when its folder was listed.
    const EntryKind& Kind() const { return kind_; }

    /// True at the second visit of a folder: everything below it was visited.
    bool IsLeaving() const { return leaving_; }

private:
    struct Entry {
        std::wstring name;
        EntryKind kind;
    };
    struct Level {
        FileHandle folder;
        std::vector<Entry> entries;
        size_t next = 0;
        size_t pathLength = 0;  // of the folder's part of below_, its separator included
        bool verbatim = false;
    };

    void Enter(const std::wstring& folder, Level level);
    void ListEntries(Level& level) const;
    void EndUnlessEmpty(DWORD code) const;
    void Show(const Level& level, const Entry& entry);

    const char* operation_;
    Unlistable unlistable_;
    std::wstring root_;          // with the separator before the names below it
    std::wstring verbatimRoot_;  // the same folder with "\\?\"
    std::vector<Level> levels_;
    std::wstring below_;  // the visited entry's path below the root
    EntryKind kind_;
    bool verbatim_ = false;
    bool leaving_ = false;
    bool entersNext_ = false;
};

}  // namespace corvi
