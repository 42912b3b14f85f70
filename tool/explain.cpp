#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <memory>
#include <nlohmann/json.hpp>

#include "tool/action_facts.h"
#include "tool/console.h"
#include "tool/facts_text.h"
#include "tool/log_reader.h"
#include "tool/log_story.h"
#include "tool/verbs.h"

namespace corvi::tool {
namespace {

using Json = nlohmann::ordered_json;

struct ExplainOptions {
    std::vector<std::string> logs;
    std::string dll;
    bool json = false;
};

constexpr DayTime kSecond = 1000;
constexpr DayTime kHalfDay = 12 * 3600 * kSecond;

/// One entry of the action data as the action reads it.
struct ReadEntry {
    std::string key;
    std::string value;
    std::string problem;
};

/// Why a key that was found is not at the start of its own entry; empty when it is.
std::string Misplaced(const std::string& data, std::size_t found) {
    const std::size_t before = found == 0 ? std::string::npos : data.find_last_not_of(" \t", found - 1);
    if (before == std::string::npos || data[before] == ';') {
        return "";
    }
    return before == found - 1 && std::isalnum(static_cast<unsigned char>(data[before])) != 0
               ? "found inside a longer key: it must stand before that one"
               : "found inside another entry: a semicolon is missing before it";
}

/// Why a key that is missing matters.
std::string Missing(const DataKey& key, bool readsAnotherPart) {
    if (!readsAnotherPart) {
        return "missing, and the text is too short to be read elsewhere: the action gives its steps up here";
    }
    return key.optional ? "left out: the action reads another part of the text"
                        : "missing: the action reads another part of the text";
}

/// The action data taken apart as the library does it: the first match counts, wherever it stands, and a
/// key that is missing gives the text that begins one character before its own length.
std::vector<ReadEntry> TakeApart(const ActionFacts& facts, const std::string& data) {
    std::vector<ReadEntry> entries;
    for (const DataKey& key : facts.data.keys) {
        ReadEntry entry{key.name, {}, {}};
        const std::size_t found = data.find(key.name);
        const bool missing = found == std::string::npos;
        const std::size_t start = missing ? key.name.size() - 1 : found + key.name.size();
        if (start <= data.size()) {
            const std::size_t end = data.find(';', start);
            entry.value = data.substr(start, end == std::string::npos ? end : end - start);
        }
        if (missing) {
            entry.problem = Missing(key, start <= data.size());
        } else {
            entry.problem = Misplaced(data, found);
            if (entry.problem.empty() && entry.value.empty() && !key.mayBeEmpty) {
                entry.problem = "empty";
            }
        }
        entries.push_back(entry);
        if (missing && start > data.size()) {
            break;
        }
    }
    return entries;
}

std::string TimeText(DayTime time) {
    const auto part = [](DayTime number) {
        return std::string(number < 10 ? "0" : "") + std::to_string(number);
    };
    std::string text = std::to_string(time / (3600 * kSecond)) + ":" + part(time / (60 * kSecond) % 60) +
                       ":" + part(time / kSecond % 60);
    if (time % kSecond != 0) {
        const std::string thousandths = std::to_string(time % kSecond + kSecond);
        text += "." + thousandths.substr(1);
    }
    return text;
}

/// Milliseconds, over a midnight or over the noon of a clock of twelve hours; nothing when not known.
std::optional<DayTime> Duration(const LoggedRun& run) {
    if (!run.started || !run.ended) {
        return std::nullopt;
    }
    const bool whole = *run.started % kSecond == 0 || *run.ended % kSecond == 0;
    DayTime duration =
        whole ? *run.ended / kSecond * kSecond - *run.started / kSecond * kSecond : *run.ended - *run.started;
    while (duration < 0) {
        duration += *run.started < kHalfDay + 3600 * kSecond ? kHalfDay : 2 * kHalfDay;
    }
    return duration;
}

std::string DurationText(DayTime duration, const LoggedRun& run) {
    if (duration == 0) {
        return "less than a second";
    }
    if (duration % kSecond == 0 || *run.started % kSecond == 0) {
        return std::to_string(duration / kSecond) + " s";
    }
    const std::string thousandths = std::to_string(duration % kSecond + kSecond);
    return std::to_string(duration / kSecond) + "." + thousandths.substr(1) + " s";
}

bool NeedsALook(const LoggedRun& run) { return Badness(run.verdict) >= Badness(Verdict::NeverRan); }

std::string NextStep(const LoggedRun& run) {
    if (run.verdict == Verdict::NeverRan) {
        return "Something before it failed or was cancelled: look at the action above that did.";
    }
    if (run.verdict == Verdict::Unfinished) {
        return "The log is cut off, or the installer waits: look whether the action's process or a program "
               "that it "
               "started still runs.";
    }
    return run.facts->onFailure;
}

/// One log, read.
struct ReadLog {
    std::string path;
    LogStory story;
    std::string unreadable;
};

const LoggedRun* Worst(const LogStory& story) {
    const auto& runs = story.Runs();
    const auto worst =
        std::max_element(runs.begin(), runs.end(), [](const LoggedRun& left, const LoggedRun& right) {
            return Badness(left.verdict) < Badness(right.verdict);
        });
    return worst == runs.end() ? nullptr : &*worst;
}

bool HasFailure(const LogStory& story) {
    const LoggedRun* worst = Worst(story);
    return worst != nullptr && Badness(worst->verdict) >= Badness(Verdict::Ignored);
}

ReadLog ReadOne(const std::string& path) {
    ReadLog log{path, {}, {}};
    try {
        LogReader reader(ToWide(path));
        for (std::string_view line; reader.Next(line);) {
            log.story.Read(line);
        }
        log.story.Finish();
        if (!log.story.IsInstallerLog()) {
            throw UsageError(path + ": no line of it is a Windows Installer's");
        }
    } catch (const UsageError& error) {
        log.unreadable = error.what();
    }
    return log;
}

// As text

constexpr std::size_t kHeadingWidth = 14;

void PrintPart(const std::string& heading, const std::string& text) {
    std::string first = "  " + heading;
    first.resize(kHeadingWidth, ' ');
    PrintWrapped(text, first, std::string(kHeadingWidth, ' '));
}

void PrintWhen(const LoggedRun& run) {
    if (run.scheduled) {
        PrintPart("scheduled", TimeText(*run.scheduled));
    }
    if (!run.started && !run.ended) {
        return;
    }
    std::string text = run.started ? TimeText(*run.started) : "before the log begins";
    text += run.fromScript ? ", from the script" : ", immediately";
    if (run.rollback) {
        text += ", in the rollback";
    }
    if (const auto duration = Duration(run)) {
        text += ", " + DurationText(*duration, run);
    }
    if (!run.fromScript && run.facts->execution == Execution::Deferred && !run.rollback) {
        text += "; it should be deferred";
    }
    PrintPart("ran", text);
}

void PrintData(const LoggedRun& run) {
    if (!run.facts->data.Any() || !run.dataKnown) {
        return;
    }
    PrintPart("action data", run.data.empty() ? "empty" : run.data);
    for (const ReadEntry& entry : TakeApart(*run.facts, run.data)) {
        const std::string problem = entry.problem.empty() ? "" : "  <- " + entry.problem;
        PrintWrapped(entry.key + " " + (entry.value.empty() ? "(empty)" : entry.value) + problem,
                     std::string(kHeadingWidth + 2, ' '), std::string(kHeadingWidth + 4, ' '));
    }
    if (!run.facts->data.whole.empty()) {
        PrintWrapped(run.facts->data.whole, std::string(kHeadingWidth + 2, ' '),
                     std::string(kHeadingWidth + 2, ' '));
    }
}

void PrintLines(const LoggedRun& run) {
    if (!run.lines.empty()) {
        PrintLine("  lines");
    }
    for (const SaidLine& line : run.lines) {
        PrintWrapped(line.text, "    ", "    ");
        if (line.known != nullptr) {
            const std::string trap = line.known->trap.empty() ? "" : ". Beware: " + line.known->trap;
            PrintWrapped("= " + line.known->meaning + trap, "      ", "        ");
        }
    }
    if (run.linesDropped > 0) {
        PrintLine("    ... and " + std::to_string(run.linesDropped) + " more lines");
    }
}

void PrintRun(const LoggedRun& run) {
    const std::string entry = run.name == run.facts->name ? "" : " (calls " + run.facts->name + ")";
    PrintLine();
    PrintWrapped(run.name + entry + ": " + VerdictWord(run.verdict), "", "  ");
    PrintPart("purpose", run.facts->purpose);
    PrintWhen(run);
    PrintData(run);
    PrintLines(run);
    PrintPart("result", run.result);
    PrintPart("installer", run.installer);
    if (!run.error.empty()) {
        PrintPart("message", run.error);
    }
    if (NeedsALook(run)) {
        PrintPart("look next", NextStep(run));
    }
}

void PrintSkipped(const LogStory& story) {
    if (story.Skipped().empty()) {
        return;
    }
    std::string names;
    for (const std::string& name : story.Skipped()) {
        names += (names.empty() ? "" : ", ") + name;
    }
    PrintLine();
    PrintWrapped("Not run, their conditions were false: " + names, "", "  ");
}

std::string Summary(const LogStory& story) {
    if (story.Runs().empty()) {
        return "no action of the library ran";
    }
    std::size_t failed = 0;
    for (const LoggedRun& run : story.Runs()) {
        failed += Badness(run.verdict) >= Badness(Verdict::Ignored) ? 1 : 0;
    }
    const std::size_t count = story.Runs().size() + story.RunsDropped();
    return std::to_string(count) + (count == 1 ? " action" : " actions") + " of the library, " +
           (failed == 0 ? "none" : std::to_string(failed)) + " failed";
}

void PrintStory(const ReadLog& log) {
    PrintWrapped(log.path, "", "");
    std::string about = log.story.Product();
    if (log.story.EngineResult()) {
        about += (about.empty() ? "" : "; ") + std::string("the installer's result: ") +
                 std::to_string(*log.story.EngineResult());
    }
    if (!about.empty()) {
        PrintWrapped(about, "", "");
    }
    PrintWrapped(Summary(log.story));
    for (const LoggedRun& run : log.story.Runs()) {
        PrintRun(run);
    }
    if (log.story.RunsDropped() > 0) {
        PrintLine();
        PrintLine("... and " + std::to_string(log.story.RunsDropped()) + " more runs");
    }
    PrintSkipped(log.story);
}

std::vector<std::string> TableRow(const ReadLog& log) {
    if (!log.unreadable.empty()) {
        return {"unreadable", "", log.path};
    }
    const LoggedRun* worst = Worst(log.story);
    if (worst == nullptr) {
        return {"no action", "", log.path};
    }
    const bool failed = Badness(worst->verdict) >= Badness(Verdict::NeverRan);
    const std::string result = failed ? ": " + worst->name + ", " + worst->result : "";
    return {VerdictWord(worst->verdict), std::to_string(log.story.Runs().size() + log.story.RunsDropped()),
            log.path + result};
}

int TableRank(const ReadLog& log) {
    const LoggedRun* worst = Worst(log.story);
    return !log.unreadable.empty() ? -2 : worst == nullptr ? -1 : Badness(worst->verdict);
}

void PrintTable(std::vector<ReadLog>& logs) {
    std::stable_sort(logs.begin(), logs.end(), [](const ReadLog& left, const ReadLog& right) {
        return TableRank(left) > TableRank(right);
    });
    std::vector<std::vector<std::string>> rows = {{"worst", "actions", "log"}};
    for (const ReadLog& log : logs) {
        rows.push_back(TableRow(log));
    }
    Print(Table(rows));
    PrintLine();
    PrintLine("corvi explain LOG, for one of them, tells all");
}

// As JSON

Json TimeAsJson(const std::optional<DayTime>& time) { return time ? Json(TimeText(*time)) : Json(nullptr); }

Json LinesAsJson(const LoggedRun& run) {
    Json lines = Json::array();
    for (const SaidLine& line : run.lines) {
        lines.push_back({{"text", line.text},
                         {"meaning", line.known == nullptr ? "" : line.known->meaning},
                         {"trap", line.known == nullptr ? "" : line.known->trap}});
    }
    return lines;
}

Json DataAsJson(const LoggedRun& run) {
    Json entries = Json::array();
    if (run.dataKnown) {
        for (const ReadEntry& entry : TakeApart(*run.facts, run.data)) {
            entries.push_back({{"key", entry.key}, {"value", entry.value}, {"problem", entry.problem}});
        }
    }
    return {{"text", run.dataKnown ? Json(run.data) : Json(nullptr)}, {"entries", entries}};
}

Json RunAsJson(const LoggedRun& run) {
    const auto duration = Duration(run);
    return {{"name", run.name},
            {"action", run.facts->name},
            {"verdict", VerdictWord(run.verdict)},
            {"purpose", run.facts->purpose},
            {"fromScript", run.fromScript},
            {"rollback", run.rollback},
            {"scheduled", TimeAsJson(run.scheduled)},
            {"started", TimeAsJson(run.started)},
            {"ended", TimeAsJson(run.ended)},
            {"milliseconds", duration ? Json(*duration) : Json(nullptr)},
            {"actionData", DataAsJson(run)},
            {"lines", LinesAsJson(run)},
            {"linesDropped", run.linesDropped},
            {"code", run.code ? Json(*run.code) : Json(nullptr)},
            {"returnValue", run.returnValue ? Json(*run.returnValue) : Json(nullptr)},
            {"result", run.result},
            {"installer", run.installer},
            {"message", run.error},
            {"next", NeedsALook(run) ? NextStep(run) : ""}};
}

void PrintJson(const std::vector<ReadLog>& logs) {
    Json all = Json::array();
    for (const ReadLog& log : logs) {
        Json actions = Json::array();
        for (const LoggedRun& run : log.story.Runs()) {
            actions.push_back(RunAsJson(run));
        }
        const LoggedRun* worst = Worst(log.story);
        all.push_back(
            {{"log", log.path},
             {"error", log.unreadable},
             {"product", log.story.Product()},
             {"installerResult", log.story.EngineResult() ? Json(*log.story.EngineResult()) : Json(nullptr)},
             {"worst", worst == nullptr ? "no action" : VerdictWord(worst->verdict)},
             {"actions", actions},
             {"actionsDropped", log.story.RunsDropped()},
             {"notRun", log.story.Skipped()}});
    }
    PrintLine(Json{{"logs", all}}.dump(2, ' ', false, Json::error_handler_t::replace));
}

/// The one line for standard error: the logs that could not be read, or the worst of the actions that
/// failed; nothing when all went well.
std::string Complaint(const std::vector<ReadLog>& logs) {
    std::string unreadable;
    const LoggedRun* worst = nullptr;
    for (const ReadLog& log : logs) {
        unreadable += (unreadable.empty() || log.unreadable.empty() ? "" : "; ") + log.unreadable;
        const LoggedRun* run = HasFailure(log.story) ? Worst(log.story) : nullptr;
        if (run != nullptr && (worst == nullptr || Badness(run->verdict) > Badness(worst->verdict))) {
            worst = run;
        }
    }
    if (!unreadable.empty() || worst == nullptr) {
        return unreadable;
    }
    return worst->name + ": " + VerdictWord(worst->verdict);
}

int Explain(const ExplainOptions& options) {
    if (!options.dll.empty()) {
        LibraryPath(options.dll);
    }
    std::vector<ReadLog> logs;
    for (const std::string& path : options.logs) {
        logs.push_back(ReadOne(path));
    }
    const bool unreadable =
        std::any_of(logs.begin(), logs.end(), [](const ReadLog& log) { return !log.unreadable.empty(); });
    const bool failure =
        std::any_of(logs.begin(), logs.end(), [](const ReadLog& log) { return HasFailure(log.story); });
    if (options.json) {
        PrintJson(logs);
    } else if (logs.size() > 1) {
        PrintTable(logs);
    } else if (!unreadable) {
        PrintStory(logs[0]);
    }
    const std::string complaint = Complaint(logs);
    if (!complaint.empty()) {
        PrintError(complaint);
    }
    return unreadable ? kWrongUse : failure ? kFindings : kFine;
}

}  // namespace

void AddExplainVerb(CLI::App& program, Work& work) {
    const auto options = std::make_shared<ExplainOptions>();
    CLI::App* verb = AddVerb(
        program, "explain",
        "Tells from verbose installer logs what the actions did. When each was scheduled and when it ran, "
        "its "
        "action data, its lines with their meaning, its result in words, and what to look at next. Several "
        "logs give a table, the worst first.",
        {"msiexec /i package.msi /qn /l*v install.log", "corvi explain install.log",
         "corvi explain --json first.log second.log"});
    verb->add_option("LOG", options->logs, "a log that msiexec wrote with /l*v")->required();
    verb->add_flag("--json", options->json, "as JSON");
    AddLibraryOption(*verb, options->dll);
    verb->callback([options, &work] { work = [options] { return Explain(*options); }; });
}

}  // namespace corvi::tool
