#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace corvi::test {

/// One exported action on a machine on which it does its whole work.
struct Scenario {
    const char* name;    ///< "DeleteHXFolder: the registered folder"
    const char* action;  ///< the export
    UINT result;         ///< of a run without a fault
    std::wstring actionData = {};
    std::vector<std::pair<std::wstring, std::wstring>> properties = {};
    /// Makes the machine as it has to be before each run.
    std::function<void()> setUp = [] {};
    /// Makes once what no run changes.
    std::function<void()> prepare = [] {};
    /// A folder that the action is to delete altogether, where a good run stops before the end:
    /// L"C:\\FAULTS\\HX".
    std::wstring wholeFolder = {};
    /// Takes away afterwards what other test programs would meet on a machine that they share.
    std::function<void()> leave = [] {};
};

const std::vector<Scenario>& AllScenarios();

}  // namespace corvi::test
