#include "tool/action_call.h"

#include <msi.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <system_error>

#include "tool/console.h"
#include "tool/facts_text.h"

namespace corvi::tool {
namespace {

constexpr char kActionData[] = "CustomActionData";

struct StatusWords {
    std::uint32_t code;
    const char* words;
};

constexpr StatusWords kStatusWords[] = {
    {0xC0000005, "access violation"},
    {0xC00000FD, "stack overflow"},
    {0xC0000409, "overrun of a guarded stack"},
    {0xC000001D, "illegal instruction"},
    {0xC0000094, "division by zero"},
    {0xC0000417, "invalid argument to the C runtime"},
    {0xC0000374, "damaged heap"},
};

std::string Hex(std::uint32_t code) {
    char text[16] = {};
    std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(code));
    return text;
}

std::string WithStatusWords(std::uint32_t code) {
    for (const StatusWords& status : kStatusWords) {
        if (status.code == code) {
            return Hex(code) + ", " + status.words;
        }
    }
    return code > 0xFFFF ? Hex(code) : std::to_string(code);
}

const char* ClassName(Outcome outcome) {
    switch (outcome) {
        case Outcome::Done:
            return "done";
        case Outcome::Nothing:
            return "nothing to do";
        case Outcome::Skip:
            return "skip the rest";
        case Outcome::Refused:
            return "refused";
        case Outcome::Failed:
            return "failed";
    }
    return "";
}

const char* EndingName(Ending how) {
    switch (how) {
        case Ending::Returned:
            return "returned";
        case Ending::Threw:
            return "error";
        case Ending::Crashed:
            return "crash";
        case Ending::EndedProcess:
            return "ended process";
    }
    return "";
}

std::string MeaningOf(const ActionFacts& facts, std::uint32_t code) {
    const Result* result = ResultMeaning(facts, code);
    if (result != nullptr) {
        return result->meaning;
    }
    return code == 0 ? "success" : "no meaning is known for this result";
}

const char* OnError(const ActionFacts& facts) {
    return facts.onResult == Return::Ignore ? "The installer takes an action that ends so for a failed one, "
                                              "whatever its Return attribute says."
                                            : "The installer takes an action that ends so for a failed one.";
}

}  // namespace

void AddActionOptions(CLI::App& verb, ActionCall& call) {
    verb.add_option("ACTION", call.action, "the action's name")->required();
    verb.add_option_function<std::string>(
            "--data",
            [&call](const std::string& text) {
                call.data = text;
                call.hasData = true;
            },
            "the action data (the property CustomActionData)")
        ->type_name("TEXT")
        ->allow_extra_args(false);
    verb.add_option("--set", call.set, "a property of the session; may stand several times")
        ->type_name("NAME=VALUE")
        ->allow_extra_args(false);
    verb.add_option("--dll", call.dll, "the library (default: Corvi_CA.dll beside this program)")
        ->type_name("PATH")
        ->allow_extra_args(false);
    verb.add_flag("--json", call.json, "the same as JSON");
}

std::vector<std::pair<std::string, std::string>> PropertiesOf(const ActionCall& call) {
    std::vector<std::pair<std::string, std::string>> properties;
    for (const std::string& assignment : call.set) {
        const std::size_t equals = assignment.find('=');
        if (equals == std::string::npos || equals == 0) {
            throw UsageError("--set takes NAME=VALUE, not \"" + assignment + "\"");
        }
        properties.emplace_back(assignment.substr(0, equals), assignment.substr(equals + 1));
    }
    if (call.hasData) {
        properties.emplace_back(kActionData, call.data);
    }
    return properties;
}

bool IsFine(const ActionFacts& facts, const ActionEnd& end) {
    if (end.how != Ending::Returned) {
        return false;
    }
    const Result* result = ResultMeaning(facts, end.code);
    if (result == nullptr) {
        return end.code == 0;
    }
    return result->outcome != Outcome::Failed && result->outcome != Outcome::Refused;
}

std::string InWords(const ActionFacts& facts, const ActionEnd& end) {
    switch (end.how) {
        case Ending::Returned:
            return "result " + ResultNumber(end.code) + ": " + MeaningOf(facts, end.code);
        case Ending::Threw:
            return "an error left the action: " + end.words + ". " + OnError(facts);
        case Ending::Crashed:
            return "the action crashed: " + WithStatusWords(end.code) +
                   (end.words.empty() ? "" : " " + end.words) + ". " + OnError(facts);
        case Ending::EndedProcess:
            return "the action ended the process that it ran in, with " + WithStatusWords(end.code) + ". " +
                   OnError(facts);
    }
    return {};
}

std::string Complaint(const ActionFacts& facts, const ActionEnd& end) {
    switch (end.how) {
        case Ending::Returned: {
            const Result* result = ResultMeaning(facts, end.code);
            return facts.name + ": " + (result != nullptr ? OutcomeWord(result->outcome) : "failed") +
                   ", result " + ResultNumber(end.code);
        }
        case Ending::Threw:
            return facts.name + ": an error left the action";
        case Ending::Crashed:
            return facts.name + ": the action crashed";
        case Ending::EndedProcess:
            break;
    }
    return facts.name + ": the action ended its process";
}

void AddTo(nlohmann::ordered_json& json, const ActionFacts& facts, const ActionEnd& end) {
    json["outcome"] = EndingName(end.how);
    json["fine"] = IsFine(facts, end);
    if (end.how == Ending::Returned) {
        const Result* result = ResultMeaning(facts, end.code);
        json["result"] = end.code;
        json["meaning"] = MeaningOf(facts, end.code);
        json["class"] = result != nullptr ? ClassName(result->outcome) : end.code == 0 ? "done" : "failed";
    } else {
        json["code"] = end.code;
        json["meaning"] = InWords(facts, end);
        json["class"] = "failed";
    }
}

ActionEnd CallAction(HMODULE library, const std::string& action, unsigned long session) {
    using Action = UINT(__stdcall*)(MSIHANDLE);
    const auto entry =
        reinterpret_cast<Action>(reinterpret_cast<void*>(GetProcAddress(library, action.c_str())));
    if (entry == nullptr) {
        throw UsageError("the library has no action " + action);
    }
    // The library has a C++ library of its own: its error is known by its standard bases only.
    try {
        return {Ending::Returned, entry(session), {}};
    } catch (const std::system_error& error) {
        return {Ending::Threw, static_cast<std::uint32_t>(error.code().value()),
                std::string(error.what()) + " (error " + std::to_string(error.code().value()) + ")"};
    } catch (const std::exception& error) {
        return {Ending::Threw, 0, error.what()};
    } catch (...) {
        return {Ending::Threw, 0, "of no known type"};
    }
}

std::vector<std::string> Notes(const ActionFacts& facts, const ActionCall& call, bool elevated) {
    std::vector<std::string> notes;
    if (!elevated && facts.needsElevation) {
        notes.emplace_back("not elevated, and this action needs it: what the machine refuses fails");
    }
    const bool set = std::any_of(call.set.begin(), call.set.end(), [](const std::string& assignment) {
        return assignment.compare(0, sizeof(kActionData), std::string(kActionData) + "=") == 0;
    });
    if (!call.hasData && !set && facts.data.Any() && !facts.data.optional) {
        notes.emplace_back("no action data given (--data), and this action reads it");
    }
    return notes;
}

std::string LogLine(const std::wstring& text) {
    std::string line = ToUtf8(text);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    return line;
}

}  // namespace corvi::tool
