#include "tool/change_journal.h"

#include <algorithm>
#include <cwchar>
#include <cwctype>
#include <iterator>
#include <utility>

namespace corvi::tool {
namespace {

/// More than this many deeds of one kind in a row are shown as one line.
constexpr std::size_t kLongRow = 100;

struct DeedText {
    Deed deed;
    std::string_view name;
};

constexpr DeedText kDeedNames[] = {
    {Deed::CreateKey, "create key"},
    {Deed::DeleteKey, "delete key"},
    {Deed::SetValue, "set value"},
    {Deed::DeleteValue, "delete value"},
    {Deed::CreateFolder, "create folder"},
    {Deed::DeleteFolder, "delete folder"},
    {Deed::DeleteFile, "delete file"},
    {Deed::WriteFile, "write file"},
    {Deed::Move, "move"},
    {Deed::DeleteAtRestart, "delete at restart"},
    {Deed::MoveAtRestart, "move at restart"},
    {Deed::SetAttributes, "set attributes"},
    {Deed::GrantAccess, "grant access"},
    {Deed::Run, "run"},
    {Deed::EndProcess, "end process"},
    {Deed::CreateService, "create service"},
    {Deed::ConfigureService, "configure service"},
    {Deed::StartService, "start service"},
    {Deed::StopService, "stop service"},
    {Deed::DeleteService, "delete service"},
    {Deed::RegisterTask, "register task"},
    {Deed::CallLibrary, "call library"},
    {Deed::TellWindows, "tell"},
    {Deed::EndInstaller, "end installer"},
};

bool IsBelow(const std::wstring& path, const std::wstring& folder) {
    return path.size() > folder.size() && path[folder.size()] == L'\\' &&
           std::equal(folder.begin(), folder.end(), path.begin(), [](wchar_t left, wchar_t right) {
               return left == right || std::towlower(left) == std::towlower(right);
           });
}

std::wstring Folder(const std::wstring& path) {
    const std::size_t separator = path.find_last_of(L'\\');
    return separator == std::wstring::npos ? std::wstring() : path.substr(0, separator);
}

std::wstring FolderInWords(const Change& change) {
    std::wstring text = L"delete folder " + change.subject;
    if (change.files == 0 && change.folders == 0) {
        return text + L", empty";
    }
    text += L", " + Counted(change.files, L"file", L"files");
    if (change.folders > 0) {
        text += L" in it and in " + Counted(change.folders, L"folder", L"folders") + L" below it";
    }
    return text;
}

std::wstring KeyDeletionInWords(const Change& change) {
    std::wstring text = L"delete key " + change.subject;
    if (change.folders > 0) {
        text += L" with " + Counted(change.folders, L"key", L"keys") + L" below it";
    }
    return text;
}

std::wstring WithNote(std::wstring text, const std::wstring& note) {
    return note.empty() ? text : std::move(text) + L" (" + note + L")";
}

std::wstring RunInWords(const Change& change) {
    std::wstring text = L"run " + change.subject;
    if (!change.detail.empty()) {
        text += L" in " + change.detail;
    }
    return WithNote(std::move(text), change.note);
}

/// The longest folder that holds all paths from first to last.
std::wstring CommonFolder(std::vector<Change>::const_iterator first,
                          std::vector<Change>::const_iterator last) {
    std::wstring common = Folder(first->subject);
    for (; first != last && !common.empty(); ++first) {
        while (!common.empty() && !IsBelow(first->subject, common)) {
            common = Folder(common);
        }
    }
    return common;
}

std::wstring Program(const std::wstring& commandLine) {
    const bool quoted = !commandLine.empty() && commandLine.front() == L'"';
    const std::size_t end = commandLine.find(quoted ? L'"' : L' ', 1);
    return commandLine.substr(0, end == std::wstring::npos ? end : end + (quoted ? 1 : 0));
}

bool AreAlike(const Change& left, const Change& right) {
    if (left.deed != right.deed) {
        return false;
    }
    return left.deed == Deed::DeleteFile || left.deed == Deed::SetAttributes ||
           (left.deed == Deed::Run && Program(left.subject) == Program(right.subject));
}

}  // namespace

void ChangeJournal::AddFolderDeletion(const std::wstring& folder) {
    Change deletion{Deed::DeleteFolder, folder};
    while (!changes_.empty()) {
        const Change& last = changes_.back();
        const bool isContent = last.deed == Deed::DeleteFile || last.deed == Deed::DeleteFolder ||
                               last.deed == Deed::SetAttributes;
        const bool isItself = last.deed == Deed::SetAttributes && last.subject == folder;
        if (!isItself && (!isContent || !IsBelow(last.subject, folder))) {
            break;
        }
        if (last.deed == Deed::DeleteFile) {
            ++deletion.files;
        } else if (last.deed == Deed::DeleteFolder) {
            deletion.files += last.files;
            deletion.folders += last.folders + 1;
        }
        changes_.pop_back();
    }
    changes_.push_back(std::move(deletion));
}

std::string_view DeedName(Deed deed) {
    const auto* found = std::find_if(std::begin(kDeedNames), std::end(kDeedNames),
                                     [deed](const DeedText& text) { return text.deed == deed; });
    return found == std::end(kDeedNames) ? std::string_view("change") : found->name;
}

std::wstring InWords(const Change& change) {
    const std::wstring& subject = change.subject;
    switch (change.deed) {
        case Deed::CreateKey:
            return L"create key " + subject;
        case Deed::DeleteKey:
            return KeyDeletionInWords(change);
        case Deed::SetValue:
            return L"set " + subject + L"\\" + change.detail + L" = " + change.note;
        case Deed::DeleteValue:
            return L"delete value " + subject + L"\\" + change.detail;
        case Deed::CreateFolder:
            return L"create folder " + subject;
        case Deed::DeleteFolder:
            return FolderInWords(change);
        case Deed::DeleteFile:
            return L"delete file " + subject;
        case Deed::WriteFile:
            return L"write file " + subject + L", " + Counted(change.files, L"byte", L"bytes");
        case Deed::Move:
            return L"move " + subject + L" to " + change.detail;
        case Deed::DeleteAtRestart:
            return L"delete at the next restart " + subject;
        case Deed::MoveAtRestart:
            return L"move at the next restart " + subject + L" to " + change.detail;
        case Deed::SetAttributes:
            return L"set attributes of " + subject + L": " + change.detail;
        case Deed::GrantAccess:
            return L"grant access to " + subject + L": " + change.detail;
        case Deed::Run:
            return RunInWords(change);
        case Deed::EndProcess:
            return L"end process " + subject;
        case Deed::CreateService:
            return L"create service " + subject + L": " + change.detail;
        case Deed::ConfigureService:
            return L"set service " + subject + L" to " + change.detail;
        case Deed::StartService:
            return L"start service " + subject;
        case Deed::StopService:
            return L"stop service " + subject;
        case Deed::DeleteService:
            return L"delete service " + subject;
        case Deed::RegisterTask:
            return L"register task " + subject + L": " + change.detail;
        case Deed::CallLibrary:
            return L"call " + change.detail + L" of " + subject;
        case Deed::TellWindows:
            return L"tell " + subject;
        case Deed::EndInstaller:
            return L"end the installer's process with " + change.detail;
    }
    return {};
}

std::vector<std::wstring> InWords(const std::vector<Change>& changes) {
    std::vector<std::wstring> lines;
    for (auto first = changes.begin(); first != changes.end();) {
        const auto last = std::find_if(first + 1, changes.end(),
                                       [&](const Change& next) { return !AreAlike(*first, next); });
        const auto count = static_cast<std::size_t>(last - first);
        if (count <= kLongRow) {
            std::transform(first, last, std::back_inserter(lines),
                           [](const Change& change) { return InWords(change); });
            first = last;
            continue;
        }
        if (first->deed == Deed::Run) {
            lines.push_back(InWords(*first));
            lines.push_back(L"run " + Program(first->subject) + L" " + Counted(count - 1, L"time", L"times") +
                            L" more in this way");
        } else {
            const wchar_t* deed = first->deed == Deed::DeleteFile ? L"delete " : L"set attributes of ";
            lines.push_back(deed + Counted(count, L"file", L"files") + L" below " +
                            CommonFolder(first, last));
        }
        first = last;
    }
    return lines;
}

std::wstring ShownPath(const std::wstring& path) {
    if (path.rfind(L"\\\\?\\UNC\\", 0) == 0) {
        return L"\\\\" + path.substr(8);
    }
    return path.rfind(L"\\\\?\\", 0) == 0 ? path.substr(4) : path;
}

std::wstring Counted(std::uint64_t count, const wchar_t* one, const wchar_t* many) {
    std::wstring digits = std::to_wstring(count);
    for (std::size_t place = digits.size(); place > 3; place -= 3) {
        digits.insert(place - 3, 1, L',');
    }
    return digits + L' ' + (count == 1 ? one : many);
}

}  // namespace corvi::tool
