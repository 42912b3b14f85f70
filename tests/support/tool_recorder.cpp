#include "tests/support/tool_recorder.h"

#include <windows.h>

#include <aclapi.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace corvi::test {
namespace {

constexpr wchar_t kRecorder[] = L"C:\\corvi\\recorder.exe";
constexpr wchar_t kRecord[] = L"C:\\corvi\\recorded.txt";
// Wine runs its own build of a tool of the system directory unless told otherwise here.
constexpr wchar_t kOverrides[] = L"Software\\Wine\\DllOverrides";

std::wstring OriginalOf(const std::wstring& path) { return path + L".original"; }
std::wstring FileNameOf(const std::wstring& path) { return std::filesystem::path(path).filename(); }
std::wstring ExitCodeOf(const std::wstring& path) { return path + L".exitcode"; }

void Enable(const wchar_t* privilege) {
    HANDLE token = nullptr;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token) != FALSE) {
        TOKEN_PRIVILEGES wanted = {};
        wanted.PrivilegeCount = 1;
        wanted.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
        LookupPrivilegeValueW(nullptr, privilege, &wanted.Privileges[0].Luid);
        AdjustTokenPrivileges(token, FALSE, &wanted, 0, nullptr, nullptr);
        CloseHandle(token);
    }
}

/// Makes administrators the owners of a file, with every right. Windows' own tools belong to its installer,
/// and others, whoever they are, may only run them.
void TakeOver(std::wstring path) {
    alignas(SID) BYTE administrators[SECURITY_MAX_SID_SIZE] = {};
    DWORD size = sizeof(administrators);
    CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size);
    Enable(SE_TAKE_OWNERSHIP_NAME);
    DWORD error = SetNamedSecurityInfoW(path.data(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION,
                                        administrators, nullptr, nullptr, nullptr);
    if (error == ERROR_SUCCESS) {
        EXPLICIT_ACCESSW everything = {};
        everything.grfAccessPermissions = FILE_ALL_ACCESS;
        everything.grfAccessMode = GRANT_ACCESS;
        everything.Trustee.TrusteeForm = TRUSTEE_IS_SID;
        everything.Trustee.ptstrName = reinterpret_cast<wchar_t*>(administrators);
        PACL list = nullptr;
        error = SetEntriesInAclW(1, &everything, nullptr, &list);
        if (error == ERROR_SUCCESS) {
            error = SetNamedSecurityInfoW(path.data(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                                          nullptr, list, nullptr);
            LocalFree(list);
        }
    }
    if (error != ERROR_SUCCESS) {
        throw std::runtime_error("cannot take a tool over: " + std::to_string(error));
    }
}

// False when there is nothing to move. A program that has just ended may still be held for a moment.
bool MoveAside(const std::wstring& path) {
    bool isOwn = false;
    for (int attempt = 0; attempt < 200; ++attempt) {
        if (MoveFileExW(path.c_str(), OriginalOf(path).c_str(), 0) != FALSE) {
            return true;
        }
        const DWORD error = GetLastError();
        if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) {
            return false;
        }
        if (error == ERROR_ACCESS_DENIED && !isOwn) {
            TakeOver(path);
            isOwn = true;
        }
        Sleep(10);
    }
    throw std::runtime_error("cannot move a tool aside: " + std::to_string(GetLastError()));
}

}  // namespace

ToolRecorder::ToolRecorder() { ClearRuns(); }

ToolRecorder::~ToolRecorder() {
    for (const Replaced& tool : replaced_) {
        // A recorder that was started without waiting may still be running.
        for (int attempt = 0; attempt < 200 && DeleteFileW(tool.path.c_str()) == FALSE; ++attempt) {
            Sleep(10);
        }
        DeleteFileW(ExitCodeOf(tool.path).c_str());
        RegDeleteKeyValueW(HKEY_CURRENT_USER, kOverrides, FileNameOf(tool.path).c_str());
        if (tool.hadOriginal) {
            MoveFileExW(OriginalOf(tool.path).c_str(), tool.path.c_str(), MOVEFILE_REPLACE_EXISTING);
        }
    }
}

void ToolRecorder::StandInFor(const std::wstring& path, unsigned exitCode) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    // The original is moved, never written to: files of the Windows directory are shared with the
    // template that this prefix was made from.
    const bool hadOriginal = MoveAside(path);
    if (CopyFileW(kRecorder, path.c_str(), TRUE) == FALSE) {
        throw std::runtime_error("cannot put the recorder in place: " + std::to_string(GetLastError()));
    }
    std::ofstream(std::filesystem::path(ExitCodeOf(path))) << exitCode;
    RegSetKeyValueW(HKEY_CURRENT_USER, kOverrides, FileNameOf(path).c_str(), REG_SZ, L"native",
                    sizeof(L"native"));
    replaced_.push_back({path, hadOriginal});
}

void ToolRecorder::StandInForSystemTool(const std::wstring& fileName, unsigned exitCode) {
    StandInFor(L"C:\\windows\\system32\\" + fileName, exitCode);
}

std::vector<RecordedRun> ToolRecorder::Runs() const {
    std::ifstream file(std::filesystem::path(kRecord), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::copy_n(bytes.data(), text.size() * sizeof(wchar_t), reinterpret_cast<char*>(text.data()));

    std::vector<std::wstring> fields;
    for (size_t start = 0; start < text.size();) {
        const size_t end = text.find(L'\0', start);
        fields.push_back(text.substr(start, end - start));
        start = end == std::wstring::npos ? text.size() : end + 1;
    }
    std::vector<RecordedRun> runs;
    for (size_t index = 0; index + 2 < fields.size(); index += 3) {
        runs.push_back({fields[index], fields[index + 1], fields[index + 2]});
    }
    return runs;
}

std::vector<RecordedRun> ToolRecorder::WaitForRuns(size_t count) const {
    for (int attempt = 0; attempt < 1000; ++attempt) {
        auto runs = Runs();
        if (runs.size() >= count) {
            return runs;
        }
        Sleep(10);
    }
    return Runs();
}

void ToolRecorder::ClearRuns() { DeleteFileW(kRecord); }

}  // namespace corvi::test
