#include "tool/check_report.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "tool/console.h"

namespace corvi::tool {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kNameColumns = 38;
constexpr std::size_t kCellColumns = 5;
constexpr unsigned kBasicType = 0x3F;
constexpr unsigned kSetProperty = 0x33;

// Standard actions that say where in the installation a row stands.
constexpr const char* kLandmarks[] = {"CostFinalize",    "InstallInitialize",     "RemoveRegistryValues",
                                      "RemoveFiles",     "InstallFiles",          "WriteRegistryValues",
                                      "InstallFinalize", "RemoveExistingProducts"};

constexpr char kLegend[] =
    "inst first install; rep repair; min minor upgrade; old, new a major upgrade: "
    "the old product's removal and the new one's install; rem uninstall; fail an "
    "install that fails at its end. yes: runs; if: runs only when a search finds "
    "something or a property is given; undo: a rollback action, runs only when the "
    "run fails; -: does not run.";

bool IsLandmark(const std::string& name) {
    return std::find(std::begin(kLandmarks), std::end(kLandmarks), name) != std::end(kLandmarks);
}

// A property action that sets the action data of one of the library's actions.
bool SetsActionData(const CheckedPackage& package, const std::string& id) {
    const CustomActionRow* row = package.tables.FindCustomAction(id);
    return row != nullptr && (row->type & kBasicType) == kSetProperty &&
           package.library.Find(row->source) != nullptr;
}

std::string Cell(const CheckedPackage& package, const std::string& id, Scenario scenario) {
    if (!package.schedule.MayRun(id, scenario)) {
        return "-";
    }
    const LibraryAction* action = package.library.Find(id);
    if (action != nullptr && action->Rollback()) {
        return "undo";
    }
    return package.schedule.AlwaysRuns(id, scenario) ? "yes" : "if";
}

std::string RightAligned(const std::string& text, std::size_t columns) {
    return text.size() < columns ? std::string(columns - text.size(), ' ') + text : text;
}

std::string MatrixRow(const std::string& number, const std::string& name, const std::string& cells) {
    std::string line = RightAligned(number, kCellColumns) + " " + name;
    if (cells.empty()) {
        return line + "\n";
    }
    const std::size_t columns = kCellColumns + 1 + kNameColumns;
    if (Width(line) > columns) {
        return line + "\n" + std::string(columns, ' ') + cells + "\n";
    }
    return line + std::string(columns - Width(line), ' ') + cells + "\n";
}

std::string Heading() {
    std::string cells;
    for (const Scenario scenario : kAllScenarios) {
        cells += RightAligned(ScenarioHeading(scenario), kCellColumns);
    }
    const std::string dashes = std::string(kNameColumns, '-');
    return MatrixRow("seq", "action", cells) +
           MatrixRow("-----", dashes, std::string(kCellColumns * kScenarios, '-'));
}

std::string Matrix(const CheckedPackage& package) {
    std::string text = Heading();
    for (const SequenceRow& row : package.tables.executeSequence) {
        const bool own = package.library.Find(row.action) != nullptr || SetsActionData(package, row.action);
        if (own || row.action == "RemoveExistingProducts") {
            std::string cells;
            for (const Scenario scenario : kAllScenarios) {
                cells += RightAligned(Cell(package, row.action, scenario), kCellColumns);
            }
            text += MatrixRow(std::to_string(row.sequence), row.action, own ? cells : "");
        } else if (IsLandmark(row.action)) {
            text += MatrixRow(std::to_string(row.sequence), row.action, "");
        }
    }
    return text + "\n" + Wrap(kLegend);
}

std::string FindingText(const Finding& finding) {
    return Wrap(finding.id + ": " + finding.action, "", "  ") + Wrap(finding.reason, "  ", "  ") +
           Wrap("mend: " + finding.mend, "  ", "        ");
}

std::string Count(std::size_t number, const std::string& what) {
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

std::size_t Scheduled(const CheckedPackage& package) {
    return static_cast<std::size_t>(std::count_if(
        package.library.actions.begin(), package.library.actions.end(),
        [&](const LibraryAction& action) { return package.tables.Sequence(action.id).has_value(); }));
}

std::string PackageLine(const CheckedPackage& package) {
    return package.tables.Property("ProductName") + " " + package.tables.Property("ProductVersion") +
           ", template " + package.tables.summaryTemplate;
}

std::string Sources(const CheckedPackage& package) {
    std::string text;
    for (const std::string& source : package.library.sources) {
        text += (text.empty() ? "" : ", ") + source;
    }
    return text;
}

Json FindingJson(const Finding& finding) {
    return {
        {"id", finding.id}, {"action", finding.action}, {"reason", finding.reason}, {"mend", finding.mend}};
}

Json ActionJson(const CheckedPackage& package, const SequenceRow& row) {
    Json json = {{"action", row.action}, {"sequence", row.sequence}, {"condition", row.condition}};
    if (const CustomActionRow* declared = package.tables.FindCustomAction(row.action)) {
        json["type"] = declared->type;
    }
    if (const LibraryAction* action = package.library.Find(row.action)) {
        json["entryPoint"] = action->entry;
        json["attributes"] = action->Attributes();
    } else if (SetsActionData(package, row.action)) {
        json["sets"] = package.tables.FindCustomAction(row.action)->source;
        json["value"] = package.tables.FindCustomAction(row.action)->target;
    }
    for (const Scenario scenario : kAllScenarios) {
        json["scenarios"][ScenarioName(scenario)] = Cell(package, row.action, scenario);
    }
    return json;
}

}  // namespace

std::string CountInWords(const CheckReport& report) {
    return (report.findings.empty() ? std::string("No findings") : Count(report.findings.size(), "finding")) +
           (report.suppressed.empty() ? "" : ", " + std::to_string(report.suppressed.size()) + " suppressed");
}

std::string CheckReportText(const CheckReport& report) {
    const CheckedPackage& package = report.package;
    std::string text = Wrap(PackageLine(package));
    if (package.library.actions.empty()) {
        return text + "No custom action of this package comes from the library: nothing to check.\n";
    }
    text += Wrap("library: " + Sources(package) + "; " + Count(package.library.actions.size(), "action") +
                 " declared, " + std::to_string(Scheduled(package)) + " scheduled") +
            "\n" + Matrix(package) + "\n";
    for (const Finding& finding : report.findings) {
        text += FindingText(finding) + "\n";
    }
    for (const SuppressedFinding& kept : report.suppressed) {
        text += Wrap("suppressed: " + kept.finding.id + ": " + kept.finding.action, "", "  ") +
                Wrap(kept.finding.reason, "  ", "  ") + Wrap("kept: " + kept.reason, "  ", "        ") + "\n";
    }
    for (const Suppression& unused : report.unused) {
        text += Wrap("note: nothing to suppress for " + unused.id + " " + unused.action, "", "  ") + "\n";
    }
    return text + CountInWords(report) + ".\n";
}

std::string CheckReportJson(const CheckReport& report) {
    const CheckedPackage& package = report.package;
    Json json = {{"package", ToUtf8(package.tables.path)},
                 {"product", package.tables.Property("ProductName")},
                 {"version", package.tables.Property("ProductVersion")},
                 {"template", package.tables.summaryTemplate},
                 {"usesLibrary", !package.library.actions.empty()},
                 {"library", package.library.sources},
                 {"actions", Json::array()},
                 {"findings", Json::array()},
                 {"suppressed", Json::array()},
                 {"unusedSuppressions", Json::array()}};
    for (const SequenceRow& row : package.tables.executeSequence) {
        if (package.library.Find(row.action) != nullptr || SetsActionData(package, row.action) ||
            row.action == "RemoveExistingProducts") {
            json["actions"].push_back(ActionJson(package, row));
        }
    }
    for (const Finding& finding : report.findings) {
        json["findings"].push_back(FindingJson(finding));
    }
    for (const SuppressedFinding& kept : report.suppressed) {
        Json one = FindingJson(kept.finding);
        one["kept"] = kept.reason;
        json["suppressed"].push_back(one);
    }
    for (const Suppression& unused : report.unused) {
        json["unusedSuppressions"].push_back({{"id", unused.id}, {"action", unused.action}});
    }
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace corvi::tool
