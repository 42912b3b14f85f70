#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace corvi::tool {

/// What is done to the machine.
enum class Deed {
    CreateKey,
    DeleteKey,
    SetValue,
    DeleteValue,
    CreateFolder,
    DeleteFolder,
    DeleteFile,
    WriteFile,
    Move,
    DeleteAtRestart,
    MoveAtRestart,
    SetAttributes,
    GrantAccess,
    Run,
    EndProcess,
    CreateService,
    ConfigureService,
    StartService,
    StopService,
    DeleteService,
    RegisterTask,
    CallLibrary,
    TellWindows,
    EndInstaller,
};

/// One change, as it would be made. All texts are UTF-16 and shown as they are. Members that are not named
/// where a change is made need an initializer: without one they are a warning.
struct Change {
    Deed deed;
    // NOLINTBEGIN(readability-redundant-member-init)
    /// The key ("HKLM\SOFTWARE\QEL"), the path, the command line, the service or the task.
    std::wstring subject = {};
    /// The value's name, where a path is moved to, the working directory, what a service is set to.
    std::wstring detail = {};
    /// The value's data or the task's definition in words, or what follows from the change ("ends 2
    /// processes").
    std::wstring note = {};
    // NOLINTEND(readability-redundant-member-init)
    std::uint64_t files = 0;    ///< deleted with a folder; bytes of a written file
    std::uint64_t folders = 0;  ///< deleted with a folder or key: folders or keys below it
};

/// The changes that an action would make, in the order of the deed.
class ChangeJournal {
public:
    void Add(Change change) { changes_.push_back(std::move(change)); }

    /// A folder goes whose contents are gone: what was noted about them last becomes part of its line.
    void AddFolderDeletion(const std::wstring& folder);

    /// The last change that was noted; there must be one. Its number stays good.
    std::size_t LastNumber() const { return changes_.size() - 1; }
    Change& At(std::size_t number) { return changes_[number]; }

    const std::vector<Change>& Changes() const { return changes_; }

private:
    std::vector<Change> changes_;
};

/// The change's name in the program's JSON output ("delete folder").
std::string_view DeedName(Deed deed);

/// One change as one line of words ("delete folder C:\x, 214 files"), without a line end.
std::wstring InWords(const Change& change);

/// All changes as lines: as InWords, but what would fill pages (hundreds of files one by one, hundreds of
/// starts of one program) as one line for each run of them.
std::vector<std::wstring> InWords(const std::vector<Change>& changes);

/// A path without the prefix that lifts the platform's limits ("\\?\C:\x" as "C:\x").
std::wstring ShownPath(const std::wstring& path);

/// A number with a comma between thousands, as the program shows all counts.
std::wstring Counted(std::uint64_t count, const wchar_t* one, const wchar_t* many);

}  // namespace corvi::tool
