#pragma once

#include <windows.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/import_hooks.h"

namespace corvi::test {

/// One answer of the scripted service: its state, wait hint and check point.
struct ScriptedStatus {
    DWORD state;
    DWORD waitHint = 0;
    DWORD checkPoint = 0;
    bool fails = false;  ///< the query fails instead
};

inline constexpr ScriptedStatus kFailingQuery = {0, 0, 0, true};

/// A service manager for what the real one cannot be made to do: it answers from a script, notes what is
/// asked of it, and sees that every handle is closed once.
class ScriptedManager {
public:
    explicit ScriptedManager(ImportHooks& hooks);
    ScriptedManager(const ScriptedManager&) = delete;
    ScriptedManager& operator=(const ScriptedManager&) = delete;

    /// Answers to QueryServiceStatusEx and QueryServiceStatus in turn; the last one stays.
    std::deque<ScriptedStatus> statuses;
    /// What the stop control reports.
    ScriptedStatus controlAnswer = {SERVICE_STOP_PENDING};
    /// The error of a call that is to fail; 0 for success.
    DWORD managerError = 0;
    DWORD openError = 0;
    DWORD controlError = 0;
    DWORD startError = 0;
    DWORD deleteError = 0;

    /// Runs while the manager is opened.
    std::function<void()> onOpenManager = [] {};

    /// The calls so far, each with its telling arguments in hexadecimal: "OpenSCManager - F003F".
    std::vector<std::string> calls;

    /// How often a call of that name was made.
    size_t Count(const std::string& name) const;

    /// The names of the handles that were closed, in order ("manager", "service").
    std::vector<std::string> closed;

    /// True when every handle was closed exactly once.
    bool AllClosed() const;

private:
    void HookOpening(ImportHooks& hooks);
    void HookQueries(ImportHooks& hooks);
    void HookChanges(ImportHooks& hooks);
    template <typename Record>
    BOOL Answer(Record& record);

    size_t opened_ = 0;
};

}  // namespace corvi::test
