#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tool/action_facts.h"

namespace corvi::tool {

/// A time of day in milliseconds since midnight.
using DayTime = long long;

/// One line of an installer log, taken apart. Texts point into the line.
struct LogLine {
    enum class Kind {
        Other,          ///< a line of an action, or anything else without the installer's mark
        Noise,          ///< the installer's own, of no interest here
        DoingAction,    ///< name
        SkippedAction,  ///< name: its condition was false
        ActionStart,    ///< name
        ActionEnded,    ///< name, number: the return value
        Operation,      ///< an operation of the script that is no custom action
        ScheduledCall,  ///< name, target, number: the type, data: run from the script
        RollbackCall,   ///< the same, while the script is rolled back
        CommitCall,     ///< the same, when the script has come to its end
        Invoking,       ///< target: the entry point
        ReturnedCode,   ///< name, number; ignored: translated to success
        Error,          ///< the installer's error message: number, text
        EngineResult,   ///< number: the result of the whole run
        ProductName,    ///< text
    };
    Kind kind = Kind::Other;
    std::string_view thread;  ///< "s A4:B0" for lines with the installer's mark
    std::optional<DayTime> time;
    std::string_view name;
    std::string_view target;
    std::string_view data;
    std::string_view text;
    long long number = 0;
    bool ignored = false;
};

LogLine ParseLogLine(std::string_view line);

/// The text of the table that a line of that action has; null for none.
const LogText* MeaningOf(const ActionFacts& facts, std::string_view line);

}  // namespace corvi::tool
