#include "tool/command_line.h"

#include <windows.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>

#include "actions/version_text.h"
#include "tool/console.h"
#include "tool/verbs.h"

namespace corvi::tool {
namespace {

using AddVerbFunction = void (*)(CLI::App&, Work&);
constexpr AddVerbFunction kVerbs[] = {
    AddListVerb, AddIncludeVerb, AddPlanVerb, AddRunVerb, AddCheckVerb, AddExplainVerb,
};

constexpr std::size_t kOptionColumns = 24;

std::string OptionLine(const CLI::Option& option) {
    std::string left = "  " + option.get_name(option.get_positional(), true);
    if (!option.get_positional() && option.get_items_expected_max() > 0) {
        left += " " + option.get_type_name();
    }
    const std::string next(kOptionColumns, ' ');
    if (left.size() + 2 > kOptionColumns) {
        return left + "\n" + Wrap(option.get_description(), next, next);
    }
    left.resize(kOptionColumns, ' ');
    return Wrap(option.get_description(), left, next);
}

std::string UsageLine(const CLI::App& app) {
    std::string line = "usage: corvi";
    if (app.get_parent() == nullptr) {
        return line + " VERB [ARGUMENT...]\n";
    }
    line += " " + app.get_name();
    for (const CLI::Option* option : app.get_options({})) {
        if (option->get_positional()) {
            const std::string dots = option->get_items_expected_max() > 1 ? "..." : "";
            const std::string name = option->get_name(true) + dots;
            line += option->get_required() ? " " + name : " [" + name + "]";
        }
    }
    return line + " [OPTION...]\n";
}

/// The help of the program and of each verb, within the output's columns.
class HelpText : public CLI::Formatter {
public:
    std::string make_help(const CLI::App* app, std::string /*name*/,
                          CLI::AppFormatMode /*mode*/) const override {
        std::string text = UsageLine(*app) + "\n" + Wrap(app->get_description());
        const auto verbs = app->get_subcommands([](const CLI::App*) { return true; });
        if (!verbs.empty()) {
            text += "\nverbs:\n";
            for (const CLI::App* verb : verbs) {
                std::string name = "  " + verb->get_name();
                name.resize(std::max<std::size_t>(name.size(), 12), ' ');
                const std::string purpose = verb->get_description();
                text += Wrap(purpose.substr(0, purpose.find(". ")), name, std::string(12, ' '));
            }
        }
        text += "\noptions:\n";
        for (const CLI::Option* option : app->get_options({})) {
            text += OptionLine(*option);
        }
        return text + app->get_footer() + "\n";
    }
};

std::string VerbNames(const CLI::App& program) {
    std::string names;
    for (const CLI::App* verb : program.get_subcommands([](const CLI::App*) { return true; })) {
        names += (names.empty() ? "" : ", ") + verb->get_name();
    }
    return names;
}

bool IsVerb(const CLI::App& program, const std::string& name) {
    const auto named =
        program.get_subcommands([&](const CLI::App* verb) { return verb->get_name() == name; });
    return !named.empty();
}

/// "corvi help", "corvi help list", "corvi /?" and "corvi list /?" as what they mean.
std::vector<std::string> WithHelpSpelledOut(std::vector<std::string> arguments) {
    std::replace(arguments.begin(), arguments.end(), std::string("/?"), std::string("--help"));
    if (!arguments.empty() && arguments[0] == "help") {
        arguments.erase(arguments.begin());
        arguments.emplace_back("--help");
    }
    return arguments;
}

void RequireVerb(const CLI::App& program, const std::vector<std::string>& arguments) {
    if (arguments.empty()) {
        throw UsageError("no verb given; the verbs are " + VerbNames(program) + "; see corvi --help");
    }
    if (arguments[0].empty() || (arguments[0][0] != '-' && !IsVerb(program, arguments[0]))) {
        throw UsageError("there is no verb \"" + arguments[0] + "\"; the verbs are " + VerbNames(program));
    }
}

/// The help text that was asked for, or the complaint as a UsageError.
int AnswerParser(const CLI::App& program, const CLI::ParseError& error) {
    const auto asked = program.get_subcommands();
    const CLI::App& subject = asked.empty() ? program : *asked[0];
    if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::Success)) {
        const std::string verb = asked.empty() ? "" : " " + subject.get_name();
        throw UsageError(std::string(error.what()) + "; see corvi" + verb + " --help");
    }
    Print(error.get_name() == "CallForVersion" ? std::string(error.what()) + "\n" : subject.help());
    return kFine;
}

int ParseAndRun(std::vector<std::string> arguments) {
    CLI::App program("Lists, tries, checks and explains the custom actions of Corvi_CA.dll.", "corvi");
    program.formatter(std::make_shared<HelpText>());
    program.allow_windows_style_options(false);
    program.set_help_flag("-h,--help", "this text; after a verb, the verb's");
    program.set_version_flag("--version", "corvi " CORVI_VERSION_TEXT, "the program's version");
    program.footer(
        "\nexit codes: 0 fine; 1 findings, or an action that failed; 2 wrong usage or\n"
        "unreadable input. Example: corvi list BlockLaunch");
    program.require_subcommand(0, 1);
    Work work;
    for (const AddVerbFunction add : kVerbs) {
        add(program, work);
    }
    arguments = WithHelpSpelledOut(std::move(arguments));
    RequireVerb(program, arguments);
    try {
        std::reverse(arguments.begin(), arguments.end());
        program.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
        return AnswerParser(program, error);
    }
    if (!work) {
        throw UsageError("no verb given; the verbs are " + VerbNames(program));
    }
    return work();
}

}  // namespace

CLI::App* AddVerb(CLI::App& program, const std::string& name, const std::string& purpose,
                  const std::vector<std::string>& examples) {
    CLI::App* verb = program.add_subcommand(name, purpose);
    std::string footer = examples.size() > 1 ? "\nexamples:" : "\nexample:";
    for (const std::string& example : examples) {
        footer += "\n  " + example;
    }
    verb->footer(footer);
    return verb;
}

void AddLibraryOption(CLI::App& verb, std::string& dll) {
    verb.add_option("--dll", dll, "the library (default: Corvi_CA.dll beside this program)")
        ->type_name("PATH")
        ->allow_extra_args(false);
}

std::wstring LibraryPath(const std::string& dll) {
    std::wstring path = ToWide(dll);
    if (path.empty()) {
        wchar_t program[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, program, MAX_PATH - 1);
        path = program;
        path.resize(path.find_last_of(L'\\') + 1);
        path += L"Corvi_CA.dll";
    }
    wchar_t* file = nullptr;
    const DWORD size = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    std::wstring absolute(size, L'\0');
    absolute.resize(GetFullPathNameW(path.c_str(), size, absolute.data(), &file));
    const DWORD attributes = GetFileAttributesW(absolute.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        throw UsageError("no library at " + ToUtf8(absolute) + "; --dll PATH names it");
    }
    return absolute;
}

int RunCommandLine(std::vector<std::string> arguments) {
    int code = kWrongUse;
    try {
        code = ParseAndRun(std::move(arguments));
    } catch (const std::exception& error) {
        PrintError(error.what());
    }
    FlushOutput();
    return code;
}

}  // namespace corvi::tool
