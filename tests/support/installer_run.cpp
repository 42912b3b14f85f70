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

constexpr int kSuccess = 1;
constexpr int kEndedByUser = 2;
constexpr int kFailed = 3;
constexpr int kNotRunYet = 256 | 512;  // an operation of rollback or commit type only notes the action

/// Collects the actions of a log from one line after the other. Some installers write "Action start" and
/// "Action ended" around the run of a deferred action too; others only the operation of the script that runs
/// it, and what it returned where that is no success, with lines of their own between the action's.
class LogReader {
public:
    void Read(const std::string& line) {
        static const std::regex kStart(R"(Action start [\d:]+: ([\w.]+)\.)");
        static const std::regex kAction(R"(Action [\d:]+: .*)");
        static const std::regex kEnd(R"(Action ended [\d:]+: ([\w.]+)\. Return value (-?\d+)\.)");
        static const std::regex kReturned(R"(CustomAction ([\w.]+) returned actual error code (\d+)(.*))");
        std::smatch match;
        if (line.rfind("MSI (", 0) == 0) {
            ReadOperation(line);
        } else if (std::regex_match(line, match, kStart)) {
            Begin(match[1], false);
        } else if (std::regex_match(line, match, kEnd)) {
            End(match[1], std::stoi(match[2]));
        } else if (std::regex_match(line, match, kReturned)) {
            Returned(match[1], std::stoi(match[2]), match[3]);
        } else if (!line.empty() && !std::regex_match(line, kAction)) {
            current_.lines.push_back(line);
        }
    }

    std::vector<LoggedAction> Ended() {
        EndOperation();
        return ended_;
    }

private:
    void ReadOperation(const std::string& line) {
        static const std::regex kOperation(R"(MSI \(.*\]: Executing op: (\w+)\(.*)");
        static const std::regex kRun(
            R"(MSI \(.*\]: Executing op: CustomAction\w+\(Action=([\w.]+),ActionType=(\d+).*)");
        std::smatch match;
        if (!std::regex_match(line, match, kOperation)) {
            return;
        }
        EndOperation();
        const bool isSchedule = match[1] == "CustomActionSchedule";
        if (std::regex_match(line, match, kRun) && (!isSchedule || (std::stoi(match[2]) & kNotRunYet) == 0)) {
            Begin(match[1], true);
        }
    }

    void Begin(const std::string& name, bool isOperation) {
        EndOperation();
        current_ = {name, isOperation ? kSuccess : -1, {}};
        isOperation_ = isOperation;
    }

    void End(const std::string& name, int returnValue) {
        EndOperation();
        if (name != current_.name) {
            current_ = {name, -1, {}};
        }
        current_.returnValue = returnValue;
        ended_.push_back(current_);
        current_ = {};
    }

    void Returned(const std::string& name, int code, const std::string& rest) {
        if (isOperation_ && name == current_.name &&
            rest.find("translated to success") == std::string::npos) {
            current_.returnValue = code == ERROR_INSTALL_USEREXIT ? kEndedByUser : kFailed;
        }
    }

    /// The run of an action from the script ends where the next thing begins.
    void EndOperation() {
        if (isOperation_) {
            ended_.push_back(current_);
            current_ = {};
            isOperation_ = false;
        }
    }

    std::vector<LoggedAction> ended_;
    LoggedAction current_;
    bool isOperation_ = false;
};

}  // namespace

std::vector<LoggedAction> ReadActions(const std::string& log) {
    LogReader reader;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        reader.Read(line);
    }
    return reader.Ended();
}

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
    run.actions = ReadActions(run.log);
    return run;
}

}  // namespace corvi::test
