#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <string>

#include "tests/tool/tool_run.h"

namespace corvi::test {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

size_t Matches(const std::string& text, const std::string& pattern) {
    const std::regex expression(pattern);
    return static_cast<size_t>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), expression), std::sregex_iterator()));
}

TEST(Include, ThePackagesIncludeIsWhatItPrints) {
    std::ifstream file("C:\\corvi\\Corvi_CA.wxi", std::ios::binary);
    const std::string include((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    ASSERT_FALSE(include.empty());
    EXPECT_EQ(include, RunTool(L"include").output);
    EXPECT_EQ(include, RunTool(L"include --wix 3").output);
}

TEST(Include, NamedActionsAloneWithTheirGuard) {
    const ToolRun run = RunTool(L"include LaunchHX ShutDownDVR LaunchHX");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_EQ("", run.error);
    EXPECT_EQ(2u, Matches(run.output, "<CustomAction Id="));
    EXPECT_THAT(run.output, AllOf(HasSubstr("Id=\"LaunchHX\""), HasSubstr("Id=\"ShutDownDVR\""),
                                  HasSubstr("<Property Id=\"CORVI_RECORDING_LOCATION\" Secure=\"yes\">"),
                                  HasSubstr("Condition: CORVI_RECORDING_LOCATION AND "),
                                  Not(HasSubstr("CORVI_SETTINGS_LOCATION"))));
    EXPECT_GE(80u, LongestLine(run.output));
}

TEST(Include, EachActionThatLetsAnErrorOutWithoutItsKeyHasASearchAndACondition) {
    struct Guarded {
        const wchar_t* action;
        const char* property;
        const char* key;
    };
    constexpr Guarded kGuarded[] = {
        {L"CreateLogonSchTask", "CORVI_SETTINGS_LOCATION", "SOFTWARE\\QEL Technologies\\Install\\HXNext"},
        {L"CreateDVRLogonSchTask", "CORVI_SETTINGS_LOCATION", "SOFTWARE\\QEL Technologies\\Install\\HXNext"},
        {L"CreateBenchMarkRunOnceSchTask", "CORVI_BENCHMARK_GATE", "SOFTWARE\\TAVO\\HX"},
        {L"ShutDownPQRNext", "CORVI_SETTINGS_LOCATION", "SOFTWARE\\QEL Technologies\\Install\\HXNext"},
        {L"ShutDownDVR", "CORVI_RECORDING_LOCATION", "SOFTWARE\\QEL Technologies\\Install\\TAVO DVR"},
        {L"DeleteHXNoUpgrade", "CORVI_SUITE_KEY", "SOFTWARE\\TAVO\\HX"},
        {L"DeleteHXSlimINSTALLDIRFolder", "CORVI_SLIM_LOCATION", "SOFTWARE\\QEL\\ACE\\Packages\\Core-Static"},
        {L"SetEnvPath_IPU_WA", "CORVI_SYSTEM_PATH", "Session Manager\\Environment"},
        {L"SetPermissionsRegisterDLL", "CORVI_SYSTEM_PATH", "Session Manager\\Environment"},
        {L"AfterInstallPPC", "CORVI_SYSTEM_PATH", "Session Manager\\Environment"},
    };
    for (const Guarded& guarded : kGuarded) {
        const std::string output = RunTool(std::wstring(L"include ") + guarded.action).output;
        EXPECT_THAT(output, AllOf(HasSubstr("<RegistrySearch Id=\"" + std::string(guarded.property) + "\""),
                                  HasSubstr(guarded.key)));
        // The note on the action: one comment, wrapped.
        const std::string note = output.substr(output.find("<!-- Condition:"));
        EXPECT_THAT(note.substr(0, note.find("-->")), HasSubstr(guarded.property)) << output;
    }
    EXPECT_THAT(RunTool(L"include DeleteHXSlimINSTALLDIRFolder").output, HasSubstr("Win64=\"no\""));
}

TEST(Include, TheCurrentSchemaHasAFragmentForEachAction) {
    const ToolRun run = RunTool(L"include --wix 4 BlockLaunch ShutDownDVR");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_THAT(
        run.output,
        AllOf(StartsWith("<?xml"), EndsWith("</Wix>\n"),
              HasSubstr("<Wix xmlns=\"http://wixtoolset.org/schemas/v4/wxs\">"),
              HasSubstr("BinaryRef=\"Corvi_CA\""), HasSubstr("Condition=\"NOT Installed\""),
              HasSubstr("<PropertyRef Id=\"CORVI_RECORDING_LOCATION\" />"), HasSubstr("Bitness=\"always64\""),
              Not(HasSubstr("BinaryKey")), Not(HasSubstr("Win64"))));
    // The library, the guard and the two actions.
    EXPECT_EQ(4u, Matches(run.output, "<Fragment>"));
    EXPECT_EQ(4u, Matches(run.output, "</Fragment>"));
    EXPECT_GE(80u, LongestLine(run.output));
}

TEST(Include, AllActionsAndRollbacksInTheCurrentSchema) {
    const ToolRun run = RunTool(L"include --wix 4");
    EXPECT_EQ(47u, Matches(run.output, "<CustomAction Id=\"\\w+\""));
    EXPECT_THAT(
        run.output,
        AllOf(HasSubstr("<Custom Action=\"CreateLogonSchTask.Rollback\" Before=\"CreateLogonSchTask\""),
              HasSubstr("<CustomActionRef Id=\"X.Rollback\" />")));
    EXPECT_GE(80u, LongestLine(run.output));
}

/// The condition under which the current schema schedules that action; line ends in it are blanks.
std::string ConditionOf(const std::string& output, const std::string& action) {
    const size_t element = output.find("<Custom Action=\"" + action + "\"");
    const size_t start = output.find("Condition=\"", element) + 11;
    return std::regex_replace(output.substr(start, output.find('"', start) - start), std::regex("\\s+"), " ");
}

TEST(Include, ARollbackRunsOnlyWhereItTakesNothingFromBefore) {
    const std::string output = RunTool(L"include --wix 4").output;
    EXPECT_EQ("NOT REMOVE", ConditionOf(output, "CreateLogonSchTask"));
    EXPECT_EQ("NOT Installed", ConditionOf(output, "CreateLogonSchTask.Rollback"));
    EXPECT_EQ("NOT Installed", ConditionOf(output, "SetPermissionsRegisterDLL.Rollback"));
    EXPECT_EQ("NOT Installed AND NOT CORVI_TUEP_LOCATION", ConditionOf(output, "PostInstallPPC.Rollback"));
    EXPECT_EQ("NOT Installed AND NOT CORVI_TUEP_CLAIMANT",
              ConditionOf(output, "CreateBenchMarkRunOnceSchTask.Rollback"));
    EXPECT_EQ("NOT Installed AND NOT CORVI_ANALYTICS_CONSENT AND NOT CORVI_TUEP_CLAIMANT",
              ConditionOf(output, "EnableAnalyticsKey.Rollback"));
    EXPECT_EQ("CORVI_SETTINGS_LOCATION AND REMOVE=&quot;ALL&quot;",
              ConditionOf(output, "RemoveHXSchedularTask.Rollback"));
}

TEST(Include, EverySearchThatAConditionNamesIsDeclaredAndLinked) {
    const std::string output = RunTool(L"include --wix 4").output;
    const std::regex fragment("<Fragment>([^]*?)</Fragment>");
    for (std::sregex_iterator it(output.begin(), output.end(), fragment), end; it != end; ++it) {
        const std::string text = (*it)[1];
        const size_t custom = text.find("<Custom Action=");
        const std::string scheduled = custom == std::string::npos ? "" : text.substr(custom);
        const std::regex property("CORVI_\\w+");
        for (std::sregex_iterator name(scheduled.begin(), scheduled.end(), property); name != end; ++name) {
            EXPECT_THAT(text, HasSubstr("<PropertyRef Id=\"" + name->str() + "\" />"));
            EXPECT_THAT(output, HasSubstr("<Property Id=\"" + name->str() + "\" Secure=\"yes\">"));
        }
    }
}

TEST(Include, ARefusedConsentIsNotOverwritten) {
    EXPECT_EQ(
        "NOT Installed AND NOT WIX_UPGRADE_DETECTED AND CORVI_ANALYTICS_CONSENT ~&lt;> &quot;false&quot;",
        ConditionOf(RunTool(L"include --wix 4 EnableAnalyticsKey").output, "EnableAnalyticsKey"));
}

TEST(Include, AnotherSchemaOrActionIsWrongUse) {
    for (const wchar_t* arguments : {L"include --wix 5", L"include --wix x", L"include --wix",
                                     L"include Nothing", L"include BlockLaunch --json"}) {
        const ToolRun run = RunTool(arguments);
        EXPECT_EQ(2u, run.exitCode);
        EXPECT_EQ("", run.output);
        EXPECT_EQ(1u, LineCount(run.error)) << run.error;
    }
}

}  // namespace
}  // namespace corvi::test
