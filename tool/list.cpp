#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>

#include "tool/action_facts.h"
#include "tool/console.h"
#include "tool/facts_text.h"
#include "tool/verbs.h"

namespace corvi::tool {
namespace {

using Json = nlohmann::ordered_json;

struct ListOptions {
    std::string action;
    std::string dll;
    bool json = false;
};

// As JSON

Json KeysAsJson(const ActionData& data) {
    Json keys = Json::array();
    for (const DataKey& key : data.keys) {
        keys.push_back({{"name", key.name},
                        {"optional", key.optional},
                        {"mayBeEmpty", key.mayBeEmpty},
                        {"example", key.example},
                        {"meaning", key.meaning},
                        {"misuse", key.misuse}});
    }
    return keys;
}

Json ReadsAsJson(const ActionFacts& facts) {
    Json reads = Json::array();
    for (const RegistryRead& read : facts.reads) {
        reads.push_back({{"root", read.root},
                         {"key", read.key},
                         {"value", read.value},
                         {"view", read.view32 ? 32 : 64},
                         {"absenceLetsErrorOut", read.absenceLetsErrorOut},
                         {"meaning", read.meaning}});
    }
    return reads;
}

Json GuardsAsJson(const std::vector<Guard>& searches) {
    Json guards = Json::array();
    for (const Guard& guard : searches) {
        guards.push_back({{"property", guard.property},
                          {"root", guard.root},
                          {"key", guard.key},
                          {"value", guard.value},
                          {"view", guard.view32 ? 32 : 64},
                          {"reason", guard.reason}});
    }
    return guards;
}

Json ResultsAsJson(const ActionFacts& facts) {
    Json results = Json::array();
    for (const Result& result : facts.results) {
        results.push_back({{"code", result.code ? Json(*result.code) : Json(nullptr)},
                           {"outcome", OutcomeWord(result.outcome)},
                           {"meaning", result.meaning}});
    }
    return results;
}

Json LogAsJson(const ActionFacts& facts) {
    Json lines = Json::array();
    for (const LogText& line : facts.log) {
        lines.push_back({{"text", line.text}, {"meaning", line.meaning}, {"trap", line.trap}});
    }
    return lines;
}

Json AsJson(const ActionFacts& facts) {
    return {{"name", facts.name},
            {"room", facts.room},
            {"purpose", facts.purpose},
            {"execute", facts.execution == Execution::Immediate ? "immediate" : "deferred"},
            {"impersonate", facts.impersonated},
            {"return", facts.onResult == Return::Check ? "check" : "ignore"},
            {"returnReason", facts.returnReason},
            {"schedule", facts.schedule},
            {"condition", facts.condition},
            {"place", facts.place},
            {"actionData",
             {{"keys", KeysAsJson(facts.data)},
              {"whole", facts.data.whole},
              {"wholeExample", facts.data.wholeExample},
              {"optional", facts.data.optional}}},
            {"properties", facts.properties},
            {"reads", ReadsAsJson(facts)},
            {"guards", GuardsAsJson(facts.guards)},
            {"searches", GuardsAsJson(facts.searches)},
            {"ownPackageWritesKeys", facts.ownPackageWritesKeys},
            {"changes", facts.changes},
            {"deletes",
             {{"what", facts.deletes.what},
              {"notOnRepair", facts.deletes.notOnRepair},
              {"notOnUpgrade", facts.deletes.notOnUpgrade},
              {"notInNewVersion", facts.deletes.notInNewVersion}}},
            {"needsElevation", facts.needsElevation},
            {"takenBackBy", facts.takenBackBy},
            {"takenBackNote", facts.takenBackNote},
            {"rollback", facts.rollback},
            {"rollbackTakesData", facts.rollbackTakesData},
            {"rollbackCondition", facts.rollbackCondition},
            {"results", ResultsAsJson(facts)},
            {"log", LogAsJson(facts)},
            {"onFailure", facts.onFailure}};
}

// As text

/// One line of the description: a heading of a fixed width, then wrapped text. Nothing for no text.
void PrintPart(const std::string& heading, const std::string& text) {
    constexpr std::size_t kHeadingWidth = 14;
    if (!text.empty()) {
        std::string first = heading;
        first.resize(kHeadingWidth, ' ');
        PrintWrapped(text, first, std::string(kHeadingWidth, ' '));
    }
}

void PrintActionData(const ActionFacts& facts) {
    if (!facts.data.Any()) {
        PrintPart("action data", "none");
        return;
    }
    const std::string optional = facts.data.optional ? ", may be left out" : "";
    if (!facts.data.whole.empty()) {
        PrintPart("action data",
                  "the whole text (" + facts.data.wholeExample + ")" + optional + ": " + facts.data.whole);
        return;
    }
    PrintPart("action data", DataExample(facts));
    for (const DataKey& key : facts.data.keys) {
        std::string flags = key.optional ? " (may be left out)" : "";
        flags += key.mayBeEmpty ? " (may be empty)" : "";
        PrintWrapped(key.name + flags + " " + key.meaning + ". " + key.misuse, "  ", "    ");
    }
}

void PrintReads(const ActionFacts& facts) {
    for (const std::string& property : facts.properties) {
        PrintPart("reads", "the property " + property);
    }
    for (const RegistryRead& read : facts.reads) {
        const std::string value = read.value.empty() ? "" : " | " + read.value;
        const std::string view = read.view32 ? " (32-bit view)" : "";
        PrintPart("reads",
                  read.root + "\\" + read.key + value + view + ": " + read.meaning +
                      (read.absenceLetsErrorOut ? "; missing, a registry error leaves the action" : ""));
    }
}

void PrintDeletion(const ActionFacts& facts) {
    if (facts.deletes.what.empty()) {
        return;
    }
    std::string text = facts.deletes.what;
    if (facts.deletes.notOnRepair) {
        text += facts.deletes.notOnUpgrade ? "; a repair and an upgrade must not run it"
                                           : "; a repair must not run it";
    }
    text += facts.deletes.notInNewVersion ? "; nor a newer version's install that replaces an older one" : "";
    PrintPart("deletes", text);
}

void PrintResultsAndLines(const ActionFacts& facts) {
    PrintLine();
    PrintLine("results:");
    for (const Result& result : facts.results) {
        PrintWrapped(CodeText(result) + "  " + result.meaning, "  ", "      ");
    }
    if (!facts.log.empty()) {
        PrintLine();
        PrintLine("log lines:");
    }
    for (const LogText& line : facts.log) {
        PrintWrapped(line.text, "  ", "  ");
        PrintWrapped(line.meaning + (line.trap.empty() ? "" : ". Beware: " + line.trap), "      ", "      ");
    }
}

void Describe(const ActionFacts& facts) {
    PrintLine(facts.name);
    PrintWrapped(facts.purpose, "  ", "  ");
    PrintLine();
    PrintPart("room", facts.room);
    PrintPart("runs", RunsAs(facts));
    PrintPart("result", (facts.onResult == Return::Check ? "Return=\"check\": " : "Return=\"ignore\": ") +
                            facts.returnReason);
    PrintPart("schedule", facts.schedule);
    PrintPart("condition", facts.condition.empty() ? "none" : facts.condition);
    for (const Guard& guard : facts.guards) {
        PrintPart("guard", guard.property + ": " + guard.root + "\\" + guard.key + " | " + guard.value +
                               (guard.view32 ? " (32-bit view)" : "") + ": " + guard.reason +
                               (facts.ownPackageWritesKeys
                                    ? "; not needed where the package itself writes it before the action runs"
                                    : ""));
    }
    for (const Guard& search : facts.searches) {
        PrintPart("search", search.property + ": " + search.root + "\\" + search.key + " | " + search.value +
                                ": " + search.reason);
    }
    PrintActionData(facts);
    PrintReads(facts);
    PrintPart("changes", facts.changes);
    PrintDeletion(facts);
    PrintPart("elevation", facts.needsElevation ? "needed" : "not needed");
    PrintPart("taken back",
              facts.takenBackBy + (facts.takenBackBy.empty() ? "" : ". ") + facts.takenBackNote);
    PrintPart("rollback", facts.rollback.empty() ? "none"
                                                 : facts.name + ".Rollback runs " + facts.rollback + ": " +
                                                       facts.rollbackCondition);
    PrintResultsAndLines(facts);
    PrintLine();
    PrintPart("on failure", facts.onFailure);
}

void ListAll() {
    std::vector<std::vector<std::string>> rows = {{"action", "purpose"}};
    for (const ActionFacts& facts : AllActions()) {
        rows.push_back({facts.name, facts.purpose});
    }
    Print(Table(rows));
    PrintLine();
    PrintLine(std::to_string(AllActions().size()) + " actions; corvi list ACTION tells everything about one");
}

/// With --dll: every action of the table must be an export of that library, and the reverse.
int CompareWithLibrary(const std::string& dll) {
    if (dll.empty()) {
        return kFine;
    }
    const std::string differences = LibraryDifferences(LibraryPath(dll));
    if (differences.empty()) {
        return kFine;
    }
    PrintError(differences);
    return kFindings;
}

int List(const ListOptions& options) {
    if (options.action.empty()) {
        if (options.json) {
            Json all = Json::array();
            for (const ActionFacts& facts : AllActions()) {
                all.push_back(AsJson(facts));
            }
            PrintLine(all.dump(2, ' ', false, Json::error_handler_t::replace));
        } else {
            ListAll();
        }
        return CompareWithLibrary(options.dll);
    }
    const ActionFacts& facts = RequireAction(options.action);
    if (options.json) {
        PrintLine(AsJson(facts).dump(2, ' ', false, Json::error_handler_t::replace));
    } else {
        Describe(facts);
    }
    return CompareWithLibrary(options.dll);
}

}  // namespace

void AddListVerb(CLI::App& program, Work& work) {
    const auto options = std::make_shared<ListOptions>();
    CLI::App* verb =
        AddVerb(program, "list",
                "Lists the actions, or tells everything about one. With --dll the list is compared with "
                "the library's exports.",
                {"corvi list", "corvi list BlockLaunch", "corvi list CheckForClients --json"});
    verb->add_option("ACTION", options->action, "one action's name: everything about it");
    verb->add_flag("--json", options->json, "as JSON");
    AddLibraryOption(*verb, options->dll);
    verb->callback([options, &work] { work = [options] { return List(*options); }; });
}

}  // namespace corvi::tool
