#pragma once

#include <string>
#include <vector>

namespace corvi::test {

/// One custom or standard action in an installer log: what the installer says it returned (1 for success)
/// and the lines between its start and its end.
struct LoggedAction {
    std::string name;
    int returnValue = -1;
    std::vector<std::string> lines;
};

/// The actions of an installer's log, in the order in which they ended. log: without carriage returns. A
/// deferred action stands there twice, written to the script and run, whether the installer says "Action
/// start" for the run or names the operation of its script; the installer's own lines are not the action's.
std::vector<LoggedAction> ReadActions(const std::string& log);

/// One run of the real installer.
struct InstallerRun {
    unsigned exitCode = 0;
    std::string log;
    std::vector<LoggedAction> actions;

    /// How often the action ended in this run. A deferred action ends twice: written to the script, and run.
    size_t Count(const std::string& action) const;
    /// True when the action ran: immediate, or from the installer's script.
    bool Ran(const std::string& action) const { return Count(action) > 0; }
    /// The last end of the action; an empty one when it did not run.
    LoggedAction Last(const std::string& action) const;
};

/// Runs `msiexec <arguments> /qn /l*v <log>` and waits for it; arguments as on a command line
/// ("/i C:\corvi\x.msi NAME=1"). Throws std::runtime_error when it cannot be started or does not end in
/// two minutes.
InstallerRun RunInstaller(const std::wstring& arguments);

}  // namespace corvi::test
