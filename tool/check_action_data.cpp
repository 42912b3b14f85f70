#include <algorithm>
#include <cctype>
#include <optional>
#include <set>

#include "tool/check_findings.h"
#include "tool/condition_text.h"

// The action data of deferred actions: whether it is there when the action is written to the script, and
// whether its text says what the action reads.

namespace corvi::tool {
namespace {

constexpr unsigned kBasicType = 0x3F;
constexpr unsigned kSetProperty = 0x33;
constexpr unsigned kDllInBinaryTable = 0x01;
constexpr unsigned kScriptsInBinaryTable[] = {0x05, 0x06};
constexpr unsigned kScriptsInTarget[] = {0x25, 0x26};
constexpr unsigned kInScript = 0x400;
// A name that differs by so many letters is a slip of the pen.
constexpr std::size_t kSlip = 2;

bool Setter(const CustomActionRow& row) { return (row.type & kBasicType) == kSetProperty; }

std::vector<const CustomActionRow*> SettersOf(const CheckedPackage& package, const std::string& property) {
    std::vector<const CustomActionRow*> setters;
    for (const CustomActionRow& row : package.tables.customActions) {
        if (Setter(row) && row.source == property) {
            setters.push_back(&row);
        }
    }
    return setters;
}

// A property action whose property looks like the wanted one and belongs to no action of its own.
const CustomActionRow* MisspeltSetter(const CheckedPackage& package, const std::string& property) {
    for (const CustomActionRow& row : package.tables.customActions) {
        if (Setter(row) && Distance(row.source, property) <= kSlip &&
            package.library.Find(row.source) == nullptr) {
            return &row;
        }
    }
    return nullptr;
}

std::string Utf16Bytes(const std::string& ascii) {
    std::string bytes;
    for (const char c : ascii) {
        bytes += c;
        bytes += '\0';
    }
    return bytes;
}

bool Mentions(const std::string& text, const std::string& name) {
    return text.find(name) != std::string::npos || text.find(Utf16Bytes(name)) != std::string::npos;
}

// Another immediate action whose code names the property may set it: what it does is not seen here.
bool ForeignCodeMaySet(const CheckedPackage& package, const std::string& property) {
    for (const CustomActionRow& row : package.tables.customActions) {
        const unsigned basic = row.type & kBasicType;
        const bool inBinary =
            basic == kDllInBinaryTable ||
            std::count(std::begin(kScriptsInBinaryTable), std::end(kScriptsInBinaryTable), basic) > 0;
        const bool inTarget = std::count(std::begin(kScriptsInTarget), std::end(kScriptsInTarget), basic) > 0;
        if ((row.type & kInScript) != 0 || package.library.Find(row.id) != nullptr ||
            (!inBinary && !inTarget)) {
            continue;
        }
        if (Mentions(row.target, property) ||
            (inBinary && Mentions(package.database->BinaryData(row.source).value_or(""), property))) {
            return true;
        }
    }
    return false;
}

// A deletion that must not run there at all is a mistake of its own.
bool MustNotRun(const ActionFacts& facts, Scenario scenario) {
    const bool repair = scenario == Scenario::Repair || scenario == Scenario::MinorUpgrade;
    return (repair && facts.deletes.notOnRepair) ||
           (scenario == Scenario::UpgradeOld && facts.deletes.notOnUpgrade);
}

// The scenarios in which the action runs and has no data.
std::vector<Scenario> WithoutData(const CheckedPackage& package, const CheckedAction& checked) {
    std::vector<Scenario> without;
    for (const Scenario scenario : kAllScenarios) {
        const bool missing = std::any_of(kMachines.begin(), kMachines.end(), [&](Machine machine) {
            const SequenceRun& run = package.schedule.Run(checked.Id(), scenario, machine);
            return run.runs && run.setter.empty() && run.data.empty();
        });
        // A failed install does what a first install does: once is enough.
        if (missing && scenario != Scenario::FailedInstall && !MustNotRun(*checked.facts, scenario)) {
            without.push_back(scenario);
        }
    }
    return without;
}

std::string Keys(const ActionFacts& facts) {
    if (facts.data.keys.empty()) {
        return facts.data.wholeExample.empty() ? "a folder" : "\"" + facts.data.wholeExample + "\"";
    }
    std::string text;
    for (const DataKey& key : facts.data.keys) {
        text += (text.empty() ? "\"" : ";") + key.name + key.example;
    }
    return text + "\"";
}

Finding NotSet(const CheckedPackage& package, const CheckedAction& checked) {
    const std::string& id = checked.Id();
    std::string reason =
        "\"" + id + "\" reads action data, but no scheduled action sets the property \"" + id + "\".";
    if (const CustomActionRow* slip = MisspeltSetter(package, id)) {
        reason += " \"" + slip->id + "\" sets \"" + slip->source + "\".";
    } else if (!SettersOf(package, id).empty()) {
        reason += " \"" + SettersOf(package, id).front()->id + "\" would, but it is not in the sequence.";
    }
    return {"data-not-set", id, reason,
            "A property action with Property=\"" + id + "\" and a Value such as " + Keys(*checked.facts) +
                ", scheduled just before it."};
}

// Nothing when the action has its data wherever it runs.
std::optional<Finding> MissingData(const CheckedPackage& package, const CheckedAction& checked) {
    const std::vector<Scenario> without = WithoutData(package, checked);
    const std::string& id = checked.Id();
    if (without.empty() || ForeignCodeMaySet(package, id)) {
        return std::nullopt;
    }
    std::vector<std::pair<const CustomActionRow*, int>> scheduled;
    for (const CustomActionRow* setter : SettersOf(package, id)) {
        if (const auto sequence = package.tables.Sequence(setter->id)) {
            scheduled.emplace_back(setter, *sequence);
        }
    }
    if (scheduled.empty()) {
        return NotSet(package, checked);
    }
    const auto late = std::find_if(scheduled.begin(), scheduled.end(),
                                   [&](const auto& setter) { return setter.second >= checked.sequence; });
    if (late != scheduled.end()) {
        return Finding{"data-set-after-action", id,
                       "\"" + late->first->id + "\" (sequence " + std::to_string(late->second) +
                           ") sets the action data of \"" + id + "\" (sequence " +
                           std::to_string(checked.sequence) +
                           ") when that is in the script already: the action gets none.",
                       "Schedule \"" + late->first->id + "\" just before \"" + id + "\"."};
    }
    return Finding{"data-under-other-condition", id,
                   "\"" + id + "\" runs without its action data in: " + ScenarioList(without) + ". \"" +
                       scheduled.front().first->id + "\", which sets it, has another condition.",
                   "The same condition for both."};
}

struct Entry {
    std::string text;  ///< "Key=value" as written, without leading blanks
    std::size_t at = 0;
    std::string Key() const {
        const auto equals = text.find('=');
        return equals == std::string::npos ? std::string() : text.substr(0, equals + 1);
    }
    std::string Value() const { return text.substr(Key().size()); }
};

std::vector<Entry> Entries(const std::string& data) {
    std::vector<Entry> entries;
    for (std::size_t at = 0; at <= data.size();) {
        const std::size_t end = std::min(data.find(';', at), data.size());
        const std::size_t start = std::min(data.find_first_not_of(' ', at), end);
        entries.push_back({data.substr(start, end - start), start});
        at = end + 1;
    }
    return entries;
}

bool KnownKey(const ActionFacts& facts, const std::string& name) {
    return std::any_of(facts.data.keys.begin(), facts.data.keys.end(),
                       [&](const DataKey& key) { return key.name == name; });
}

// Data that a property brings along whole cannot be read here. A directory is a path and brings no keys.
bool HasOpaqueEntry(const CheckedPackage& package, const std::vector<Entry>& entries) {
    const auto& directories = package.tables.directories;
    return std::any_of(entries.begin(), entries.end(), [&](const Entry& entry) {
        const std::size_t close = entry.text.find(']');
        if (entry.text.empty() || entry.text[0] != '[' || close == std::string::npos) {
            return false;
        }
        const std::string name = entry.text.substr(1, close - 1);
        return !name.empty() && std::all_of(name.begin(), name.end(), IsPropertyNamePart) &&
               std::find(directories.begin(), directories.end(), name) == directories.end();
    });
}

std::string Misuse(const DataKey& key) {
    return key.misuse.empty() ? "The action then reads another part of the text." : key.misuse;
}

Finding MisspeltKey(const std::string& id, const DataKey& key, const std::string& written,
                    const std::string& setter) {
    return {"data-key-misspelt", id,
            "The action data of \"" + id + "\" has \"" + written + "\" where the action reads \"" + key.name +
                "\", letter for letter. " + Misuse(key),
            "Write \"" + key.name + "\" in " + setter + "."};
}

std::optional<Finding> CheckAbsentKey(const CheckedPackage& package, const CheckedAction& checked,
                                      const DataKey& key, const std::vector<Entry>& entries,
                                      const std::string& setter) {
    const std::string& id = checked.Id();
    for (const Entry& entry : entries) {
        const std::string written = entry.Key();
        if (!written.empty() && !KnownKey(*checked.facts, written) && Distance(written, key.name) <= kSlip) {
            return MisspeltKey(id, key, written, setter);
        }
    }
    for (const Entry& entry : entries) {
        const std::size_t inside = entry.text.find(key.name);
        if (inside != std::string::npos && inside > 0 &&
            std::isalnum(static_cast<unsigned char>(entry.text[inside - 1])) == 0) {
            return Finding{"data-separator", id,
                           "In the action data of \"" + id + "\" the key \"" + key.name +
                               "\" stands inside the value of \"" + entry.Key() +
                               "\": entries end at a semicolon.",
                           "Put ';' between the entries in " + setter + "."};
        }
    }
    if (key.optional || HasOpaqueEntry(package, entries)) {
        return std::nullopt;
    }
    return Finding{"data-key-missing", id,
                   "The action data of \"" + id + "\" has no \"" + key.name + "\". " + Misuse(key),
                   "Write \"" + key.name + key.example + "\" in " + setter + "."};
}

std::optional<Finding> CheckKey(const CheckedPackage& package, const CheckedAction& checked,
                                const DataKey& key, const std::vector<Entry>& entries,
                                const std::string& data, const std::string& setter) {
    const auto own = std::find_if(entries.begin(), entries.end(),
                                  [&](const Entry& entry) { return entry.Key() == key.name; });
    const std::string& id = checked.Id();
    if (own == entries.end()) {
        return CheckAbsentKey(package, checked, key, entries, setter);
    }
    if (data.find(key.name) < own->at) {
        return Finding{
            "data-key-order", id,
            "In the action data of \"" + id + "\" the text \"" + key.name +
                "\" comes up before its own entry, inside another one; the first place counts, so the "
                "action reads the wrong value.",
            "Put the entry \"" + key.name + "\" first in " + setter + "."};
    }
    if (own->Value().empty() && !key.mayBeEmpty) {
        return Finding{
            "data-key-empty", id,
            "The action data of \"" + id + "\" has \"" + key.name + "\" without a value. " + Misuse(key),
            "Write \"" + key.name + key.example + "\" in " + setter + "."};
    }
    return std::nullopt;
}

std::optional<Finding> CheckWhole(const CheckedAction& checked, const std::string& data,
                                  const std::string& setter) {
    const std::size_t equals = data.find('=');
    if (equals == std::string::npos || equals == 0 ||
        !std::all_of(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(equals),
                     [](unsigned char c) { return std::isalnum(c) != 0; })) {
        return std::nullopt;
    }
    return Finding{"data-not-keyed", checked.Id(),
                   "\"" + checked.Id() + "\" takes its whole action data as one value: \"" +
                       data.substr(0, equals + 1) + "\" becomes part of it.",
                   "Write the value alone in " + setter + "."};
}

// The values of directories are not known before CostFinalize.
std::optional<Finding> CheckTime(const CheckedPackage& package, const CheckedAction& checked,
                                 const SequenceRun& run) {
    const auto costed = package.tables.Sequence("CostFinalize");
    const auto set = package.tables.Sequence(run.setter);
    if (!costed || !set || *set > *costed) {
        return std::nullopt;
    }
    for (const std::string& directory : package.tables.directories) {
        if (run.data.find("[" + directory + "]") != std::string::npos &&
            package.tables.properties.count(directory) == 0) {
            return Finding{"data-set-before-costing", checked.Id(),
                           "\"" + run.setter + "\" (sequence " + std::to_string(*set) +
                               ") sets the action data of \"" + checked.Id() + "\" from [" + directory +
                               "] before CostFinalize, when directories have no value yet.",
                           "A sequence number behind CostFinalize."};
        }
    }
    return std::nullopt;
}

std::optional<Finding> CheckText(const CheckedPackage& package, const CheckedAction& checked,
                                 const SequenceRun& run) {
    if (auto early = CheckTime(package, checked, run)) {
        return early;
    }
    const std::string setter = run.setter.empty() ? "the property" : "\"" + run.setter + "\"";
    if (!checked.facts->data.whole.empty()) {
        return CheckWhole(checked, run.data, setter);
    }
    const std::vector<Entry> entries = Entries(run.data);
    for (const DataKey& key : checked.facts->data.keys) {
        if (auto finding = CheckKey(package, checked, key, entries, run.data, setter)) {
            return finding;
        }
    }
    return std::nullopt;
}

void CheckTexts(const CheckedPackage& package, const CheckedAction& checked, Findings& findings) {
    std::set<std::string> seen;
    for (const Scenario scenario : kAllScenarios) {
        for (const Machine machine : kMachines) {
            const SequenceRun& run = package.schedule.Run(checked.Id(), scenario, machine);
            if (!run.runs || (run.setter.empty() && run.data.empty()) || !seen.insert(run.setter).second) {
                continue;
            }
            if (auto finding = CheckText(package, checked, run)) {
                findings.push_back(*finding);
            }
        }
    }
}

}  // namespace

void CheckActionData(const CheckedPackage& package, Findings& findings) {
    for (const CheckedAction& checked : package.actions) {
        if (!checked.action->InScript() || !checked.facts->data.Any()) {
            continue;
        }
        const auto missing = checked.facts->data.optional ? std::nullopt : MissingData(package, checked);
        if (missing) {
            findings.push_back(*missing);
        } else {
            CheckTexts(package, checked, findings);
        }
    }
}

}  // namespace corvi::tool
