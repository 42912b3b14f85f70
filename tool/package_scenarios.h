#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "tool/package_tables.h"

namespace corvi::tool {

/// What may be done with a package. A failed install runs what a first install does and is then undone.
enum class Scenario {
    FirstInstall,
    Repair,
    MinorUpgrade,
    UpgradeOld,  ///< a major upgrade, the old product's removal
    UpgradeNew,  ///< a major upgrade, the new product's install
    Uninstall,
    FailedInstall,
};
constexpr std::size_t kScenarios = 7;
constexpr std::array<Scenario, kScenarios> kAllScenarios = {
    Scenario::FirstInstall, Scenario::Repair,    Scenario::MinorUpgrade, Scenario::UpgradeOld,
    Scenario::UpgradeNew,   Scenario::Uninstall, Scenario::FailedInstall};

/// The scenario in words ("first install"), as a column's heading ("inst") and as a name in JSON.
const char* ScenarioWords(Scenario scenario);
const char* ScenarioHeading(Scenario scenario);
const char* ScenarioName(Scenario scenario);

/// What the machine and the user bring along: searches that find nothing and properties that nobody gives,
/// or all of them found and given.
enum class Machine { Bare, Prepared };
constexpr std::array<Machine, 2> kMachines = {Machine::Bare, Machine::Prepared};

/// One action of the sequence that runs in one scenario on one machine.
struct SequenceRun {
    bool runs = false;
    /// For an action that reads action data: the value that its property has by then, as the package
    /// wrote it, and the action that set it; no setter: the Property table or nothing.
    std::string data;
    std::string setter;
};

/// The execute sequence played through in every scenario.
class Schedule {
public:
    bool Runs(const std::string& action, Scenario scenario, Machine machine) const;
    /// Runs on a bare or a prepared machine, or on both.
    bool MayRun(const std::string& action, Scenario scenario) const;
    bool AlwaysRuns(const std::string& action, Scenario scenario) const;
    const SequenceRun& Run(const std::string& action, Scenario scenario, Machine machine) const;
    /// Actions whose condition the installer cannot read.
    const std::vector<std::string>& BrokenConditions() const { return broken_; }

private:
    friend class SchedulePlayer;
    std::map<std::string, SequenceRun> runs_[kScenarios][kMachines.size()];
    std::vector<std::string> broken_;
};

/// Plays the sequence through, each condition evaluated by the installer in a session of the package.
/// Throws UsageError when the installer cannot open the package.
Schedule PlaySchedule(const PackageDatabase& database, const PackageTables& tables);

}  // namespace corvi::tool
