#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "tests/support/import_hooks.h"

namespace corvi::test {

/// Steps between a loaded library and the parts of the machine that are not to be touched, and notes
/// what the library asked of them, in its order:
///   "kill X.exe"           TaskKill.exe was to be run with that image text
///   "shell FILE|ARGUMENTS" the shell was to start that file
///   "open NAME 0xACCESS"   a service was opened; every service exists and is stopped
///   "start", "delete"      the service that was opened last
///   "control N"            a control sent to it
///   "create NAME"          a service was created
///   "task"                 the task scheduler was asked for
///   "file PATH"            a file was deleted
///   "move FROM|TO|FLAGS"   a file or folder was moved; it fails as Windows does when there is none
///   "tree KEY", "key32 KEY" a registry tree, or a key of the 32-bit view, was deleted
class SuiteJournal {
public:
    explicit SuiteJournal(HMODULE library);

    const std::vector<std::wstring>& Entries() const { return entries_; }

    /// The entries that begin with one of the given words.
    std::vector<std::wstring> EntriesOf(const std::vector<std::wstring>& words) const;

    ImportHooks& Hooks() { return hooks_; }
    void Add(const std::wstring& entry) { entries_.push_back(entry); }

private:
    void WatchPrograms();
    void WatchServices();
    void WatchFiles();
    void WatchRegistry();

    ImportHooks hooks_;
    std::vector<std::wstring> entries_;
};

}  // namespace corvi::test
