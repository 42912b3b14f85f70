#include "tests/support/installer_run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace corvi::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

InstallerRun WindowsLog() {
    std::ifstream file("C:\\corvi\\windows_failed.log", std::ios::binary);
    InstallerRun run;
    run.log.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    run.actions = ReadActions(run.log);
    return run;
}

// Both shapes: a deferred action that is written to the script and run, and an immediate one.
const char* const kActionsTwice =
    "Action start 10:00:00: BlockLaunch.\n"
    "SABLE_CA Launched from PIM: 1 \n"
    "Action ended 10:00:00: BlockLaunch. Return value 1.\n"
    "Action start 10:00:01: RegisterCamera.\n"
    "Action ended 10:00:01: RegisterCamera. Return value 1.\n"
    "Action start 10:00:02: InstallFinalize.\n"
    "Action start 10:00:02: RegisterCamera.\n"
    "DLL Name CameraSource.dll\n"
    "Action ended 10:00:03: RegisterCamera. Return value 3.\n"
    "Action ended 10:00:03: InstallFinalize. Return value 3.\n";

TEST(InstallerLog, TheRunOfADeferredActionHasALineOfItsOwnAtItsStartAndEnd) {
    InstallerRun run;
    run.actions = ReadActions(kActionsTwice);
    EXPECT_EQ(run.Count("BlockLaunch"), 1U);
    EXPECT_THAT(run.Last("BlockLaunch").lines, ElementsAre("SABLE_CA Launched from PIM: 1 "));
    EXPECT_EQ(run.Count("RegisterCamera"), 2U);
    EXPECT_THAT(run.Last("RegisterCamera").lines, ElementsAre("DLL Name CameraSource.dll"));
    EXPECT_EQ(run.Last("RegisterCamera").returnValue, 3);
    EXPECT_EQ(run.Last("InstallFinalize").returnValue, 3);
}

TEST(InstallerLog, TheInstallersOwnLinesAreNotTheActions) {
    const InstallerRun run = WindowsLog();
    EXPECT_EQ(run.Count("BlockLaunch"), 1U);
    EXPECT_THAT(run.Last("BlockLaunch").lines, ElementsAre("SABLE_CA Launched from PIM: 1 "));
    EXPECT_EQ(run.Last("BlockLaunch").returnValue, 1);
}

TEST(InstallerLog, AnOperationOfTheScriptIsTheRunOfADeferredAction) {
    const InstallerRun run = WindowsLog();
    EXPECT_EQ(run.Count("CreateLogonSchTask"), 2U) << "written to the script, and run";
    EXPECT_THAT(run.Last("CreateLogonSchTask").lines,
                ElementsAre("StartHX Scheduled task creation is successful", "Win 11 only code"));
    EXPECT_EQ(run.Last("CreateLogonSchTask").returnValue, 1);
    EXPECT_EQ(run.Last("InstallFinalize").returnValue, 3);
}

TEST(InstallerLog, ARunThatFailsReturns3AndOneWhoseResultIsIgnored1) {
    const InstallerRun run = WindowsLog();
    EXPECT_EQ(run.Last("RegisterCamera").returnValue, 3);
    EXPECT_EQ(run.Last("DelInstallProxyKey").returnValue, 1);
    EXPECT_THAT(run.Last("DelInstallProxyKey").lines,
                ElementsAre("SABLE_CA: DelInstallProxyKey  ", "SABLE_CA: DelInstallProxyKey successfully  "));
}

TEST(InstallerLog, ARollbackActionRunsWhenItIsRolledBackAndNotWhenItIsNoted) {
    const InstallerRun run = WindowsLog();
    EXPECT_EQ(run.Count("CreateLogonSchTask.Rollback"), 2U) << "written to the script, and run";
    const std::string good = run.log.substr(0, run.log.find("Rollback: Rolling back action:"));
    InstallerRun noted;
    noted.actions = ReadActions(good);
    EXPECT_EQ(noted.Count("CreateLogonSchTask.Rollback"), 1U);
}

TEST(InstallerLog, AnActionThatWasOnlyWrittenToTheScriptStandsOnce) {
    const InstallerRun run = WindowsLog();
    EXPECT_EQ(run.Count("TrackDVRAnalytics"), 1U);
    EXPECT_THAT(run.Last("TrackDVRAnalytics").lines, IsEmpty());
    EXPECT_FALSE(run.Ran("DeleteQELKey")) << "its condition was false";
}

}  // namespace
}  // namespace corvi::test
