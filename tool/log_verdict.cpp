#include "tool/log_story.h"

#include "tool/facts_text.h"

namespace corvi::tool {
namespace {

constexpr std::uint32_t kSkipTheRest = 259;
constexpr std::uint32_t kUserExit = 1602;
constexpr int kSuccess = 1;
constexpr int kCancelled = 2;
constexpr int kFinished = 5;
// What the installer says of an action that it could not call.
constexpr std::uint32_t kNoSuchEntryPoint = 1154;
constexpr std::uint32_t kLibraryNotLoaded = 1157;

bool IsIgnored(const LoggedRun& run) {
    return run.ignored ? *run.ignored : run.rollback || run.facts->onResult == Return::Ignore;
}

/// Where the log does not tell the number: the one result that is no success.
const Result* OnlyFailure(const ActionFacts& facts) {
    const Result* failure = nullptr;
    for (const Result& result : facts.results) {
        if (result.outcome == Outcome::Failed || result.outcome == Outcome::Refused) {
            if (failure != nullptr) {
                return nullptr;
            }
            failure = &result;
        }
    }
    return failure;
}

std::string MissingKeys(const ActionFacts& facts) {
    std::string keys;
    for (const RegistryRead& read : facts.reads) {
        if (read.absenceLetsErrorOut) {
            keys += (keys.empty() ? "" : ", ") + read.root + "\\" + read.key +
                    (read.value.empty() ? "" : " | " + read.value);
        }
    }
    return keys;
}

/// A failure that no result of the table stands for, or may not: an error that left the action.
std::string EscapedError(const ActionFacts& facts) {
    const std::string keys = MissingKeys(facts);
    return keys.empty() ? "an error left the action, or its process ended"
                        : "a registry error left the action: " + keys + " is missing or refused";
}

std::string SuccessMeaning(const ActionFacts& facts) {
    const Result* result = ResultMeaning(facts, 0);
    return result != nullptr && result->outcome != Outcome::Failed ? result->meaning : "";
}

/// The outcome of a run whose number the log tells.
Outcome WithCode(LoggedRun& run) {
    const Result* result = ResultMeaning(*run.facts, *run.code);
    run.result = ResultNumber(*run.code);
    if (result != nullptr) {
        run.result += " (" +
                      std::string(result->outcome == Outcome::Failed    ? "failed"
                                  : result->outcome == Outcome::Refused ? "refused"
                                  : result->outcome == Outcome::Skip    ? "skip"
                                  : result->outcome == Outcome::Nothing ? "nothing to do"
                                                                        : "done") +
                      "): " + result->meaning;
        if (*run.code == 1603 && result->outcome == Outcome::Failed && !MissingKeys(*run.facts).empty()) {
            run.result += "; or " + EscapedError(*run.facts);
        }
        if (*run.code == 1603 && result->outcome == Outcome::Done) {
            run.result += "; or an error left the action, which has the same number";
        }
        return result->outcome;
    }
    if (*run.code == 0) {
        return Outcome::Done;
    }
    run.result +=
        " (failed): " + (*run.code == kNoSuchEntryPoint ? "the library in the package has no such entry point"
                         : *run.code == kLibraryNotLoaded
                             ? "the library could not be loaded: one that it needs is missing"
                             : EscapedError(*run.facts));
    return Outcome::Failed;
}

/// The outcome of a run of which the log only tells what the installer made of it.
Outcome WithReturnValue(LoggedRun& run) {
    if (*run.returnValue == kSuccess) {
        if (run.facts->results.size() == 1) {
            const Result& only = run.facts->results[0];
            run.result = ResultNumber(only.code.value_or(0)) + " (done): " + only.meaning;
        } else if (IsIgnored(run)) {
            run.result = "not in the log: the installer says success whatever the action returns";
        } else {
            run.result = "0 (done): " + SuccessMeaning(*run.facts);
            const Result* skip = ResultMeaning(*run.facts, kSkipTheRest);
            if (skip != nullptr && skip->outcome == Outcome::Skip) {
                run.result += ". Wine's installer takes 259 for it: " + skip->meaning;
            }
        }
        return Outcome::Done;
    }
    if (*run.returnValue == kCancelled) {
        run.result = "1602 (cancelled)";
        const Result* result = ResultMeaning(*run.facts, kUserExit);
        if (result != nullptr) {
            run.result = "1602 (refused): " + result->meaning;
        }
        return Outcome::Refused;
    }
    const Result* failure = OnlyFailure(*run.facts);
    if (failure == nullptr) {
        run.result = "not in the log (failed): " + EscapedError(*run.facts);
        return Outcome::Failed;
    }
    run.result = ResultNumber(failure->code.value_or(1603)) + " (" +
                 (failure->outcome == Outcome::Refused ? "refused" : "failed") + "): " + failure->meaning;
    if (!MissingKeys(*run.facts).empty()) {
        run.result += "; or " + EscapedError(*run.facts);
    }
    return failure->outcome;
}

Verdict PassedVerdict(Outcome outcome) {
    switch (outcome) {
        case Outcome::Nothing:
            return Verdict::Nothing;
        case Outcome::Skip:
            return Verdict::Skip;
        case Outcome::Failed:
        case Outcome::Refused:
            return Verdict::Ignored;
        case Outcome::Done:
            break;
    }
    return Verdict::Done;
}

void JudgeChecked(LoggedRun& run, Outcome outcome) {
    if (run.code == kSkipTheRest) {
        run.verdict = Verdict::Skip;
        run.installer = "259: the installer skips the rest of the sequence, successfully";
    } else if (run.code == kUserExit || run.returnValue == kCancelled) {
        run.verdict = Verdict::Cancelled;
        run.installer = "1602: the installer ends as cancelled";
    } else {
        run.verdict = outcome == Outcome::Refused ? Verdict::Refused : Verdict::Failed;
        run.installer =
            std::string(run.failedAnyway ? "an action that ends so is not ignored" : "Return=\"check\"") +
            ": the install fails (1603)" +
            std::string(run.fromScript ? " and what was done is rolled back" : "");
        if (outcome == Outcome::Done || outcome == Outcome::Nothing) {
            run.installer += ". This result is a success: declare the action Return=\"ignore\"";
        }
    }
}

}  // namespace

void Judge(LoggedRun& run) {
    if (!run.started && !run.ended) {
        run.verdict = Verdict::NeverRan;
        run.result = "none: it was written to the script, which did not get to it";
        run.installer = "nothing was done";
        return;
    }
    if (!run.code && !run.returnValue) {
        run.verdict = Verdict::Unfinished;
        run.result = "none: the log ends while the action runs";
        run.installer = "not known";
        return;
    }
    if (!run.code && run.returnValue == kFinished) {
        run.code = kSkipTheRest;
    }
    const Outcome outcome = run.code ? WithCode(run) : WithReturnValue(run);
    const bool passed = run.code ? *run.code == 0 || IsIgnored(run) : *run.returnValue == kSuccess;
    if (!passed) {
        JudgeChecked(run, outcome);
        return;
    }
    run.verdict = PassedVerdict(outcome);
    run.installer = run.code.value_or(0) != 0 || (!run.code && IsIgnored(run))
                        ? "Return=\"ignore\": the install goes on whatever the result"
                        : "the install goes on";
    if (run.rollback) {
        run.installer = "it was part of the rollback";
    }
}

int Badness(Verdict verdict) { return static_cast<int>(verdict); }

std::string VerdictWord(Verdict verdict) {
    switch (verdict) {
        case Verdict::Done:
            return "done";
        case Verdict::Nothing:
            return "nothing to do";
        case Verdict::Skip:
            return "skip the rest";
        case Verdict::NeverRan:
            return "never ran";
        case Verdict::Unfinished:
            return "unfinished";
        case Verdict::Ignored:
            return "failed, ignored";
        case Verdict::Cancelled:
            return "cancelled";
        case Verdict::Refused:
            return "refused";
        case Verdict::Failed:
            break;
    }
    return "failed";
}

}  // namespace corvi::tool
