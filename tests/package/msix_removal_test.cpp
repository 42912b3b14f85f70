// The reference's recipe for removing MSIX packages under the real installer.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/installer_run.h"
#include "tests/support/tool_recorder.h"

namespace corvi::test {
namespace {

constexpr wchar_t kPowerShell[] = L"C:\\windows\\system32\\WindowsPowerShell\\v1.0\\powershell.exe";
constexpr wchar_t kPipe[] =
    L"\"Get-AppxPackage -AllUsers TavoCorporationInc-LSXCMCHAT* | Remove-AppxPackage -AllUsers\"";

class MsixRemoval : public testing::Test {
protected:
    ToolRecorder tools_;
};

TEST_F(MsixRemoval, TheRecipeHandsTheWholePipeToPowerShellOnAnUninstallOnly) {
    tools_.StandInFor(kPowerShell);
    EXPECT_EQ(RunInstaller(L"/i C:\\corvi\\msix_removal.msi").exitCode, 0U);
    EXPECT_THAT(tools_.Runs(), testing::IsEmpty());
    const InstallerRun run = RunInstaller(L"/x C:\\corvi\\msix_removal.msi");
    EXPECT_EQ(run.exitCode, 0U);
    const auto runs = tools_.WaitForRuns(1);
    ASSERT_EQ(runs.size(), 1U);
    EXPECT_EQ(runs[0].program, L"powershell.exe");
    EXPECT_TRUE(runs[0].commandLine.ends_with(std::wstring(L" -Command ") + kPipe));
}

TEST_F(MsixRemoval, AFailedCommandDoesNotStopTheUninstall) {
    tools_.StandInFor(kPowerShell, 1);
    EXPECT_EQ(RunInstaller(L"/i C:\\corvi\\msix_removal.msi").exitCode, 0U);
    EXPECT_EQ(RunInstaller(L"/x C:\\corvi\\msix_removal.msi").exitCode, 0U);
    EXPECT_EQ(tools_.WaitForRuns(1).size(), 1U);
}

}  // namespace
}  // namespace corvi::test
