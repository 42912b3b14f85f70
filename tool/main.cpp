#include <string>
#include <vector>

#include "tool/action_host.h"
#include "tool/command_line.h"
#include "tool/console.h"

int wmain(int argc, wchar_t** argv) {
    std::vector<std::string> arguments;
    for (int index = 1; index < argc; ++index) {
        arguments.push_back(corvi::tool::ToUtf8(argv[index]));
    }
    if (const auto code = corvi::tool::RunActionHost(arguments)) {
        return *code;
    }
    return corvi::tool::RunCommandLine(std::move(arguments));
}
