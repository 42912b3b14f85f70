#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tool/action_facts.h"
#include "tool/package_library.h"
#include "tool/package_scenarios.h"
#include "tool/package_tables.h"

namespace corvi::tool {

/// One mistake: a name that stays the same from version to version, the action that it is about ("(package)"
/// when it is about none), why it is a mistake here, and what mends it.
struct Finding {
    std::string id;
    std::string action;
    std::string reason;
    std::string mend;
};
using Findings = std::vector<Finding>;

constexpr char kPackageItself[] = "(package)";

/// A scheduled action of the library whose facts are known and whose type is what it should be: the other
/// checks can speak about it.
struct CheckedAction {
    const LibraryAction* action = nullptr;
    const ActionFacts* facts = nullptr;
    int sequence = 0;
    std::string condition;

    const std::string& Id() const { return action->id; }
};

/// A package and everything that was found out about it.
struct CheckedPackage {
    const PackageDatabase* database = nullptr;
    PackageTables tables;
    PackageLibrary library;
    Schedule schedule;
    std::vector<CheckedAction> actions;  ///< in the order of the sequence
};

/// All findings, in the order of the sequence; `package.actions` is filled on the way.
Findings CheckPackage(CheckedPackage& package);

// The checks by subject; each adds what it finds.

/// Type, place and result of each action; fills `package.actions`.
void CheckDeclarations(CheckedPackage& package, Findings& findings);
/// What runs in which scenario: deletions, guards, counterparts, rollback, upgrade.
void CheckSchedule(const CheckedPackage& package, Findings& findings);
/// The action data of deferred actions.
void CheckActionData(const CheckedPackage& package, Findings& findings);
/// Properties, template and files of the package as a whole.
void CheckPackageItself(const CheckedPackage& package, Findings& findings);

/// "first install, repair and uninstall"
std::string ScenarioList(const std::vector<Scenario>& scenarios);

}  // namespace corvi::tool
