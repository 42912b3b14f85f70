#include "tool/package_scenarios.h"

#include <msidefs.h>
#include <msiquery.h>

#include <algorithm>
#include <set>

#include "tool/condition_text.h"
#include "tool/console.h"

namespace corvi::tool {
namespace {

constexpr unsigned kBasicType = 0x3F;
constexpr unsigned kSetProperty = 0x33;
constexpr unsigned kSetDirectory = 0x23;
constexpr int kOnlyDetect = 2;  // msidbUpgradeAttributesOnlyDetect
constexpr char kOtherProduct[] = "{00000000-0000-0000-0000-00000000C0DE}";
// Stands where a state has no number that a condition can hold as it is.
constexpr char kNoStateProperty[] = "CorviNoState";

constexpr char kStateLocal[] = "3";
constexpr char kStateAbsent[] = "2";

// What the installer sets before it comes to the sequence. Those of the operating system are given too, so
// that the answer does not depend on the machine that checks.
struct Setting {
    const char* name;
    const char* value;
};
constexpr Setting kEverywhere[] = {
    {"VersionNT", "603"},      {"VersionNT64", "603"}, {"WindowsBuild", "9600"},
    {"MsiNTProductType", "1"}, {"AdminUser", "1"},     {"Privileged", "1"},
    {"ALLUSERS", "1"},         {"ACTION", "INSTALL"},  {"EXECUTEACTION", "INSTALL"},
};

// What tells the scenarios apart: every name stands in each of them, an empty value takes it away.
constexpr Setting kInstall[] = {{"Installed", ""}, {"REINSTALL", ""},     {"REINSTALLMODE", ""},
                                {"REMOVE", ""},    {"Preselected", ""},   {"UPGRADINGPRODUCTCODE", ""},
                                {"UILevel", "5"},  {"ProductState", "-1"}};
constexpr Setting kRepair[] = {{"Installed", "00:00:00"}, {"REINSTALL", "ALL"},
                               {"REINSTALLMODE", "omus"}, {"REMOVE", ""},
                               {"Preselected", "1"},      {"UPGRADINGPRODUCTCODE", ""},
                               {"UILevel", "5"},          {"ProductState", "5"}};
constexpr Setting kMinorUpgrade[] = {{"Installed", "00:00:00"},  {"REINSTALL", "ALL"},
                                     {"REINSTALLMODE", "vomus"}, {"REMOVE", ""},
                                     {"Preselected", "1"},       {"UPGRADINGPRODUCTCODE", ""},
                                     {"UILevel", "5"},           {"ProductState", "5"}};
constexpr Setting kUpgradeOld[] = {{"Installed", "00:00:00"}, {"REINSTALL", ""},
                                   {"REINSTALLMODE", ""},     {"REMOVE", "ALL"},
                                   {"Preselected", "1"},      {"UPGRADINGPRODUCTCODE", kOtherProduct},
                                   {"UILevel", "2"},          {"ProductState", "5"}};
constexpr Setting kUninstall[] = {{"Installed", "00:00:00"}, {"REINSTALL", ""},
                                  {"REINSTALLMODE", ""},     {"REMOVE", "ALL"},
                                  {"Preselected", "1"},      {"UPGRADINGPRODUCTCODE", ""},
                                  {"UILevel", "5"},          {"ProductState", "5"}};

struct ScenarioFacts {
    const char* words;
    const char* heading;
    const char* name;
    const Setting* settings;
    std::size_t count;
    const char* state;      // what becomes of a feature or component
    const char* installed;  // what it is now
};
#define CORVI_SETTINGS(list) list, std::size(list)
constexpr ScenarioFacts kFacts[kScenarios] = {
    {"first install", "inst", "firstInstall", CORVI_SETTINGS(kInstall), kStateLocal, kStateAbsent},
    {"repair", "rep", "repair", CORVI_SETTINGS(kRepair), kStateLocal, kStateLocal},
    {"minor upgrade", "min", "minorUpgrade", CORVI_SETTINGS(kMinorUpgrade), kStateLocal, kStateLocal},
    {"major upgrade, the old product's removal", "old", "majorUpgradeOld", CORVI_SETTINGS(kUpgradeOld),
     kStateAbsent, kStateLocal},
    {"major upgrade, the new product's install", "new", "majorUpgradeNew", CORVI_SETTINGS(kInstall),
     kStateLocal, kStateAbsent},
    {"uninstall", "rem", "uninstall", CORVI_SETTINGS(kUninstall), kStateAbsent, kStateLocal},
    {"failed install", "fail", "failedInstall", CORVI_SETTINGS(kInstall), kStateLocal, kStateAbsent},
};
#undef CORVI_SETTINGS

const ScenarioFacts& Facts(Scenario scenario) { return kFacts[static_cast<std::size_t>(scenario)]; }

/// A session of the package, opened without regard to what is installed on this machine.
class PackageSession {
public:
    explicit PackageSession(const PackageDatabase& database) {
        MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
        const UINT opened =
            MsiOpenPackageExW(database.Path().c_str(), MSIOPENPACKAGEFLAGS_IGNOREMACHINESTATE, &handle_);
        if (opened == ERROR_INSTALL_PLATFORM_UNSUPPORTED) {
            OpenWithOtherTemplate(database);
        } else if (opened != ERROR_SUCCESS) {
            throw UsageError("the installer cannot open '" + ToUtf8(database.Path()) +
                             "' as a package (error " + std::to_string(opened) + ")");
        }
    }
    ~PackageSession() {
        MsiCloseHandle(handle_);
        if (!copy_.empty()) {
            DeleteFileW(copy_.c_str());
        }
    }
    PackageSession(const PackageSession&) = delete;
    PackageSession& operator=(const PackageSession&) = delete;

    void Set(const std::string& name, const std::string& value) const {
        MsiSetPropertyW(handle_, ToWide(name).c_str(), ToWide(value).c_str());
    }
    std::string Get(const std::string& name) const {
        const std::wstring wide = ToWide(name);
        wchar_t none[] = L"";
        DWORD length = 0;
        MsiGetPropertyW(handle_, wide.c_str(), none, &length);
        std::wstring value(++length, L'\0');
        MsiGetPropertyW(handle_, wide.c_str(), value.data(), &length);
        value.resize(length);
        return ToUtf8(value);
    }
    MSICONDITION Evaluate(const std::string& condition) const {
        return MsiEvaluateConditionW(handle_, ToWide(condition).c_str());
    }

private:
    // A package for another processor is not opened here; its conditions are read all the same, from a copy
    // that says otherwise.
    void OpenWithOtherTemplate(const PackageDatabase& database) {
        wchar_t folder[MAX_PATH] = L"";
        wchar_t name[MAX_PATH] = L"";
        GetTempPathW(MAX_PATH, folder);
        GetTempFileNameW(folder, L"cor", 0, name);
        copy_ = name;
        MSIHANDLE copy = 0;
        MSIHANDLE summary = 0;
        UINT opened = CopyFileW(database.Path().c_str(), name, FALSE) != FALSE
                          ? MsiOpenDatabaseW(name, MSIDBOPEN_TRANSACT, &copy)
                          : GetLastError();
        if (opened == ERROR_SUCCESS &&
            MsiGetSummaryInformationW(copy, nullptr, 1, &summary) == ERROR_SUCCESS) {
            constexpr UINT kTemplate = 7;
            MsiSummaryInfoSetPropertyW(summary, kTemplate, VT_LPSTR, 0, nullptr, L"x64;1033");
            MsiSummaryInfoPersist(summary);
            MsiCloseHandle(summary);
            MsiDatabaseCommit(copy);
        }
        MsiCloseHandle(copy);
        opened = opened == ERROR_SUCCESS
                     ? MsiOpenPackageExW(name, MSIOPENPACKAGEFLAGS_IGNOREMACHINESTATE, &handle_)
                     : opened;
        if (opened != ERROR_SUCCESS) {
            DeleteFileW(name);
            throw UsageError("the installer cannot open '" + ToUtf8(database.Path()) +
                             "' as a package (error " + std::to_string(opened) + ")");
        }
    }

    MSIHANDLE handle_ = 0;
    std::wstring copy_;
};

}  // namespace

/// Plays one sequence through, scenario by scenario.
class SchedulePlayer {
public:
    SchedulePlayer(const PackageDatabase& database, const PackageTables& tables)
        : tables_(tables), session_(database) {
        for (const SequenceRow& row : tables.executeSequence) {
            for (const std::string& name : PropertiesInCondition(row.condition)) {
                asked_.insert(name);
            }
        }
        for (const CustomActionRow& row : tables.customActions) {
            actions_[row.id] = &row;
        }
        for (const Setting& setting : kEverywhere) {
            session_.Set(setting.name, setting.value);
        }
        session_.Set(kNoStateProperty, "-1");
    }

    Schedule Play() {
        for (const Scenario scenario : kAllScenarios) {
            for (const Machine machine : kMachines) {
                PlayOnce(scenario, machine);
            }
        }
        return std::move(schedule_);
    }

private:
    void PlayOnce(Scenario scenario, Machine machine) {
        Prepare(scenario, machine);
        auto& runs = schedule_.runs_[static_cast<std::size_t>(scenario)][static_cast<std::size_t>(machine)];
        data_.clear();
        for (const SequenceRow& row : tables_.executeSequence) {
            SequenceRun run;
            run.runs = Evaluate(row, scenario);
            if (run.runs) {
                const auto data = data_.find(row.action);
                if (data != data_.end()) {
                    run.setter = data->second->id;
                    run.data = data->second->target;
                } else {
                    run.data = tables_.Property(row.action);
                }
                const auto action = actions_.find(row.action);
                if (action != actions_.end()) {
                    SetProperty(*action->second);
                }
            }
            runs[row.action] = run;
        }
        TakeBack();
    }

    void Prepare(Scenario scenario, Machine machine) {
        known_.clear();
        const ScenarioFacts& facts = Facts(scenario);
        for (std::size_t index = 0; index < facts.count; ++index) {
            session_.Set(facts.settings[index].name, facts.settings[index].value);
        }
        for (const UpgradeRow& row : tables_.upgrades) {
            const bool found = scenario == Scenario::UpgradeNew && (row.attributes & kOnlyDetect) == 0;
            session_.Set(row.actionProperty, found ? kOtherProduct : "");
        }
        for (const std::string& name : Unknown()) {
            session_.Set(name, machine == Machine::Prepared ? "1" : tables_.Property(name));
        }
    }

    // What a search or the user may bring, and only conditions ask for.
    std::vector<std::string> Unknown() const {
        std::vector<std::string> names;
        for (const std::string& name : asked_) {
            const bool searched = std::any_of(tables_.searches.begin(), tables_.searches.end(),
                                              [&](const SearchRow& row) { return row.property == name; });
            const bool upgrade =
                std::any_of(tables_.upgrades.begin(), tables_.upgrades.end(),
                            [&](const UpgradeRow& row) { return row.actionProperty == name; });
            const bool set = std::any_of(actions_.begin(), actions_.end(), [&](const auto& action) {
                return (action.second->type & kBasicType) == kSetProperty && action.second->source == name;
            });
            const bool given = IsPublicProperty(name) && !IsStandardProperty(name) &&
                               !IsCompilersProperty(name) && !upgrade && !set &&
                               tables_.properties.count(name) == 0;
            if (searched || given) {
                names.push_back(name);
            }
        }
        return names;
    }

    bool Evaluate(const SequenceRow& row, Scenario scenario) {
        if (row.condition.empty()) {
            return true;
        }
        const auto known = known_.find(row.condition);
        if (known != known_.end()) {
            return known->second;
        }
        const MSICONDITION answer = session_.Evaluate(WithStates(row.condition, scenario));
        if (answer == MSICONDITION_ERROR && std::find(schedule_.broken_.begin(), schedule_.broken_.end(),
                                                      row.action) == schedule_.broken_.end()) {
            schedule_.broken_.push_back(row.action);
        }
        const bool runs = answer == MSICONDITION_TRUE || answer == MSICONDITION_NONE;
        known_[row.condition] = runs;
        return runs;
    }

    // The states of features and components are the scenario's and not this machine's: they go into the
    // condition as numbers.
    std::string WithStates(const std::string& condition, Scenario scenario) const {
        std::string text;
        for (const ConditionPiece& piece : ConditionPieces(condition)) {
            if (!piece.name || piece.mark == 0 || piece.mark == '%') {
                text += (piece.mark == '%' ? "%" : "") + piece.text;
            } else {
                text += State(piece, scenario);
            }
        }
        return text;
    }

    std::string State(const ConditionPiece& piece, Scenario scenario) const {
        const bool present = piece.mark == '!' || piece.mark == '?';
        if (piece.mark == '$' || piece.mark == '?') {
            const bool known = std::find(tables_.components.begin(), tables_.components.end(), piece.text) !=
                               tables_.components.end();
            return known ? (present ? Facts(scenario).installed : Facts(scenario).state) : kNoStateProperty;
        }
        const auto feature = std::find_if(tables_.features.begin(), tables_.features.end(),
                                          [&](const FeatureRow& row) { return row.id == piece.text; });
        const std::string level = tables_.Property("INSTALLLEVEL");
        const int limit = level.empty() ? 1 : std::atoi(level.c_str());
        if (feature == tables_.features.end() || feature->level <= 0 || feature->level > limit) {
            return present ? kStateAbsent : kNoStateProperty;
        }
        return present ? Facts(scenario).installed : Facts(scenario).state;
    }

    void SetProperty(const CustomActionRow& row) {
        const unsigned basic = row.type & kBasicType;
        if (basic != kSetProperty && basic != kSetDirectory) {
            return;
        }
        data_[row.source] = &row;
        if (asked_.count(row.source) == 0) {
            return;
        }
        before_.emplace(row.source, session_.Get(row.source));
        session_.Set(row.source, Formatted(row.target));
        known_.clear();
    }

    // Properties in brackets get their values; what the installer knows only later (directories, files)
    // stays as it is written, for it will not be empty.
    std::string Formatted(const std::string& text) const {
        std::string result;
        for (std::size_t at = 0; at < text.size();) {
            const std::size_t close = text[at] == '[' ? text.find(']', at) : std::string::npos;
            if (close == std::string::npos) {
                result += text[at++];
                continue;
            }
            const std::string name = text.substr(at + 1, close - at - 1);
            const bool directory = std::find(tables_.directories.begin(), tables_.directories.end(), name) !=
                                   tables_.directories.end();
            const bool property =
                !name.empty() && std::all_of(name.begin(), name.end(), IsPropertyNamePart) && !directory;
            result += property ? session_.Get(name) : text.substr(at, close - at + 1);
            at = close + 1;
        }
        return result;
    }

    void TakeBack() {
        for (const auto& [name, value] : before_) {
            session_.Set(name, value);
        }
        before_.clear();
    }

    const PackageTables& tables_;
    PackageSession session_;
    std::set<std::string> asked_;
    std::map<std::string, const CustomActionRow*> actions_;
    std::map<std::string, bool> known_;
    std::map<std::string, const CustomActionRow*> data_;
    std::map<std::string, std::string> before_;
    Schedule schedule_;
};

const char* ScenarioWords(Scenario scenario) { return Facts(scenario).words; }

const char* ScenarioHeading(Scenario scenario) { return Facts(scenario).heading; }

const char* ScenarioName(Scenario scenario) { return Facts(scenario).name; }

bool Schedule::Runs(const std::string& action, Scenario scenario, Machine machine) const {
    return Run(action, scenario, machine).runs;
}

bool Schedule::MayRun(const std::string& action, Scenario scenario) const {
    return Runs(action, scenario, Machine::Bare) || Runs(action, scenario, Machine::Prepared);
}

bool Schedule::AlwaysRuns(const std::string& action, Scenario scenario) const {
    return Runs(action, scenario, Machine::Bare) && Runs(action, scenario, Machine::Prepared);
}

const SequenceRun& Schedule::Run(const std::string& action, Scenario scenario, Machine machine) const {
    static const SequenceRun none;
    const auto& runs = runs_[static_cast<std::size_t>(scenario)][static_cast<std::size_t>(machine)];
    const auto found = runs.find(action);
    return found == runs.end() ? none : found->second;
}

Schedule PlaySchedule(const PackageDatabase& database, const PackageTables& tables) {
    return SchedulePlayer(database, tables).Play();
}

}  // namespace corvi::tool
