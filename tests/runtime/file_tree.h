#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "runtime/kernel_handle.h"
#include "tests/support/import_hooks.h"

namespace corvi::test {

/// A folder of its own for one test, C:\corvi\tree, gone with everything in it when it goes out of scope.
/// Names are relative to it and may hold anything that the disk can hold.
class FileTree {
public:
    FileTree();
    ~FileTree();
    FileTree(const FileTree&) = delete;
    FileTree& operator=(const FileTree&) = delete;

    std::wstring Path(const std::wstring& name = L"") const;

    /// Makes a folder with the folders above it, or a file of a few bytes. Gives its path.
    std::wstring Folder(const std::wstring& name) const;
    std::wstring File(const std::wstring& name) const;

    /// Makes a link to an existing folder. target: as the link holds it, with "/" ("../target").
    std::wstring Link(const std::wstring& name, const std::string& target) const;

    bool Exists(const std::wstring& name) const;

    /// Every path below the folder, not looking through links, in the platform's order, each folder
    /// before its contents.
    std::vector<std::wstring> All() const;
};

/// Has every listing show the entries of that name as reparse points with that tag while hooks lives.
void ShowAsReparsePoint(ImportHooks& hooks, std::wstring name, DWORD tag);

/// Opens a file for reading, with the given sharing.
FileHandle Hold(const std::wstring& path, DWORD sharing);

/// What the platform's list of moves at the next restart deletes, in its order.
std::vector<std::wstring> ScheduledDeletes();

/// Keeps the list of moves at the next restart, and puts it back when it goes out of scope.
class KeptRestartList {
public:
    KeptRestartList();
    ~KeptRestartList();
    KeptRestartList(const KeptRestartList&) = delete;
    KeptRestartList& operator=(const KeptRestartList&) = delete;

    /// Puts other deletes than the product's into the list.
    static void Replace(const std::vector<std::wstring>& paths);

private:
    std::vector<BYTE> kept_;
};

}  // namespace corvi::test
