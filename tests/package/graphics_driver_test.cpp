// The driver's package under the real installer.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/package/machine.h"
#include "tests/support/installer_run.h"

namespace corvi::test {
namespace {

constexpr wchar_t kTool[] = L"C:\\Program Files\\TAVO\\Graphics Driver\\DriverTool.exe";
constexpr wchar_t kInstall[] = L"/i C:\\corvi\\graphics_driver.msi";
constexpr wchar_t kInstallLaunched[] = L"/i C:\\corvi\\graphics_driver.msi LAUNCHED_FROM_PIM=1";
constexpr wchar_t kUninstall[] = L"/x C:\\corvi\\graphics_driver.msi";

class GraphicsDriverPackage : public testing::Test {
protected:
    void SetUp() override { SetMachineText(L"SOFTWARE\\QEL\\Old", L"Setting", L"x"); }
    void TearDown() override {
        RunInstaller(kUninstall);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\QEL");
    }
};

TEST_F(GraphicsDriverPackage, StartedByHandFailsWith1603AndChangesNothing) {
    const InstallerRun run = RunInstaller(kInstall);
    EXPECT_EQ(run.exitCode, 1603U);
    EXPECT_THAT(
        run.Last("BlockLaunch").lines,
        testing::ElementsAre("SABLE_CA Not Launched from PIM and unable to get property",
                             "This package requires TAVO Installer Setup.",
                             "Please obtain and install TAVO Installer from www.example.com to continue "
                             "installing this package.",
                             "This application will now abort."));
    EXPECT_FALSE(run.Ran("BlockKITELaunch"));
    EXPECT_FALSE(run.Ran("DeleteQELKey"));
    EXPECT_TRUE(MachineKeyExists(L"SOFTWARE\\QEL\\Old"));
    EXPECT_FALSE(FileExists(kTool));
}

TEST_F(GraphicsDriverPackage, StartedByTheInstallManagerInstallsAndRemovesTheOldKey) {
    const InstallerRun run = RunInstaller(kInstallLaunched);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_THAT(run.Last("BlockLaunch").lines, testing::ElementsAre("SABLE_CA Launched from PIM: 1 "));
    EXPECT_EQ(run.Last("BlockKITELaunch").returnValue, 1);
    EXPECT_EQ(run.Count("DeleteQELKey"), 2U) << "written to the script and run from it";
    EXPECT_EQ(run.Last("DeleteQELKey").returnValue, 1);
    EXPECT_FALSE(MachineKeyExists(L"SOFTWARE\\QEL"));
    EXPECT_TRUE(FileExists(kTool));
}

TEST_F(GraphicsDriverPackage, UninstallNeedsNoInstallManagerAndRunsNoGuard) {
    RunInstaller(kInstallLaunched);
    SetMachineText(L"SOFTWARE\\QEL\\Later", L"Setting", L"x");
    const InstallerRun run = RunInstaller(kUninstall);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_FALSE(run.Ran("BlockLaunch"));
    EXPECT_FALSE(run.Ran("DeleteQELKey"));
    EXPECT_FALSE(FileExists(kTool));
    EXPECT_TRUE(MachineKeyExists(L"SOFTWARE\\QEL\\Later"));
}

TEST_F(GraphicsDriverPackage, ARepairRunsNeitherTheGuardNorTheDeletion) {
    RunInstaller(kInstallLaunched);
    SetMachineText(L"SOFTWARE\\QEL\\Later", L"Setting", L"x");
    const InstallerRun run = RunInstaller(std::wstring(kInstall) + L" REINSTALL=ALL REINSTALLMODE=amus");
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_FALSE(run.Ran("BlockLaunch"));
    EXPECT_FALSE(run.Ran("DeleteQELKey"));
    EXPECT_TRUE(MachineKeyExists(L"SOFTWARE\\QEL\\Later"));
    EXPECT_TRUE(FileExists(kTool));
}

}  // namespace
}  // namespace corvi::test
