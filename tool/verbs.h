#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {  // NOLINT(readability-identifier-naming): the parser's own
class App;
}

namespace corvi::tool {

/// What the verb that was asked for does: set by its callback while the command line is read, run by main
/// afterwards. Gives the program's exit code; a UsageError becomes one line on standard error and 2.
using Work = std::function<int()>;

// Each adds one verb to the command line: its options, its help, and a callback that sets the work. main
// lists them in the order of the program's help.
void AddListVerb(CLI::App& program, Work& work);
void AddIncludeVerb(CLI::App& program, Work& work);
void AddPlanVerb(CLI::App& program, Work& work);
void AddRunVerb(CLI::App& program, Work& work);
void AddCheckVerb(CLI::App& program, Work& work);
void AddExplainVerb(CLI::App& program, Work& work);

/// Adds the verb `name` with its purpose (sentences) and the examples that end its help, one command a
/// line. The parser hands over texts as UTF-8. Options that take one text each time need
/// ->allow_extra_args(false): the parser takes "[A]" for a list otherwise.
CLI::App* AddVerb(CLI::App& program, const std::string& name, const std::string& purpose,
                  const std::vector<std::string>& examples);

/// Adds --dll PATH to a verb.
void AddLibraryOption(CLI::App& verb, std::string& dll);

/// The library that --dll names, or "Corvi_CA.dll" beside this program when `dll` is empty, as an
/// absolute path. Throws UsageError when there is no such file.
std::wstring LibraryPath(const std::string& dll);

}  // namespace corvi::tool
