#include "tests/components/started_commands.h"

#include <ostream>

namespace corvi::test {
namespace {

// Without the command interpreter around it: `cmd.exe /C "command"`.
std::wstring InnerCommand(const std::wstring& commandLine) {
    const std::wstring prefix = L"cmd.exe /C \"";
    return commandLine.compare(0, prefix.size(), prefix) == 0 && commandLine.back() == L'"'
               ? commandLine.substr(prefix.size(), commandLine.size() - prefix.size() - 1)
               : L"not through the command interpreter: " + commandLine;
}

std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

}  // namespace

bool operator==(const StartedCommand& left, const StartedCommand& right) {
    return left.command == right.command && left.directory == right.directory;
}

void PrintTo(const StartedCommand& started, std::ostream* stream) {
    *stream << Narrow(started.command) << " in "
            << (started.directory ? Narrow(*started.directory) : std::string("the current directory"));
}

StartedCommands::StartedCommands(HMODULE module) : hooks_(module) {
    CORVI_HOOK(hooks_, CreateProcessW,
               [this](LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES process,
                      LPSECURITY_ATTRIBUTES thread, BOOL inherit, DWORD flags, LPVOID environment,
                      LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION information) -> BOOL {
                   if (beforeEach_) {
                       beforeEach_(started_.size());
                   }
                   started_.push_back({InnerCommand(commandLine), directory != nullptr
                                                                      ? std::optional<std::wstring>(directory)
                                                                      : std::nullopt});
                   if (refusal_ && started_.back().command.rfind(refusal_->first, 0) == 0) {
                       SetLastError(refusal_->second);
                       return FALSE;
                   }
                   return CORVI_ORIGINAL(hooks_, CreateProcessW)(application, commandLine, process, thread,
                                                                 inherit, flags, environment, directory,
                                                                 startup, information);
               });
}

std::vector<std::wstring> StartedCommands::Commands() const {
    std::vector<std::wstring> commands;
    for (const StartedCommand& started : started_) {
        commands.push_back(started.command);
    }
    return commands;
}

}  // namespace corvi::test
