#include <CLI/CLI.hpp>
#include <memory>

#include "tool/action_facts.h"
#include "tool/console.h"
#include "tool/verbs.h"

namespace corvi::tool {
namespace {

struct ListOptions {
    std::string action;
};

int List(const ListOptions& /*options*/) {
    std::vector<std::vector<std::string>> rows = {{"action", "purpose"}};
    for (const ActionFacts& facts : AllActions()) {
        rows.push_back({facts.name, facts.purpose});
    }
    Print(Table(rows));
    return kFine;
}

}  // namespace

void AddListVerb(CLI::App& program, Work& work) {
    const auto options = std::make_shared<ListOptions>();
    CLI::App* verb = AddVerb(program, "list", "Lists the actions, or tells everything about one.",
                             {"corvi list BlockLaunch"});
    verb->add_option("ACTION", options->action, "one action's name: everything about it");
    verb->callback([options, &work] { work = [options] { return List(*options); }; });
}

}  // namespace corvi::tool
