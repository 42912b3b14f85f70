// The camera package under the real installer.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "tests/package/machine.h"
#include "tests/package/package_copy.h"
#include "tests/support/folders.h"
#include "tests/support/installer_run.h"

namespace corvi::test {
namespace {

constexpr wchar_t kFolder[] = L"C:\\Program Files\\TAVO\\Camera";
constexpr wchar_t kInstall[] = L"/i C:\\corvi\\camera.msi";
constexpr wchar_t kUninstall[] = L"/x C:\\corvi\\camera.msi";
constexpr wchar_t kEnvironment[] = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment";
constexpr wchar_t kChain[] =
    L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\{65e8773d-8f56-11d0-a3b9-00a0c9223196}\\Camera\\#"
    L"\\Device Parameters";

/// What the action logs of this machine's Windows.
std::string WindowsVersionLine() {
    static constexpr wchar_t kVersion[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
    const auto text = [](const wchar_t* name) {
        const std::wstring value = MachineValue(kVersion, name).value();
        return std::string(value.begin(), value.end());
    };
    return "OS Version: " + text(L"CurrentMajorVersionNumber") + "-" + text(L"CurrentBuild") + "-" +
           text(L"UBR");
}

class CameraPackage : public testing::Test {
protected:
    void SetUp() override { path_ = MachineValue(kEnvironment, L"Path").value_or(L""); }
    void TearDown() override {
        // Before the uninstall: a chain of one identifier makes DeleteOPTXCameraGUID let an error out.
        RegDeleteTreeW(
            HKEY_LOCAL_MACHINE,
            L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\{65e8773d-8f56-11d0-a3b9-00a0c9223196}");
        RunInstaller(kUninstall);
        SetMachineText(kEnvironment, L"Path", path_);
    }

    std::wstring path_;
};

TEST_F(CameraPackage, InstallRegistersTheCameraAndExtendsThePathOnce) {
    const InstallerRun run = RunInstaller(kInstall);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_THAT(run.Last("SetPermissionsRegisterDLL").lines,
                testing::Contains(testing::MatchesRegex("Username \".+\"")))
        << "in quotes: it goes to a command line, and names have blanks";
    EXPECT_THAT(run.Last("SetPermissionsRegisterDLL").lines,
                testing::IsSupersetOf({std::string("DLL Path C:\\Program Files\\TAVO\\Camera\\"),
                                       std::string("DLL Name CameraServer.dll"),
                                       std::string("VC Dll Name CameraSource.dll"), WindowsVersionLine()}));
    EXPECT_EQ(run.Last("SetPermissionsRegisterDLL").returnValue, 1);
    EXPECT_EQ(run.Last("SetEnvPath_IPU_WA").returnValue, 1);
    EXPECT_EQ(MachineValue(kEnvironment, L"Path"), L"C:\\Windows\\System32\\TAVO;" + path_);
}

TEST_F(CameraPackage, ARepairDeletesNothingAndAddsNoSecondPathEntry) {
    RunInstaller(kInstall);
    const InstallerRun run = RunInstaller(std::wstring(kInstall) + L" REINSTALL=ALL REINSTALLMODE=amus");
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_FALSE(run.Ran("DeleteDMFTDirectory"));
    EXPECT_FALSE(run.Ran("UnregisterDLL"));
    EXPECT_TRUE(FileExists(std::wstring(kFolder) + L"\\CameraServer.dll"));
    EXPECT_EQ(MachineValue(kEnvironment, L"Path"), L"C:\\Windows\\System32\\TAVO;" + path_);
}

TEST_F(CameraPackage, UninstallTakesTheSuitesTransformOutOfTheChainsAndGoesOnAfterItsInvertedResult) {
    RunInstaller(kInstall);
    std::ofstream("C:\\Program Files\\TAVO\\Camera\\made-later.dat") << "x";
    const wchar_t chain[] =
        L"{55E09F33-D6B5-4A6D-99ED-87DC666C6710}\0{11111111-1111-1111-1111-111111111111}\0";
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, kChain, L"CameraDeviceMftClsidChain", REG_MULTI_SZ, chain,
                    sizeof(chain));
    const InstallerRun run = RunInstaller(kUninstall);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_TRUE(run.Ran("DeleteOPTXCameraGUID"));
    EXPECT_TRUE(run.Ran("DeleteDMFTDirectory"));
    EXPECT_TRUE(StartFolderIsGone(kFolder));
    wchar_t left[256] = {};
    DWORD size = sizeof(left);
    EXPECT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, kChain, L"CameraDeviceMftClsidChain", RRF_RT_REG_MULTI_SZ,
                           nullptr, left, &size),
              ERROR_SUCCESS);
    EXPECT_STREQ(left, L"{11111111-1111-1111-1111-111111111111}");
}

TEST_F(CameraPackage, TheRemovalInAnUpgradeKeepsWhatTheUserHasInTheFolderAndTheChains) {
    RunInstaller(kInstall);
    std::ofstream("C:\\Program Files\\TAVO\\Camera\\calibration.dat") << "x";
    const wchar_t chain[] = L"{55E09F33-D6B5-4A6D-99ED-87DC666C6710}\0";
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, kChain, L"CameraDeviceMftClsidChain", REG_MULTI_SZ, chain,
                    sizeof(chain));
    const InstallerRun run = RunInstaller(std::wstring(kUninstall) +
                                          L" UPGRADINGPRODUCTCODE={6A1E4C55-7C1B-4B0B-9E5A-0B8B6C5D2AFF}");
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_TRUE(run.Ran("UnregisterDLL"));
    EXPECT_FALSE(run.Ran("DeleteDMFTDirectory"));
    EXPECT_FALSE(run.Ran("DeleteOPTXCameraGUID"));
    EXPECT_TRUE(FileExists(std::wstring(kFolder) + L"\\calibration.dat"));
    EXPECT_TRUE(MachineValue(kChain, L"CameraDeviceMftClsidChain"));
    RemoveFolder("C:\\Program Files\\TAVO\\Camera");
}

// Wine has removed the files by the time the rollback action runs, so that what is unregistered can be seen
// on Windows only.
TEST_F(CameraPackage, AnInstallThatFailsLastRunsTheRollbackWithDataOfItsOwn) {
    const InstallerRun run = RunInstaller(L"/i " + FailingLast(L"camera") + L" FAILLAST=1");
    EXPECT_NE(run.exitCode, 0U);
    EXPECT_THAT(run.Last("SetPermissionsRegisterDLL.Rollback").lines,
                testing::IsSupersetOf({std::string("DLL Path C:\\Program Files\\TAVO\\Camera\\"),
                                       std::string("DLL Name CameraServer.dll"),
                                       std::string("VC DLL Name CameraSource.dll")}));
    EXPECT_TRUE(StartFolderIsGone(kFolder));
}

}  // namespace
}  // namespace corvi::test
