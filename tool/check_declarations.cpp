#include <algorithm>
#include <cctype>
#include <optional>

#include "tool/check_findings.h"
#include "tool/facts_text.h"

// How the actions are declared: entry point, deferred or immediate, impersonation, result, and whether the
// place in the sequence fits that.

namespace corvi::tool {
namespace {

constexpr unsigned kInScript = 0x400;

bool SaysRollback(const std::string& id) {
    std::string lower = id;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower.find("rollback") != std::string::npos || lower.find("undo") != std::string::npos;
}

bool CheckEntryPoint(const LibraryAction& action, Findings& findings) {
    if (action.exported) {
        return true;
    }
    std::string reason =
        "\"" + action.id + "\" calls the entry point \"" + action.entry +
        "\", which the library in this package does not have: the installer ends with an error "
        "when it comes to the action.";
    const ActionFacts* known = FindAction(action.entry);
    const ActionFacts* nearest = known != nullptr ? nullptr : NearestAction(action.entry);
    std::string mend = "Write the name as \"corvi list\" shows it, in the same letter case.";
    if (known != nullptr) {
        mend = "Put the current Corvi_CA.dll into the package: its copy is older.";
    } else if (nearest != nullptr) {
        mend = "Did you mean \"" + nearest->name + "\"?";
    }
    findings.push_back({"unknown-entry-point", action.id, reason, mend});
    return false;
}

bool ScheduledAfterInBoth(const CheckedPackage& package, const std::string& early, const std::string& late) {
    const auto first = package.tables.Sequence(early);
    const auto second = package.tables.Sequence(late);
    return first && second && *first < *second && package.schedule.MayRun(early, Scenario::FirstInstall) &&
           package.schedule.MayRun(late, Scenario::FirstInstall);
}

// An immediate action that takes back what a later action of the same install does can only be meant as its
// rollback.
std::optional<std::string> MeantAsRollbackOf(const CheckedPackage& package, const LibraryAction& action) {
    for (const LibraryAction& other : package.library.actions) {
        const ActionFacts* facts = FindAction(other.entry);
        if (facts != nullptr && facts->rollback == action.entry && other.InScript() && !other.Rollback() &&
            (SaysRollback(action.id) || ScheduledAfterInBoth(package, action.id, other.id))) {
            return other.id;
        }
    }
    return SaysRollback(action.id) ? std::optional<std::string>("another action") : std::nullopt;
}

bool CheckExecution(const CheckedPackage& package, const LibraryAction& action, const ActionFacts& facts,
                    Findings& findings) {
    const bool immediate = (action.type & kInScript) == 0;
    if (immediate && facts.execution == Execution::Deferred) {
        if (const auto of = MeantAsRollbackOf(package, action)) {
            findings.push_back({"rollback-is-immediate", action.id,
                                "\"" + action.id + "\" is meant to take " + *of +
                                    " back when an install fails, but its type says immediate (" +
                                    std::to_string(action.type) +
                                    "): it runs at once in every install, and never when one fails.",
                                "Some compilers turn Execute=\"rollback\" into an immediate action without a "
                                "word: set the type to " +
                                    std::to_string(action.type | 0x500U) + " in the built package."});
        } else {
            findings.push_back({"immediate-instead-of-deferred", action.id,
                                "\"" + action.id +
                                    "\" changes the machine, but runs immediately: before anything is "
                                    "installed, without elevation, and nothing can take it back.",
                                "Execute=\"deferred\" Impersonate=\"" +
                                    std::string(facts.impersonated ? "yes" : "no") +
                                    "\", between InstallInitialize and InstallFinalize."});
        }
        return false;
    }
    if (!immediate && facts.execution == Execution::Immediate) {
        const std::string what = facts.properties.empty() ? "decides before anything is changed"
                                                          : "reads the property " + facts.properties.front();
        findings.push_back(
            {"deferred-instead-of-immediate", action.id,
             "\"" + action.id + "\" " + what +
                 ", but runs from the installer's script, where it sees no property of the session and "
                 "comes too late.",
             "Execute=\"immediate\"."});
        return false;
    }
    return true;
}

void CheckImpersonation(const CheckedAction& checked, Findings& findings) {
    if (!checked.action->InScript() || checked.action->Impersonated() == checked.facts->impersonated) {
        return;
    }
    if (checked.facts->impersonated) {
        findings.push_back(
            {"elevated-instead-of-impersonated", checked.Id(),
             "\"" + checked.Id() + "\" works for the user who installs, but runs as the system account.",
             "Impersonate=\"yes\"."});
    } else {
        findings.push_back(
            {"impersonated-instead-of-elevated", checked.Id(),
             "\"" + checked.Id() +
                 "\" changes the machine, but runs with the rights of the user who installs: without "
                 "elevation it fails.",
             "Impersonate=\"no\"."});
    }
}

bool IsSuccess(Outcome outcome) { return outcome == Outcome::Done || outcome == Outcome::Nothing; }

// The first result of the action other than 0 that `wanted` asks for.
template <typename Wanted>
const Result* FirstNonZero(const ActionFacts& facts, Wanted wanted) {
    const auto found = std::find_if(facts.results.begin(), facts.results.end(), [&](const Result& result) {
        return (!result.code || *result.code != 0) && wanted(result.outcome);
    });
    return found == facts.results.end() ? nullptr : &*found;
}

void CheckResultIsChecked(const CheckedPackage& package, const CheckedAction& checked, Findings& findings) {
    const ActionFacts& facts = *checked.facts;
    if (facts.onResult == Return::Check) {
        return;
    }
    if (const Result* result = FirstNonZero(facts, IsSuccess)) {
        findings.push_back({"success-fails-install", checked.Id(),
                            "\"" + checked.Id() + "\" answers " + CodeText(*result) +
                                " although nothing failed (" + result->meaning +
                                "), and with Return=\"check\" that ends the installation.",
                            "Return=\"ignore\"."});
        return;
    }
    const bool removes = package.schedule.MayRun(checked.Id(), Scenario::Uninstall) ||
                         package.schedule.MayRun(checked.Id(), Scenario::UpgradeOld);
    const Result* failure = FirstNonZero(facts, [](Outcome outcome) { return outcome == Outcome::Failed; });
    if (failure != nullptr && removes) {
        findings.push_back({"failure-stops-uninstall", checked.Id(),
                            "\"" + checked.Id() + "\" answers " + CodeText(*failure) + " (" +
                                failure->meaning +
                                "), and with Return=\"check\" the product can then not be removed any more.",
                            "Return=\"ignore\"."});
    }
}

void CheckResultIsIgnored(const CheckedAction& checked, Findings& findings) {
    const ActionFacts& facts = *checked.facts;
    const Result* result = FirstNonZero(facts, [](Outcome outcome) { return !IsSuccess(outcome); });
    if (facts.onResult == Return::Check && result != nullptr) {
        findings.push_back({"refusal-passes", checked.Id(),
                            "\"" + checked.Id() + "\" answers " + CodeText(*result) + " (" + result->meaning +
                                ") to stop the installation, but its result is ignored.",
                            "Return=\"check\"."});
    }
}

void CheckResult(const CheckedPackage& package, const CheckedAction& checked, Findings& findings) {
    if (checked.action->Rollback()) {
        return;  // the installer goes on with the rollback whatever they answer
    }
    if (checked.action->Asynchronous()) {
        findings.push_back({"runs-asynchronously", checked.Id(),
                            "The installer does not wait for \"" + checked.Id() +
                                "\": what comes next in the sequence runs beside it.",
                            "Return=\"" +
                                std::string(checked.facts->onResult == Return::Check ? "check" : "ignore") +
                                "\"."});
    } else if (checked.action->IgnoresResult()) {
        CheckResultIsIgnored(checked, findings);
    } else {
        CheckResultIsChecked(package, checked, findings);
    }
}

bool CheckPlace(const CheckedPackage& package, const CheckedAction& checked, Findings& findings) {
    const auto begin = package.tables.Sequence("InstallInitialize");
    const auto end = package.tables.Sequence("InstallFinalize");
    const bool inside = (!begin || checked.sequence > *begin) && (!end || checked.sequence < *end);
    if (checked.action->InScript() && !inside) {
        findings.push_back(
            {"outside-install-script", checked.Id(),
             "\"" + checked.Id() + "\" (sequence " + std::to_string(checked.sequence) +
                 ") is written to the installer's script, but stands outside InstallInitialize and "
                 "InstallFinalize: the installer ends with error 2762.",
             "A sequence number between InstallInitialize and InstallFinalize."});
        return false;
    }
    return true;
}

// An immediate action that works with what was installed, and one that decides whether to install at all.
void CheckImmediatePlace(const CheckedPackage& package, const CheckedAction& checked, Findings& findings) {
    const auto begin = package.tables.Sequence("InstallInitialize");
    const auto end = package.tables.Sequence("InstallFinalize");
    if (checked.action->InScript() || !begin || !end) {
        return;
    }
    const bool decides =
        FirstNonZero(*checked.facts, [](Outcome outcome) { return outcome == Outcome::Refused; });
    if (decides && checked.sequence > *begin) {
        findings.push_back({"guard-too-late", checked.Id(),
                            "\"" + checked.Id() +
                                "\" decides whether the package may be installed, but stands behind "
                                "InstallInitialize (sequence " +
                                std::to_string(checked.sequence) + ").",
                            "An early sequence number, below 100."});
    }
    if (!decides && checked.sequence < *end &&
        package.schedule.MayRun(checked.Id(), Scenario::FirstInstall)) {
        findings.push_back({"runs-before-install", checked.Id(),
                            "\"" + checked.Id() +
                                "\" works with what the package installs, but runs before it "
                                "(sequence " +
                                std::to_string(checked.sequence) + ").",
                            "A sequence number behind InstallFinalize."});
    }
}

// A guard may ask early, in the dialogs, when it also stands in the execute sequence: a quiet install has
// none.
void CheckUserInterface(const CheckedPackage& package, Findings& findings) {
    for (const SequenceRow& row : package.tables.uiSequence) {
        const LibraryAction* action = package.library.Find(row.action);
        const ActionFacts* facts = action != nullptr ? FindAction(action->entry) : nullptr;
        if (facts == nullptr) {
            continue;
        }
        const bool decides =
            facts->execution == Execution::Immediate &&
            FirstNonZero(*facts, [](Outcome outcome) { return outcome == Outcome::Refused; });
        if (!decides) {
            findings.push_back(
                {"scheduled-in-user-interface", action->id,
                 "\"" + action->id +
                     "\" stands in InstallUISequence: there it runs before the install or not at all, "
                     "and a quiet install never comes by.",
                 "Schedule it in InstallExecuteSequence alone."});
        } else if (!package.tables.Sequence(action->id)) {
            findings.push_back(
                {"only-in-user-interface", action->id,
                 "\"" + action->id + "\" stands in InstallUISequence alone: a quiet install goes past it.",
                 "Schedule it in InstallExecuteSequence too."});
        }
    }
}

void CheckScheduled(CheckedPackage& package, const SequenceRow& row, const LibraryAction& action,
                    Findings& findings) {
    const ActionFacts* facts = FindAction(action.entry);
    if (facts == nullptr || !action.exported || !CheckExecution(package, action, *facts, findings)) {
        return;
    }
    const CheckedAction checked = {&action, facts, row.sequence, row.condition};
    CheckImpersonation(checked, findings);
    CheckResult(package, checked, findings);
    if (CheckPlace(package, checked, findings)) {
        CheckImmediatePlace(package, checked, findings);
        package.actions.push_back(checked);
    }
}

void CheckConditions(const CheckedPackage& package, Findings& findings) {
    for (const std::string& id : package.schedule.BrokenConditions()) {
        if (package.library.Find(id) != nullptr) {
            findings.push_back(
                {"unreadable-condition", id,
                 "The installer cannot read the condition of \"" + id + "\" and ends with an error.",
                 "Correct the condition's syntax."});
        }
    }
}

}  // namespace

void CheckDeclarations(CheckedPackage& package, Findings& findings) {
    for (const LibraryAction& action : package.library.actions) {
        CheckEntryPoint(action, findings);
    }
    for (const SequenceRow& row : package.tables.executeSequence) {
        if (const LibraryAction* action = package.library.Find(row.action)) {
            CheckScheduled(package, row, *action, findings);
        }
    }
    CheckUserInterface(package, findings);
    CheckConditions(package, findings);
}

}  // namespace corvi::tool
