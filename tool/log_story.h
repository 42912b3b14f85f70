#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tool/action_facts.h"
#include "tool/log_line.h"

namespace corvi::tool {

/// One line that an action wrote; known: the table's text, or null.
struct SaidLine {
    std::string text;
    const LogText* known = nullptr;
};

/// What one run of an action came to.
enum class Verdict {
    Done,
    Nothing,     ///< it found nothing to work on
    Skip,        ///< it made the installer skip the rest, successfully
    NeverRan,    ///< written to the script, which then did not get to it
    Unfinished,  ///< the log ends while it runs
    Ignored,     ///< it failed, and the package ignores that
    Cancelled,   ///< it ended the install as cancelled
    Refused,     ///< it stopped the install on purpose
    Failed,      ///< it failed and stopped the install
};

/// One action of the library in a log: as it was written to the script, and as it ran.
struct LoggedRun {
    std::string name;                    ///< the package's name for it
    const ActionFacts* facts = nullptr;  ///< the export that it calls
    bool rollback = false;
    bool fromScript = false;
    std::optional<DayTime> scheduled;
    std::optional<DayTime> started;
    std::optional<DayTime> ended;
    std::string data;
    bool dataKnown = false;
    std::vector<SaidLine> lines;
    std::size_t linesDropped = 0;
    std::optional<std::uint32_t> code;  ///< what it returned, where the log says so
    std::optional<int> returnValue;     ///< the installer's word: 1 success, 2 cancelled, 3 failure
    std::optional<bool> ignored;        ///< the package's Return="ignore", where the log says so
    bool failedAnyway = false;          ///< its result was to be ignored, and the log says it was not
    std::string error;                  ///< the installer's own message about it
    Verdict verdict = Verdict::Done;
    std::string result;     ///< the result in words
    std::string installer;  ///< what the package's attributes make of it
};

/// The actions of the library in one log, read line by line in bounded memory.
class LogStory {
public:
    void Read(std::string_view line);
    /// At the end of the log: what still runs is unfinished, what was only scheduled never ran.
    void Finish();

    /// In the order in which they ran; those that never ran stand last.
    const std::vector<LoggedRun>& Runs() const { return runs_; }
    const std::vector<std::string>& Skipped() const { return skipped_; }
    /// Runs beyond the room that is kept, not failed ones.
    std::size_t RunsDropped() const { return runsDropped_; }
    const std::string& Product() const { return product_; }
    std::optional<long long> EngineResult() const { return engineResult_; }
    /// True when any line was an installer's.
    bool IsInstallerLog() const { return installerLines_ > 0; }

private:
    struct Open {
        LoggedRun run;
        bool invoked = false;
        std::string thread;
    };

    void Start(const LogLine& line);
    void End(const LogLine& line);
    void Call(const LogLine& line);
    void Invoke(const LogLine& line);
    void TakeCode(const LogLine& line);
    void TakeError(const LogLine& line);
    void TakeText(std::string_view text);
    void EndOperation(const LogLine& line);
    void EndOperations(bool failed);
    void Close(Open open, std::optional<DayTime> time);
    void Keep(LoggedRun run);
    bool IsScriptRunning() const;
    Open* Current();
    Open* Speaker(std::string_view text);
    void Say(Open& open, std::string_view text, const LogText* known);
    void TakeScheduledTime(LoggedRun& run);

    std::vector<Open> actions_;          ///< between "Action start" and "Action ended"
    std::map<std::string, Open> calls_;  ///< running from the script, by the thread that runs it
    std::map<std::string, LoggedRun> scheduled_;
    std::map<std::string, std::optional<DayTime>> others_;  ///< starts of actions under unknown names
    std::vector<LoggedRun> runs_;
    std::vector<std::string> skipped_;
    std::string product_;
    std::optional<long long> engineResult_;
    std::optional<DayTime> now_;
    bool windowsShape_ = false;  ///< lines with the installer's mark: every result but 0 is in the log
    std::size_t keptBytes_ = 0;
    std::size_t runsDropped_ = 0;
    std::size_t installerLines_ = 0;
};

/// Sets verdict, result and installer of a run whose other members are known.
void Judge(LoggedRun& run);

/// The worse a verdict is, the higher its number.
int Badness(Verdict verdict);

/// "done", "failed, ignored", "never ran" and so on.
std::string VerdictWord(Verdict verdict);

}  // namespace corvi::tool
