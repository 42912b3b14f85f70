#include "tool/log_story.h"

#include <algorithm>
#include <utility>

namespace corvi::tool {
namespace {

using Kind = LogLine::Kind;

constexpr std::size_t kMostRuns = 10000;
constexpr std::size_t kMostBytes = 16U << 20U;
constexpr std::size_t kMostLinesOfARun = 500;
constexpr std::size_t kMostOpen = 256;
constexpr std::size_t kMostNames = 1000;

/// The action around all others.
constexpr std::string_view kWholeSequence = "INSTALL";
constexpr std::string_view kRollbackSuffix = ".Rollback";
/// The type bits of a call: in the script, only when it is rolled back, and whatever its result.
constexpr long long kRollbackType = 0x100;
constexpr long long kCommitType = 0x200;
constexpr long long kContinueType = 0x40;

/// The export that a name of a package stands for, as the include names its actions; null for others.
const ActionFacts* FactsOfName(std::string_view name, bool& rollback) {
    rollback = name.ends_with(kRollbackSuffix);
    if (!rollback) {
        return FindAction(name);
    }
    const ActionFacts* taken = FindAction(name.substr(0, name.size() - kRollbackSuffix.size()));
    return taken == nullptr ? nullptr : FindAction(taken->rollback);
}

bool RunsScript(std::string_view action) {
    return action == "InstallFinalize" || action == "InstallExecute" || action == "InstallExecuteAgain";
}

}  // namespace

void LogStory::Read(std::string_view text) {
    const LogLine line = ParseLogLine(text);
    if (line.kind != Kind::Other) {
        ++installerLines_;
    }
    if (line.time) {
        now_ = line.time;
    }
    windowsShape_ = windowsShape_ || !line.thread.empty();
    switch (line.kind) {
        case Kind::ActionStart:
            Start(line);
            break;
        case Kind::ActionEnded:
            End(line);
            break;
        case Kind::ScheduledCall:
        case Kind::RollbackCall:
        case Kind::CommitCall:
            EndOperation(line);
            Call(line);
            break;
        case Kind::Operation:
            EndOperation(line);
            break;
        case Kind::Invoking:
            Invoke(line);
            break;
        case Kind::ReturnedCode:
            TakeCode(line);
            break;
        case Kind::Error:
            TakeError(line);
            break;
        case Kind::SkippedAction: {
            bool rollback = false;
            if (FactsOfName(line.name, rollback) != nullptr && skipped_.size() < kMostNames) {
                skipped_.emplace_back(line.name);
            }
            break;
        }
        case Kind::EngineResult:
            engineResult_ = line.number;
            break;
        case Kind::ProductName:
            product_ = line.text;
            break;
        case Kind::Other:
            TakeText(line.text);
            break;
        case Kind::DoingAction:
        case Kind::Noise:
            break;
    }
}

void LogStory::Start(const LogLine& line) {
    if (actions_.size() >= kMostOpen) {
        actions_.erase(actions_.begin());
    }
    Open open;
    open.run.name = line.name;
    open.run.facts = FactsOfName(line.name, open.run.rollback);
    open.run.fromScript = IsScriptRunning();
    open.run.started = line.time;
    actions_.push_back(std::move(open));
}

bool LogStory::IsScriptRunning() const {
    return std::any_of(actions_.begin(), actions_.end(),
                       [](const Open& open) { return RunsScript(open.run.name); });
}

void LogStory::End(const LogLine& line) {
    if (RunsScript(line.name)) {
        EndOperations(line.number != 1);
    }
    const auto found = std::find_if(actions_.rbegin(), actions_.rend(),
                                    [&](const Open& open) { return open.run.name == line.name; });
    Open open;
    if (found == actions_.rend()) {
        // The log begins behind its start.
        open.run.name = line.name;
        open.run.facts = FactsOfName(line.name, open.run.rollback);
    } else {
        open = std::move(*found);
        actions_.erase(std::next(found).base());
    }
    open.run.returnValue = static_cast<int>(line.number);
    Close(std::move(open), line.time);
}

void LogStory::Close(Open open, std::optional<DayTime> time) {
    LoggedRun& run = open.run;
    if (run.facts == nullptr) {
        // Perhaps a package's own name for an action: its call from the script will tell.
        if (others_.size() < kMostNames) {
            others_[run.name] = run.started;
        }
        return;
    }
    const bool failed = run.returnValue && *run.returnValue != 1;
    const bool spoke = std::any_of(run.lines.begin(), run.lines.end(),
                                   [](const SaidLine& line) { return line.known != nullptr; });
    const bool immediate = run.facts->execution == Execution::Immediate && !run.rollback;
    if (!immediate && !run.fromScript && !open.invoked && !spoke && !failed) {
        run.scheduled = run.started ? run.started : time;
        run.started.reset();
        if (scheduled_.size() < kMostNames) {
            scheduled_[run.name] = std::move(run);
        }
        return;
    }
    run.ended = time;
    TakeScheduledTime(run);
    Keep(std::move(run));
}

void LogStory::TakeScheduledTime(LoggedRun& run) {
    const auto found = scheduled_.find(run.name);
    if (found != scheduled_.end()) {
        run.scheduled = found->second.scheduled;
        scheduled_.erase(found);
        return;
    }
    const auto other = others_.find(run.name);
    if (other != others_.end()) {
        run.scheduled = other->second;
        others_.erase(other);
    }
}

void LogStory::Call(const LogLine& line) {
    Open open;
    open.run.name = line.name;
    open.run.rollback = (line.number & kRollbackType) != 0;
    bool rollbackByName = false;
    open.run.facts = FindAction(line.target);
    if (open.run.facts == nullptr) {
        open.run.facts = FactsOfName(line.name, rollbackByName);
    }
    const bool kept = open.run.rollback || (line.number & kCommitType) != 0;
    if (open.run.facts == nullptr || (kept && line.kind == Kind::ScheduledCall)) {
        // Another library's, or only kept for the rollback or the commit.
        return;
    }
    open.run.fromScript = true;
    open.run.started = line.time;
    open.run.data = line.data;
    open.run.dataKnown = true;
    open.run.ignored = (line.number & kContinueType) != 0;
    open.thread = line.thread;
    TakeScheduledTime(open.run);
    if (calls_.size() < kMostOpen) {
        calls_[open.thread] = std::move(open);
    }
}

void LogStory::EndOperation(const LogLine& line) {
    const auto found = calls_.find(std::string(line.thread));
    if (found == calls_.end()) {
        return;
    }
    LoggedRun run = std::move(found->second.run);
    calls_.erase(found);
    run.ended = line.time;
    run.returnValue = !run.code || *run.code == 0 || run.ignored.value_or(false) ? 1 : 3;
    Keep(std::move(run));
}

void LogStory::EndOperations(bool failed) {
    for (auto& [thread, open] : calls_) {
        open.run.ended = now_;
        const bool passed =
            !failed || (open.run.code && *open.run.code == 0) || open.run.ignored.value_or(false);
        open.run.returnValue = passed ? 1 : 3;
        Keep(std::move(open.run));
    }
    calls_.clear();
}

LogStory::Open* LogStory::Current() {
    if (!calls_.empty()) {
        return &calls_.rbegin()->second;
    }
    return actions_.empty() ? nullptr : &actions_.back();
}

void LogStory::Invoke(const LogLine& line) {
    const ActionFacts* facts = FindAction(line.target);
    const bool fromScript = std::any_of(calls_.begin(), calls_.end(),
                                        [&](const auto& call) { return call.second.run.facts == facts; });
    if (facts == nullptr || fromScript) {
        return;
    }
    const auto named = std::find_if(actions_.rbegin(), actions_.rend(),
                                    [&](const Open& open) { return open.run.facts == facts; });
    if (named != actions_.rend()) {
        named->invoked = true;
    } else if (!actions_.empty() && calls_.empty() && actions_.back().run.facts == nullptr &&
               actions_.back().run.name != kWholeSequence && !RunsScript(actions_.back().run.name)) {
        // A package with a name of its own for the action.
        actions_.back().run.facts = facts;
        actions_.back().invoked = true;
    }
}

void LogStory::TakeCode(const LogLine& line) {
    const auto code = static_cast<std::uint32_t>(line.number);
    const auto take = [&](LoggedRun& run) {
        run.code = code;
        // An action whose process ends fails the install whatever its attributes: the log then says nothing
        // of a translation.
        run.failedAnyway = !line.ignored && code != 0 && run.ignored.value_or(false);
        if (line.ignored || run.failedAnyway) {
            run.ignored = line.ignored;
        }
    };
    for (auto& [thread, open] : calls_) {
        if (open.run.name == line.name) {
            take(open.run);
            return;
        }
    }
    for (auto open = actions_.rbegin(); open != actions_.rend(); ++open) {
        if (open->run.name == line.name) {
            open->invoked = true;
            take(open->run);
            return;
        }
    }
    // Behind its end, as when two processes write to one log.
    for (auto run = runs_.rbegin(); run != runs_.rend(); ++run) {
        if (run->name == line.name && run->code.value_or(0) == 0) {
            take(*run);
            Judge(*run);
            return;
        }
    }
}

void LogStory::TakeError(const LogLine& line) {
    Open* current = Current();
    if (current != nullptr && current->run.facts != nullptr && current->run.error.empty()) {
        current->run.error = line.text;
    }
}

LogStory::Open* LogStory::Speaker(std::string_view text) {
    for (auto call = calls_.rbegin(); call != calls_.rend(); ++call) {
        if (MeaningOf(*call->second.run.facts, text) != nullptr) {
            return &call->second;
        }
    }
    for (auto open = actions_.rbegin(); open != actions_.rend(); ++open) {
        if (open->run.facts != nullptr && MeaningOf(*open->run.facts, text) != nullptr) {
            return &*open;
        }
    }
    return nullptr;
}

void LogStory::TakeText(std::string_view text) {
    if (text.find_first_not_of(" \t") == std::string_view::npos) {
        return;
    }
    Open* speaker = Speaker(text);
    const LogText* known = speaker == nullptr ? nullptr : MeaningOf(*speaker->run.facts, text);
    if (speaker == nullptr) {
        speaker = Current();
    }
    if (speaker != nullptr && speaker->run.facts != nullptr) {
        Say(*speaker, text, known);
    }
}

void LogStory::Say(Open& open, std::string_view text, const LogText* known) {
    constexpr std::string_view kData = "CustomActionData: ";
    LoggedRun& run = open.run;
    if (text.starts_with(kData) && !run.dataKnown) {
        run.data = text.substr(kData.size());
        run.dataKnown = true;
    }
    if (run.lines.size() >= kMostLinesOfARun || keptBytes_ > kMostBytes) {
        ++run.linesDropped;
        return;
    }
    keptBytes_ += text.size();
    run.lines.push_back({std::string(text), known});
}

void LogStory::Keep(LoggedRun run) {
    // Windows says every number but 0.
    if (windowsShape_ && !run.code && run.returnValue == 1) {
        run.code = 0;
    }
    Judge(run);
    if (runs_.size() >= kMostRuns && Badness(run.verdict) < Badness(Verdict::Ignored)) {
        ++runsDropped_;
        return;
    }
    if (runs_.size() >= 2 * kMostRuns) {
        ++runsDropped_;
        return;
    }
    runs_.push_back(std::move(run));
}

void LogStory::Finish() {
    for (auto& [thread, open] : calls_) {
        Keep(std::move(open.run));
    }
    calls_.clear();
    for (Open& open : actions_) {
        const bool immediate = open.run.facts != nullptr && open.run.facts->execution == Execution::Immediate;
        if (open.run.facts != nullptr && (immediate || open.invoked || open.run.fromScript)) {
            TakeScheduledTime(open.run);
            Keep(std::move(open.run));
        }
    }
    actions_.clear();
    for (auto& [name, run] : scheduled_) {
        if (!run.rollback) {
            Keep(std::move(run));
        }
    }
    scheduled_.clear();
}

}  // namespace corvi::tool
