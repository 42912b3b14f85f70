#include "tool/log_line.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace corvi::tool {
namespace {

using Kind = LogLine::Kind;

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

bool TakePrefix(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix)) {
        return false;
    }
    text.remove_prefix(prefix.size());
    return true;
}

/// The number at the front, with a sign, taken off the text.
std::optional<long long> TakeNumber(std::string_view& text) {
    long long number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) {
        return std::nullopt;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return number;
}

/// A time at the front: "4:42:33", "16:42:33:123" or "16:42:33.123", taken off the text.
std::optional<DayTime> TakeTime(std::string_view& text) {
    constexpr std::array<DayTime, 4> kFactors = {3600000, 60000, 1000, 1};
    std::string_view rest = text;
    DayTime time = 0;
    for (std::size_t part = 0; part < kFactors.size(); ++part) {
        if (part > 0) {
            const bool more = rest.size() > 1 && (rest[0] == ':' || rest[0] == '.') && IsDigit(rest[1]);
            if (!more) {
                if (part < 3) {
                    return std::nullopt;
                }
                break;
            }
            rest.remove_prefix(1);
        }
        const auto number = rest.empty() || !IsDigit(rest[0]) ? std::nullopt : TakeNumber(rest);
        if (!number) {
            return std::nullopt;
        }
        time += *number * kFactors[part];
    }
    text = rest;
    return time;
}

/// "MSI (s) (A4:B0) [16:42:33:123]: " in front of the installer's own lines.
bool TakeMark(std::string_view& text, LogLine& line) {
    std::string_view rest = text;
    if (!TakePrefix(rest, "MSI (")) {
        return false;
    }
    const std::size_t close = rest.find(") [");
    if (close > 40) {  // or not there at all
        return false;
    }
    line.thread = rest.substr(0, close);
    rest.remove_prefix(close + 3);
    line.time = TakeTime(rest);
    if (!line.time || !TakePrefix(rest, "]: ")) {
        return false;
    }
    text = rest;
    return true;
}

/// What stands between `before` and the next `after` (or the end).
std::string_view Between(std::string_view text, std::string_view before, std::string_view after) {
    const std::size_t start = text.find(before);
    if (start == std::string_view::npos) {
        return {};
    }
    const std::string_view rest = text.substr(start + before.size());
    return rest.substr(0, rest.find(after));
}

/// Behind "Executing op: CustomActionSchedule(".
void ParseCall(std::string_view arguments, LogLine& line) {
    line.name = Between(arguments, "Action=", ",");
    line.target = Between(arguments, "Target=", ",");
    std::string_view type = Between(arguments, "ActionType=", ",");
    line.number = TakeNumber(type).value_or(0);
    constexpr std::string_view kData = "CustomActionData=";
    const std::size_t data = arguments.find(kData);
    if (data != std::string_view::npos) {
        line.data = arguments.substr(data + kData.size());
        if (line.data.ends_with(')')) {
            line.data.remove_suffix(1);
        }
    }
    if (line.target.ends_with(')')) {
        line.target.remove_suffix(1);
    }
}

void ParseOperation(std::string_view operation, LogLine& line) {
    if (TakePrefix(operation, "CustomActionSchedule(")) {
        line.kind = Kind::ScheduledCall;
        ParseCall(operation, line);
    } else if (TakePrefix(operation, "CustomActionRollback(")) {
        line.kind = Kind::RollbackCall;
        ParseCall(operation, line);
    } else if (TakePrefix(operation, "CustomActionCommit(")) {
        line.kind = Kind::CommitCall;
        ParseCall(operation, line);
    } else {
        line.kind = Kind::Operation;
    }
}

/// A line behind the installer's mark.
void ParseMarked(std::string_view text, LogLine& line) {
    line.kind = Kind::Noise;
    if (TakePrefix(text, "Doing action: ")) {
        line.kind = Kind::DoingAction;
        line.name = text;
    } else if (TakePrefix(text, "Skipping action: ")) {
        line.kind = Kind::SkippedAction;
        line.name = text.substr(0, text.find(" ("));
    } else if (TakePrefix(text, "Executing op: ")) {
        ParseOperation(text, line);
    } else if (text.starts_with("Invoking remote custom action")) {
        line.kind = Kind::Invoking;
        line.target = Between(text, "Entrypoint: ", "\n");
    } else if (TakePrefix(text, "MainEngineThread is returning ")) {
        line.kind = Kind::EngineResult;
        line.number = TakeNumber(text).value_or(0);
    }
}

/// "Action start 4:42:33: NAME." and "Action ended 4:42:33: NAME. Return value 1."
bool ParseActionLine(std::string_view text, LogLine& line) {
    const bool start = TakePrefix(text, "Action start ");
    if (!start && !TakePrefix(text, "Action ended ")) {
        return false;
    }
    const auto time = TakeTime(text);
    if (!time || !TakePrefix(text, ": ")) {
        return false;
    }
    line.time = line.time ? line.time : time;
    if (start) {
        line.kind = Kind::ActionStart;
        line.name = text.substr(0, text.rfind('.'));
        return true;
    }
    constexpr std::string_view kReturn = ". Return value ";
    const std::size_t end = text.find(kReturn);
    if (end == std::string_view::npos) {
        return false;
    }
    const std::string_view name = text.substr(0, end);
    text.remove_prefix(end + kReturn.size());
    const auto value = TakeNumber(text);
    if (!value) {
        return false;
    }
    line.kind = Kind::ActionEnded;
    line.name = name;
    line.number = *value;
    return true;
}

/// "CustomAction NAME returned actual error code 1603 (note ...)" or "... but will be translated to
/// success due to continue marking".
bool ParseReturnedCode(std::string_view text, LogLine& line) {
    constexpr std::string_view kReturned = " returned actual error code ";
    const std::size_t returned = text.find(kReturned);
    if (!TakePrefix(text, "CustomAction ") || returned == std::string_view::npos) {
        return false;
    }
    const std::string_view name = text.substr(0, text.find(kReturned));
    text.remove_prefix(name.size() + kReturned.size());
    const auto code = TakeNumber(text);
    // A log that is cut off within the number tells none.
    if (!code || text.empty()) {
        return false;
    }
    line.kind = Kind::ReturnedCode;
    line.name = name;
    line.number = *code;
    line.ignored = text.find("translated to success") != std::string_view::npos;
    return true;
}

/// "Error 1723. There is a problem ..."
bool ParseError(std::string_view text, LogLine& line) {
    const std::string_view whole = text;
    if (!TakePrefix(text, "Error ") || text.empty() || !IsDigit(text[0])) {
        return false;
    }
    line.number = TakeNumber(text).value_or(0);
    line.kind = text.starts_with('.') ? Kind::Error : Kind::Other;
    line.text = whole;
    return line.kind == Kind::Error;
}

bool IsInstallersOwn(std::string_view text) {
    constexpr std::string_view kFronts[] = {"Property(", "=== ",  "Message type: ", "Rollback: ", "Note: ",
                                            "File: ",    "Key: ", "Feature: ",      "Property: "};
    if (std::any_of(std::begin(kFronts), std::end(kFronts),
                    [&](std::string_view front) { return text.starts_with(front); })) {
        return true;
    }
    std::string_view rest = text;
    // "Action 4:42:33: NAME. Description" and "1: ... 2: ..."
    if (TakePrefix(rest, "Action ") && TakeTime(rest)) {
        return true;
    }
    return text.size() > 2 && IsDigit(text[0]) && text[1] == ':' && text[2] == ' ';
}

void ParseUnmarked(std::string_view text, LogLine& line) {
    if (ParseActionLine(text, line) || ParseReturnedCode(text, line) || ParseError(text, line)) {
        return;
    }
    std::string_view product = text;
    if (TakePrefix(product, "Property(S): ProductName = ") ||
        TakePrefix(product, "Property(C): ProductName = ")) {
        line.kind = Kind::ProductName;
        line.text = product;
    } else {
        line.kind = IsInstallersOwn(text) ? Kind::Noise : Kind::Other;
        line.text = text;
    }
}

std::string_view Trimmed(std::string_view text) {
    const std::size_t start = text.find_first_not_of(" \t");
    if (start == std::string_view::npos) {
        return {};
    }
    return text.substr(start, text.find_last_not_of(" \t") - start + 1);
}

/// The position behind a placeholder ("%s", "%ls", "%d", "0x%x") that begins at start.
std::size_t PlaceholderEnd(std::string_view pattern, std::size_t start) {
    const std::size_t end = pattern.find_first_of("sdx", start + 1);
    return end == std::string_view::npos ? pattern.size() : end + 1;
}

/// True when the text is the pattern with something in the place of each placeholder.
bool Matches(std::string_view pattern, std::string_view text) {
    bool anchored = true;
    while (!pattern.empty()) {
        const std::size_t placeholder = pattern.find('%');
        const std::string_view literal = pattern.substr(0, placeholder);
        if (placeholder == std::string_view::npos) {
            return anchored ? text == literal : text.ends_with(literal);
        }
        const std::size_t found = text.find(literal);
        if (found == std::string_view::npos || (anchored && found != 0)) {
            return false;
        }
        text.remove_prefix(found + literal.size());
        pattern.remove_prefix(PlaceholderEnd(pattern, placeholder));
        anchored = false;
    }
    return true;
}

/// As many characters as the error's number are missing at the front of this one line.
constexpr std::string_view kCutAtItsFront = "getMSIProductInfo::Failed with error";
constexpr std::size_t kLeastOfIt = 5;

/// Lines that stand in no action's own list: the one that any action writes, and the one that is a value
/// alone.
const LogText kOverflow = {
    "CA buffer overflow", "a line that could not be formatted: what the action was to say is lost", {}};
constexpr std::string_view kListsCopies = "GetRelatedMSIVersions";
const LogText kVersionAlone = {"%s", "the version of an installed copy", {}};

bool IsVersion(std::string_view text) {
    return text.find('.') != std::string_view::npos && IsDigit(text.front()) &&
           text.find_first_not_of("0123456789.") == std::string_view::npos;
}

/// What a line means that no text of the action's list is; null for nothing.
const LogText* MeaningOfUnlisted(const ActionFacts& facts, std::string_view line) {
    if (line == kOverflow.text) {
        return &kOverflow;
    }
    const bool lists = std::any_of(facts.log.begin(), facts.log.end(),
                                   [](const LogText& text) { return text.text == kListsCopies; });
    return lists && IsVersion(line) ? &kVersionAlone : nullptr;
}

}  // namespace

LogLine ParseLogLine(std::string_view text) {
    LogLine line;
    const bool marked = TakeMark(text, line);
    if (marked) {
        ParseMarked(text, line);
    }
    if (!marked || line.kind == Kind::Noise) {
        const LogLine mark = line;
        ParseUnmarked(text, line);
        // "(A4!B0)": said in the process of a custom action, possibly by the action itself.
        if (marked && line.kind == Kind::Other && mark.thread.find('!') == std::string_view::npos) {
            line.kind = Kind::Noise;
        }
        line.thread = mark.thread;
    }
    return line;
}

const LogText* MeaningOf(const ActionFacts& facts, std::string_view line) {
    const std::string_view trimmed = Trimmed(line);
    // A value that is empty leaves the blank before it at the line's end.
    const std::string padded = std::string(trimmed) + " ";
    for (const LogText& text : facts.log) {
        const std::string_view pattern = Trimmed(text.text);
        if (Matches(pattern, trimmed) || Matches(pattern, padded)) {
            return &text;
        }
        if (pattern == kCutAtItsFront && trimmed.size() >= kLeastOfIt && kCutAtItsFront.ends_with(trimmed)) {
            return &text;
        }
    }
    return MeaningOfUnlisted(facts, trimmed);
}

}  // namespace corvi::tool
