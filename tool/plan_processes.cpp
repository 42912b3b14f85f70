#include "tool/plan_processes.h"

#include <algorithm>
#include <cwctype>
#include <set>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tool/plan_files.h"
#include "tool/plan_machine.h"

namespace corvi::tool::plan {
namespace {

constexpr wchar_t kKillTool[] = L"taskkill";
constexpr wchar_t kImageSwitch[] = L"/im ";
constexpr DWORD kStandInProcessId = 0x7FFFFFF0;
constexpr DWORD kAbortCode = 3;
constexpr DWORD kRuntimeErrorCode = 255;

std::unordered_set<HANDLE> endedProcesses;
std::set<std::wstring> endedImages;  ///< in lower case

std::wstring Lower(std::wstring text) {
    CharLowerBuffW(text.data(), static_cast<DWORD>(text.size()));
    return text;
}

bool HasFolder(const std::wstring& name) { return name.find_first_of(L"\\/:") != std::wstring::npos; }

bool HasExtension(const std::wstring& name) {
    const std::size_t dot = name.rfind(L'.');
    return dot != std::wstring::npos && name.find_first_of(L"\\/", dot) == std::wstring::npos;
}

bool IsFile(const std::wstring& path) {
    const DWORD attributes = FileAttributes(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

std::wstring SearchByName(const std::wstring& name) {
    std::vector<wchar_t> path(32768);
    const DWORD length =
        SearchPathW(nullptr, name.c_str(), L".exe", static_cast<DWORD>(path.size()), path.data(), nullptr);
    std::wstring found =
        length > 0 && length < path.size() ? std::wstring(path.data(), length) : std::wstring();
    return !found.empty() && IsFile(found) ? found : std::wstring();
}

std::wstring FindProgram(const std::wstring& name) {
    if (name.empty()) {
        return {};
    }
    if (!HasFolder(name)) {
        return SearchByName(name);
    }
    if (IsFile(name)) {
        return name;
    }
    const std::wstring withExtension = name + L".exe";
    return !HasExtension(name) && IsFile(withExtension) ? withExtension : std::wstring();
}

bool IsScript(const std::wstring& path) {
    const std::wstring lower = Lower(path);
    return lower.ends_with(L".cmd") || lower.ends_with(L".bat");
}

/// True when the platform would take the file for a program.
bool IsProgram(const std::wstring& path) {
    const std::wstring real = RealPath(path);
    DWORD type = 0;
    return IsScript(path) || (!real.empty() && GetBinaryTypeW(real.c_str(), &type) != FALSE);
}

/// The program named at the start of an unquoted line: the platform tries each blank as its end.
std::wstring FindAtBlanks(const std::wstring& line) {
    for (std::size_t end = line.find_first_of(L" \t");; end = line.find_first_of(L" \t", end + 1)) {
        std::wstring found = FindProgram(line.substr(0, end));
        if (!found.empty() || end == std::wstring::npos) {
            return found;
        }
    }
}

std::wstring FileName(const std::wstring& path) { return path.substr(path.find_last_of(L"\\/") + 1); }

/// Counts the processes of an image that run now.
unsigned CountRunning(const std::wstring& lowerImage) {
    unsigned count = 0;
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Process32FirstW(snapshot, &entry); more != FALSE;
         more = Process32NextW(snapshot, &entry)) {
        count += Lower(entry.szExeFile) == lowerImage ? 1U : 0U;
    }
    CloseHandle(snapshot);
    return count;
}

/// The image that a command of the kill tool names; empty for any other command.
std::wstring KilledImage(const std::wstring& program, const std::wstring& commandLine) {
    if (Lower(FileName(program)).rfind(kKillTool, 0) != 0) {
        return {};
    }
    const std::wstring lower = Lower(commandLine);
    const std::size_t found = lower.find(kImageSwitch);
    if (found == std::wstring::npos) {
        return {};
    }
    const std::size_t start = found + std::size(kImageSwitch) - 1;
    return lower.substr(start, lower.find_first_of(L" \"", start) - start);
}

/// What follows from a start, as far as the action may look at it later.
std::wstring NoteEffects(const std::wstring& program, const std::wstring& commandLine) {
    const std::wstring image = KilledImage(program, commandLine);
    if (image.empty()) {
        return {};
    }
    const unsigned running = endedImages.count(image) != 0 ? 0 : CountRunning(image);
    if (running == 0) {
        return L"none runs";
    }
    endedImages.insert(image);
    return L"ends " + Counted(running, L"process", L"processes");
}

HANDLE NewEndedProcess() {
    const HANDLE handle = NewStandInHandle();
    endedProcesses.insert(handle);
    return handle;
}

/// The processes of a snapshot without those that the plan has ended.
BOOL SkipEnded(HANDLE snapshot, LPPROCESSENTRY32W entry, BOOL more) {
    while (more != FALSE && IsEnded(entry->szExeFile)) {
        more = Process32NextW(snapshot, entry);
    }
    return more;
}

/// A working directory that the platform would take.
bool IsUsableDirectory(LPCWSTR directory) {
    return directory == nullptr || (*directory != L'\0' && PathIsFolder(directory) != FALSE);
}

struct ShellRefusal {
    DWORD error;
    INT_PTR instance;
};

BOOL RefuseShell(SHELLEXECUTEINFOW* information, ShellRefusal refusal) {
    information->hInstApp = reinterpret_cast<HINSTANCE>(refusal.instance);
    return Refuse(refusal.error, FALSE);
}

/// Whether the folder of a path is there, for the shell's two kinds of "not found".
bool FolderExists(const std::wstring& path) {
    const std::size_t separator = path.find_last_of(L"\\/");
    return separator == std::wstring::npos || PathIsFolder(path.substr(0, separator + 1).c_str()) != FALSE;
}

}  // namespace

std::wstring ProgramOf(const std::wstring& commandLine, DWORD* error) {
    std::wstring found;
    if (!commandLine.empty() && commandLine.front() == L'"') {
        found = FindProgram(commandLine.substr(1, commandLine.find(L'"', 1) - 1));
    } else {
        found = FindAtBlanks(commandLine);
    }
    *error = ERROR_SUCCESS;
    if (found.empty()) {
        *error = ERROR_FILE_NOT_FOUND;
    } else if (!IsProgram(found)) {
        *error = ERROR_BAD_EXE_FORMAT;
        found.clear();
    }
    return found;
}

BOOL WINAPI StartProcess(LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES /*processSecurity*/,
                         LPSECURITY_ATTRIBUTES /*threadSecurity*/, BOOL /*inherit*/, DWORD /*flags*/,
                         LPVOID /*environment*/, LPCWSTR directory, LPSTARTUPINFOW /*startup*/,
                         LPPROCESS_INFORMATION started) {
    const std::wstring line = commandLine != nullptr ? commandLine : L"";
    DWORD error = ERROR_SUCCESS;
    const std::wstring program = application != nullptr
                                     ? ProgramOf(L'"' + std::wstring(application) + L'"', &error)
                                     : ProgramOf(line, &error);
    if (error == ERROR_SUCCESS && !IsUsableDirectory(directory)) {
        error = ERROR_DIRECTORY;
    }
    if (error != ERROR_SUCCESS) {
        return Refuse(error, FALSE);
    }
    Change change{Deed::Run, line.empty() ? program : line, directory != nullptr ? directory : L""};
    change.note = NoteEffects(program, line);
    Journal().Add(std::move(change));
    *started = {NewEndedProcess(), NewEndedProcess(), kStandInProcessId, kStandInProcessId};
    return TRUE;
}

BOOL WINAPI StartThroughShell(SHELLEXECUTEINFOW* information) {
    const std::wstring file = information->lpFile != nullptr ? information->lpFile : L"";
    const std::wstring parameters = information->lpParameters != nullptr ? information->lpParameters : L"";
    const std::wstring program = FindProgram(file);
    if (program.empty()) {
        const bool folder = FolderExists(file);
        return RefuseShell(information, {folder ? DWORD{ERROR_FILE_NOT_FOUND} : DWORD{ERROR_PATH_NOT_FOUND},
                                         folder ? SE_ERR_FNF : SE_ERR_PNF});
    }
    if (!IsProgram(program)) {
        return RefuseShell(information, {ERROR_BAD_EXE_FORMAT, SE_ERR_NOASSOC});
    }
    const std::wstring quoted = file.find(L' ') == std::wstring::npos ? file : L'"' + file + L'"';
    const std::wstring line =
        quoted + (parameters.empty() || parameters.front() == L' ' ? L"" : L" ") + parameters;
    Change change{Deed::Run, line, information->lpDirectory != nullptr ? information->lpDirectory : L""};
    change.note = NoteEffects(program, line);
    Journal().Add(std::move(change));
    // What the shell answers when it has started something: any number above 32.
    information->hInstApp = reinterpret_cast<HINSTANCE>(INT_PTR{33});
    information->hProcess = (information->fMask & SEE_MASK_NOCLOSEPROCESS) != 0 ? NewEndedProcess() : nullptr;
    return TRUE;
}

DWORD WINAPI WaitForOne(HANDLE object, DWORD milliseconds) {
    return endedProcesses.count(object) != 0 ? WAIT_OBJECT_0 : WaitForSingleObject(object, milliseconds);
}

DWORD WINAPI WaitForSeveral(DWORD count, const HANDLE* objects, BOOL all, DWORD milliseconds) {
    const auto isEnded = [](HANDLE object) { return endedProcesses.count(object) != 0; };
    const HANDLE* first = std::find_if(objects, objects + count, isEnded);
    if (first != objects + count && (all == FALSE || std::all_of(objects, objects + count, isEnded))) {
        return all == FALSE ? WAIT_OBJECT_0 + static_cast<DWORD>(first - objects) : WAIT_OBJECT_0;
    }
    return WaitForMultipleObjects(count, objects, all, milliseconds);
}

BOOL WINAPI ExitCode(HANDLE process, LPDWORD code) {
    if (endedProcesses.count(process) == 0) {
        return GetExitCodeProcess(process, code);
    }
    *code = 0;
    return TRUE;
}

BOOL WINAPI EndProcess(HANDLE process, UINT code) {
    if (endedProcesses.count(process) != 0) {
        return Refuse(ERROR_ACCESS_DENIED, FALSE);
    }
    const DWORD id = GetProcessId(process);
    if (id == GetCurrentProcessId()) {
        EndPlan(End::ProcessEnds, code, L"it ends its process");
    }
    std::vector<wchar_t> image(32768);
    auto length = static_cast<DWORD>(image.size());
    const bool known = QueryFullProcessImageNameW(process, 0, image.data(), &length) != FALSE;
    Journal().Add({Deed::EndProcess, known ? std::wstring(image.data(), length) : std::to_wstring(id)});
    return TRUE;
}

BOOL WINAPI FirstProcess(HANDLE snapshot, LPPROCESSENTRY32W entry) {
    return SkipEnded(snapshot, entry, Process32FirstW(snapshot, entry));
}

BOOL WINAPI NextProcess(HANDLE snapshot, LPPROCESSENTRY32W entry) {
    return SkipEnded(snapshot, entry, Process32NextW(snapshot, entry));
}

BOOL WINAPI CloseAny(HANDLE object) {
    return endedProcesses.erase(object) > 0 || CloseFile(object) ? TRUE : CloseHandle(object);
}

void ExitByRuntime(int code) { EndPlan(End::ProcessEnds, static_cast<DWORD>(code), L"it ends its process"); }

void AbortByRuntime() { EndPlan(End::ProcessEnds, kAbortCode, L"it aborts its process"); }

void ExitWithRuntimeError(int /*code*/) {
    EndPlan(End::ProcessEnds, kRuntimeErrorCode, L"the C runtime ends its process");
}

bool IsEnded(const std::wstring& image) {
    return !endedImages.empty() && endedImages.count(Lower(image)) != 0;
}

std::size_t EndedNames() { return endedImages.size(); }

}  // namespace corvi::tool::plan
