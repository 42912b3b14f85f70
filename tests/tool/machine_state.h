#pragma once

#include <map>
#include <string>
#include <vector>

namespace corvi::test {

/// What there is on the machine, item by item: "file C:\x", "folder C:\x", "key HKLM\X", "value HKLM\X|name",
/// "service X", "process x.exe" with what can be told of each. Items of the registry are named in one way
/// only: HKLM with the 32-bit view below Wow6432Node, HKU with every user.
using MachineState = std::map<std::wstring, std::wstring>;

enum class Depth {
    Programs,  ///< services and processes alone
    /// Without what is stored by the thousand and no action comes near: of the registered classes only the
    /// names, nothing of time zones and telephone countries.
    WithoutBulk,
    Everything,
};

MachineState ReadMachine(Depth depth = Depth::WithoutBulk);

/// One item that is not the same in two states.
struct Difference {
    std::wstring item;
    std::wstring before;  ///< empty: was not there
    std::wstring after;   ///< empty: is no longer there
    bool Came() const { return before.empty(); }
    bool Went() const { return after.empty(); }
};
std::vector<Difference> Differences(const MachineState& before, const MachineState& after);

/// The differences as lines of UTF-8, for a failed test.
std::string Describe(const std::vector<Difference>& differences);

}  // namespace corvi::test
