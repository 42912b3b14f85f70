// The whole suite on one machine: what is left when the last package is gone.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "tests/package/machine.h"
#include "tests/support/installer_run.h"
#include "tests/support/test_service.h"

namespace corvi::test {
namespace {

constexpr wchar_t kDriver[] = L"C:\\corvi\\graphics_driver.msi";
constexpr wchar_t kTuning[] = L"C:\\corvi\\tuning_sdk.msi";
constexpr wchar_t kLaunched[] = L" LAUNCHED_FROM_PIM=1";

std::vector<std::wstring> Packages() {
    return {std::wstring(kDriver) + kLaunched,     L"C:\\corvi\\settings_app_1.0.0.msi",
            L"C:\\corvi\\recording.msi",           L"C:\\corvi\\camera.msi",
            std::wstring(kTuning) + kLaunched,     L"C:\\corvi\\install_manager.msi",
            L"C:\\corvi\\profile_client_1.0.0.msi"};
}

/// The tasks of the machine's own are among them.
std::set<std::filesystem::path> TaskFiles() {
    std::set<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator("C:\\windows\\system32\\tasks")) {
        files.insert(entry.path());
    }
    return files;
}

std::vector<std::wstring> SubkeysOf(const wchar_t* path) {
    std::vector<std::wstring> names;
    wchar_t name[256] = {};
    HKEY key = nullptr;
    RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key);
    while (RegEnumKeyW(key, static_cast<DWORD>(names.size()), name, ARRAYSIZE(name)) == ERROR_SUCCESS) {
        names.emplace_back(name);
    }
    RegCloseKey(key);
    return names;
}

TEST(WholeSuite, AfterTheLastUninstallOnlyWhatIsMeantToStayIsLeft) {
    const auto tasksBefore = TaskFiles();
    auto packages = Packages();
    for (const std::wstring& package : packages) {
        EXPECT_EQ(RunInstaller(L"/i " + package).exitCode, 0U) << std::string(package.begin(), package.end());
    }
    for (auto package = packages.rbegin(); package != packages.rend(); ++package) {
        EXPECT_EQ(RunInstaller(L"/x " + *package).exitCode, 0U)
            << std::string(package->begin(), package->end());
    }

    EXPECT_THAT(TaskFiles(), testing::IsSubsetOf(tasksBefore));
    EXPECT_FALSE(ServiceExists(L"TUEPLauncher"));
    const std::filesystem::path folder("C:\\Program Files\\TAVO");
    EXPECT_TRUE(!std::filesystem::exists(folder) || std::filesystem::is_empty(folder));
    // The settings application's uninstall clears its subkeys, the flag that TUEP was uninstalled among
    // them. The client register and the record that recording was tracked stay.
    EXPECT_THAT(SubkeysOf(L"SOFTWARE\\TAVO"), testing::IsEmpty());
    EXPECT_TRUE(MachineKeyExists(L"SOFTWARE\\TUEP"));
    EXPECT_TRUE(MachineKeyExists(L"SOFTWARE\\TAVODVR"));
    EXPECT_FALSE(MachineKeyExists(L"SOFTWARE\\QEL"));
    EXPECT_THAT(SubkeysOf(L"SOFTWARE\\QEL Technologies\\Install"), testing::IsEmpty());
}

}  // namespace
}  // namespace corvi::test
