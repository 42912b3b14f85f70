#include "tests/support/folders.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>

#include "tests/support/platform.h"

namespace corvi::test {
namespace {

constexpr ULONGLONG kLimitMilliseconds = 30000;
constexpr ULONGLONG kHeldMilliseconds = 10000;

/// The path by which names are taken as they are, however long, with a blank or a dot at the end. path:
/// absolute, with or without trailing backslash.
std::wstring Verbatim(std::wstring path) {
    while (!path.empty() && path.back() == L'\\') {
        path.pop_back();
    }
    return L"\\\\?\\" + path;
}

// A platform whose own calls neither make nor remove links lies above a system that has programs for both: it
// runs them by a path of this form, and tells where a path lies there. There is no handle to wait on, and
// none to close: what is left in the structure may be somebody else's. What the program does is looked for
// until it is there.
template <typename IsDone>
void RunBelow(const wchar_t* program, std::wstring commandLine, IsDone isDone) {
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child = {};
    if (CreateProcessW(program, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                       &child) == FALSE) {
        throw std::runtime_error("cannot run a program of the system below: " +
                                 std::to_string(GetLastError()));
    }
    const ULONGLONG end = GetTickCount64() + kLimitMilliseconds;
    while (!isDone()) {
        if (GetTickCount64() > end) {
            throw std::runtime_error("a program of the system below failed");
        }
        Sleep(1);
    }
}

std::wstring PathBelow(const std::wstring& path) {
    using UnixName = char*(CDECL*)(const wchar_t*);
    const auto unixName = reinterpret_cast<UnixName>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32"), "wine_get_unix_file_name")));
    if (unixName == nullptr) {
        throw std::runtime_error("nothing here makes or removes links");
    }
    char* const name = unixName(path.c_str());
    if (name == nullptr) {
        throw std::runtime_error("a path has no place in the system below");
    }
    const std::string narrow = name;
    HeapFree(GetProcessHeap(), 0, name);
    return {narrow.begin(), narrow.end()};
}

bool IsLink(DWORD attributes) { return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0; }
bool IsFolder(DWORD attributes) { return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }

/// Before their targets: a platform may not show a link whose target is gone.
void RemoveLinks(const std::wstring& folder) {
    ForEachEntry(folder, [](const std::wstring& path, DWORD attributes) {
        if (IsLink(attributes)) {
            RemoveLink(path);
        } else if (IsFolder(attributes)) {
            RemoveLinks(path);
        }
    });
}

/// Gives the first error.
DWORD RemoveFiles(const std::wstring& folder) {
    DWORD error = ERROR_SUCCESS;
    const auto note = [&error](BOOL done) {
        if (done == FALSE && error == ERROR_SUCCESS) {
            error = GetLastError();
        }
    };
    SetFileAttributesW(folder.c_str(), FILE_ATTRIBUTE_NORMAL);
    ForEachEntry(folder, [&](const std::wstring& path, DWORD attributes) {
        if (IsLink(attributes)) {
            return;  // made meanwhile
        }
        if (IsFolder(attributes)) {
            const DWORD below = RemoveFiles(path);
            error = error == ERROR_SUCCESS ? below : error;
        } else {
            SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
            note(DeleteFileW(path.c_str()));
        }
    });
    note(RemoveDirectoryW(folder.c_str()));
    return error;
}

}  // namespace

bool IsThere(const std::wstring& path) {
    WIN32_FIND_DATAW data = {};
    const HANDLE find = FindFirstFileW(path.c_str(), &data);
    if (find == INVALID_HANDLE_VALUE) {
        return false;
    }
    FindClose(find);
    return true;
}

void ForEachEntry(const std::wstring& folder,
                  const std::function<void(const std::wstring& path, DWORD attributes)>& visit) {
    WIN32_FIND_DATAW found = {};
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) {
        return;
    }
    do {
        const std::wstring name = found.cFileName;
        if (name != L"." && name != L"..") {
            visit(folder + L"\\" + name, found.dwFileAttributes);
        }
    } while (FindNextFileW(search, &found) != FALSE);
    FindClose(search);
}

void RemoveFolder(const std::filesystem::path& folder) {
    const std::wstring path = Verbatim(folder.wstring());
    DWORD error = ERROR_SUCCESS;
    const ULONGLONG end = GetTickCount64() + kHeldMilliseconds;
    while (GetTickCount64() < end) {
        const DWORD attributes = GetFileAttributesW(path.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES) {
            return;
        }
        if (IsLink(attributes)) {
            RemoveLink(folder.wstring());
            return;
        }
        RemoveLinks(path);
        error = RemoveFiles(path);
        if (error == ERROR_SUCCESS && GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
            return;
        }
        Sleep(10);
    }
    throw std::filesystem::filesystem_error("the folder stays", folder,
                                            std::error_code(static_cast<int>(error), std::system_category()));
}

void RemoveFolderAtEnd(const std::filesystem::path& folder) noexcept {
    try {
        RemoveFolder(folder);
    } catch (const std::exception& failure) {
        ADD_FAILURE() << failure.what();
    }
}

bool DeleteOnClose(const std::wstring& path) {
    const HANDLE opened = CreateFileW(
        path.c_str(), DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
        FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    return opened != INVALID_HANDLE_VALUE && CloseHandle(opened) != FALSE;
}

void MakeLink(const std::wstring& link, const std::wstring& target) {
    if (MakesLinks()) {
        const std::filesystem::path place = std::filesystem::path(link).parent_path() / target;
        const DWORD kind = std::filesystem::is_directory(place) ? SYMBOLIC_LINK_FLAG_DIRECTORY : 0;
        if (CreateSymbolicLinkW(link.c_str(), target.c_str(), kind) == 0) {
            throw std::runtime_error("cannot make a link: " + std::to_string(GetLastError()));
        }
        return;
    }
    std::wstring below = target;
    std::replace(below.begin(), below.end(), L'\\', L'/');
    RunBelow(L"\\\\?\\unix\\bin\\ln", L"ln -s \"" + below + L"\" \"" + PathBelow(link) + L"\"",
             [&] { return IsThere(link); });
}

void RemoveLink(const std::wstring& link) {
    if (!MakesLinks()) {
        RunBelow(L"\\\\?\\unix\\bin\\rm", L"rm \"" + PathBelow(link) + L"\"", [&] { return !IsThere(link); });
        return;
    }
    // Not by the functions that a test may have replaced to see what is removed by them.
    if (!DeleteOnClose(link)) {
        throw std::runtime_error("cannot remove a link: " + std::to_string(GetLastError()));
    }
}

}  // namespace corvi::test
