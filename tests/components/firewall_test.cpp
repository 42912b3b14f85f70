#include "components/firewall.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <msiquery.h>

#include <string>
#include <vector>

#include "runtime/session.h"
#include "tests/components/started_commands.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/tool_recorder.h"

namespace corvi::test {
namespace {

/// As the platform writes it, capitals and all.
std::wstring SystemDirectory() {
    wchar_t directory[MAX_PATH] = {};
    GetSystemDirectoryW(directory, ARRAYSIZE(directory));
    return directory;
}
std::wstring Netsh() { return SystemDirectory() + L"\\netsh.exe"; }

HMODULE ThisProgram() { return GetModuleHandleW(nullptr); }

TEST(DeleteFirewallRule, RunsTheSystemsNetshInTheSystemDirectoryWithTheNameInQuotationMarks) {
    ToolRecorder tools;
    tools.StandInFor(Netsh());
    EXPECT_EQ(DeleteFirewallRule(L"TAVO HX Rule"), 0);
    const auto runs = tools.Runs();
    ASSERT_EQ(runs.size(), 1U);
    EXPECT_EQ(runs[0].commandLine, Netsh() + L" advfirewall firewall delete rule name=\"TAVO HX Rule\"");
    EXPECT_EQ(_wcsicmp(runs[0].currentDirectory.c_str(), SystemDirectory().c_str()), 0)
        << runs[0].currentDirectory;
}

TEST(DeleteFirewallRule, RuleThatDoesNotExistGivesNetshsExitCode) {
    ToolRecorder tools;
    tools.StandInFor(Netsh(), 1);
    EXPECT_EQ(DeleteFirewallRule(L"No such rule"), 1);
}

TEST(DeleteFirewallRule, StartThatFailsGivesThePlatformsError) {
    StartedCommands started(ThisProgram());
    started.RefuseWith(ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(DeleteFirewallRule(L"TAVO HX Rule"), ERROR_NOT_ENOUGH_MEMORY);
}

TEST(DeleteFirewallRule, NamePassesAsItIs) {
    StartedCommands started(ThisProgram());
    started.RefuseWith(ERROR_FILE_NOT_FOUND);
    DeleteFirewallRule(L"100 %s %d rule");
    EXPECT_EQ(
        started.All(),
        (std::vector<StartedCommand>{
            {Netsh() + L" advfirewall firewall delete rule name=\"100 %s %d rule\"", SystemDirectory()}}));
}

TEST(DeleteFirewallRule, CommandIsCutAfter259Characters) {
    StartedCommands started(ThisProgram());
    started.RefuseWith(ERROR_FILE_NOT_FOUND);
    const std::wstring start = Netsh() + L" advfirewall firewall delete rule name=\"";
    for (const size_t total : {258U, 259U, 260U, 1000U}) {
        // Both quotation marks are part of the length.
        const std::wstring name(total - start.size() - 1, L'n');
        DeleteFirewallRule(name);
        EXPECT_EQ(started.Commands().back(), (start + name + L"\"").substr(0, 259)) << total;
    }
}

TEST(DeleteFirewallRule, LogsTheCommandOnTheHandleThatNobodySetsAndNothingElse) {
    ToolRecorder tools;
    tools.StandInFor(Netsh());
    InstallerSession session;
    currentSession = session.Handle();
    std::vector<std::pair<MSIHANDLE, std::wstring>> lines;
    ImportHooks hooks(ThisProgram());
    CORVI_HOOK(hooks, MsiProcessMessage, [&](MSIHANDLE handle, INSTALLMESSAGE, MSIHANDLE record) -> int {
        wchar_t text[600] = {};
        DWORD length = ARRAYSIZE(text);
        MsiRecordGetStringW(record, 0, text, &length);
        lines.emplace_back(handle, text);
        return 0;
    });
    DeleteFirewallRule(L"TAVO HX Rule");
    currentSession = 0;
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front().second, L"DeleteFirewallRule - " + Netsh() +
                                        L" advfirewall firewall delete rule name=\"TAVO HX Rule\"");
    for (const auto& [handle, text] : lines) {
        EXPECT_EQ(handle, 0U) << std::string(text.begin(), text.end());
    }
}

}  // namespace
}  // namespace corvi::test
