#pragma once

#include <windows.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tool/action_facts.h"

namespace CLI {  // NOLINT(readability-identifier-naming): the parser's own
class App;
}

namespace corvi::tool {

/// What `plan` and `run` are asked for.
struct ActionCall {
    std::string action;
    std::string data;
    bool hasData = false;
    std::vector<std::string> set;  ///< "NAME=VALUE" each
    std::string dll;
    bool json = false;
};

/// Adds ACTION and the options that both verbs have.
void AddActionOptions(CLI::App& verb, ActionCall& call);

/// Each --set as name and value, --data as the property in which an action finds it. Throws UsageError for
/// one that is no assignment.
std::vector<std::pair<std::string, std::string>> PropertiesOf(const ActionCall& call);

/// How an action ended.
enum class Ending {
    Returned,  ///< with a result
    Threw,     ///< an error left it
    Crashed,
    EndedProcess,
};

struct ActionEnd {
    Ending how = Ending::Returned;
    /// The result, the code of the error that left it (0 when it has none), of the crash, or of the process.
    std::uint32_t code = 0;
    std::string words;  ///< of the error that left it, or where it crashed
};

/// True when the install could go on: the action's own classes of results decide, not the number.
bool IsFine(const ActionFacts& facts, const ActionEnd& end);

/// The end in words, one paragraph.
std::string InWords(const ActionFacts& facts, const ActionEnd& end);

/// The one line for standard error when it is not fine: "BlockLaunch: refused, result 1603".
std::string Complaint(const ActionFacts& facts, const ActionEnd& end);

/// The end as members of a JSON object: "outcome", "result", "meaning", ...
void AddTo(nlohmann::ordered_json& json, const ActionFacts& facts, const ActionEnd& end);

/// Calls the exported action and catches what leaves it.
ActionEnd CallAction(HMODULE library, const std::string& action, unsigned long session);

/// What there is to say before the action is called: not elevated, no action data. Empty for nothing.
std::vector<std::string> Notes(const ActionFacts& facts, const ActionCall& call, bool elevated);

/// A log line without the line ends that the action's texts carry.
std::string LogLine(const std::wstring& text);

}  // namespace corvi::tool
