#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "runtime/kernel_handle.h"

namespace corvi {

/// True when the attributes are those of a link or another reparse point. Whatever stands behind it is
/// not ours to touch: a walk never goes through it.
bool IsLink(DWORD attributes);

/// True when the attributes are those of a folder that a walk may enter.
bool IsRealFolder(DWORD attributes);

/// True for "\\" and "/".
bool IsPathSeparator(wchar_t character);

/// The path as the platform calls take it: as it stands or, when it is too long for that, as an
/// absolute path with the prefix "\\?\". path: absolute or relative, either separator.
std::wstring PlatformPath(const std::wstring& path);

/// Goes through everything below a folder, in the order in which the platform lists it: each entry
/// before what is below it, and each folder a second time after what is below it. Links are entries;
/// they are never entered. Each folder is opened on itself and held against being renamed or replaced
/// while its entries are visited; it is no longer held when it is visited the second time.
/// Stands on CreateFileW and GetFileInformationByHandleEx.
class TreeWalk {
public:
    /// What becomes of a walk that comes to a folder which it may not list or which is gone by now.
    enum class Unlistable { EndsWalk, CountsAsEmpty };

    /// root: the folder, absolute or relative, with or without trailing separator; it is not visited
    /// itself. operation: the name under which errors are thrown. Throws FileSystemError when root
    /// cannot be listed, or is no folder.
    TreeWalk(const std::wstring& root, const char* operation, Unlistable unlistable);

    /// Goes on to the next visit; false when there is none. Throws FileSystemError when the folder that
    /// was visited last cannot be listed.
    bool Next();

    /// The path of the visited entry: the root's path, as it was given, with the names below it. One
    /// that the platform would otherwise misread (too long, a name with trailing dots or blanks, the
    /// name of a device) has the prefix "\\?\".
    std::wstring Path() const;

    DWORD Attributes() const { return attributes_; }

    /// True at the second visit of a folder: everything below it was visited.
    bool IsLeaving() const { return leaving_; }

private:
    struct Entry {
        std::wstring name;
        DWORD attributes;
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
    DWORD attributes_ = 0;
    bool verbatim_ = false;
    bool leaving_ = false;
    bool entersNext_ = false;
};

}  // namespace corvi
