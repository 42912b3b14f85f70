#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "actions/version_text.h"
#include "tests/tool/tool_run.h"

namespace corvi::test {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

void ExpectUsageError(const std::wstring& arguments, const std::string& word) {
    const ToolRun run = RunTool(arguments);
    EXPECT_EQ(2u, run.exitCode);
    EXPECT_EQ("", run.output);
    EXPECT_THAT(run.error, AllOf(StartsWith("corvi: "), HasSubstr(word), EndsWith("\n")));
    EXPECT_EQ(1u, LineCount(run.error)) << run.error;
}

TEST(CommandLine, WithoutAVerbItNamesTheVerbs) { ExpectUsageError(L"", "list"); }

TEST(CommandLine, AnUnknownVerbIsNamed) { ExpectUsageError(L"lisp", "\"lisp\""); }

TEST(CommandLine, AnEmptyVerbIsAnUnknownVerb) { ExpectUsageError(L"\"\"", "no verb"); }

TEST(CommandLine, AnUnknownOptionIsNamed) {
    ExpectUsageError(L"list --colour", "--colour");
    ExpectUsageError(L"--colour", "--colour");
}

TEST(CommandLine, AVerbOnlyInItsOwnSpelling) { ExpectUsageError(L"List", "\"List\""); }

TEST(CommandLine, ForeignCharactersComeBackAsTheyWentIn) {
    ExpectUsageError(L"\u00fcben\u65e5\u672c",
                     "\"\xc3\xbc"
                     "ben\xe6\x97\xa5\xe6\x9c\xac\"");
}

TEST(CommandLine, HelpFitsTheConsoleAndNamesEveryVerbAndTheExitCodes) {
    for (const wchar_t* spelling : {L"--help", L"-h", L"/?", L"help"}) {
        const ToolRun run = RunTool(spelling);
        EXPECT_EQ(0u, run.exitCode);
        EXPECT_EQ("", run.error);
        EXPECT_THAT(run.output, AllOf(StartsWith("usage: corvi VERB"), HasSubstr("\n  list "),
                                      HasSubstr("exit codes: 0 fine"), HasSubstr("\n  --version")));
        EXPECT_GE(80u, LongestLine(run.output));
    }
}

TEST(CommandLine, EachVerbHasAHelpWithAnExample) {
    for (const wchar_t* spelling : {L"list --help", L"list /?", L"help list"}) {
        const ToolRun run = RunTool(spelling);
        EXPECT_EQ(0u, run.exitCode);
        EXPECT_THAT(run.output, AllOf(StartsWith("usage: corvi list [ACTION]"), HasSubstr("\nexamples:\n"),
                                      HasSubstr("\n  corvi list BlockLaunch\n")));
        EXPECT_GE(80u, LongestLine(run.output));
    }
}

TEST(CommandLine, TheVersionIsTheProjects) {
    const ToolRun run = RunTool(L"--version");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_EQ("corvi " CORVI_VERSION_TEXT "\n", run.output);
}

}  // namespace
}  // namespace corvi::test
