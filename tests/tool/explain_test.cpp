#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/installer_run.h"
#include "tests/tool/tool_run.h"

namespace corvi::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

std::string Fixture(const std::string& name) {
    std::ifstream file("C:\\corvi\\" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string AsUtf16(const std::string& utf8, bool mark) {
    std::wstring wide(MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0),
                      L' ');
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), wide.data(),
                        static_cast<int>(wide.size()));
    return (mark ? std::string("\xFF\xFE") : std::string()) +
           std::string(reinterpret_cast<const char*>(wide.data()), wide.size() * sizeof(wchar_t));
}

std::string InSystemCodePage(const std::string& utf8) {
    std::wstring wide(utf8.size(), L'\0');
    wide.resize(static_cast<size_t>(MultiByteToWideChar(
        CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), wide.data(), static_cast<int>(wide.size()))));
    std::string bytes(wide.size() * 4, '\0');
    bytes.resize(static_cast<size_t>(WideCharToMultiByte(CP_ACP, 0, wide.data(),
                                                         static_cast<int>(wide.size()), bytes.data(),
                                                         static_cast<int>(bytes.size()), nullptr, nullptr)));
    return bytes;
}

/// The part of the story that tells of one action.
std::string PartOf(const std::string& story, const std::string& heading) {
    const size_t start = story.find("\n" + heading);
    return start == std::string::npos ? "" : story.substr(start + 1, story.find("\n\n", start + 1) - start);
}

/// A log of one deferred action in Windows' shape, with these lines and this result.
std::string OneAction(const std::string& name, int type, const std::string& lines,
                      const std::string& returned, const std::string& data = {}) {
    return "MSI (s) (A4:B0) [10:00:00:000]: Doing action: InstallFinalize\nAction start 10:00:00: "
           "InstallFinalize.\n"
           "MSI (s) (A4:B0) [10:00:01:000]: Executing op: CustomActionSchedule(Action=" +
           name + ",ActionType=" + std::to_string(type) + ",Source=BinaryData,Target=" + name + "," +
           (data.empty() ? "" : "CustomActionData=" + data) + ")\n" + lines +
           (returned.empty() ? ""
                             : "CustomAction " + name + " returned actual error code " + returned + "\n") +
           "MSI (s) (A4:B0) [10:00:03:500]: Executing op: ActionStart(Name=InstallFiles,,)\n";
}

ToolRun ExplainText(const std::string& log) {
    WriteBytes(L"C:\\corvi\\logs\\one.log", log);
    return RunTool(L"explain logs\\one.log");
}

constexpr int kChecked = 3073;
constexpr int kIgnored = 3137;

TEST(Explain, AFailedInstallOfWindowsShape) {
    const ToolRun run = RunTool(L"explain windows_failed.log");
    EXPECT_EQ(1u, run.exitCode);
    EXPECT_EQ("corvi: RegisterCamera: failed\n", run.error);
    EXPECT_THAT(run.output, StartsWith("windows_failed.log\nTAVO Settings; the installer's result: 1603\n"
                                       "6 actions of the library, 1 failed\n"));
    EXPECT_THAT(PartOf(run.output, "BlockLaunch: done"), AllOf(HasSubstr("ran         16:42:34, immediately"),
                                                               HasSubstr("SABLE_CA Launched from PIM: 1\n")));
    EXPECT_THAT(
        PartOf(run.output, "DelInstallProxyKey: done"),
        AllOf(HasSubstr("scheduled   16:42:34\n"), HasSubstr("16:42:35.011, from the script, 0.050 s"),
              HasSubstr("1 (done): the key was deleted"), HasSubstr("Return=\"ignore\"")));
    EXPECT_THAT(PartOf(run.output, "CreateLogonSchTask: done"), HasSubstr("1.250 s"));
    EXPECT_GE(80u, LongestLine(run.output));
}

TEST(Explain, AnActionUnderAPackagesOwnNameIsToldByItsEntryPoint) {
    const std::string part = PartOf(RunTool(L"explain windows_failed.log").output,
                                    "RegisterCamera (calls SetPermissionsRegisterDLL): failed");
    EXPECT_THAT(part,
                AllOf(HasSubstr("scheduled   16:42:34\n"), HasSubstr("1603 (failed)"),
                      HasSubstr("Return=\"check\": the install fails"), HasSubstr("message     Error 1722."),
                      HasSubstr("look next   Run regsvr32"), HasSubstr("Username= LAB\\J\xC3\xB6rg\n")));
}

TEST(Explain, AMisplacedKeyOfTheActionDataIsNamed) {
    EXPECT_THAT(RunTool(L"explain windows_failed.log").output,
                HasSubstr("DLLName= CameraSource.dll  <- found inside a longer key"));
}

std::string ExplainedTask(const std::string& data) {
    return ExplainText(OneAction("CreateTriggerlessElevatedScheduleTask", kChecked, "", "0", data)).output;
}

TEST(Explain, AKeyBehindASemicolonAndABlankBeginsItsOwnEntry) {
    const std::string story = ExplainedTask("TaskName=T; CommandToLaunch=C:\\p.exe; Username=u");
    EXPECT_THAT(story, AllOf(HasSubstr("TaskName= T\n"), HasSubstr("CommandToLaunch= C:\\p.exe\n"),
                             HasSubstr("Username= u\n"), Not(HasSubstr("<-"))));
}

TEST(Explain, AKeyWithinAnotherEntryWantsItsSemicolon) {
    EXPECT_THAT(ExplainedTask("TaskName=T;CommandToLaunch=C:\\p.exe Username=u"),
                HasSubstr("Username= u  <- found inside another entry: a semicolon is"));
}

TEST(Explain, AMissingKeyIsToldWithWhatTheActionReadsInItsPlace) {
    EXPECT_THAT(ExplainedTask("TaskName=T;CommandToLaunch=C:\\p.exe"),
                HasSubstr("Username= =T  <- missing: the action reads another part of"));
    EXPECT_THAT(ExplainedTask("TaskName=T"),
                AllOf(HasSubstr("CommandToLaunch= (empty)  <- missing, and the text is too short"),
                      Not(HasSubstr("Username="))));
}

TEST(Explain, AKeyThatMayBeLeftOutAndEmptyIsToldAsItIsRead) {
    const auto explained = [](const std::string& data) {
        return ExplainText(OneAction("UnregisterDLL", kChecked, "", "0", data)).output;
    };
    EXPECT_THAT(explained("InstallDir=C:\\A\\;DLLName=b.dll"),
                HasSubstr("VCDLLName= r=C:\\A\\  <- left out: the action reads another part"));
    EXPECT_THAT(explained("InstallDir=C:\\A\\;DLLName=b.dll;VCDLLName="),
                AllOf(HasSubstr("VCDLLName= (empty)\n"), Not(HasSubstr("<-"))));
}

TEST(Explain, WhatTheScriptDidNotGetToNeverRan) {
    EXPECT_THAT(PartOf(RunTool(L"explain windows_failed.log").output, "TrackDVRAnalytics: never ran"),
                AllOf(HasSubstr("scheduled   16:42:34"), Not(HasSubstr("\n  ran "))));
}

TEST(Explain, ARollbackIsToldAsOne) {
    EXPECT_THAT(PartOf(RunTool(L"explain windows_failed.log").output,
                       "CreateLogonSchTask.Rollback (calls RemoveHXSchedularTask): done"),
                AllOf(HasSubstr("in the rollback"), HasSubstr("part of the rollback")));
}

TEST(Explain, SkippedActionsAreNamed) {
    EXPECT_THAT(RunTool(L"explain windows_failed.log").output,
                HasSubstr("conditions were false: DeleteQELKey\n"));
}

TEST(Explain, InterleavedInstallsAreKeptApart) {
    const ToolRun run = RunTool(L"explain windows_interleaved.log");
    EXPECT_EQ(0u, run.exitCode);
    const std::string keys = PartOf(run.output, "DeleteHXNoUpgrade: done");
    const std::string services = PartOf(run.output, "PreInstallKMSDK: done");
    EXPECT_THAT(keys, AllOf(HasSubstr("Deleting Install registry result: 0"),
                            HasSubstr("Deleting HX registry result: 2"), Not(HasSubstr("Service location"))));
    EXPECT_THAT(services, AllOf(HasSubstr("Service location"), HasSubstr("Error code: 1062"),
                                Not(HasSubstr("Deleting"))));
    // Over midnight.
    EXPECT_THAT(services, HasSubstr("from the script, 3 s"));
}

TEST(Explain, TheLineThatSpeaksOfAnotherServiceIsSaidToBeAnothers) {
    EXPECT_THAT(PartOf(RunTool(L"explain windows_interleaved.log").output, "PreInstallKMSDK"),
                HasSubstr("Beware: It speaks of Windows Update"));
}

TEST(Explain, ThePrefixThatBelongsToAnotherActionIsSaidToBeAnothers) {
    EXPECT_THAT(PartOf(RunTool(L"explain windows_interleaved.log").output, "DeleteHXNoUpgrade"),
                HasSubstr("another action's: this line is DeleteHXNoUpgrade's"));
}

TEST(Explain, EveryEncodingTellsTheSameStory) {
    const std::string text = Fixture("windows_failed.log");
    ASSERT_FALSE(text.empty());
    const std::string expected = RunTool(L"explain windows_failed.log").output;
    const std::string story = expected.substr(expected.find('\n'));
    const std::string versions[] = {AsUtf16(text, true), AsUtf16(text, false), "\xEF\xBB\xBF" + text,
                                    InSystemCodePage(text)};
    for (const std::string& bytes : versions) {
        const ToolRun run = ExplainText(bytes);
        EXPECT_EQ(1u, run.exitCode);
        EXPECT_EQ(story, run.output.substr(run.output.find('\n')));
    }
}

TEST(Explain, ALogThatEndsWhileAnActionRunsSaysSo) {
    std::string log = OneAction("PreInstallPPC", kIgnored, "", "");
    log.resize(log.find("MSI (s) (A4:B0) [10:00:03"));
    const ToolRun run = ExplainText(log);
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_THAT(run.output, AllOf(HasSubstr("PreInstallPPC: unfinished"), HasSubstr("the log ends while")));
}

TEST(Explain, EveryCutOfALogIsRead) {
    const std::string text = AsUtf16(Fixture("windows_failed.log"), true);
    for (size_t size = 200; size < text.size(); size += 1777) {
        const ToolRun run = ExplainText(text.substr(0, size));
        EXPECT_GE(1u, run.exitCode) << size;
        EXPECT_EQ(run.exitCode, LineCount(run.error)) << size;
    }
}

TEST(Explain, ALogThatEndsWithinANumberTellsNone) {
    const std::string log = OneAction("CheckForClients", kChecked, "", "259 (note this)");
    for (const char* last : {"code 2", "code 25", "code 259", "code "}) {
        const ToolRun run = ExplainText(log.substr(0, log.find("code 259") + std::string(last).size()));
        EXPECT_EQ(0u, run.exitCode) << last;
        EXPECT_THAT(run.output, HasSubstr("CheckForClients: unfinished\n")) << last;
    }
    const std::string ended =
        "Action start 9:00:00: BlockLaunch.\nAction ended 9:00:00: BlockLaunch. Return value ";
    EXPECT_THAT(ExplainText(ended).output, HasSubstr("BlockLaunch: unfinished\n"));
    EXPECT_THAT(ExplainText(ended + "3").output, HasSubstr("BlockLaunch: refused\n"));
}

TEST(Explain, ALogThatBeginsWithinAnActionIsRead) {
    const ToolRun run =
        ExplainText("SABLE_CA Launched from PIM: 1\nAction ended 9:00:00: BlockLaunch. Return value 1.\n");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_THAT(run.output, AllOf(HasSubstr("BlockLaunch: done"), HasSubstr("before the log begins")));
}

TEST(Explain, AnInvertedSuccessIsASuccess) {
    const ToolRun run =
        ExplainText(OneAction("DeleteOPTXCameraGUID", kIgnored, "",
                              "1603 but will be translated to success due to continue marking"));
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_THAT(run.output, AllOf(HasSubstr("1603 (done)"), HasSubstr("or an error")));
}

TEST(Explain, AnIgnoredFailureIsAFailureThatPasses) {
    const ToolRun run = ExplainText(OneAction(
        "ShutDownDVR", kIgnored, "", "1603 but will be translated to success due to continue marking"));
    EXPECT_EQ(1u, run.exitCode);
    EXPECT_THAT(run.output,
                AllOf(HasSubstr("ShutDownDVR: failed, ignored"), HasSubstr("LSServCmd.exe is not"),
                      HasSubstr("the install goes on"), HasSubstr("TAVO DVR | Location")));
}

TEST(Explain, ASuccessThatFailsTheInstallNamesTheMend) {
    const ToolRun run = ExplainText(OneAction("RemoveHXSchedularTask", kChecked, "", "1 (note this)"));
    EXPECT_EQ(1u, run.exitCode);
    EXPECT_THAT(run.output, AllOf(HasSubstr("1 (done)"), HasSubstr("declare the action"),
                                  HasSubstr("Return=\"ignore\"")));
}

TEST(Explain, ANegativeResultIsShownAsItIsMeant) {
    const ToolRun run = ExplainText(OneAction(
        "DeleteHXFolder", kIgnored, "", "-1 but will be translated to success due to continue marking"));
    EXPECT_THAT(run.output,
                AllOf(HasSubstr("result      0xFFFFFFFF (failed)"), Not(HasSubstr("4294967295"))));
    EXPECT_EQ("corvi: DeleteHXFolder: failed, ignored\n", run.error);
}

TEST(Explain, AResultThatTheInstallerDidNotTranslateFailsTheInstall) {
    const ToolRun run = ExplainText(OneAction("DeleteHXNoUpgrade", kIgnored, "", "1603 (note this)"));
    EXPECT_THAT(run.output, AllOf(HasSubstr("DeleteHXNoUpgrade: failed\n"), HasSubstr("is not ignored"),
                                  Not(HasSubstr("the install goes on"))));
}

TEST(Explain, AnActionThatTheInstallerCouldNotCallSaysWhy) {
    EXPECT_THAT(ExplainText(OneAction("DeleteQELKey", kChecked, "", "1154 (note this)")).output,
                HasSubstr("no such entry point"));
    EXPECT_THAT(ExplainText(OneAction("DeleteQELKey", kChecked, "", "1157 (note this)")).output,
                HasSubstr("could not be loaded"));
}

TEST(Explain, WhatIsKeptForTheCommitRunsThen) {
    constexpr int kCommit = kIgnored | 0x200;
    const std::string kept = OneAction("TrackDVRAnalytics", kCommit, "", "");
    EXPECT_THAT(ExplainText(kept).output, HasSubstr("no action of the library ran"));
    std::string committed =
        OneAction("TrackDVRAnalytics", kCommit, "", "1 but will be translated to success");
    committed.replace(committed.find("CustomActionSchedule"), 20, "CustomActionCommit");
    EXPECT_THAT(ExplainText(committed).output, HasSubstr("1 (done): the tracking key was created"));
}

TEST(Explain, AVersionAloneIsAnInstalledCopys) {
    EXPECT_THAT(
        ExplainText(OneAction("CheckForClients", kChecked, "GetRelatedMSIVersions\n1.5.0\n", "")).output,
        HasSubstr("    1.5.0\n      = the version of an installed copy\n"));
    EXPECT_THAT(ExplainText(OneAction("PreInstallPPC", kIgnored, "1.5.0\nCA buffer overflow\n", "")).output,
                AllOf(HasSubstr("    1.5.0\n    CA buffer overflow\n      = a line that could not be")));
}

TEST(Explain, SkippingTheRestIsNoFailure) {
    const ToolRun run = ExplainText(OneAction("CheckForClients", kChecked, "", "259 (note this)"));
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_THAT(run.output, AllOf(HasSubstr("CheckForClients: skip the rest"), HasSubstr("259 (skip)")));
}

TEST(Explain, KeepingTheSharedProgramEndsAsCancelled) {
    const ToolRun run = ExplainText(OneAction("CheckForClients", kChecked, "", "1602 (note this)"));
    EXPECT_EQ(1u, run.exitCode);
    EXPECT_THAT(run.output,
                AllOf(HasSubstr("CheckForClients: cancelled"), HasSubstr("another client still uses")));
}

TEST(Explain, AnErrorThatLeftTheActionNamesTheKey) {
    const ToolRun run = ExplainText(OneAction("DeleteHXNoUpgrade", kChecked, "", "1603 (note this)"));
    EXPECT_THAT(run.output, AllOf(HasSubstr("a registry error left the action"),
                                  HasSubstr("HKLM\\SOFTWARE\\TAVO is missing")));
}

TEST(Explain, AMissingKeyOfTheActionDataIsNamed) {
    const ToolRun run =
        ExplainText(OneAction("PostInstallPPC", kChecked, "CustomActionData: TaskName=T;Username=\n", ""));
    EXPECT_EQ(0u, run.exitCode);
    WriteBytes(
        L"C:\\corvi\\logs\\one.log",
        "Action start 10:00:00: InstallFinalize.\nAction start 10:00:00: PostInstallPPC.\n"
        "CustomActionData: TaskName=T;Username=\nAction ended 10:00:00: PostInstallPPC. Return value 1.\n");
    EXPECT_THAT(RunTool(L"explain logs\\one.log").output, HasSubstr("CommandToLaunch= "));
    EXPECT_THAT(RunTool(L"explain logs\\one.log").output, HasSubstr("<- missing"));
}

TEST(Explain, ALogOfThisInstallersOwn) {
    const InstallerRun installer = RunInstaller(L"/i C:\\corvi\\graphics_driver.msi");
    ASSERT_EQ(1603u, installer.exitCode);
    const ToolRun run = RunTool(L"explain installer.log");
    EXPECT_EQ(1u, run.exitCode);
    EXPECT_THAT(PartOf(run.output, "BlockLaunch: refused"),
                AllOf(HasSubstr("SABLE_CA Not Launched from PIM and unable to get property\n"),
                      HasSubstr("look next")));
    EXPECT_GE(80u, LongestLine(run.output));
}

TEST(Explain, ADeferredActionIsScheduledAndRunOnce) {
    ASSERT_EQ(0u, RunInstaller(L"/i C:\\corvi\\graphics_driver.msi LAUNCHED_FROM_PIM=1").exitCode);
    const ToolRun run = RunTool(L"explain --json installer.log");
    EXPECT_EQ(0u, run.exitCode);
    const size_t first = run.output.find("\"name\": \"DeleteQELKey\"");
    ASSERT_NE(std::string::npos, first);
    EXPECT_EQ(std::string::npos, run.output.find("\"name\": \"DeleteQELKey\"", first + 1));
    EXPECT_THAT(run.output.substr(first, 400),
                AllOf(HasSubstr("\"fromScript\": true"), Not(HasSubstr("\"scheduled\": null"))));
    RunInstaller(L"/x C:\\corvi\\graphics_driver.msi");
}

TEST(Explain, SeveralLogsAreATableTheWorstFirst) {
    WriteBytes(L"C:\\corvi\\logs\\none.log", "Action start 9:00:00: INSTALL.\n");
    const ToolRun run = RunTool(L"explain logs\\none.log windows_interleaved.log windows_failed.log");
    EXPECT_EQ(1u, run.exitCode);
    const size_t failed = run.output.find("windows_failed.log: RegisterCamera, 1603");
    const size_t fine = run.output.find("windows_interleaved.log");
    const size_t none = run.output.find("none.log");
    ASSERT_NE(std::string::npos, failed);
    EXPECT_LT(failed, fine);
    EXPECT_LT(fine, none);
    EXPECT_GE(80u, LongestLine(run.output));
}

TEST(Explain, WhatCannotBeReadIsWrongUse) {
    WriteBytes(L"C:\\corvi\\logs\\empty.log", "");
    WriteBytes(L"C:\\corvi\\logs\\letter.log", "Dear installer,\n");
    for (const wchar_t* arguments :
         {L"explain", L"explain missing.log", L"explain C:\\corvi", L"explain logs\\empty.log",
          L"explain logs\\letter.log", L"explain Corvi_CA.dll"}) {
        const ToolRun run = RunTool(arguments);
        EXPECT_EQ(2u, run.exitCode);
        EXPECT_EQ("", run.output);
        EXPECT_EQ(1u, LineCount(run.error)) << run.error;
    }
}

TEST(Explain, SeveralUnreadableLogsAreOneLine) {
    const ToolRun run = RunTool(L"explain missing.log other.log");
    EXPECT_EQ(2u, run.exitCode);
    EXPECT_EQ("corvi: missing.log: no such file; other.log: no such file\n", run.error);
}

TEST(Explain, OneUnreadableLogAmongOthersIsSaidAndTheOthersAreRead) {
    const ToolRun run = RunTool(L"explain windows_failed.log missing.log");
    EXPECT_EQ(2u, run.exitCode);
    EXPECT_EQ("corvi: missing.log: no such file\n", run.error);
    EXPECT_THAT(run.output, AllOf(HasSubstr("windows_failed.log"), HasSubstr("unreadable")));
}

TEST(Explain, ForeignCharactersInTheFileNameAndTheLog) {
    WriteBytes(L"C:\\corvi\\logs\\\u65e5\u672c.log",
               OneAction("SetEnvPath_IPU_WA", kIgnored, "", "") +
                   "Property(S): ProductName = \xE6\x97\xA5\xE6\x9C\xAC\n");
    const ToolRun run = RunTool(L"explain logs\\\u65e5\u672c.log");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_THAT(run.output, StartsWith("logs\\\xE6\x97\xA5\xE6\x9C\xAC.log\n\xE6\x97\xA5\xE6\x9C\xAC\n"));
}

TEST(Explain, AnEndlessLineAndManyRunsAreRead) {
    std::string log = std::string(300000, 'x') + "\n";
    for (int run = 0; run < 3000; ++run) {
        log += OneAction("DelInstallProxyKey", kIgnored, "SABLE_CA: DelInstallProxyKey  \n", "");
    }
    WriteBytes(L"C:\\corvi\\logs\\one.log", log);
    const ToolRun run = RunTool(L"explain logs\\one.log");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_THAT(run.output, HasSubstr("3000 actions of the library, none failed"));
}

}  // namespace
}  // namespace corvi::test
