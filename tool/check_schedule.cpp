#include <algorithm>
#include <cctype>
#include <iterator>
#include <map>
#include <optional>

#include "tool/check_findings.h"
#include "tool/condition_text.h"

// What runs in which scenario: deletions, launch guards, keys that must be there, counterparts, rollback, and
// the older product's removal.

namespace corvi::tool {
namespace {

constexpr int kClassesRoot = 0;
constexpr int kUserRoot = 1;
constexpr int kMachineRoot = 2;
constexpr int kAnyRoot = -1;  // of the Registry table: the machine's for a per-machine package
constexpr int kOnlyDetect = 2;

constexpr char kSystemsOwnKey[] = "SYSTEM\\CurrentControlSet\\Control\\Session Manager";

// What a user decided, and the action that decides it anew.
constexpr char kConsentAction[] = "EnableAnalyticsKey";

// They work with files that the package installs: behind InstallFiles.
constexpr const char* kNeedInstalledFiles[] = {"CreateLogonSchTask", "CreateDVRLogonSchTask",
                                               "CreateBenchMarkRunOnceSchTask", "SetPermissionsRegisterDLL",
                                               "PostInstallPPC"};
// They call programs of the product that goes: before RemoveFiles.
constexpr const char* kNeedFilesStill[] = {"UnregisterDLL", "ShutDownPQRNext", "ShutDownDVR"};

// What neither deletes nor makes anything: the older product's removal cannot undo it.
constexpr const char* kUnharmedByRemoval[] = {"CheckForClients", "ShutDownPQRNext", "TerminateHXNextApp",
                                              "ShutDownDVR", "TerminateDVRApp"};

template <std::size_t N>
bool Among(const char* const (&names)[N], const std::string& name) {
    return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string Key(const std::string& key) {
    std::string lower = Lower(key);
    while (!lower.empty() && lower.back() == '\\') {
        lower.pop_back();
    }
    return lower;
}

bool SameKeyOrBelow(const std::string& key, const std::string& parent) {
    const std::string child = Key(key);
    const std::string top = Key(parent);
    return child == top || child.compare(0, top.size() + 1, top + "\\") == 0;
}

std::string Quoted(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "\"" : ", \"") + name + "\"";
    }
    return text;
}

std::vector<Scenario> Running(const CheckedPackage& package, const std::string& id,
                              const std::vector<Scenario>& among) {
    std::vector<Scenario> running;
    std::copy_if(among.begin(), among.end(), std::back_inserter(running),
                 [&](Scenario scenario) { return package.schedule.MayRun(id, scenario); });
    return running;
}

bool RemovesOlder(const CheckedPackage& package) {
    return std::any_of(package.tables.upgrades.begin(), package.tables.upgrades.end(),
                       [](const UpgradeRow& row) { return (row.attributes & kOnlyDetect) == 0; });
}

void CheckDeletion(const CheckedPackage& package, const CheckedAction& checked, Findings& findings) {
    const Deletion& deletes = checked.facts->deletes;
    const std::string& id = checked.Id();
    if (deletes.what.empty()) {
        return;
    }
    const auto repairs = Running(package, id, {Scenario::Repair, Scenario::MinorUpgrade});
    if (deletes.notOnRepair && !repairs.empty()) {
        findings.push_back({"deletes-on-repair", id,
                            "\"" + id + "\" deletes " + deletes.what +
                                ", and runs in: " + ScenarioList(repairs) + ". Nothing brings it back.",
                            "A condition such as " + checked.facts->condition + "."});
    }
    if (deletes.notOnUpgrade && package.schedule.MayRun(id, Scenario::UpgradeOld)) {
        findings.push_back({"deletes-on-upgrade", id,
                            "\"" + id + "\" deletes " + deletes.what +
                                ", and runs when a newer version removes this one, which still needs it.",
                            "A condition such as " + checked.facts->condition + "."});
    }
    if (deletes.notInNewVersion && repairs.empty() && RemovesOlder(package) &&
        package.schedule.MayRun(id, Scenario::UpgradeNew)) {
        findings.push_back({"deletes-on-upgrade", id,
                            "\"" + id + "\" deletes " + deletes.what +
                                ", and runs when this version replaces an older one, whose data that may be.",
                            "A condition such as " + checked.facts->condition + "."});
    }
}

bool RefusesInstall(const ActionFacts& facts) {
    return facts.execution == Execution::Immediate &&
           std::any_of(facts.results.begin(), facts.results.end(),
                       [](const Result& result) { return result.outcome == Outcome::Refused; });
}

void CheckLaunchGuard(const CheckedPackage& package, const CheckedAction& checked, Findings& findings) {
    const auto removals = Running(package, checked.Id(), {Scenario::Uninstall, Scenario::UpgradeOld});
    if (RefusesInstall(*checked.facts) && !removals.empty()) {
        findings.push_back({"guard-on-uninstall", checked.Id(),
                            "\"" + checked.Id() + "\" may refuse, and runs in: " + ScenarioList(removals) +
                                ". The product can then not be removed from the control panel.",
                            "A condition such as NOT Installed."});
    }
}

bool SameView(const RegistryRead& read, int root, bool view64) {
    // Only the machine's software has two views.
    const bool twoViews = root != kUserRoot && Lower(read.key).compare(0, 9, "software\\") == 0;
    return !twoViews || view64 == !read.view32;
}

bool SameRoot(const RegistryRead& read, int root) {
    const int wanted = read.root == "HKCU" ? kUserRoot : read.root == "HKCR" ? kClassesRoot : kMachineRoot;
    return root == wanted || (root == kAnyRoot && wanted == kMachineRoot);
}

// A key is there when something below it is; a value only when it is that value.
template <typename Row>
bool Covers(const Row& row, const RegistryRead& read) {
    if (!SameRoot(read, row.root) || !SameView(read, row.root, row.view64)) {
        return false;
    }
    return read.value.empty() ? SameKeyOrBelow(row.key, read.key)
                              : Key(row.key) == Key(read.key) && Lower(row.name) == Lower(read.value);
}

bool WrittenByPackage(const CheckedPackage& package, const RegistryRead& read) {
    return std::any_of(package.tables.registry.begin(), package.tables.registry.end(),
                       [&](const RegistryRow& row) { return Covers(row, read); });
}

// The package's own value is there: written before the action in an install, not yet removed in a removal.
bool ThereInScenario(const CheckedPackage& package, const CheckedAction& checked, Scenario scenario) {
    const auto written = package.tables.Sequence("WriteRegistryValues");
    const auto removed = package.tables.Sequence("RemoveRegistryValues");
    switch (scenario) {
        case Scenario::FirstInstall:
        case Scenario::UpgradeNew:
        case Scenario::FailedInstall:
            return written && checked.sequence > *written;
        case Scenario::UpgradeOld:
        case Scenario::Uninstall:
            return !removed || checked.sequence < *removed;
        default:
            return true;
    }
}

// A search whose answer keeps the action from running: one for this very key, or one that is no registry
// search (for a file or a component), of which the package's author knows what it tells.
bool SearchGuards(const CheckedPackage& package, const CheckedAction& checked, const RegistryRead& read) {
    const bool runsOnBareMachine =
        std::any_of(kAllScenarios.begin(), kAllScenarios.end(), [&](Scenario scenario) {
            return package.schedule.Runs(checked.Id(), scenario, Machine::Bare) &&
                   !(WrittenByPackage(package, read) && ThereInScenario(package, checked, scenario));
        });
    if (runsOnBareMachine) {
        return false;
    }
    const std::vector<std::string> names = PropertiesInCondition(checked.condition);
    return std::any_of(package.tables.searches.begin(), package.tables.searches.end(),
                       [&](const SearchRow& search) {
                           return std::find(names.begin(), names.end(), search.property) != names.end() &&
                                  (!search.registry || Covers(search, read));
                       });
}

bool PackageGuards(const CheckedPackage& package, const CheckedAction& checked, const RegistryRead& read) {
    return WrittenByPackage(package, read) &&
           std::all_of(kAllScenarios.begin(), kAllScenarios.end(), [&](Scenario scenario) {
               return !package.schedule.MayRun(checked.Id(), scenario) ||
                      ThereInScenario(package, checked, scenario);
           });
}

bool RunsAnywhere(const CheckedPackage& package, const CheckedAction& checked) {
    return std::any_of(kAllScenarios.begin(), kAllScenarios.end(),
                       [&](Scenario scenario) { return package.schedule.MayRun(checked.Id(), scenario); });
}

std::string ReadText(const RegistryRead& read) {
    return read.root + "\\" + read.key + (read.value.empty() ? "" : ", value " + read.value) +
           (read.view32 ? " (32-bit view)" : "");
}

std::string GuardText(const CheckedAction& checked, const RegistryRead& read) {
    Guard guard = {.property = "FOUND", .root = read.root, .key = read.key, .value = read.value};
    for (const Guard& known : checked.facts->guards) {
        guard = SameKeyOrBelow(known.key, read.key) ? known : guard;
    }
    return "A registry search for " + guard.root + "\\" + guard.key +
           (guard.value.empty() ? "" : ", value " + guard.value) + ", into a property (" + guard.property +
           "), and that property in the action's condition.";
}

// Windows itself cannot be without these.
bool AlwaysThere(const RegistryRead& read) {
    return read.root == "HKLM" && SameKeyOrBelow(read.key, kSystemsOwnKey);
}

void CheckEscapingError(const CheckedPackage& package, const CheckedAction& checked, Findings& findings) {
    for (const RegistryRead& read : checked.facts->reads) {
        if (!read.absenceLetsErrorOut || AlwaysThere(read) || !RunsAnywhere(package, checked) ||
            PackageGuards(package, checked, read) || SearchGuards(package, checked, read)) {
            continue;
        }
        findings.push_back({"error-escapes-unguarded", checked.Id(),
                            "\"" + checked.Id() +
                                "\" lets an error out, which ends its process and the "
                                "installation, where this is missing: " +
                                ReadText(read) + ". Nothing here keeps it from running there.",
                            GuardText(checked, read)});
        return;
    }
}

bool ScheduledWithEntry(const CheckedPackage& package, const std::string& entry, Scenario scenario) {
    return std::any_of(package.library.actions.begin(), package.library.actions.end(),
                       [&](const LibraryAction& action) {
                           return action.meant == entry && !action.Rollback() &&
                                  package.tables.Sequence(action.id).has_value() &&
                                  package.schedule.MayRun(action.id, scenario);
                       });
}

bool RunsInAnInstall(const CheckedPackage& package, const CheckedAction& checked) {
    return package.schedule.MayRun(checked.Id(), Scenario::FirstInstall) ||
           package.schedule.MayRun(checked.Id(), Scenario::UpgradeNew);
}

// What would take the actions back is missing once, however many they are.
void CheckCounterparts(const CheckedPackage& package, Findings& findings) {
    std::map<std::string, std::vector<std::string>> missing;
    for (const CheckedAction& checked : package.actions) {
        const std::string& counterpart = checked.facts->takenBackBy;
        // Immediate ones change what the deferred ones have made.
        if (!counterpart.empty() && checked.action->InScript() && !checked.action->Rollback() &&
            RunsInAnInstall(package, checked) &&
            !ScheduledWithEntry(package, counterpart, Scenario::Uninstall)) {
            missing[counterpart].push_back(checked.Id());
        }
    }
    for (const auto& [counterpart, actions] : missing) {
        const ActionFacts* facts = FindAction(counterpart);
        const std::string condition = facts != nullptr ? facts->condition : std::string();
        findings.push_back(
            {"no-counterpart", actions.front(),
             Quoted(actions) + " changes the machine in an install, and nothing takes it back in an "
                               "uninstall.",
             "Schedule \"" + counterpart + "\" there" + (condition.empty() ? "." : " (" + condition + ").")});
    }
}

// Where a rollback action of an action stands, seen from that action.
enum class RollbackPlace { None, Good, After, OtherCondition };

RollbackPlace PlaceOfRollback(const CheckedPackage& package, const CheckedAction& checked,
                              const LibraryAction& undo) {
    const auto sequence = package.tables.Sequence(undo.id);
    if (undo.meant != checked.facts->rollback || !undo.Rollback() || !sequence) {
        return RollbackPlace::None;
    }
    if (*sequence > checked.sequence) {
        return RollbackPlace::After;
    }
    // It may leave out machines on which something was there before: what it finds then is not its own.
    return package.schedule.MayRun(undo.id, Scenario::FirstInstall) ? RollbackPlace::Good
                                                                    : RollbackPlace::OtherCondition;
}

Finding MisplacedRollback(RollbackPlace place, const std::string& id, const std::string& undo) {
    if (place == RollbackPlace::After) {
        return {"rollback-after-action", id,
                "\"" + undo + "\" takes \"" + id + "\" back, but stands behind it: when \"" + id +
                    "\" itself fails half-way, it is not in the script yet.",
                "A sequence number before \"" + id + "\"."};
    }
    return {"rollback-under-other-condition", id,
            "\"" + undo + "\" takes \"" + id +
                "\" back, but it does not run in a first install, in which \"" + id + "\" runs.",
            "A condition such as NOT Installed."};
}

void CheckRollback(const CheckedPackage& package, const CheckedAction& checked, const Findings& known,
                   Findings& findings) {
    const std::string& id = checked.Id();
    const std::string& undo = checked.facts->rollback;
    if (undo.empty() || !package.schedule.MayRun(id, Scenario::FirstInstall)) {
        return;
    }
    std::optional<Finding> problem = Finding{
        "no-rollback", id, "When an install fails after \"" + id + "\", what it did stays on the machine.",
        "A rollback action with the entry point \"" + undo + "\", scheduled before \"" + id + "\"."};
    for (const LibraryAction& action : package.library.actions) {
        const RollbackPlace place = PlaceOfRollback(package, checked, action);
        const bool reported =
            action.meant == undo && std::any_of(known.begin(), known.end(), [&](const Finding& f) {
                return f.id == "rollback-is-immediate" && f.action == action.id;
            });
        if (place == RollbackPlace::Good || reported) {
            return;
        }
        if (place != RollbackPlace::None) {
            problem = MisplacedRollback(place, id, action.id);
        }
    }
    findings.push_back(*problem);
}

void CheckConsent(const CheckedPackage& package, const CheckedAction& checked, Findings& findings) {
    if (checked.facts->name != kConsentAction) {
        return;
    }
    std::vector<Scenario> again = Running(package, checked.Id(), {Scenario::Repair, Scenario::MinorUpgrade});
    if (RemovesOlder(package) && package.schedule.MayRun(checked.Id(), Scenario::UpgradeNew)) {
        again.push_back(Scenario::UpgradeNew);
    }
    if (!again.empty()) {
        findings.push_back({"consent-overwritten", checked.Id(),
                            "\"" + checked.Id() + "\" records that the user agreed, and runs in: " +
                                ScenarioList(again) + ". A refused consent does not survive that.",
                            "First installs only: NOT Installed, and not where an older version was found."});
    }
}

void CheckFilePlace(const CheckedPackage& package, const CheckedAction& checked, Findings& findings) {
    const auto installed = package.tables.Sequence("InstallFiles");
    const auto removed = package.tables.Sequence("RemoveFiles");
    const std::string& id = checked.Id();
    if (Among(kNeedInstalledFiles, checked.facts->name) && installed && checked.sequence < *installed &&
        RunsInAnInstall(package, checked)) {
        findings.push_back({"before-files-installed", id,
                            "\"" + id + "\" works with installed files, but stands before InstallFiles.",
                            "A sequence number behind InstallFiles and WriteRegistryValues."});
    }
    if (Among(kNeedFilesStill, checked.facts->name) && removed && checked.sequence > *removed &&
        package.schedule.MayRun(id, Scenario::Uninstall)) {
        findings.push_back({"after-files-removed", id,
                            "\"" + id + "\" calls the product's files, but stands behind RemoveFiles.",
                            "A sequence number before RemoveFiles."});
    }
}

// A value of the package's own that an uninstall removes before the action asks for it.
void CheckValueStillThere(const CheckedPackage& package, const CheckedAction& checked, Findings& findings) {
    if (!checked.facts->data.whole.empty() || !package.schedule.MayRun(checked.Id(), Scenario::Uninstall)) {
        return;  // with a folder in the action data the action does without the value
    }
    for (const RegistryRead& read : checked.facts->reads) {
        if (!read.absenceLetsErrorOut && WrittenByPackage(package, read) &&
            !ThereInScenario(package, checked, Scenario::Uninstall)) {
            findings.push_back({"after-registry-removed", checked.Id(),
                                "\"" + checked.Id() + "\" reads " + ReadText(read) +
                                    ", but stands behind RemoveRegistryValues, which takes it away.",
                                "A sequence number before RemoveRegistryValues."});
            return;
        }
    }
}

void CheckRemoval(const CheckedPackage& package, Findings& findings) {
    const auto removal = package.tables.Sequence("RemoveExistingProducts");
    if (!removal || !RemovesOlder(package)) {
        return;
    }
    std::vector<std::string> undone;
    for (const CheckedAction& checked : package.actions) {
        if (checked.sequence < *removal && checked.action->InScript() && !checked.action->Rollback() &&
            checked.facts->deletes.what.empty() && !Among(kUnharmedByRemoval, checked.facts->name) &&
            package.schedule.MayRun(checked.Id(), Scenario::UpgradeNew)) {
            undone.push_back(checked.Id());
        }
    }
    if (!undone.empty()) {
        findings.push_back(
            {"removal-behind-new-actions", "RemoveExistingProducts",
             "RemoveExistingProducts (sequence " + std::to_string(*removal) +
                 ") removes the older version when the newer one's actions have run: its uninstall "
                 "takes away what they made: " +
                 Quoted(undone) + ".",
             "A sequence number before the first of them: right behind InstallValidate or "
             "InstallInitialize."});
    }
}

}  // namespace

void CheckSchedule(const CheckedPackage& package, Findings& findings) {
    const Findings known = findings;
    for (const CheckedAction& checked : package.actions) {
        if (checked.action->Rollback()) {
            continue;
        }
        CheckDeletion(package, checked, findings);
        CheckLaunchGuard(package, checked, findings);
        CheckFilePlace(package, checked, findings);
        CheckEscapingError(package, checked, findings);
        CheckValueStillThere(package, checked, findings);
        CheckRollback(package, checked, known, findings);
        CheckConsent(package, checked, findings);
    }
    CheckCounterparts(package, findings);
    CheckRemoval(package, findings);
}

}  // namespace corvi::tool
