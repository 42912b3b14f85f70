#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/tool/changed_package.h"
#include "tests/tool/tool_run.h"

// "corvi check" on packages with one mistake each: copies of a package in which it finds nothing.

namespace corvi::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using Json = nlohmann::json;

constexpr wchar_t kClean[] = L"C:\\corvi\\check_clean.msi";
constexpr wchar_t kChanged[] = L"C:\\corvi\\check_changed.msi";

std::wstring Quoted(const std::wstring& text) { return L"\"" + text + L"\""; }

Json CheckAsJson(const std::wstring& package) {
    const ToolRun run = RunTool(L"check " + Quoted(package) + L" --json");
    EXPECT_EQ(run.exitCode, LineCount(run.error)) << run.error;
    return Json::parse(run.output);
}

// A condition as a literal of the query language, which knows no quotation marks inside one.
std::wstring SetCondition(const std::wstring& action, const std::wstring& condition) {
    return L"UPDATE `InstallExecuteSequence` SET `Condition`='" + condition + L"' WHERE `Action`='" + action +
           L"'";
}

std::wstring SetSequence(const std::wstring& action, int sequence) {
    return L"UPDATE `InstallExecuteSequence` SET `Sequence`=" + std::to_wstring(sequence) +
           L" WHERE `Action`='" + action + L"'";
}

std::wstring SetType(const std::wstring& action, int type) {
    return L"UPDATE `CustomAction` SET `Type`=" + std::to_wstring(type) + L" WHERE `Action`='" + action +
           L"'";
}

std::wstring SetTarget(const std::wstring& action, const std::wstring& target) {
    return L"UPDATE `CustomAction` SET `Target`='" + target + L"' WHERE `Action`='" + action + L"'";
}

std::wstring Unschedule(const std::wstring& action) {
    return L"DELETE FROM `InstallExecuteSequence` WHERE `Action`='" + action + L"'";
}

std::wstring Schedule(const std::wstring& table, const std::wstring& action, const std::wstring& condition,
                      int sequence) {
    return L"INSERT INTO `" + table + L"` (`Action`,`Condition`,`Sequence`) VALUES ('" + action + L"','" +
           condition + L"'," + std::to_wstring(sequence) + L")";
}

std::wstring SetProperty(const std::wstring& name, const std::wstring& value) {
    return L"UPDATE `Property` SET `Value`='" + value + L"' WHERE `Property`='" + name + L"'";
}

std::wstring AddProperty(const std::wstring& name, const std::wstring& value) {
    return L"INSERT INTO `Property` (`Property`,`Value`) VALUES ('" + name + L"','" + value + L"')";
}

// Types: 1 a DLL of the Binary table, 0x40 ignore, 0x80 asynchronous, 0x100 rollback, 0x400 deferred,
// 0x800 not impersonated.
constexpr int kImmediateCheck = 0x001;
constexpr int kImmediateIgnore = 0x041;
constexpr int kDeferredCheck = 0xC01;
constexpr int kDeferredIgnore = 0xC41;

struct Mistake {
    const char* id;
    const char* action;
    std::vector<std::wstring> statements;
    const char* name;  ///< of the test
};

void PrintTo(const Mistake& mistake, std::ostream* out) { *out << mistake.name; }

const Mistake kMistakes[] = {
    {"unknown-entry-point",
     "CheckForClients",
     {SetTarget(L"CheckForClients", L"CheckForClient")},
     "AnEntryPointThatIsMisspelt"},
    {"unknown-entry-point",
     "BlockLaunch",
     {SetTarget(L"BlockLaunch", L"blocklaunch")},
     "AnEntryPointInAnotherLetterCase"},
    {"immediate-instead-of-deferred",
     "DeleteQELKey",
     {SetType(L"DeleteQELKey", kImmediateIgnore)},
     "AnImmediateActionThatChangesTheMachine"},
    {"deferred-instead-of-immediate",
     "BlockLaunch",
     {SetType(L"BlockLaunch", kDeferredCheck), SetSequence(L"BlockLaunch", 1505)},
     "ADeferredActionThatReadsAProperty"},
    {"rollback-is-immediate",
     "CreateLogonSchTask.Rollback",
     {SetType(L"CreateLogonSchTask.Rollback", 2113)},
     "ARollbackThatTheCompilerMadeImmediate"},
    {"impersonated-instead-of-elevated",
     "DeleteQELKey",
     {SetType(L"DeleteQELKey", 0x441)},
     "AnActionWithoutElevation"},
    {"elevated-instead-of-impersonated",
     "UnRegisterWVR",
     {Schedule(L"InstallExecuteSequence", L"UnRegisterWVR", L"REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE",
               2540),
      SetType(L"UnRegisterWVR", kDeferredIgnore)},
     "AnActionForTheUserThatRunsAsTheSystem"},
    {"success-fails-install",
     "DeleteHXFolder",
     {SetType(L"DeleteHXFolder", kDeferredCheck)},
     "AResultOfSuccessThatIsChecked"},
    {"failure-stops-uninstall",
     "ShutDownDVR",
     {SetType(L"ShutDownDVR", kDeferredCheck)},
     "AFailureThatStopsAnUninstall"},
    {"refusal-passes", "BlockLaunch", {SetType(L"BlockLaunch", kImmediateIgnore)}, "ARefusalThatIsIgnored"},
    {"refusal-passes",
     "CheckForClients",
     {SetType(L"CheckForClients", kDeferredIgnore)},
     "ASkipThatIsIgnored"},
    {"runs-asynchronously",
     "CreateLogonSchTask",
     {SetType(L"CreateLogonSchTask", kDeferredCheck | 0x80)},
     "AnActionThatNobodyWaitsFor"},
    {"outside-install-script",
     "DeleteQELKey",
     {SetSequence(L"DeleteQELKey", 1450)},
     "ADeferredActionBeforeInstallInitialize"},
    {"outside-install-script",
     "EnableAnalyticsKey",
     {SetSequence(L"EnableAnalyticsKey", 6601)},
     "ADeferredActionBehindInstallFinalize"},
    {"guard-too-late",
     "BlockLaunch",
     {SetSequence(L"BlockLaunch", 5000 + 850)},
     "ALaunchGuardBehindTheFiles"},
    {"runs-before-install",
     "LaunchHX",
     {SetSequence(L"LaunchHX", 1400 + 50)},
     "AnImmediateActionBeforeWhatItWorksWith"},
    {"scheduled-in-user-interface",
     "LaunchHX",
     {Schedule(L"InstallUISequence", L"LaunchHX", L"", 1310)},
     "AnActionInTheDialogsSequence"},
    {"only-in-user-interface",
     "LaunchedFromPIM",
     {Schedule(L"InstallUISequence", L"LaunchedFromPIM", L"NOT Installed", 60)},
     "ALaunchGuardInTheDialogsSequenceAlone"},
    {"unreadable-condition",
     "DeleteQELKey",
     {SetCondition(L"DeleteQELKey", L"NOT Installed AND (")},
     "AConditionThatIsNone"},
    {"data-not-set",
     "DeleteServiceIfBinaryIsInDirectory",
     {Unschedule(L"DeleteServiceIfBinaryIsInDirectory.Data")},
     "ActionDataThatNobodySets"},
    {"data-not-set",
     "CheckForClients",
     {L"UPDATE `CustomAction` SET `Source`='CheckForClient' WHERE `Action`='CheckForClients.Data'"},
     "ActionDataForAMisspeltAction"},
    {"data-set-after-action",
     "CheckForClients",
     {SetSequence(L"CheckForClients.Data", 1504)},
     "ActionDataSetBehindTheAction"},
    {"data-under-other-condition",
     "CheckForClients",
     {SetCondition(L"CheckForClients.Data", L"NOT Installed")},
     "ActionDataUnderAnotherCondition"},
    {"data-set-before-costing",
     "UnregisterDLL",
     {SetSequence(L"UnregisterDLL.Data", 950)},
     "ActionDataSetBeforeDirectoriesAreKnown"},
    {"data-key-missing",
     "CheckForClients",
     {SetTarget(L"CheckForClients.Data", L"ClientName=[CLIENTNAME];CurrentVersion=[ProductVersion]")},
     "ActionDataWithoutAKey"},
    {"data-key-missing",
     "DeleteServiceIfBinaryIsInDirectory",
     {SetTarget(L"DeleteServiceIfBinaryIsInDirectory.Data", L"ServiceName=CleanService;[INSTALLFOLDER]")},
     "ADirectoryInPlaceOfAKey"},
    {"data-key-misspelt",
     "CheckForClients",
     {SetTarget(L"CheckForClients.Data",
                L"Clientname=[CLIENTNAME];Action=[REMOVE];CurrentVersion=[ProductVersion]")},
     "ActionDataWithAMisspeltKey"},
    {"data-key-order",
     "UnregisterDLL",
     {SetTarget(L"UnregisterDLL.Data",
                L"InstallDir=[INSTALLFOLDER];VCDLLName=Source.dll;DLLName=Camera.dll")},
     "ActionDataInTheWrongOrder"},
    {"data-key-empty",
     "DeleteServiceIfBinaryIsInDirectory",
     {SetTarget(L"DeleteServiceIfBinaryIsInDirectory.Data",
                L"ServiceName=;DirectoryOfBinary=[INSTALLFOLDER]")},
     "ActionDataWithAnEmptyKey"},
    {"data-separator",
     "DeleteServiceIfBinaryIsInDirectory",
     {SetTarget(L"DeleteServiceIfBinaryIsInDirectory.Data",
                L"ServiceName=CleanService,DirectoryOfBinary=[INSTALLFOLDER]")},
     "ActionDataWithAComma"},
    {"data-not-keyed",
     "DeleteHXFolder",
     {SetTarget(L"DeleteHXFolder.Data", L"InstallDir=[INSTALLFOLDER]")},
     "AKeyWhereTheWholeDataIsOneValue"},
    {"deletes-on-repair",
     "DeleteQELKey",
     {SetCondition(L"DeleteQELKey", L"NOT REMOVE")},
     "ADeletionOnRepair"},
    {"deletes-on-upgrade",
     "DeleteHXFolder",
     {SetCondition(L"DeleteHXFolder", L"REMOVE=\"ALL\""),
      SetCondition(L"DeleteHXFolder.Data", L"REMOVE=\"ALL\"")},
     "ADeletionOnUpgrade"},
    {"deletes-on-upgrade",
     "DeleteServiceIfBinaryIsInDirectory",
     {SetCondition(L"DeleteServiceIfBinaryIsInDirectory", L"REMOVE=\"ALL\"")},
     "ADeletionOnUpgradeWithoutItsData"},
    {"deletes-on-upgrade",
     "UnRegisterWVR",
     {Schedule(L"InstallExecuteSequence", L"UnRegisterWVR", L"REMOVE=\"ALL\"", 2540)},
     "ADeletionOnUpgradeThatNothingTakesBack"},
    {"deletes-on-upgrade",
     "DeleteHXSparsePackageAssets",
     {Schedule(L"InstallExecuteSequence", L"DeleteHXSparsePackageAssets", L"REMOVE=\"ALL\"", 2540)},
     "ADeletionOnUpgradeOfWhatTheNewerVersionMayHave"},
    {"deletes-on-upgrade",
     "DeleteQELKey",
     {SetCondition(L"DeleteQELKey", L"NOT Installed")},
     "ADeletionOfWhatTheOlderVersionWrote"},
    {"deletes-on-repair",
     "CheckForClients",
     {SetCondition(L"CheckForClients", L"NOT UPGRADINGPRODUCTCODE"),
      SetCondition(L"CheckForClients.Data", L"NOT UPGRADINGPRODUCTCODE")},
     "ADeletionOfItsOwnRegistration"},
    {"deletes-on-repair",
     "PreInstallPPC",
     {Schedule(L"InstallExecuteSequence", L"PreInstallPPC", L"NOT REMOVE", 1560)},
     "ADeletionOfFilesThatRepairLeavesOut"},
    {"guard-on-uninstall",
     "BlockLaunch",
     {SetCondition(L"BlockLaunch", L"NOT REINSTALL")},
     "ALaunchGuardOnUninstall"},
    {"error-escapes-unguarded",
     "ShutDownDVR",
     {SetCondition(L"ShutDownDVR", L"Installed AND (REMOVE=\"ALL\" OR REINSTALL)")},
     "AnErrorWithoutGuard"},
    {"error-escapes-unguarded",
     "ShutDownDVR",
     {L"UPDATE `RegLocator` SET `Key`='SOFTWARE\\QEL Technologies\\Install\\HXNext' WHERE "
      L"`Signature_`='FindRecording'"},
     "AGuardForAnotherKey"},
    {"error-escapes-unguarded",
     "ShutDownDVR",
     {L"UPDATE `RegLocator` SET `Type`=2 WHERE `Signature_`='FindRecording'"},
     "AGuardForTheOtherRegistryView"},
    {"no-counterpart", "CreateLogonSchTask", {Unschedule(L"RemoveHXSchedularTask")}, "NothingTakesItBack"},
    {"no-rollback", "CreateLogonSchTask", {Unschedule(L"CreateLogonSchTask.Rollback")}, "NoRollback"},
    {"rollback-after-action",
     "CreateLogonSchTask",
     {SetSequence(L"CreateLogonSchTask.Rollback", 5911)},
     "ARollbackBehindItsAction"},
    {"rollback-under-other-condition",
     "CreateLogonSchTask",
     {SetCondition(L"CreateLogonSchTask.Rollback", L"REMOVE=\"ALL\"")},
     "ARollbackUnderAnotherCondition"},
    {"removal-behind-new-actions",
     "RemoveExistingProducts",
     {SetSequence(L"RemoveExistingProducts", 6599)},
     "TheOlderVersionIsRemovedLast"},
    {"consent-overwritten",
     "EnableAnalyticsKey",
     {SetCondition(L"EnableAnalyticsKey", L"NOT REMOVE")},
     "AConsentThatRepairOverwrites"},
    {"before-files-installed",
     "SetPermissionsRegisterDLL",
     {SetSequence(L"SetPermissionsRegisterDLL.Rollback.Data", 3600),
      SetSequence(L"SetPermissionsRegisterDLL.Rollback", 3601),
      SetSequence(L"SetPermissionsRegisterDLL.Data", 3602), SetSequence(L"SetPermissionsRegisterDLL", 3603)},
     "AnActionBeforeItsFiles"},
    {"after-files-removed",
     "UnregisterDLL",
     {SetSequence(L"UnregisterDLL.Data", 3520), SetSequence(L"UnregisterDLL", 3521)},
     "AnActionBehindTheRemovalOfItsFiles"},
    {"after-registry-removed",
     "DeleteWVRFolder",
     {SetSequence(L"DeleteWVRFolder", 2650)},
     "AnActionBehindTheRemovalOfItsValue"},
    {"property-not-secure",
     "BlockLaunch",
     {SetProperty(L"SecureCustomProperties",
                  L"CLIENTNAME;DVRLOCATION;SUITEFOUND;WIX_DOWNGRADE_DETECTED;WIX_UPGRADE_DETECTED")},
     "APropertyOfTheCommandLineThatIsDropped"},
    {"property-not-secure",
     "ShutDownDVR",
     {SetProperty(L"SecureCustomProperties",
                  L"CLIENTNAME;LAUNCHED_FROM_PIM;SUITEFOUND;WIX_DOWNGRADE_DETECTED;WIX_UPGRADE_DETECTED")},
     "APropertyOfASearchThatIsDropped"},
    {"property-not-secure",
     "CheckForClients",
     {SetProperty(L"SecureCustomProperties",
                  L"LAUNCHED_FROM_PIM;DVRLOCATION;SUITEFOUND;WIX_DOWNGRADE_DETECTED;WIX_UPGRADE_DETECTED")},
     "APropertyInActionDataThatIsDropped"},
};

class CheckFinds : public testing::TestWithParam<Mistake> {};

TEST_P(CheckFinds, JustThisMistake) {
    const Mistake& mistake = GetParam();
    ChangePackage(kClean, kChanged, mistake.statements);
    const ToolRun run = RunTool(L"check " + Quoted(kChanged));
    EXPECT_EQ(1u, run.exitCode);
    EXPECT_EQ("corvi: 'C:\\corvi\\check_changed.msi': 1 finding\n", run.error);
    EXPECT_THAT(run.output, AllOf(HasSubstr(std::string(mistake.id) + ": " + mistake.action + "\n"),
                                  HasSubstr("\n1 finding.\n")));
    EXPECT_GE(80u, LongestLine(run.output));
    const Json json = CheckAsJson(kChanged);
    ASSERT_EQ(1u, json["findings"].size()) << json["findings"].dump(1);
    EXPECT_EQ(mistake.id, json["findings"][0]["id"].get<std::string>());
    EXPECT_EQ(mistake.action, json["findings"][0]["action"].get<std::string>());
    EXPECT_THAT(json["findings"][0]["reason"].get<std::string>(), HasSubstr(mistake.action));
    EXPECT_NE("", json["findings"][0]["mend"]);
}

INSTANTIATE_TEST_SUITE_P(OneMistake, CheckFinds, testing::ValuesIn(kMistakes),
                         [](const testing::TestParamInfo<Mistake>& mistake) { return mistake.param.name; });

TEST(Check, ACleanPackageHasNoFindings) {
    const ToolRun run = RunTool(L"check C:\\corvi\\check_clean.msi");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_EQ("", run.error);
    EXPECT_THAT(run.output, HasSubstr("\nNo findings.\n"));
    EXPECT_GE(80u, LongestLine(run.output));
    EXPECT_EQ(0u, CheckAsJson(kClean)["findings"].size());
}

TEST(Check, ThePackagesOfTheSuiteHaveNoFindings) {
    for (const char* package : {"graphics_driver", "settings_app_1.1.0", "camera", "recording",
                                "profile_client_1.0.0", "install_manager", "tuning_sdk"}) {
        const std::string name = package;
        const ToolRun run = RunTool(L"check " + std::wstring(name.begin(), name.end()) + L".msi");
        EXPECT_EQ(0u, run.exitCode) << name << "\n" << run.output;
        EXPECT_EQ("", run.error) << name;
        EXPECT_GE(80u, LongestLine(run.output)) << name;
    }
}

void ExpectOneFinding(const std::wstring& package, const std::string& id, const std::string& action,
                      const std::string& word) {
    const Json json = CheckAsJson(package);
    ASSERT_EQ(1u, json["findings"].size()) << json["findings"].dump(1);
    EXPECT_EQ(id, json["findings"][0]["id"].get<std::string>());
    EXPECT_EQ(action, json["findings"][0]["action"].get<std::string>());
    EXPECT_THAT(json["findings"][0]["reason"].get<std::string>(), HasSubstr(word));
}

TEST(Check, ATaskFileThatIsNotUtf16) {
    ExpectOneFinding(L"check_task_utf8.msi", "task-file-not-utf16", "CreateLogonSchTask", "StartHX.xml");
}

TEST(Check, ATaskFileWhoseDeclarationSaysAnotherEncoding) {
    ExpectOneFinding(L"check_task_misdeclared.msi", "task-file-not-utf16", "CreateLogonSchTask", "utf-8");
}

TEST(Check, ATaskFileOfAnyNameIsToldByItsContent) {
    ExpectOneFinding(L"check_task_other_name.msi", "task-file-not-utf16", "(package)", "Other.xml");
}

TEST(Check, ATemplateForAnotherProcessor) {
    for (const wchar_t* other : {L"Intel;1033", L"Arm64;1033", L";1033"}) {
        ChangePackage(kClean, kChanged, {});
        SetTemplate(kChanged, other);
        ExpectOneFinding(kChanged, "template-not-x64", "(package)", "template");
    }
}

TEST(Check, ATemplateWithSeveralLanguagesIsForThisProcessor) {
    ChangePackage(kClean, kChanged, {});
    SetTemplate(kChanged, L"x64;1033,1031");
    EXPECT_EQ(0u, CheckAsJson(kChanged)["findings"].size());
}

TEST(Check, TwoMistakesAreTwoFindingsInTheOrderOfTheSequence) {
    ChangePackage(kClean, kChanged,
                  {SetCondition(L"EnableAnalyticsKey", L"NOT REMOVE"), SetCondition(L"BlockLaunch", L"")});
    const Json json = CheckAsJson(kChanged);
    ASSERT_EQ(2u, json["findings"].size());
    EXPECT_EQ("BlockLaunch", json["findings"][0]["action"]);
    EXPECT_EQ("EnableAnalyticsKey", json["findings"][1]["action"]);
}

Json ScenariosOf(const Json& report, const std::string& action) {
    for (const Json& row : report["actions"]) {
        if (row["action"] == action) {
            return row["scenarios"];
        }
    }
    return {};
}

TEST(Check, TheMatrixSaysWhatRunsWhen) {
    const Json report = CheckAsJson(kClean);
    EXPECT_EQ(Json::parse(R"({"firstInstall": "yes", "repair": "yes", "minorUpgrade": "yes",
                              "majorUpgradeOld": "-", "majorUpgradeNew": "yes", "uninstall": "-",
                              "failedInstall": "yes"})"),
              ScenariosOf(report, "CreateLogonSchTask"));
    EXPECT_EQ(Json::parse(R"({"firstInstall": "undo", "repair": "-", "minorUpgrade": "-",
                              "majorUpgradeOld": "-", "majorUpgradeNew": "undo", "uninstall": "-",
                              "failedInstall": "undo"})"),
              ScenariosOf(report, "CreateLogonSchTask.Rollback"));
    EXPECT_EQ(Json::parse(R"({"firstInstall": "yes", "repair": "-", "minorUpgrade": "-",
                              "majorUpgradeOld": "-", "majorUpgradeNew": "-", "uninstall": "-",
                              "failedInstall": "yes"})"),
              ScenariosOf(report, "EnableAnalyticsKey"));
    EXPECT_EQ(Json::parse(R"({"firstInstall": "-", "repair": "if", "minorUpgrade": "if",
                              "majorUpgradeOld": "if", "majorUpgradeNew": "-", "uninstall": "if",
                              "failedInstall": "-"})"),
              ScenariosOf(report, "ShutDownDVR"));
    EXPECT_EQ(Json::parse(R"({"firstInstall": "yes", "repair": "yes", "minorUpgrade": "yes",
                              "majorUpgradeOld": "-", "majorUpgradeNew": "yes", "uninstall": "-",
                              "failedInstall": "yes"})"),
              ScenariosOf(report, "SetPermissionsRegisterDLL"));
}

TEST(Check, StatesOfFeaturesAndComponentsAreTheScenarios) {
    ChangePackage(
        kClean, kChanged,
        {SetCondition(L"LaunchHX", L"&Main=3 AND !Main=2 AND $Tool=3 AND ?Tool=2 AND NOT &Other=3")});
    EXPECT_EQ(Json::parse(R"({"firstInstall": "yes", "repair": "-", "minorUpgrade": "-",
                              "majorUpgradeOld": "-", "majorUpgradeNew": "yes", "uninstall": "-",
                              "failedInstall": "yes"})"),
              ScenariosOf(CheckAsJson(kChanged), "LaunchHX"));
}

TEST(Check, APropertyActionBeforeTheConditionCounts) {
    ChangePackage(kClean, kChanged,
                  {L"INSERT INTO `CustomAction` (`Action`,`Type`,`Source`,`Target`) VALUES "
                   L"('Decide',51,'WANTED','[ProductName]')",
                   Schedule(L"InstallExecuteSequence", L"Decide", L"NOT Installed", 1000),
                   SetCondition(L"DeleteQELKey", L"WANTED AND NOT WIX_UPGRADE_DETECTED")});
    const Json report = CheckAsJson(kChanged);
    EXPECT_EQ(0u, report["findings"].size()) << report["findings"].dump(1);
    EXPECT_EQ("yes", ScenariosOf(report, "DeleteQELKey")["firstInstall"]);
    EXPECT_EQ("-", ScenariosOf(report, "DeleteQELKey")["repair"]);
}

TEST(Check, ForeignCodeThatNamesThePropertyMaySetTheActionData) {
    ChangePackage(kClean, kChanged,
                  {Unschedule(L"DeleteServiceIfBinaryIsInDirectory.Data"),
                   L"INSERT INTO `CustomAction` (`Action`,`Type`,`Source`,`Target`) VALUES ('Foreign',38,'',"
                   L"'Session.Property(\"DeleteServiceIfBinaryIsInDirectory\") = x')"});
    EXPECT_EQ(0u, CheckAsJson(kChanged)["findings"].size());
}

TEST(Check, SuppressedInThePackageWithItsReason) {
    ChangePackage(kClean, kChanged,
                  {Unschedule(L"CreateLogonSchTask.Rollback"),
                   AddProperty(L"CorviSuppress.1", L"no-rollback CreateLogonSchTask the task is harmless")});
    const ToolRun run = RunTool(L"check check_changed.msi");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_THAT(run.output, AllOf(HasSubstr("suppressed: no-rollback: CreateLogonSchTask\n"),
                                  HasSubstr("kept: the task is harmless\n"),
                                  HasSubstr("\nNo findings, 1 suppressed.\n")));
    const Json json = CheckAsJson(kChanged);
    EXPECT_EQ("the task is harmless", json["suppressed"][0]["kept"]);
}

TEST(Check, SuppressedByAFileOnlyWhereTheNameIsTheSame) {
    WriteBytes(
        L"C:\\corvi\\keep.txt",
        "# kept\n\nno-rollback CreateLogonSchTask the task is harmless\r\nno-rollback Other never seen\n");
    ChangePackage(kClean, kChanged,
                  {Unschedule(L"CreateLogonSchTask.Rollback"), Unschedule(L"EnableAnalyticsKey.Rollback")});
    const ToolRun run = RunTool(L"check check_changed.msi --suppress keep.txt");
    EXPECT_EQ(1u, run.exitCode);
    EXPECT_THAT(run.output, AllOf(HasSubstr("\nno-rollback: EnableAnalyticsKey\n"),
                                  HasSubstr("kept: the task is harmless\n"),
                                  HasSubstr("note: nothing to suppress for no-rollback Other\n"),
                                  HasSubstr("\n1 finding, 1 suppressed.\n")));
}

std::string FileBytes(const std::wstring& path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void ExpectUnusable(const std::wstring& arguments, const std::string& word) {
    const ToolRun run = RunTool(L"check " + arguments);
    EXPECT_EQ(2u, run.exitCode);
    EXPECT_EQ("", run.output);
    EXPECT_THAT(run.error, HasSubstr(word));
    EXPECT_EQ(1u, LineCount(run.error)) << run.error;
}

TEST(Check, AFileOfSuppressionsMayBeginWithAByteOrderMark) {
    WriteBytes(L"C:\\corvi\\keep.txt", "\xEF\xBB\xBFno-rollback CreateLogonSchTask the task is harmless\r\n");
    ChangePackage(kClean, kChanged, {Unschedule(L"CreateLogonSchTask.Rollback")});
    EXPECT_EQ(0u, RunTool(L"check check_changed.msi --suppress keep.txt").exitCode);
}

TEST(Check, ANameOfFullLengthFitsTheConsole) {
    const std::wstring name = std::wstring(72, L'A');
    ChangePackage(kClean, kChanged,
                  {L"INSERT INTO `CustomAction` (`Action`,`Type`,`Source`,`Target`) VALUES ('" + name +
                       L"',1,'Corvi_CA','BlockLaunch')",
                   Schedule(L"InstallExecuteSequence", name, L"", 61)});
    const ToolRun run = RunTool(L"check check_changed.msi");
    EXPECT_EQ(1u, run.exitCode);
    EXPECT_GE(80u, LongestLine(run.output));
}

TEST(Check, EntryPointsAreLookedUpInTheLibraryThatIsNamed) {
    EXPECT_EQ(0u, RunTool(L"check check_clean.msi --dll Corvi_CA.dll").exitCode);
    const ToolRun run = RunTool(L"check check_clean.msi --dll media_source.dll");
    EXPECT_EQ(1u, run.exitCode);
    EXPECT_THAT(run.output, HasSubstr("unknown-entry-point: BlockLaunch\n"));
}

TEST(Check, ASuppressionWithoutReasonIsWrongUsage) {
    WriteBytes(L"C:\\corvi\\keep.txt", "no-rollback CreateLogonSchTask\n");
    ExpectUnusable(L"check_clean.msi --suppress keep.txt", "line 1");
    ExpectUnusable(L"check_clean.msi --suppress nowhere.txt", "nowhere.txt");
    ChangePackage(kClean, kChanged, {AddProperty(L"CorviSuppress.1", L"no-rollback")});
    ExpectUnusable(L"check_changed.msi", "CorviSuppress.1");
}

TEST(Check, WhatIsNoPackageIsNamedInOneLine) {
    ExpectUnusable(L"", "PACKAGE");
    ExpectUnusable(L"nowhere.msi", "nowhere.msi");
    ExpectUnusable(L"C:\\corvi", "C:\\corvi");
    ExpectUnusable(L"Corvi_CA.dll", "Corvi_CA.dll");
    WriteBytes(L"C:\\corvi\\empty.msi", "");
    ExpectUnusable(L"empty.msi", "empty.msi");
    ExpectUnusable(L"check_clean.msi other.msi", "other.msi");
    ExpectUnusable(L"check_clean.msi --dll nowhere.dll", "nowhere.dll");
    ExpectUnusable(L"check_clean.msi --dll keep.txt", "keep.txt");
}

TEST(Check, ADamagedPackageIsUnreadable) {
    const std::string whole = FileBytes(kClean);
    ASSERT_GT(whole.size(), 100000u);
    for (const size_t zeros : {2000u, 6000u, 20000u}) {
        // As a download leaves it that did not get to its end.
        WriteBytes(kChanged, whole.substr(0, whole.size() - zeros) + std::string(zeros, '\0'));
        ExpectUnusable(L"check_changed.msi", "check_changed.msi");
        WriteBytes(kChanged, whole.substr(0, whole.size() - zeros));
        ExpectUnusable(L"check_changed.msi", "check_changed.msi");
    }
    // The directory in a circle: its first entry is its own child.
    std::string circle = whole;
    std::uint32_t directory = 0;
    std::memcpy(&directory, whole.data() + 0x30, sizeof(directory));
    circle.replace((directory + 1) * size_t{512} + 76, 4, std::string(4, '\0'));
    WriteBytes(kChanged, circle);
    ExpectUnusable(L"check_changed.msi", "damaged");
}

TEST(Check, APackageWithoutTheLibrarySaysSo) {
    const ToolRun run = RunTool(L"check session.msi");
    EXPECT_EQ(0u, run.exitCode);
    EXPECT_THAT(run.output, HasSubstr("No custom action of this package comes from the library"));
    EXPECT_EQ(false, CheckAsJson(L"session.msi")["usesLibrary"]);
}

TEST(Check, TheLibraryIsToldByItsContentUnderAnyName) {
    ExpectOneFinding(L"check_renamed.msi", "guard-on-uninstall", "Guard", "Guard");
}

TEST(Check, APathOfForeignCharacters) {
    const std::wstring path = L"C:\\corvi\\pr\u00fcfung \u65e5\u672c\\paket \u00e4.msi";
    WriteBytes(path, "");
    ChangePackage(kClean, path, {SetCondition(L"BlockLaunch", L"")});
    const ToolRun run = RunTool(L"check " + Quoted(path));
    EXPECT_EQ(1u, run.exitCode);
    EXPECT_THAT(run.output, HasSubstr("guard-on-uninstall: BlockLaunch"));
    EXPECT_THAT(CheckAsJson(path)["package"].get<std::string>(), HasSubstr("\xe6\x97\xa5\xe6\x9c\xac"));
}

TEST(Check, ThePackageIsNotChangedAndNothingIsLeftBehind) {
    const std::wstring temporary = L"C:\\corvi\\check-temp";
    ChangePackage(kClean, kChanged, {});
    SetTemplate(kChanged, L"Arm64;1033");
    HANDLE before = CreateFileW(kChanged, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, before);
    FILETIME written = {};
    GetFileTime(before, nullptr, nullptr, &written);
    CloseHandle(before);
    CreateDirectoryW(temporary.c_str(), nullptr);
    SetEnvironmentVariableW(L"TMP", temporary.c_str());
    EXPECT_EQ(1u, RunTool(L"check check_changed.msi").exitCode);
    SetEnvironmentVariableW(L"TMP", nullptr);
    EXPECT_NE(FALSE, RemoveDirectoryW(temporary.c_str())) << "files are left: " << GetLastError();
    HANDLE after = CreateFileW(kChanged, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    FILETIME now = {};
    GetFileTime(after, nullptr, nullptr, &now);
    CloseHandle(after);
    EXPECT_EQ(0, CompareFileTime(&written, &now));
}

TEST(Check, EveryActionOfTheReportHasItsTypeInWords) {
    for (const Json& row : CheckAsJson(kClean)["actions"]) {
        if (row["action"] == "CheckForClients") {
            EXPECT_EQ("deferred, elevated, check", row["attributes"]);
            EXPECT_EQ("CheckForClients", row["entryPoint"]);
            EXPECT_EQ(1503, row["sequence"]);
        }
        if (row["action"] == "CheckForClients.Data") {
            EXPECT_EQ("CheckForClients", row["sets"]);
        }
    }
}

}  // namespace
}  // namespace corvi::test
