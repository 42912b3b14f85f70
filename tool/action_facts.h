#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvi::tool {

// What is known about each exported action. Every verb, the include for package authors and the lists
// test speak from this one table. All texts are UTF-8, sentences without a line break.

/// When the installer runs the action: while it reads the sequence, or later from its script.
enum class Execution { Immediate, Deferred };

/// What the installer does with a result that is not 0: the include's Return attribute.
enum class Return { Check, Ignore };

/// What a result says about the action's work, whatever number stands for it.
enum class Outcome {
    Done,     ///< the work was done, or there was nothing to do
    Nothing,  ///< the action found nothing to work on; no failure
    Skip,     ///< 259: skip the rest of the sequence, successfully
    Refused,  ///< the action says no on purpose: the install must not go on
    Failed,   ///< the work could not be done
};

// NOLINTBEGIN(readability-redundant-member-init): a table's row names the members that it sets, and leaving
// out one that has no initializer is a warning

/// One result that the action can return.
struct Result {
    /// The number as the installer shows it; not set: any other number.
    std::optional<std::uint32_t> code = {};
    Outcome outcome = Outcome::Done;
    std::string meaning = {};
};

/// One "Key=value" entry of the action data.
struct DataKey {
    std::string name = {};  ///< with its equals sign: "ClientName="
    bool optional = false;  ///< may be left out altogether
    bool mayBeEmpty = false;
    std::string example = {};  ///< a value as a package writes it, properties in brackets
    std::string meaning = {};
    std::string misuse = {};  ///< what happens when it is missing, misspelt or misplaced
};

/// The action data that an action reads: entries in the order in which they must stand, or one whole text.
struct ActionData {
    std::vector<DataKey> keys = {};
    /// The whole text is one value (a folder): what it means; empty when the action reads keys or nothing.
    std::string whole = {};
    std::string wholeExample = {};
    /// The action works without any action data.
    bool optional = false;
    bool Any() const { return !keys.empty() || !whole.empty(); }
};

/// A registry value (or key, when the value's name is empty) that the action reads.
struct RegistryRead {
    std::string root = {};  ///< "HKLM" or "HKCU"
    std::string key = {};
    std::string value = {};
    bool view32 = false;
    /// Its absence lets a registry error out of the action: the package needs a guard.
    bool absenceLetsErrorOut = false;
    std::string meaning = {};
};

/// A registry search that tells whether an action's key is there. Every action that lets an error out
/// when it is not runs under a condition that names the search's property.
struct Guard {
    std::string property = {};  ///< public, so that a full-UI install hands it to the server side
    std::string root = {};      ///< "HKLM" or "HKCU"
    std::string key = {};
    std::string value = {};
    bool view32 = false;
    std::string reason = {};  ///< what the search stands for
};

/// What the action deletes; nothing when `what` is empty.
struct Deletion {
    std::string what = {};
    bool notOnRepair = false;   ///< a repair must not run it: what it deletes is not brought back
    bool notOnUpgrade = false;  ///< a major upgrade must not run it: the newer version needs it
    /// Nor the newer version's own install, where an older one is replaced.
    bool notInNewVersion = false;
};

/// One text that the action writes to the installer's log, %s and %d where text and numbers stand.
struct LogText {
    std::string text = {};
    std::string meaning = {};
    /// What a reader would take it for by mistake: another action's prefix, another service's name.
    std::string trap = {};
};

struct ActionFacts {
    std::string name = {};
    std::string room = {};     ///< the heading under which include and reference have it
    std::string purpose = {};  ///< one line
    Execution execution = Execution::Deferred;
    bool impersonated = false;  ///< deferred: Impersonate="yes"
    Return onResult = Return::Ignore;
    std::string returnReason = {};  ///< why that attribute
    std::string schedule = {};      ///< where in the sequence it belongs, and why
    std::string condition = {};     ///< the recommended condition, as a package writes it
    /// Where in the execute sequence it usually stands, as an attribute: After="InstallInitialize".
    std::string place = {};
    ActionData data = {};
    std::vector<std::string> properties = {};  ///< session properties that it reads
    std::vector<RegistryRead> reads = {};
    /// The searches that the recommended condition needs, one for each key whose absence lets an error out.
    std::vector<Guard> guards = {};
    /// What the conditions ask for besides: what was on the machine before this install.
    std::vector<Guard> searches = {};
    /// The package itself writes what the guards look for before the action runs: then it needs none.
    bool ownPackageWritesKeys = false;
    std::string changes = {};
    Deletion deletes = {};
    bool needsElevation = true;
    std::string takenBackBy = {};    ///< the action that takes its change back on an uninstall; may be empty
    std::string takenBackNote = {};  ///< what takes the change back where no action does
    /// The exported action that the include declares as NAME.Rollback, Execute="rollback"; may be empty.
    std::string rollback = {};
    bool rollbackTakesData = false;  ///< the rollback's entry point needs action data of its own
    /// When the rollback may run: it must not take away what was there before.
    std::string rollbackCondition = {};
    std::vector<Result> results = {};
    std::vector<LogText> log = {};
    std::string onFailure = {};  ///< what to look at next when it failed
};

// NOLINTEND(readability-redundant-member-init)

/// A heading of include and reference, and what the include says about the attributes below it.
struct Room {
    std::string name;
    std::string comment;
};

/// All rooms, in the order of the include.
const std::vector<Room>& AllRooms();

/// All actions, in the order of the include.
const std::vector<ActionFacts>& AllActions();

/// The action of that name in just this spelling, or null.
const ActionFacts* FindAction(std::string_view name);

/// The action whose name equals this one without regard to case, or the one whose name is nearest to it
/// (for "did you mean"), or null when none is near.
const ActionFacts* NearestAction(std::string_view name);

/// How many letters must be changed, added or taken away to make one text of the other, without regard to
/// case.
std::size_t Distance(std::string_view left, std::string_view right);

/// What a result of the action means: its own row, else the row for any other number, else null.
const Result* ResultMeaning(const ActionFacts& action, std::uint32_t code);

}  // namespace corvi::tool
