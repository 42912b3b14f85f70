#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>

#include "tool/action_facts.h"
#include "tool/console.h"
#include "tool/facts_text.h"
#include "tool/verbs.h"

namespace corvi::tool {
namespace {

struct IncludeOptions {
    std::vector<std::string> actions;
    std::string dll;
    int wix = 3;
};

constexpr char kDeclaration[] = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";

constexpr char kIntroduction[] =
    "Custom actions of Corvi_CA.dll, ready to include, as corvi include prints them: each package schedules "
    "those "
    "that it needs. The DLL is looked up in the folder that the compiler runs in. Deferred actions that take "
    "action "
    "data get it from a property action of the package, scheduled just before: CustomAction Id=\"X.Data\" "
    "Property=\"X\" Value=\"Key=...;Key=...\". X.Rollback takes X back when the install fails after it: "
    "schedule it "
    "before X, with action data of its own where it is said so. docs/actions.md says why each attribute is "
    "what it "
    "is.";
constexpr char kForWix3[] =
    " wixl compiles Execute=\"rollback\" into an immediate action: package/finish_package.py mends that in "
    "the built "
    "package.";
constexpr char kForWix4[] =
    " Each action stands in a fragment of its own, and each rollback: <CustomActionRef Id=\"X\" /> in the "
    "package "
    "links the one and schedules it at its usual place, <CustomActionRef Id=\"X.Rollback\" /> the other; "
    "what is "
    "not referred to is not linked. A package with an order of its own takes the Custom element out.";

constexpr char kGuardsNote[] =
    "Guards. An action that lets a registry error out where its key is missing runs under a condition that "
    "names the "
    "guard's property. A package that writes the key itself before the action runs needs none. Other "
    "searches "
    "tell what was there before an install: a rollback must not take that away.";

std::string Escaped(const std::string& text) {
    std::string escaped;
    for (const char character : text) {
        switch (character) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            default:
                escaped += character;
        }
    }
    return escaped;
}

std::string Attribute(const char* name, const std::string& value) {
    return std::string(name) + "=\"" + Escaped(value) + "\"";
}

/// A comment of wrapped lines, indented by that many blanks.
std::string Comment(const std::string& text, std::size_t indent) {
    const std::string blanks(indent, ' ');
    std::string comment = Wrap(text, blanks + "<!-- ", blanks + "     ");
    comment.pop_back();
    const std::size_t lastLine = comment.rfind('\n') + 1;
    const bool fits = comment.size() - lastLine + 4 <= kColumns;
    return comment + (fits ? " -->\n" : "\n" + blanks + "-->\n");
}

/// One declaration with its attributes, wrapped at blanks between them.
std::string Element(const std::string& name, const std::vector<std::string>& attributes, std::size_t indent,
                    const std::string& end = " />") {
    const std::string next(indent + 4, ' ');
    std::string text;
    std::string line = std::string(indent, ' ') + "<" + name;
    for (const std::string& attribute : attributes) {
        const std::size_t room = &attribute == &attributes.back() ? end.size() : 0;
        if (line.size() + 1 + attribute.size() + room > kColumns) {
            text += line + "\n";
            // A line end inside an attribute's value means a blank.
            line = Wrap(attribute, next, next + "    ");
            line.pop_back();
            text += line.substr(0, line.rfind('\n') + 1);
            line.erase(0, line.rfind('\n') + 1);
        } else {
            line += " " + attribute;
        }
    }
    return text + line + end + "\n";
}

std::string ExecuteWord(const ActionFacts& facts) {
    return facts.execution == Execution::Immediate ? "immediate" : "deferred";
}

/// The CustomAction element. binary: the attribute that names the library.
std::string ActionElement(const ActionFacts& facts, const char* binary, std::size_t indent) {
    std::vector<std::string> attributes = {Attribute("Id", facts.name), Attribute(binary, "Corvi_CA"),
                                           Attribute("DllEntry", facts.name),
                                           Attribute("Execute", ExecuteWord(facts))};
    if (facts.execution == Execution::Deferred) {
        attributes.push_back(Attribute("Impersonate", facts.impersonated ? "yes" : "no"));
    }
    attributes.push_back(Attribute("Return", facts.onResult == Return::Check ? "check" : "ignore"));
    return Element("CustomAction", attributes, indent);
}

std::string RollbackElement(const ActionFacts& facts, const char* binary, std::size_t indent) {
    return Element("CustomAction",
                   {Attribute("Id", facts.name + ".Rollback"), Attribute(binary, "Corvi_CA"),
                    Attribute("DllEntry", facts.rollback), Attribute("Execute", "rollback"),
                    Attribute("Impersonate", "no"), Attribute("Return", "ignore")},
                   indent);
}

/// What an author needs to know to schedule the action: condition, guard, action data.
std::string ActionNote(const ActionFacts& facts, std::size_t indent) {
    std::string note = "Condition: " + (facts.condition.empty() ? "none" : facts.condition);
    if (facts.ownPackageWritesKeys && !facts.guards.empty()) {
        note += "; where the package does not write the key itself before: ";
        for (const Guard& guard : facts.guards) {
            note += guard.property + " AND ";
        }
        note += facts.condition;
    }
    if (facts.data.Any()) {
        note += "\nAction data" + std::string(facts.data.optional ? " (may be left out)" : "") + ": " +
                DataExample(facts);
    }
    if (!facts.rollback.empty()) {
        note += "\nThe rollback's condition: " + facts.rollbackCondition;
    }
    if (facts.rollbackTakesData) {
        note += "\nThe rollback takes action data too.";
    }
    return Comment(note, indent);
}

std::string GuardElement(const Guard& guard, int wix, std::size_t indent) {
    std::vector<std::string> search = {Attribute("Id", guard.property), Attribute("Root", guard.root),
                                       Attribute("Key", guard.key), Attribute("Name", guard.value),
                                       Attribute("Type", "raw")};
    if (wix == 3) {
        search.push_back(Attribute("Win64", guard.view32 ? "no" : "yes"));
    } else {
        search.push_back(Attribute("Bitness", guard.view32 ? "always32" : "always64"));
    }
    return Comment(guard.property + ": " + guard.reason + ".", indent) +
           Element("Property", {Attribute("Id", guard.property), Attribute("Secure", "yes")}, indent, ">") +
           Element("RegistrySearch", search, indent + 2) + std::string(indent, ' ') + "</Property>\n";
}

/// Every search that the action's conditions may name.
std::vector<Guard> SearchesOf(const ActionFacts& facts) {
    std::vector<Guard> searches = facts.guards;
    searches.insert(searches.end(), facts.searches.begin(), facts.searches.end());
    return searches;
}

/// The searches of these actions, each once.
std::vector<Guard> GuardsOf(const std::vector<const ActionFacts*>& actions) {
    std::vector<Guard> guards;
    for (const ActionFacts* facts : actions) {
        for (const Guard& guard : SearchesOf(*facts)) {
            const bool known = std::any_of(guards.begin(), guards.end(), [&](const Guard& other) {
                return other.property == guard.property;
            });
            if (!known) {
                guards.push_back(guard);
            }
        }
    }
    return guards;
}

const Room& RoomOf(const ActionFacts& facts) {
    const auto& rooms = AllRooms();
    return *std::find_if(rooms.begin(), rooms.end(),
                         [&](const Room& room) { return room.name == facts.room; });
}

void PrintWix3(const std::vector<const ActionFacts*>& actions) {
    Print(kDeclaration);
    Print(Comment(std::string(kIntroduction) + kForWix3, 0));
    PrintLine("<Include xmlns=\"http://schemas.microsoft.com/wix/2006/wi\">");
    PrintLine("  <Binary Id=\"Corvi_CA\" SourceFile=\"Corvi_CA.dll\" />");
    const std::vector<Guard> guards = GuardsOf(actions);
    if (!guards.empty()) {
        Print("\n" + Comment(kGuardsNote, 2));
    }
    for (const Guard& guard : guards) {
        Print(GuardElement(guard, 3, 2));
    }
    const Room* room = nullptr;
    for (const ActionFacts* facts : actions) {
        if (room != &RoomOf(*facts)) {
            room = &RoomOf(*facts);
            Print("\n" + Comment(room->name + ". " + room->comment, 2));
        }
        Print(ActionNote(*facts, 2));
        Print(ActionElement(*facts, "BinaryKey", 2));
        if (!facts->rollback.empty()) {
            Print(RollbackElement(*facts, "BinaryKey", 2));
        }
    }
    PrintLine("</Include>");
}

/// The Custom element in its sequence, at the action's usual place.
std::string ScheduleElement(const std::string& action, const std::string& place,
                            const std::string& condition) {
    std::vector<std::string> attributes = {Attribute("Action", action), place};
    if (!condition.empty()) {
        attributes.push_back(Attribute("Condition", condition));
    }
    return "    <InstallExecuteSequence>\n" + Element("Custom", attributes, 6) +
           "    </InstallExecuteSequence>\n";
}

/// Links the searches that a condition names; the guards too where the package may have no need of them.
std::string PropertyReferences(const ActionFacts& facts, const std::string& condition) {
    std::string references;
    for (const Guard& guard : SearchesOf(facts)) {
        const bool named = condition.find(guard.property) != std::string::npos;
        const bool offered = facts.ownPackageWritesKeys && &condition == &facts.condition &&
                             std::any_of(facts.guards.begin(), facts.guards.end(),
                                         [&](const Guard& own) { return own.property == guard.property; });
        if (named || offered) {
            references += Element("PropertyRef", {Attribute("Id", guard.property)}, 4);
        }
    }
    return references;
}

void PrintFragment(const std::string& content) { Print("\n  <Fragment>\n" + content + "  </Fragment>\n"); }

void PrintWix4(const std::vector<const ActionFacts*>& actions) {
    Print(kDeclaration);
    Print(Comment(std::string(kIntroduction) + kForWix4, 0));
    PrintLine("<Wix xmlns=\"http://wixtoolset.org/schemas/v4/wxs\">");
    PrintFragment("    <Binary Id=\"Corvi_CA\" SourceFile=\"Corvi_CA.dll\" />\n");
    for (const Guard& guard : GuardsOf(actions)) {
        PrintFragment(GuardElement(guard, 4, 4));
    }
    for (const ActionFacts* facts : actions) {
        std::string content = ActionNote(*facts, 4) + ActionElement(*facts, "BinaryRef", 4);
        content += PropertyReferences(*facts, facts->condition);
        PrintFragment(content + ScheduleElement(facts->name, facts->place, facts->condition));
        if (!facts->rollback.empty()) {
            PrintFragment(RollbackElement(*facts, "BinaryRef", 4) +
                          PropertyReferences(*facts, facts->rollbackCondition) +
                          ScheduleElement(facts->name + ".Rollback", Attribute("Before", facts->name),
                                          facts->rollbackCondition));
        }
    }
    PrintLine("</Wix>");
}

/// The named actions in the table's order, each once; all for no name.
std::vector<const ActionFacts*> Chosen(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        RequireAction(name);
    }
    std::vector<const ActionFacts*> chosen;
    for (const ActionFacts& facts : AllActions()) {
        if (names.empty() || std::find(names.begin(), names.end(), facts.name) != names.end()) {
            chosen.push_back(&facts);
        }
    }
    return chosen;
}

int Include(const IncludeOptions& options) {
    const auto actions = Chosen(options.actions);
    if (options.wix != 3 && options.wix != 4) {
        throw UsageError("--wix is 3 or 4, not " + std::to_string(options.wix) +
                         "; see corvi include --help");
    }
    if (!options.dll.empty()) {
        LibraryPath(options.dll);
    }
    if (options.wix == 3) {
        PrintWix3(actions);
    } else {
        PrintWix4(actions);
    }
    return kFine;
}

}  // namespace

void AddIncludeVerb(CLI::App& program, Work& work) {
    const auto options = std::make_shared<IncludeOptions>();
    CLI::App* verb =
        AddVerb(program, "include",
                "Prints ready declarations of the actions for a package. With guards for those that let "
                "an error out where their key is missing; all actions, or just those that are named.",
                {"corvi include > Corvi_CA.wxi", "corvi include --wix 4 BlockLaunch DeleteQELKey"});
    verb->add_option("ACTION", options->actions, "only these actions");
    verb->add_option("--wix", options->wix, "the schema: 3 (an Include file) or 4 (a Wix file of fragments)")
        ->type_name("3|4")
        ->allow_extra_args(false);
    AddLibraryOption(*verb, options->dll);
    verb->callback([options, &work] { work = [options] { return Include(*options); }; });
}

}  // namespace corvi::tool
