#pragma once

#include <string>
#include <vector>

namespace corvi::tool {

/// Reads the arguments (UTF-8, the program's name not among them) and runs the verb that they name. Gives
/// the program's exit code; everything that is wrong with them is one line on standard error and 2.
int RunCommandLine(std::vector<std::string> arguments);

}  // namespace corvi::tool
