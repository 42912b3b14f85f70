#include "tests/support/running_program.h"

#include <tlhelp32.h>

#include <cwchar>
#include <filesystem>
#include <stdexcept>

namespace corvi::test {
namespace {

constexpr wchar_t kSleeper[] = L"C:\\corvi\\sleeper.exe";
const std::wstring kFolder = L"C:\\corvi\\running\\";
constexpr DWORD kLimitMilliseconds = 30000;

}  // namespace

RunningProgram::RunningProgram(const std::wstring& imageName, const wchar_t* folder) {
    std::filesystem::create_directories(kFolder);
    const std::wstring path = kFolder + imageName;
    CopyFileW(kSleeper, path.c_str(), TRUE);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    std::wstring commandLine = L"\"" + path + L"\"";
    if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                       folder, &startup, &process_) == FALSE) {
        throw std::runtime_error("cannot start the sleeping program: " + std::to_string(GetLastError()));
    }
    CloseHandle(process_.hThread);
    const std::wstring name = L"corvi_sleeper_" + std::to_wstring(process_.dwProcessId);
    const HANDLE up = CreateEventW(nullptr, TRUE, FALSE, name.c_str());
    const bool inTime = WaitForSingleObject(up, kLimitMilliseconds) == WAIT_OBJECT_0;
    CloseHandle(up);
    if (!inTime) {
        TerminateProcess(process_.hProcess, 0);
        CloseHandle(process_.hProcess);
        throw std::runtime_error("the sleeping program is not up after 30 s");
    }
}

RunningProgram::~RunningProgram() {
    TerminateProcess(process_.hProcess, 0);
    WaitForSingleObject(process_.hProcess, kLimitMilliseconds);
    CloseHandle(process_.hProcess);
}

void EndPrograms(const std::wstring& imageName) {
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Process32FirstW(snapshot, &entry); more != FALSE;
         more = Process32NextW(snapshot, &entry)) {
        if (_wcsicmp(entry.szExeFile, imageName.c_str()) != 0) {
            continue;
        }
        const HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, entry.th32ProcessID);
        if (process != nullptr) {
            TerminateProcess(process, 0);
            WaitForSingleObject(process, kLimitMilliseconds);
            CloseHandle(process);
        }
    }
    CloseHandle(snapshot);
}

bool RunningProgram::Runs() const { return WaitForSingleObject(process_.hProcess, 0) == WAIT_TIMEOUT; }

bool RunningProgram::Ends() const {
    return WaitForSingleObject(process_.hProcess, kLimitMilliseconds) == WAIT_OBJECT_0;
}

}  // namespace corvi::test
