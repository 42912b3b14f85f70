// What stands in the built packages: what wixl drops is there, and every condition means what it should in
// every kind of run.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <msi.h>
#include <msiquery.h>

#include <fstream>
#include <map>
#include <sstream>

#include "tests/package/package_copy.h"

namespace corvi::test {
namespace {

constexpr int kDll = 1;
constexpr int kTypeBits = 0x3F;
constexpr int kRollback = 0x100;
constexpr int kInScript = 0x400;

const std::vector<std::wstring> kPackages = {
    L"graphics_driver", L"settings_app_1.0.0", L"settings_app_1.1.0",   L"recording",
    L"camera",          L"tuning_sdk",         L"install_manager",      L"profile_client_1.0.0",
    L"forced_failure",  L"one_action",         L"profile_client_2.0.0", L"profile_client_1.5.0"};

std::string Narrow(const std::wstring& text) { return {text.begin(), text.end()}; }

struct Action {
    int type = 0;
    std::wstring entry;
};

std::map<std::wstring, Action> ActionsOf(const std::wstring& package) {
    std::map<std::wstring, Action> actions;
    for (const auto& row : PackageRows(package, L"SELECT `Action`, `Type`, `Target` FROM `CustomAction`")) {
        actions[row[0]] = {std::stoi(row[1]), row[2]};
    }
    return actions;
}

std::map<std::wstring, int> SequenceOf(const std::wstring& package) {
    std::map<std::wstring, int> numbers;
    for (const auto& row :
         PackageRows(package, L"SELECT `Action`, `Sequence` FROM `InstallExecuteSequence`")) {
        numbers[row[0]] = std::stoi(row[1]);
    }
    return numbers;
}

bool EndsWith(const std::wstring& text, const std::wstring& end) {
    return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

TEST(BuiltPackages, AreForX64) {
    for (const std::wstring& package : kPackages) {
        MSIHANDLE summary = 0;
        ASSERT_EQ(MsiGetSummaryInformationW(0, (L"C:\\corvi\\" + package + L".msi").c_str(), 0, &summary),
                  0U);
        wchar_t text[64] = {};
        DWORD size = ARRAYSIZE(text);
        UINT type = 0;
        MsiSummaryInfoGetPropertyW(summary, 7, &type, nullptr, nullptr, text, &size);
        MsiCloseHandle(summary);
        EXPECT_EQ(std::wstring(text).substr(0, 4), L"x64;") << Narrow(package);
    }
}

TEST(BuiltPackages, TheOlderVersionIsRemovedBeforeTheNewVersionDoesAnything) {
    int packagesWithUpgrades = 0;
    for (const std::wstring& package : kPackages) {
        const auto numbers = SequenceOf(package);
        const bool upgrades = !PackageRows(package, L"SELECT `UpgradeCode` FROM `Upgrade`").empty();
        EXPECT_EQ(numbers.count(L"RemoveExistingProducts"), upgrades ? 1U : 0U) << Narrow(package);
        if (!upgrades) {
            continue;
        }
        ++packagesWithUpgrades;
        EXPECT_EQ(numbers.at(L"RemoveExistingProducts"), 1501) << Narrow(package);
        for (const auto& [action, number] : numbers) {
            if (number > numbers.at(L"InstallInitialize") && action != L"RemoveExistingProducts") {
                EXPECT_GT(number, 1501) << Narrow(action);
            }
        }
    }
    EXPECT_EQ(packagesWithUpgrades, 2);
}

TEST(BuiltPackages, RollbackActionsAreRollbackActionsBeforeWhatTheyTakeBack) {
    int found = 0;
    for (const std::wstring& package : kPackages) {
        const auto actions = ActionsOf(package);
        const auto numbers = SequenceOf(package);
        for (const auto& [name, action] : actions) {
            if (!EndsWith(name, L".Rollback")) {
                EXPECT_EQ(action.type & kRollback, 0) << Narrow(name);
                continue;
            }
            EXPECT_EQ(action.type & (kRollback | kInScript), kRollback | kInScript) << Narrow(name);
            if ((action.type & kTypeBits) == kDll) {
                EXPECT_EQ(action.type, 3393) << Narrow(name);
            }
            if (numbers.count(name) != 0) {
                ++found;
                const std::wstring undone = name.substr(0, name.size() - 9);
                EXPECT_LT(numbers.at(name), numbers.at(undone)) << Narrow(package) << " " << Narrow(name);
            }
        }
    }
    EXPECT_GE(found, 14);
}

TEST(BuiltPackages, WhatMayLetAnErrorOutOfTheCamerasStandsBehindAllOtherDeferredActions) {
    const auto actions = ActionsOf(L"camera");
    const auto numbers = SequenceOf(L"camera");
    for (const auto& [name, action] : actions) {
        if (name != L"DeleteOPTXCameraGUID" && numbers.count(name) != 0 && (action.type & kInScript) != 0) {
            EXPECT_LT(numbers.at(name), numbers.at(L"DeleteOPTXCameraGUID")) << Narrow(name);
        }
    }
}

TEST(BuiltPackages, AnActionForTheInstallingUserIsImpersonatedAndStopsNoInstall) {
    constexpr int kContinue = 0x40;
    constexpr int kNoImpersonate = 0x800;
    const auto actions = ActionsOf(L"recording");
    for (const wchar_t* name :
         {L"InstallContextMenuMSIX", L"CreateBenchMarkRunOnceSchTask", L"UnRegisterWVR"}) {
        EXPECT_EQ(actions.at(name).type & (kInScript | kContinue | kNoImpersonate), kInScript | kContinue)
            << Narrow(name);
    }
}

TEST(BuiltPackages, EachActionWithACounterpartHasItsRollback) {
    const std::map<std::wstring, std::wstring> rollbacks = {
        {L"CreateLogonSchTask", L"RemoveHXSchedularTask"},
        {L"CreateDVRLogonSchTask", L"RemoveDVRSchedularTask"},
        {L"CreateBenchMarkRunOnceSchTask", L"RemoveBenchMarkRunOnceSchedularTask"},
        {L"RemoveHXSchedularTask", L"CreateLogonSchTask"},
        {L"RemoveDVRSchedularTask", L"CreateDVRLogonSchTask"},
        {L"SetPermissionsRegisterDLL", L"UnregisterDLL"},
        {L"UnregisterDLL", L"SetPermissionsRegisterDLL"},
        {L"PostInstallPPC", L"UnInstallPPC"},
        {L"EnableAnalyticsKey", L"DeleteAnalyticsKey"},
    };
    for (const std::wstring& package : kPackages) {
        const auto actions = ActionsOf(package);
        const auto numbers = SequenceOf(package);
        for (const auto& [action, entry] : rollbacks) {
            if (numbers.count(action) != 0 && package != L"one_action") {
                const std::wstring rollback = action + L".Rollback";
                EXPECT_EQ(numbers.count(rollback), 1U) << Narrow(package) << " " << Narrow(action);
                EXPECT_EQ(actions.at(rollback).entry, entry);
            }
        }
    }
}

TEST(BuiltPackages, PropertiesThatArePassedOrFoundReachTheElevatedSide) {
    const std::map<std::wstring, std::vector<std::wstring>> passed = {
        {L"graphics_driver", {L"LAUNCHED_FROM_PIM"}},
        {L"tuning_sdk", {L"LAUNCHED_FROM_PIM"}},
        {L"profile_client_1.0.0", {L"CLIENTNAME", L"DISABLEANALYTICS"}},
        {L"settings_app_1.0.0", {L"WIX_UPGRADE_DETECTED", L"WIX_DOWNGRADE_DETECTED"}},
        {L"one_action", {L"RUN", L"DATA", L"LAUNCHED_FROM_PIM", L"DISABLEANALYTICS"}}};
    for (const std::wstring& package : kPackages) {
        std::vector<std::wstring> secure;
        for (const auto& row : PackageRows(
                 package, L"SELECT `Value` FROM `Property` WHERE `Property` = 'SecureCustomProperties'")) {
            std::wistringstream list(row[0]);
            for (std::wstring name; std::getline(list, name, L';');) {
                secure.push_back(name);
            }
        }
        const auto expected = passed.find(package);
        if (expected != passed.end()) {
            EXPECT_THAT(secure, testing::IsSupersetOf(expected->second)) << Narrow(package);
        }
        for (const auto& row : PackageRows(package, L"SELECT `Property` FROM `AppSearch`")) {
            EXPECT_THAT(secure, testing::Contains(row[0])) << Narrow(package);
        }
    }
}

std::string BytesOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

TEST(TaskFiles, AreUtf16WithAMarkAndSaySoAndRunForTheLocalUsers) {
    for (const char* name : {"StartHX.xml", "StartHXBM.xml", "StartDVR.xml"}) {
        const std::string bytes = BytesOf(std::string("C:\\corvi\\") + name);
        EXPECT_EQ(bytes.substr(0, 2), "\xFF\xFE") << name;
        std::string text;
        for (size_t index = 2; index + 1 < bytes.size(); index += 2) {
            EXPECT_EQ(bytes[index + 1], '\0') << name;
            text += bytes[index];
        }
        EXPECT_TRUE(text.starts_with("<?xml version=\"1.0\" encoding=\"UTF-16\"?>")) << name;
        EXPECT_THAT(text, testing::HasSubstr("<Principal id=\"Author\"><GroupId>S-1-5-32-545</GroupId>"))
            << name;
        EXPECT_THAT(text, testing::HasSubstr("<Actions Context=\"Author\">")) << name;
    }
}

// ---- Conditions

enum Runs { kFirstInstall = 1, kRepair = 2, kUninstall = 4, kUpgradeOld = 8, kUpgradeNew = 16 };

struct KindOfRun {
    Runs run;
    const char* name;
    std::vector<std::pair<const wchar_t*, const wchar_t*>> properties;
};

const std::vector<KindOfRun>& AllRuns() {
    static const std::vector<KindOfRun> runs = {
        {kFirstInstall, "first install", {}},
        {kRepair, "repair", {{L"Installed", L"1"}, {L"REINSTALL", L"ALL"}}},
        {kUninstall, "uninstall", {{L"Installed", L"1"}, {L"REMOVE", L"ALL"}}},
        {kUpgradeOld,
         "removal in an upgrade",
         {{L"Installed", L"1"}, {L"REMOVE", L"ALL"}, {L"UPGRADINGPRODUCTCODE", L"{0}"}}},
        {kUpgradeNew, "install in an upgrade", {{L"WIX_UPGRADE_DETECTED", L"{0}"}}},
    };
    return runs;
}

class OpenPackage {
public:
    explicit OpenPackage(const std::wstring& package) {
        MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
        MsiOpenPackageExW((L"C:\\corvi\\" + package + L".msi").c_str(),
                          MSIOPENPACKAGEFLAGS_IGNOREMACHINESTATE, &handle_);
    }
    ~OpenPackage() { MsiCloseHandle(handle_); }
    OpenPackage(const OpenPackage&) = delete;
    OpenPackage& operator=(const OpenPackage&) = delete;

    void Set(const wchar_t* name, const wchar_t* value) const { MsiSetPropertyW(handle_, name, value); }
    bool Holds(const std::wstring& condition) const {
        const MSICONDITION result = MsiEvaluateConditionW(handle_, condition.c_str());
        EXPECT_NE(result, MSICONDITION_ERROR) << Narrow(condition);
        return result != MSICONDITION_FALSE;
    }

private:
    MSIHANDLE handle_ = 0;
};

struct Schedule {
    const wchar_t* package;
    const wchar_t* action;
    int runs;
};

class Conditions : public testing::TestWithParam<Schedule> {};

TEST_P(Conditions, HoldInJustTheRunsThatTheActionIsFor) {
    const Schedule& schedule = GetParam();
    const auto rows =
        PackageRows(schedule.package, std::wstring(L"SELECT `Condition` FROM `InstallExecuteSequence` WHERE "
                                                   L"`Action` = '") +
                                          schedule.action + L"'");
    ASSERT_EQ(rows.size(), 1U);
    for (const KindOfRun& run : AllRuns()) {
        const OpenPackage package(schedule.package);
        // What the searches find on a machine with the suite.
        for (const wchar_t* found : {L"HXLOCATION", L"SETTINGSLOCATION", L"DVRLOCATION", L"SLIMLOCATION"}) {
            package.Set(found, L"C:\\somewhere");
        }
        for (const auto& [name, value] : run.properties) {
            package.Set(name, value);
        }
        EXPECT_EQ(package.Holds(rows[0][0]), (schedule.runs & run.run) != 0)
            << Narrow(schedule.action) << ", " << run.name << ": " << Narrow(rows[0][0]);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Packages, Conditions,
    testing::Values(
        Schedule{L"graphics_driver", L"BlockLaunch", kFirstInstall | kUpgradeNew},
        Schedule{L"graphics_driver", L"DeleteQELKey", kFirstInstall},
        Schedule{L"settings_app_1.1.0", L"ShutDownPQRNext", kRepair | kUninstall | kUpgradeOld},
        Schedule{L"settings_app_1.1.0", L"RemoveHXSchedularTask", kUninstall | kUpgradeOld},
        Schedule{L"settings_app_1.1.0", L"RemoveHXSchedularTask.Rollback", kUninstall | kUpgradeOld},
        Schedule{L"settings_app_1.1.0", L"RemoveBenchMarkRunOnceSchedularTask", kUninstall},
        Schedule{L"settings_app_1.1.0", L"UninstallTAVOChat", kUninstall},
        Schedule{L"settings_app_1.1.0", L"DelInstallProxyKey", kFirstInstall},
        Schedule{L"settings_app_1.1.0", L"DeleteHXSlimINSTALLDIRFolder", kFirstInstall},
        Schedule{L"settings_app_1.1.0", L"DeleteHXSparsePackageAssets", kUninstall},
        Schedule{L"settings_app_1.1.0", L"DeleteandRetainValues", kUpgradeOld},
        Schedule{L"settings_app_1.1.0", L"DeleteHXINSTALLDIRFolder", kUninstall},
        Schedule{L"settings_app_1.1.0", L"DeleteHXFolder", kUninstall},
        Schedule{L"settings_app_1.1.0", L"DeleteHXNoUpgrade", kUninstall},
        Schedule{L"settings_app_1.1.0", L"CreateLogonSchTask", kFirstInstall | kRepair | kUpgradeNew},
        Schedule{L"settings_app_1.1.0", L"CreateLogonSchTask.Rollback", kFirstInstall | kUpgradeNew},
        Schedule{L"settings_app_1.1.0", L"CreateBenchMarkRunOnceSchTask", kFirstInstall | kUpgradeNew},
        Schedule{L"settings_app_1.1.0", L"CreateBenchMarkRunOnceSchTask.Rollback", kFirstInstall},
        Schedule{L"recording", L"RemoveDVRSchedularTask", kUninstall | kUpgradeOld},
        Schedule{L"recording", L"UnRegisterWVR", kUninstall},
        Schedule{L"recording", L"DeleteWVRFolder", kUninstall},
        Schedule{L"recording", L"CreateDVRLogonSchTask.Rollback", kFirstInstall | kUpgradeNew},
        Schedule{L"camera", L"UnregisterDLL", kUninstall | kUpgradeOld},
        Schedule{L"camera", L"DeleteDMFTDirectory", kUninstall},
        Schedule{L"camera", L"DeleteOPTXCameraGUID", kUninstall},
        Schedule{L"camera", L"SetPermissionsRegisterDLL.Rollback", kFirstInstall | kUpgradeNew},
        Schedule{L"tuning_sdk", L"DeleteServiceIfBinaryIsInDirectory", kUninstall},
        Schedule{L"tuning_sdk", L"PreInstallKMSDK", kFirstInstall | kUpgradeNew},
        Schedule{L"install_manager", L"PostUnInstallKITE", kUninstall},
        Schedule{L"install_manager", L"CreateTriggerlessElevatedScheduleTask.Rollback",
                 kFirstInstall | kUpgradeNew},
        Schedule{L"profile_client_2.0.0", L"CheckForClients", kFirstInstall | kUninstall | kUpgradeNew},
        Schedule{L"profile_client_2.0.0", L"PreInstallPPC", kFirstInstall | kUpgradeNew},
        Schedule{L"profile_client_2.0.0", L"UnInstallPPC", kUninstall},
        Schedule{L"profile_client_2.0.0", L"EnableAnalyticsKey", kFirstInstall},
        Schedule{L"profile_client_2.0.0", L"DeleteAnalyticsKey", kUninstall}));

TEST(SingleConditions, ARefusedConsentIsNotOverwrittenAndAGivenOneIsRecordedAgain) {
    const auto rows = PackageRows(
        L"profile_client_2.0.0",
        L"SELECT `Condition` FROM `InstallExecuteSequence` WHERE `Action` = 'EnableAnalyticsKey'");
    const OpenPackage package(L"profile_client_2.0.0");
    const auto holdsFor = [&](const wchar_t* found, const wchar_t* passed) {
        package.Set(L"ANALYTICSCONSENT", found);
        package.Set(L"DISABLEANALYTICS", passed);
        return package.Holds(rows.at(0).at(0));
    };
    EXPECT_TRUE(holdsFor(L"", L""));
    EXPECT_TRUE(holdsFor(L"true", L""));
    EXPECT_TRUE(holdsFor(L"", L"no"));
    EXPECT_FALSE(holdsFor(L"false", L""));
    EXPECT_FALSE(holdsFor(L"False", L""));
    EXPECT_FALSE(holdsFor(L"", L"yes"));
    EXPECT_FALSE(holdsFor(L"true", L"YES1"));
}

TEST(SingleConditions, ThePendingRenamesGuardLooksForTheFolderAnywhereInTheList) {
    const auto rows = PackageRows(L"settings_app_1.0.0", L"SELECT `Condition` FROM `LaunchCondition`");
    const auto guard = std::find_if(rows.begin(), rows.end(), [](const auto& row) {
        return row[0].find(L"PENDINGFILERENAMES") != std::wstring::npos;
    });
    ASSERT_NE(guard, rows.end());
    const OpenPackage package(L"settings_app_1.0.0");
    const auto allows = [&](const wchar_t* pending) {
        package.Set(L"PENDINGFILERENAMES", pending);
        return package.Holds((*guard)[0]);
    };
    EXPECT_TRUE(allows(L""));
    EXPECT_TRUE(allows(L"[~]\\??\\C:\\Temp\\a.tmp[~][~]"));
    EXPECT_FALSE(
        allows(L"[~]\\??\\C:\\Temp\\a.tmp[~][~]\\??\\C:\\Program Files\\TAVO\\HXNext\\hxcmd.exe[~][~]"));
    EXPECT_FALSE(allows(L"[~]\\??\\C:\\PROGRAM FILES\\tavo\\hxnext\\qt.dll[~][~]"));
    package.Set(L"Installed", L"1");
    EXPECT_TRUE(allows(L"[~]\\??\\C:\\Program Files\\TAVO\\HXNext\\hxcmd.exe[~][~]"));
}

}  // namespace
}  // namespace corvi::test
