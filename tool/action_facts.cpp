#include "tool/action_facts.h"

#include <algorithm>

namespace corvi::tool {
namespace {

constexpr char kLaunchedProperty[] = "LAUNCHED_FROM_PIM";

std::vector<ActionFacts> LaunchGuard() {
    const std::vector<LogText> lines = {
        {"SABLE_CA Launched from PIM: %s ",
         "the install manager started the package; the property's value",
         {}},
        {"SABLE_CA Not Launched from PIM and unable to get property",
         "the property LAUNCHED_FROM_PIM is empty or longer than 259 characters",
         {}},
    };
    return {
        {.name = "LaunchedFromPIM",
         .room = "Launch guard",
         .purpose = "Tells whether the install manager started the package.",
         .execution = Execution::Immediate,
         .onResult = Return::Check,
         .condition = "NOT Installed",
         .properties = {kLaunchedProperty},
         .needsElevation = false,
         .results = {{0, Outcome::Done, "the install manager started the package"},
                     {{}, Outcome::Refused, "started by hand: the launch-block message was shown"}},
         .log = lines},
    };
}

std::vector<ActionFacts> Everything() {
    std::vector<ActionFacts> all;
    for (const auto room : {LaunchGuard}) {
        for (ActionFacts& facts : room()) {
            all.push_back(std::move(facts));
        }
    }
    return all;
}

std::string Lowered(std::string_view text) {
    std::string lowered(text);
    std::transform(lowered.begin(), lowered.end(), lowered.begin(), [](char character) {
        return character >= 'A' && character <= 'Z' ? static_cast<char>(character + ('a' - 'A')) : character;
    });
    return lowered;
}

/// How many characters must be changed, added or taken away to make one text of the other.
std::size_t Distance(const std::string& left, const std::string& right) {
    std::vector<std::size_t> row(right.size() + 1);
    for (std::size_t column = 0; column <= right.size(); ++column) {
        row[column] = column;
    }
    for (std::size_t line = 1; line <= left.size(); ++line) {
        std::size_t diagonal = row[0];
        row[0] = line;
        for (std::size_t column = 1; column <= right.size(); ++column) {
            const std::size_t changed = diagonal + (left[line - 1] == right[column - 1] ? 0 : 1);
            diagonal = row[column];
            row[column] = std::min({row[column] + 1, row[column - 1] + 1, changed});
        }
    }
    return row[right.size()];
}

}  // namespace

const std::vector<ActionFacts>& AllActions() {
    static const std::vector<ActionFacts> all = Everything();
    return all;
}

const ActionFacts* FindAction(std::string_view name) {
    const auto& all = AllActions();
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const ActionFacts& facts) { return facts.name == name; });
    return found == all.end() ? nullptr : &*found;
}

const ActionFacts* NearestAction(std::string_view name) {
    const std::string wanted = Lowered(name);
    const ActionFacts* nearest = nullptr;
    std::size_t least = wanted.size() / 3 + 2;
    for (const ActionFacts& facts : AllActions()) {
        const std::size_t distance = Distance(wanted, Lowered(facts.name));
        if (distance < least) {
            least = distance;
            nearest = &facts;
        }
    }
    return nearest;
}

const Result* ResultMeaning(const ActionFacts& action, std::uint32_t code) {
    const Result* other = nullptr;
    for (const Result& result : action.results) {
        if (result.code == code) {
            return &result;
        }
        if (!result.code) {
            other = &result;
        }
    }
    return other;
}

}  // namespace corvi::tool
