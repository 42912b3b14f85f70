// The processor-tuning SDK's package under the real installer.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/package/machine.h"
#include "tests/support/installer_run.h"
#include "tests/support/test_service.h"

namespace corvi::test {
namespace {

constexpr wchar_t kInstall[] = L"/i C:\\corvi\\tuning_sdk.msi LAUNCHED_FROM_PIM=1";
constexpr wchar_t kUninstall[] = L"/x C:\\corvi\\tuning_sdk.msi";
constexpr wchar_t kService[] = L"TAVOTuningService";
constexpr wchar_t kStaleDriver[] = L"TAVOKyrnMasterDriverV20";
constexpr wchar_t kOtherDriver[] = L"TAVOKyrnMasterDriverV22";

void CreateTestService(const wchar_t* name, const wchar_t* binaryPath) {
    const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    const SC_HANDLE service = CreateServiceW(
        manager, name, name, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
        SERVICE_ERROR_NORMAL, binaryPath, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_NE(service, nullptr) << GetLastError();
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
}

void RemoveTestService(const wchar_t* name) {
    const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    const SC_HANDLE service = OpenServiceW(manager, name, SERVICE_ALL_ACCESS);
    if (service != nullptr) {
        DeleteService(service);
        CloseServiceHandle(service);
    }
    CloseServiceHandle(manager);
}

class TuningSdkPackage : public testing::Test {
protected:
    void TearDown() override {
        RunInstaller(kUninstall);
        for (const wchar_t* name : {kService, kStaleDriver, kOtherDriver}) {
            RemoveTestService(name);
        }
    }
};

TEST_F(TuningSdkPackage, StartedByHandFails) {
    const InstallerRun run = RunInstaller(L"/i C:\\corvi\\tuning_sdk.msi");
    EXPECT_EQ(run.exitCode, 1603U);
    EXPECT_FALSE(run.Ran("PreInstallKMSDK"));
}

TEST_F(TuningSdkPackage, InstallRemovesStaleDriverServicesAndKeepsOthers) {
    CreateTestService(kStaleDriver, L"\\SystemRoot\\System32\\TavoKyrnMasterDriver.sys");
    CreateTestService(kOtherDriver, L"C:\\Drivers\\TavoKyrnMasterDriver.sys");
    const InstallerRun run = RunInstaller(kInstall);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_THAT(run.Last("PreInstallKMSDK").lines,
                testing::Contains("PreInstallKMSDK() Service location - "
                                  "\\SystemRoot\\System32\\TavoKyrnMasterDriver.sys"));
    EXPECT_FALSE(ServiceExists(kStaleDriver));
    EXPECT_TRUE(ServiceExists(kOtherDriver));
}

TEST_F(TuningSdkPackage, UninstallDeletesTheServiceWhoseProgramLiesInTheProductsFolder) {
    RunInstaller(kInstall);
    CreateTestService(kService, L"C:\\Program Files\\TAVO\\Tuning SDK\\TuningService.exe");
    const InstallerRun run = RunInstaller(kUninstall);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_THAT(run.Last("DeleteServiceIfBinaryIsInDirectory").lines,
                testing::ElementsAre("CustomActionData: ServiceName=TAVOTuningService;DirectoryOfBinary="
                                     "C:\\Program Files\\TAVO\\Tuning SDK\\"));
    EXPECT_FALSE(ServiceExists(kService));
}

TEST_F(TuningSdkPackage, UninstallKeepsAServiceOfThatNameWhoseProgramLiesElsewhere) {
    RunInstaller(kInstall);
    CreateTestService(kService, L"C:\\corvi\\suite_tool.exe");
    EXPECT_EQ(RunInstaller(kUninstall).exitCode, 0U);
    EXPECT_TRUE(ServiceExists(kService));
}

TEST_F(TuningSdkPackage, ARepairDeletesNoService) {
    RunInstaller(kInstall);
    CreateTestService(kService, L"C:\\Program Files\\TAVO\\Tuning SDK\\TuningService.exe");
    const InstallerRun run = RunInstaller(std::wstring(kInstall) + L" REINSTALL=ALL REINSTALLMODE=amus");
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_TRUE(ServiceExists(kService));
}

TEST_F(TuningSdkPackage, TheRemovalInAnUpgradeDeletesNoService) {
    RunInstaller(kInstall);
    CreateTestService(kService, L"C:\\Program Files\\TAVO\\Tuning SDK\\TuningService.exe");
    const InstallerRun run = RunInstaller(std::wstring(kUninstall) +
                                          L" UPGRADINGPRODUCTCODE={6A1E4C55-7C1B-4B0B-9E5A-0B8B6C5D2AFF}");
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_TRUE(ServiceExists(kService));
}

}  // namespace
}  // namespace corvi::test
