#include "tests/tool/tool_run.h"

#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace corvi::test {
namespace {

constexpr wchar_t kOutput[] = L"C:\\corvi\\tool-output.txt";
constexpr wchar_t kError[] = L"C:\\corvi\\tool-error.txt";

/// A new file that a started program inherits.
HANDLE Inheritable(const wchar_t* path) {
    SECURITY_ATTRIBUTES security = {sizeof(security), nullptr, TRUE};
    return CreateFileW(path, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &security, CREATE_ALWAYS, 0,
                       nullptr);
}

std::string Bytes(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

ToolRun RunWith(HANDLE token, const std::wstring& arguments, unsigned limitMilliseconds) {
    std::wstring commandLine = L"C:\\corvi\\corvi.exe " + arguments;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = INVALID_HANDLE_VALUE;
    startup.hStdOutput = Inheritable(kOutput);
    startup.hStdError = Inheritable(kError);
    PROCESS_INFORMATION process = {};
    const BOOL started = CreateProcessAsUserW(token, nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0,
                                              nullptr, L"C:\\corvi", &startup, &process);
    const DWORD reason = GetLastError();
    CloseHandle(startup.hStdOutput);
    CloseHandle(startup.hStdError);
    if (started == FALSE) {
        throw std::runtime_error("cannot start corvi.exe: " + std::to_string(reason));
    }
    const DWORD waited = WaitForSingleObject(process.hProcess, limitMilliseconds);
    DWORD exitCode = 0;
    GetExitCodeProcess(process.hProcess, &exitCode);
    if (waited != WAIT_OBJECT_0) {
        TerminateProcess(process.hProcess, 1);
    }
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    ToolRun run{exitCode, Bytes(kOutput), Bytes(kError)};
    if (waited != WAIT_OBJECT_0) {
        throw std::runtime_error("corvi.exe did not end in time; it had printed: " + run.output + run.error);
    }
    return run;
}

}  // namespace

ToolRun RunTool(const std::wstring& arguments, unsigned limitMilliseconds) {
    return RunWith(nullptr, arguments, limitMilliseconds);
}

ToolRun RunToolAs(void* token, const std::wstring& arguments) { return RunWith(token, arguments, 120000); }

size_t LongestLine(const std::string& utf8) {
    size_t longest = 0;
    std::istringstream lines(utf8);
    for (std::string line; std::getline(lines, line);) {
        const auto characters = std::count_if(line.begin(), line.end(), [](char byte) {
            return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
        });
        longest = std::max(longest, static_cast<size_t>(characters));
    }
    return longest;
}

size_t LineCount(const std::string& text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

void WriteBytes(const std::wstring& path, const std::string& bytes) {
    const std::filesystem::path file(path);
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << bytes;
}

}  // namespace corvi::test
