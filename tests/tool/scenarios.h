#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace corvi::test {

/// A machine on which one action has its whole work to do.
struct Scenario {
    std::string action;
    std::wstring arguments;  ///< of the tool, behind the action's name
    /// Makes the machine; what it gives holds what must live while the action runs.
    std::function<std::shared_ptr<void>()> setUp;
    /// What the action answers when it does its work.
    unsigned result = 0;
};

/// One for each exported action.
const std::vector<Scenario>& Scenarios();

/// Takes off the machine what scenarios put there and what actions left.
void ClearMachine();

}  // namespace corvi::test
