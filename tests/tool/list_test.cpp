#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <string>

#include "tests/tool/tool_run.h"

namespace corvi::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// The names in the export table.
std::set<std::string> Exports() {
    std::ifstream file("C:\\corvi\\Corvi_CA.def");
    std::set<std::string> names;
    bool listed = false;
    for (std::string line; std::getline(file, line);) {
        line.erase(0, line.find_first_not_of(" \t"));
        line.erase(line.find_last_not_of(" \r") + 1);
        if (listed && !line.empty() && line[0] != ';') {
            names.insert(line);
        }
        listed = listed || line == "EXPORTS";
    }
    return names;
}

TEST(List, EveryExportStandsInTheTableAndEveryRowIsAnExport) {
    const ToolRun run = RunTool(L"list --dll Corvi_CA.dll");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_EQ("", run.error);
    ASSERT_EQ(47u, Exports().size());
    for (const std::string& name : Exports()) {
        EXPECT_THAT(run.output, HasSubstr("\n" + name + " "));
    }
    EXPECT_THAT(run.output, HasSubstr("\n47 actions;"));
    EXPECT_GE(80u, LongestLine(run.output));
}

TEST(List, ALibraryWithoutTheActionsIsAFinding) {
    const ToolRun run = RunTool(L"list --dll media_source.dll");
    EXPECT_EQ(1u, run.exitCode);
    EXPECT_THAT(run.error,
                AllOf(HasSubstr("does not export LaunchedFromPIM, BlockLaunch, BlockKITELaunch and 44 more"),
                      HasSubstr("OptxScanCameras, no known actions\n")));
}

TEST(List, WhateverALibraryLacksIsSaidInOneLine) {
    for (const wchar_t* library : {L"media_source.dll", L"C:\\windows\\system32\\msi.dll"}) {
        EXPECT_EQ(1u, LineCount(RunTool(std::wstring(L"list --dll ") + library).error)) << library;
    }
}

TEST(List, ANegativeResultIsShownAsItIsMeant) {
    const std::string output = RunTool(L"list DeleteHXFolder").output;
    EXPECT_THAT(output, AllOf(HasSubstr("\n  0xFFFFFFFF  "), Not(HasSubstr("4294967295"))));
}

TEST(List, WhatARollbackMustNotTakeAwayIsInItsCondition) {
    EXPECT_THAT(RunTool(L"list EnableAnalyticsKey").output,
                AllOf(HasSubstr("\nsearch        CORVI_ANALYTICS_CONSENT: "),
                      HasSubstr("\nrollback      EnableAnalyticsKey.Rollback runs DeleteAnalyticsKey: NOT")));
}

TEST(List, AFileThatIsNoLibraryIsWrongUse) {
    for (const wchar_t* file :
         {L"list --dll session.msi", L"list --dll missing.dll", L"list --dll C:\\corvi"}) {
        const ToolRun run = RunTool(file);
        EXPECT_EQ(2u, run.exitCode);
        EXPECT_EQ(1u, LineCount(run.error)) << run.error;
    }
}

TEST(List, OneActionInFull) {
    const ToolRun run = RunTool(L"list CreateTriggerlessElevatedScheduleTask");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_THAT(run.output, StartsWith("CreateTriggerlessElevatedScheduleTask\n"));
    EXPECT_THAT(run.output,
                AllOf(HasSubstr("TaskName="), HasSubstr("CommandToLaunch="), HasSubstr("Username="),
                      HasSubstr("deferred, as the system account"), HasSubstr("Return=\"check\""),
                      HasSubstr("condition     NOT REMOVE"), HasSubstr("Command to launch %s")));
    EXPECT_GE(80u, LongestLine(run.output));
}

TEST(List, AnActionThatLetsAnErrorOutNamesItsGuard) {
    const ToolRun run = RunTool(L"list ShutDownDVR");
    EXPECT_THAT(run.output,
                AllOf(HasSubstr("CORVI_RECORDING_LOCATION"), HasSubstr("missing, a registry error")));
}

TEST(List, EveryActionIsDescribedWithinTheConsole) {
    for (const std::string& name : Exports()) {
        const ToolRun run = RunTool(L"list " + std::wstring(name.begin(), name.end()));
        EXPECT_EQ(0u, run.exitCode) << name;
        EXPECT_GE(80u, LongestLine(run.output)) << run.output;
        EXPECT_THAT(run.output, AllOf(HasSubstr("\nresults:\n"), HasSubstr("\nchanges "),
                                      HasSubstr("\nschedule "), HasSubstr("\non failure ")))
            << name;
    }
}

TEST(List, AnUnknownActionIsWrongUseAndTheNearestIsNamed) {
    const ToolRun run = RunTool(L"list blockLaunch");
    EXPECT_EQ(2u, run.exitCode);
    EXPECT_EQ("", run.output);
    EXPECT_EQ("corvi: there is no action \"blockLaunch\"; is BlockLaunch meant?\n", run.error);
    EXPECT_EQ("corvi: there is no action \"Xyzzy\"; corvi list names all\n", RunTool(L"list Xyzzy").error);
}

TEST(List, TwoActionsAreWrongUse) { EXPECT_EQ(2u, RunTool(L"list BlockLaunch LaunchHX").exitCode); }

TEST(List, JsonHoldsTheSameFacts) {
    const ToolRun run = RunTool(L"list DeleteOPTXCameraGUID --json");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_THAT(run.output, StartsWith("{\n  \"name\": \"DeleteOPTXCameraGUID\","));
    EXPECT_THAT(run.output, AllOf(HasSubstr("\"code\": 1603,\n      \"outcome\": \"done\""),
                                  HasSubstr("\"return\": \"ignore\""), HasSubstr("\"execute\": \"deferred\""),
                                  HasSubstr("\"place\": \"After=\\\"InstallInitialize\\\"\"")));
    EXPECT_THAT(
        RunTool(L"list --json").output,
        AllOf(StartsWith("[\n"), HasSubstr("\"name\": \"PostUnInstallKITE\""), Not(HasSubstr("47 actions"))));
}

}  // namespace
}  // namespace corvi::test
