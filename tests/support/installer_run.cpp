#include "tests/support/installer_run.h"

#include <windows.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace corvi::test {
namespace {

constexpr wchar_t kLog[] = L"C:\\corvi\\installer.log";
constexpr DWORD kLimitMilliseconds = 120000;

std::string ReadLog() {
    std::ifstream file("C:\\corvi\\installer.log", std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::erase(bytes, '\0');
    std::erase(bytes, '\r');
    return bytes;
}

std::vector<LoggedAction> Actions(const std::string& log) {
    static const std::regex kStart(R"(Action start [\d:]+: ([\w.]+)\.)");
    static const std::regex kAction(R"(Action [\d:]+: .*)");
    static const std::regex kEnd(R"(Action ended [\d:]+: ([\w.]+)\. Return value (-?\d+)\.)");
    std::vector<LoggedAction> ended;
    LoggedAction current;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (std::regex_match(line, match, kStart)) {
            current = {match[1], -1, {}};
        } else if (std::regex_match(line, match, kEnd)) {
            if (match[1] != current.name) {
                current = {match[1], -1, {}};
            }
            current.returnValue = std::stoi(match[2]);
            ended.push_back(current);
            current = {};
        } else if (!line.empty() && !std::regex_match(line, kAction)) {
            current.lines.push_back(line);
        }
    }
    return ended;
}

}  // namespace

size_t InstallerRun::Count(const std::string& action) const {
    return static_cast<size_t>(std::count_if(
        actions.begin(), actions.end(), [&](const LoggedAction& ended) { return ended.name == action; }));
}

LoggedAction InstallerRun::Last(const std::string& action) const {
    const auto found = std::find_if(actions.rbegin(), actions.rend(),
                                    [&](const LoggedAction& ended) { return ended.name == action; });
    return found == actions.rend() ? LoggedAction{} : *found;
}

InstallerRun RunInstaller(const std::wstring& arguments) {
    DeleteFileW(kLog);
    std::wstring commandLine = L"C:\\windows\\system32\\msiexec.exe " + arguments + L" /qn /l*v " + kLog;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                       &process) == FALSE) {
        throw std::runtime_error("cannot start msiexec: " + std::to_string(GetLastError()));
    }
    const DWORD waited = WaitForSingleObject(process.hProcess, kLimitMilliseconds);
    DWORD exitCode = 0;
    GetExitCodeProcess(process.hProcess, &exitCode);
    if (waited != WAIT_OBJECT_0) {
        TerminateProcess(process.hProcess, 1);
    }
    CloseHandle(process.hProcess);
    CloseHandle(process.hThread);
    if (waited != WAIT_OBJECT_0) {
        throw std::runtime_error("msiexec did not end in time");
    }
    InstallerRun run;
    run.exitCode = exitCode;
    run.log = ReadLog();
    run.actions = Actions(run.log);
    return run;
}

}  // namespace corvi::test
