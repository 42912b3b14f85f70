#pragma once

#include <windows.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/import_hooks.h"

namespace corvi::test {

/// One command that a module ran through the command interpreter, as it was handed over, and the
/// working directory (nothing: the current one).
struct StartedCommand {
    std::wstring command;
    std::optional<std::wstring> directory;
};
bool operator==(const StartedCommand& left, const StartedCommand& right);
void PrintTo(const StartedCommand& started, std::ostream* stream);

/// Notes each process that a module starts, and lets it start.
class StartedCommands {
public:
    explicit StartedCommands(HMODULE module);

    /// Called before each start with the number of those before it.
    void BeforeEach(std::function<void(size_t)> action) { beforeEach_ = std::move(action); }

    /// Refuses every start with this platform error from now on.
    void RefuseWith(DWORD error) { RefuseOnly(L"", error); }

    /// Refuses the start of each command that begins so.
    void RefuseOnly(const std::wstring& beginning, DWORD error) { refusal_ = {beginning, error}; }
    void RefuseNone() { refusal_.reset(); }

    const std::vector<StartedCommand>& All() const { return started_; }

    /// The commands alone.
    std::vector<std::wstring> Commands() const;

private:
    ImportHooks hooks_;
    std::function<void(size_t)> beforeEach_;
    std::optional<std::pair<std::wstring, DWORD>> refusal_;
    std::vector<StartedCommand> started_;
};

}  // namespace corvi::test
