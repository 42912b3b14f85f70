#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <msiquery.h>

#include <optional>
#include <string>
#include <vector>

#include "runtime/registry.h"
#include "tests/actions/test_folder.h"
#include "tests/components/started_commands.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/scratch_key.h"
#include "tests/support/tool_recorder.h"

namespace corvi::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr UINT kPropertyNotRead = 0xFFFFFFFF;
const std::wstring kHXNext = L"Install\\HXNext";

/// The settings application on this machine: its keys, its folder, and one folder beside it that nothing
/// may touch.
class SettingsApplication : public testing::Test {
protected:
    SettingsApplication() { MakeProduct(); }

    /// A product folder with read-only and hidden entries and folders in folders.
    void MakeProduct() const {
        folder_.MakeFile(L"kept\\precious.txt");
        folder_.MakeFile(L"product\\plain.txt");
        folder_.MakeFile(L"product\\read-only.txt", FILE_ATTRIBUTE_READONLY);
        folder_.MakeFile(L"product\\deep\\deeper\\hidden.bin",
                         FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN);
    }

    void RegisterLocation(const std::wstring& location) const {
        qel_.SetText(kHXNext, L"Location", location);
    }

    UINT Call(const char* action) const { return library_.Call(action, session_.Handle()); }

    void ExpectProductWhole() const {
        EXPECT_THAT(folder_.Names(L"product"), ElementsAre(L"deep", L"plain.txt", L"read-only.txt"));
        EXPECT_TRUE(folder_.Has(L"product\\deep\\deeper\\hidden.bin"));
    }
    void ExpectKeptWhole() const { EXPECT_THAT(folder_.Names(L"kept"), ElementsAre(L"precious.txt")); }

    TestFolder folder_{L"hx"};
    ScratchKey qel_{L"SOFTWARE\\QEL Technologies"};
    ScratchKey tavo_{L"SOFTWARE\\TAVO"};
    Library library_;
    InstallerSession session_;
};

/// Makes every read of "CustomActionData" fail.
void RefuseActionData(ImportHooks& hooks) {
    CORVI_HOOK(hooks, MsiGetPropertyW,
               [](MSIHANDLE, LPCWSTR, LPWSTR, LPDWORD) -> UINT { return ERROR_INVALID_HANDLE; });
}

// ---- DeleteDMFTDirectory

TEST_F(SettingsApplication, DeleteDMFTDirectoryDeletesTheInstallDirAndLogsTheActionData) {
    session_.SetActionData(L"InstallDir=C:\\hx\\product\\;DLLName=a.dll");
    EXPECT_EQ(Call("DeleteDMFTDirectory"), 0U);
    EXPECT_THAT(folder_.Names(), ElementsAre(L"kept"));
    ExpectKeptWhole();
    EXPECT_THAT(session_.LogLines(),
                ElementsAre(L"CustomActionData: InstallDir=C:\\hx\\product\\;DLLName=a.dll"));
}

TEST_F(SettingsApplication, DeleteDMFTDirectoryTakesAnInstallDirWithoutTrailingSeparator) {
    session_.SetActionData(L"InstallDir=C:\\hx\\product");
    EXPECT_EQ(Call("DeleteDMFTDirectory"), 0U);
    EXPECT_FALSE(folder_.Has(L"product"));
}

TEST_F(SettingsApplication, DeleteDMFTDirectoryLeavesWhatALinkLeadsTo) {
    folder_.MakeLink(L"product\\way out", L"kept");
    session_.SetActionData(L"InstallDir=C:\\hx\\product\\");
    EXPECT_EQ(Call("DeleteDMFTDirectory"), 0U);
    EXPECT_FALSE(folder_.Has(L"product\\plain.txt"));
    ExpectKeptWhole();
}

TEST_F(SettingsApplication, DeleteDMFTDirectoryOnAFolderThatIsNotThereSucceeds) {
    session_.SetActionData(L"InstallDir=C:\\hx\\no such folder\\");
    EXPECT_EQ(Call("DeleteDMFTDirectory"), 0U);
    ExpectProductWhole();
}

TEST_F(SettingsApplication, DeleteDMFTDirectoryWithAnEmptyInstallDirDeletesNothing) {
    const CurrentDirectory inProduct(folder_.Path(L"product"));
    session_.SetActionData(L"InstallDir=;DLLName=a.dll");
    EXPECT_EQ(Call("DeleteDMFTDirectory"), 0U);
    ExpectProductWhole();
}

TEST_F(SettingsApplication, DeleteDMFTDirectoryAsksForTheImagingFolderInTwoSteps) {
    std::vector<DWORD> sizes;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, MsiGetTargetPathW,
               [&](MSIHANDLE session, LPCWSTR name, LPWSTR path, LPDWORD size) -> UINT {
                   EXPECT_EQ(session, session_.Handle());
                   EXPECT_STREQ(name, L"IMAGINGFOLDER");
                   EXPECT_TRUE(folder_.Has(L"product")) << "asked before anything is deleted";
                   sizes.push_back(*size);
                   if (sizes.size() == 1) {
                       EXPECT_STREQ(path, L"");
                       *size = 11;
                       return ERROR_MORE_DATA;
                   }
                   return ERROR_SUCCESS;
               });
    session_.SetActionData(L"InstallDir=C:\\hx\\product\\");
    EXPECT_EQ(Call("DeleteDMFTDirectory"), 0U);
    EXPECT_THAT(sizes, ElementsAre(0U, 12U));
    EXPECT_FALSE(folder_.Has(L"product"));
}

TEST_F(SettingsApplication, DeleteDMFTDirectoryGoesOnWhenTheImagingFolderIsUnknown) {
    int asked = 0;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, MsiGetTargetPathW, [&](MSIHANDLE, LPCWSTR, LPWSTR, LPDWORD) -> UINT {
        ++asked;
        return ERROR_DIRECTORY;
    });
    session_.SetActionData(L"InstallDir=C:\\hx\\product\\");
    EXPECT_EQ(Call("DeleteDMFTDirectory"), 0U);
    EXPECT_EQ(asked, 1);
    EXPECT_FALSE(folder_.Has(L"product"));
}

TEST_F(SettingsApplication, DeleteDMFTDirectoryCatchesTheErrorOfActionDataWithoutTheKey) {
    int asked = 0;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, MsiGetTargetPathW, [&](MSIHANDLE, LPCWSTR, LPWSTR, LPDWORD) -> UINT {
        ++asked;
        return ERROR_DIRECTORY;
    });
    session_.SetActionData(L"short");
    EXPECT_EQ(Call("DeleteDMFTDirectory"), 0U);
    EXPECT_EQ(asked, 0);
    EXPECT_THAT(session_.LogLines(), ElementsAre(L"CustomActionData: short"));
}

// ---- DeleteHXSparsePackageAssets

class SparsePackageAssets : public SettingsApplication {
protected:
    SparsePackageAssets() {
        folder_.MakeFile(L"product\\Assets\\a.png", FILE_ATTRIBUTE_READONLY);
        folder_.MakeFile(L"product\\Strings\\en\\s.txt");
        folder_.MakeFile(L"product\\resources.pri");
    }

    void ExpectAssetsWhole() const {
        EXPECT_TRUE(folder_.Has(L"product\\Assets\\a.png"));
        EXPECT_TRUE(folder_.Has(L"product\\Strings\\en\\s.txt"));
        EXPECT_TRUE(folder_.Has(L"product\\resources.pri"));
    }
};

TEST_F(SparsePackageAssets, AssetsStringsAndResourcesGoAndTheRestStays) {
    RegisterLocation(L"C:\\hx\\product");
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    ExpectProductWhole();
    EXPECT_THAT(session_.LogLines(), IsEmpty());
}

TEST_F(SparsePackageAssets, AssetsGoThenStringsThenResources) {
    RegisterLocation(L"C:\\hx\\product");
    std::vector<std::wstring> names;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, DeleteFileW, [&](LPCWSTR path) -> BOOL {
        const std::wstring text = path;
        names.push_back(text.substr(text.rfind(L'\\') + 1));
        return DeleteFileW(path);
    });
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    EXPECT_THAT(names, ElementsAre(L"a.png", L"s.txt", L"resources.pri"));
}

TEST_F(SparsePackageAssets, ALocationMayEndInASeparator) {
    RegisterLocation(L"C:\\hx\\product\\");
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    ExpectProductWhole();
}

TEST_F(SparsePackageAssets, WithoutTheKeyTheActionDataIsTheLocation) {
    session_.SetActionData(L"C:\\hx\\product");
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    ExpectProductWhole();
}

TEST_F(SparsePackageAssets, WithoutTheValueTheActionDataIsTheLocation) {
    qel_.Add(kHXNext);
    session_.SetActionData(L"C:\\hx\\product\\");
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    ExpectProductWhole();
}

TEST_F(SparsePackageAssets, AnEmptyOrWrongTypedValueCountsAsMissing) {
    RegisterLocation(L"");
    session_.SetActionData(L"C:\\hx\\product");
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    ExpectProductWhole();
    folder_.MakeFile(L"product\\Assets\\a.png");
    qel_.SetNumber(kHXNext, L"Location", 1);
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    ExpectProductWhole();
}

TEST_F(SparsePackageAssets, TheRegisteredLocationComesBeforeTheActionData) {
    folder_.MakeFile(L"kept\\Assets\\a.png");
    RegisterLocation(L"C:\\hx\\product");
    session_.SetActionData(L"C:\\hx\\kept");
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    ExpectProductWhole();
    EXPECT_TRUE(folder_.Has(L"kept\\Assets\\a.png"));
}

// The names behind the location alone would mean the root of the current drive.
TEST_F(SparsePackageAssets, TheKeyIsOpenedForReading) {
    std::vector<std::pair<std::wstring, REGSAM>> opened;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegOpenKeyExW, [&](HKEY root, LPCWSTR key, DWORD options, REGSAM access, PHKEY result) {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        opened.emplace_back(key, access);
        return RegOpenKeyExW(root, key, options, access, result);
    });
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    EXPECT_THAT(opened, ElementsAre(std::make_pair(L"SOFTWARE\\QEL Technologies\\Install\\HXNext",
                                                   REGSAM{KEY_READ})));
}

TEST_F(SparsePackageAssets, WithoutAnyLocationNothingIsDeletedInTheRootOfTheDrive) {
    const TestFolder assets(L"Assets");
    const TestFolder strings(L"Strings");
    assets.MakeFile(L"foreign.txt");
    strings.MakeFile(L"foreign.txt");
    const CurrentDirectory inRoot(L"C:\\");
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    EXPECT_TRUE(assets.Has(L"foreign.txt"));
    EXPECT_TRUE(strings.Has(L"foreign.txt"));
}

TEST_F(SparsePackageAssets, ActionDataThatDoesNotFitNamesNoLocation) {
    // Cut to the room for it, this text would name the product's folder.
    std::wstring location = L"C:\\hx\\product";
    location += std::wstring(519 - location.size(), L'\\') + L"x";
    session_.SetActionData(location);
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    ExpectAssetsWhole();
}

TEST_F(SparsePackageAssets, ActionDataThatCannotBeReadDeletesNothing) {
    ImportHooks hooks(library_.Module());
    RefuseActionData(hooks);
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    ExpectAssetsWhole();
}

TEST_F(SparsePackageAssets, AFailedRemovalOfTheSingleFileIsCaught) {
    RegisterLocation(L"C:\\hx\\product");
    const HeldFile held(folder_.Path(L"product\\resources.pri"));
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    EXPECT_FALSE(folder_.Has(L"product\\Assets"));
    EXPECT_FALSE(folder_.Has(L"product\\Strings"));
    EXPECT_TRUE(folder_.Has(L"product\\resources.pri"));
}

TEST_F(SparsePackageAssets, AssetsInUseDoNotKeepTheRest) {
    RegisterLocation(L"C:\\hx\\product");
    const HeldFile held(folder_.Path(L"product\\Assets\\a.png"));
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    EXPECT_TRUE(folder_.Has(L"product\\Assets\\a.png"));
    EXPECT_FALSE(folder_.Has(L"product\\Strings"));
    EXPECT_FALSE(folder_.Has(L"product\\resources.pri"));
}

TEST_F(SparsePackageAssets, ALinkIsNotFollowed) {
    folder_.MakeLink(L"product\\Strings\\way out", L"kept");
    RegisterLocation(L"C:\\hx\\product");
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    EXPECT_FALSE(folder_.Has(L"product\\Strings\\en"));
    ExpectKeptWhole();
}

TEST_F(SparsePackageAssets, NoneOfThemThereIsSuccess) {
    RegisterLocation(L"C:\\hx\\kept");
    EXPECT_EQ(Call("DeleteHXSparsePackageAssets"), 0U);
    ExpectKeptWhole();
    ExpectAssetsWhole();
}

// ---- DeleteHXINSTALLDIRFolder

constexpr wchar_t kSystemDirectory[] = L"C:\\windows\\system32";
constexpr wchar_t kPowerShellDirectory[] = L"C:\\windows\\System32\\WindowsPowerShell\\v1.0\\";
const std::wstring kContextMenuExit =
    L"DeleteHXINSTALLDIRFolder: Exit code for LSX CM MSIX Package uninstall: ";
const std::wstring kChatExit =
    L"DeleteHXINSTALLDIRFolder: Exit code for LSX CM CHAT MSIX Package uninstall: ";
const std::wstring kInstallLocation = L"DeleteHXINSTALLDIRFolder: HXNEXT install location: ";
constexpr wchar_t kDeleteFailed[] =
    L"DeleteHXINSTALLDIRFolder: Failed to delete HXNEXT directory. Exception occurred. \n";

std::wstring RemovalCommand(const std::wstring& pattern) {
    return L"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe Get-AppxPackage -AllUsers " +
           pattern + L" | Remove-AppxPackage -AllUsers";
}

std::wstring RuleCommand(const std::wstring& rule) {
    return std::wstring(kSystemDirectory) + L"\\netsh.exe advfirewall firewall delete rule name=\"" + rule +
           L"\"";
}

class InstallDirFolder : public SettingsApplication {
protected:
    InstallDirFolder() : started_(library_.Module()) {}

    void RefuseToStartTools() { started_.RefuseWith(ERROR_FILE_NOT_FOUND); }

    /// The lines of this action alone, without those of the runners.
    std::vector<std::wstring> OwnLines() const {
        std::vector<std::wstring> own;
        for (const std::wstring& line : session_.LogLines()) {
            if (line.find(L"DeleteHXINSTALLDIRFolder: ") == 0) {
                own.push_back(line);
            }
        }
        return own;
    }

    static std::vector<std::wstring> AllCommands() {
        return {RemovalCommand(L"TavoCorporationInc-LSXCM*"),
                RemovalCommand(L"TavoCorporationInc-LSXCMCHAT*"),
                RuleCommand(L"Lumen Software: Host Application"),
                RuleCommand(L"TAVO Revvo: Host Application"),
                RuleCommand(L"TAVO Revvo"),
                RuleCommand(L"TAVO Lumen Software"),
                RuleCommand(L"Lumen Software: Host Service"),
                RuleCommand(L"TAVO Lumen Software Service"),
                RuleCommand(L"TAVO Link"),
                RuleCommand(L"TAVO Software: Host Application")};
    }

    StartedCommands started_;
};

TEST_F(InstallDirFolder, WithoutKeyAndActionDataPackagesAndRulesGoAndTheEmptyLocationIsLogged) {
    ToolRecorder tools;
    tools.StandInFor(std::wstring(kPowerShellDirectory) + L"powershell.exe");
    // The command interpreter takes the second half of a removal for a program of its own, and its exit
    // code for that of the whole.
    tools.StandInFor(std::wstring(kPowerShellDirectory) + L"Remove-AppxPackage.exe", 3);
    tools.StandInForSystemTool(L"netsh.exe", 1);
    EXPECT_EQ(Call("DeleteHXINSTALLDIRFolder"), 0U);

    const auto expected = AllCommands();
    ASSERT_EQ(started_.All().size(), expected.size());
    for (size_t index = 0; index < expected.size(); ++index) {
        EXPECT_EQ(_wcsicmp(started_.Commands()[index].c_str(), expected[index].c_str()), 0)
            << testing::PrintToString(started_.All()[index]);
    }
    EXPECT_THAT(OwnLines(),
                ElementsAre(kContextMenuExit + L"3 \n", kChatExit + L"3 \n", kInstallLocation + L" \n"));
    ExpectProductWhole();

    std::vector<std::wstring> rules;
    for (const RecordedRun& run : tools.WaitForRuns(12)) {
        if (run.program == L"netsh.exe") {
            rules.push_back(run.commandLine.substr(run.commandLine.find(L" advfirewall")));
        }
    }
    ASSERT_EQ(rules.size(), 8U);
    EXPECT_EQ(rules.front(), L" advfirewall firewall delete rule name=\"Lumen Software: Host Application\"");
    EXPECT_EQ(rules.back(), L" advfirewall firewall delete rule name=\"TAVO Software: Host Application\"");
}

TEST_F(InstallDirFolder, TheRegisteredLocationIsLoggedAndDeleted) {
    RefuseToStartTools();
    RegisterLocation(L"C:\\hx\\product\\");
    session_.SetActionData(L"C:\\hx\\kept");
    EXPECT_EQ(Call("DeleteHXINSTALLDIRFolder"), 0U);
    EXPECT_THAT(folder_.Names(), ElementsAre(L"kept"));
    EXPECT_THAT(OwnLines(), ElementsAre(kContextMenuExit + L"2 \n", kChatExit + L"2 \n",
                                        kInstallLocation + L"C:\\hx\\product\\ \n"));
}

TEST_F(InstallDirFolder, PackagesAndRulesAreSeenToWhileTheFolderIsThere) {
    started_.RefuseWith(ERROR_DIRECTORY);
    RegisterLocation(L"C:\\hx\\product");
    std::vector<bool> isThere;
    started_.BeforeEach([&](size_t) { isThere.push_back(folder_.Has(L"product\\plain.txt")); });
    EXPECT_EQ(Call("DeleteHXINSTALLDIRFolder"), 0U);
    EXPECT_EQ(isThere, std::vector<bool>(AllCommands().size(), true));
    EXPECT_THAT(OwnLines(), ElementsAre(kContextMenuExit + L"267 \n", kChatExit + L"267 \n",
                                        kInstallLocation + L"C:\\hx\\product \n"));
}

TEST_F(InstallDirFolder, TheLocationIsLoggedBeforeAnythingOfItGoes) {
    RefuseToStartTools();
    RegisterLocation(L"C:\\hx\\product");
    std::vector<std::wstring> lastLines;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, DeleteFileW, [&](LPCWSTR path) -> BOOL {
        lastLines.push_back(OwnLines().back());
        return DeleteFileW(path);
    });
    EXPECT_EQ(Call("DeleteHXINSTALLDIRFolder"), 0U);
    ASSERT_FALSE(lastLines.empty());
    EXPECT_EQ(lastLines.front(), kInstallLocation + L"C:\\hx\\product \n");
}

TEST_F(InstallDirFolder, WithoutTheKeyTheActionDataIsTheLocation) {
    RefuseToStartTools();
    session_.SetActionData(L"C:\\hx\\product");
    EXPECT_EQ(Call("DeleteHXINSTALLDIRFolder"), 0U);
    EXPECT_THAT(folder_.Names(), ElementsAre(L"kept"));
    EXPECT_EQ(OwnLines().back(), kInstallLocation + L"C:\\hx\\product \n");
}

TEST_F(InstallDirFolder, ALinkIsNotFollowed) {
    RefuseToStartTools();
    folder_.MakeLink(L"product\\deep\\way out", L"kept");
    RegisterLocation(L"C:\\hx\\product");
    EXPECT_EQ(Call("DeleteHXINSTALLDIRFolder"), 0U);
    EXPECT_FALSE(folder_.Has(L"product\\plain.txt"));
    ExpectKeptWhole();
}

TEST_F(InstallDirFolder, ActionDataThatCannotBeReadIsLoggedAfterPackagesAndRules) {
    RefuseToStartTools();
    ImportHooks hooks(library_.Module());
    RefuseActionData(hooks);
    EXPECT_EQ(Call("DeleteHXINSTALLDIRFolder"), 0U);
    EXPECT_EQ(started_.All().size(), AllCommands().size());
    EXPECT_THAT(OwnLines(), ElementsAre(kContextMenuExit + L"2 \n", kChatExit + L"2 \n", kDeleteFailed));
}

TEST_F(InstallDirFolder, ActionDataThatDoesNotFitCannotBeRead) {
    RefuseToStartTools();
    session_.SetActionData(std::wstring(520, L'x'));
    EXPECT_EQ(Call("DeleteHXINSTALLDIRFolder"), 0U);
    EXPECT_EQ(OwnLines().back(), kDeleteFailed);
}

// ---- DeleteHXNoUpgrade

TEST_F(SettingsApplication, DeleteHXNoUpgradeDeletesBothSubtreesAndLogsUnderTheOtherActionsPrefix) {
    tavo_.SetText(L"Install\\A\\B", L"v", L"1");
    tavo_.SetText(L"HX\\Deep", L"v", L"1");
    tavo_.SetText(L"Other", L"v", L"1");
    EXPECT_EQ(Call("DeleteHXNoUpgrade"), 0U);
    EXPECT_FALSE(tavo_.Exists(L"Install"));
    EXPECT_FALSE(tavo_.Exists(L"HX"));
    EXPECT_TRUE(tavo_.Exists(L"Other"));
    EXPECT_THAT(session_.LogLines(),
                ElementsAre(L"DeleteHXINSTALLDIRFolder: Deleting Install registry result: 0 \n",
                            L"DeleteHXINSTALLDIRFolder: Deleting HX registry result: 0 \n"));
}

TEST_F(SettingsApplication, DeleteHXNoUpgradeGoesOnAfterAMissingSubtree) {
    tavo_.Add(L"HX");
    EXPECT_EQ(Call("DeleteHXNoUpgrade"), 0U);
    EXPECT_FALSE(tavo_.Exists(L"HX"));
    EXPECT_THAT(session_.LogLines(),
                ElementsAre(L"DeleteHXINSTALLDIRFolder: Deleting Install registry result: 2 \n",
                            L"DeleteHXINSTALLDIRFolder: Deleting HX registry result: 0 \n"));
}

TEST_F(SettingsApplication, DeleteHXNoUpgradeLogsItsResultsAsDecimalNumbers) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegDeleteTreeW, [](HKEY, LPCWSTR subkey) -> LSTATUS {
        return subkey == std::wstring(L"Install") ? ERROR_KEY_DELETED : ERROR_KEY_HAS_CHILDREN;
    });
    EXPECT_EQ(Call("DeleteHXNoUpgrade"), 0U);
    EXPECT_THAT(session_.LogLines(),
                ElementsAre(L"DeleteHXINSTALLDIRFolder: Deleting Install registry result: 1018 \n",
                            L"DeleteHXINSTALLDIRFolder: Deleting HX registry result: 1020 \n"));
}

TEST_F(SettingsApplication, DeleteHXNoUpgradeLetsTheErrorOfAMissingKeyOut) {
    DropMachineKey(tavo_.Path());
    try {
        Call("DeleteHXNoUpgrade");
        ADD_FAILURE() << "no error came out";
    } catch (const RegKeyError& error) {
        EXPECT_EQ(error.code().value(), ERROR_FILE_NOT_FOUND);
        EXPECT_THAT(error.what(), testing::StartsWith("Unable to open registry key"));
    }
    EXPECT_THAT(session_.LogLines(), IsEmpty());
}

TEST_F(SettingsApplication, DeleteHXNoUpgradeOpensTheKeyForReadingAndWriting) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegOpenKeyExW, [&](HKEY root, LPCWSTR key, DWORD options, REGSAM access, PHKEY opened) {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        EXPECT_STREQ(key, L"SOFTWARE\\TAVO");
        EXPECT_EQ(access, 0x2001FU);
        return RegOpenKeyExW(root, key, options, access, opened);
    });
    EXPECT_EQ(Call("DeleteHXNoUpgrade"), 0U);
}

// ---- DeleteHXSlimINSTALLDIRFolder

class SlimInstallDirFolder : public SettingsApplication {
protected:
    ScratchKey here_{L"SOFTWARE\\QEL"};
    ScratchKey in32BitView_{L"SOFTWARE\\QEL", KEY_WOW64_32KEY};
    const std::wstring subkey_ = L"ACE\\Packages\\Core-Static";
};

TEST_F(SlimInstallDirFolder, DeletesTheLocationOfThe32BitViewOnly) {
    in32BitView_.SetText(subkey_, L"Location", L"C:\\hx\\product\\");
    here_.SetText(subkey_, L"Location", L"C:\\hx\\kept");
    EXPECT_EQ(Call("DeleteHXSlimINSTALLDIRFolder"), 0U);
    EXPECT_THAT(folder_.Names(), ElementsAre(L"kept"));
    ExpectKeptWhole();
    EXPECT_THAT(session_.LogLines(), IsEmpty());
}

TEST_F(SlimInstallDirFolder, ALinkIsNotFollowedAndNoTrailingSeparatorIsNeeded) {
    folder_.MakeLink(L"product\\way out", L"kept");
    in32BitView_.SetText(subkey_, L"Location", L"C:\\hx\\product");
    EXPECT_EQ(Call("DeleteHXSlimINSTALLDIRFolder"), 0U);
    EXPECT_FALSE(folder_.Has(L"product\\plain.txt"));
    ExpectKeptWhole();
}

TEST_F(SlimInstallDirFolder, AMissingOrWrongTypedValueDeletesNothing) {
    const CurrentDirectory inProduct(folder_.Path(L"product"));
    in32BitView_.Add(subkey_);
    EXPECT_EQ(Call("DeleteHXSlimINSTALLDIRFolder"), 0U);
    in32BitView_.SetNumber(subkey_, L"Location", 1);
    EXPECT_EQ(Call("DeleteHXSlimINSTALLDIRFolder"), 0U);
    ExpectProductWhole();
}

TEST_F(SlimInstallDirFolder, LetsTheErrorOfAMissingKeyOut) {
    here_.SetText(subkey_, L"Location", L"C:\\hx\\product");
    try {
        Call("DeleteHXSlimINSTALLDIRFolder");
        ADD_FAILURE() << "no error came out";
    } catch (const RegKeyError& error) {
        EXPECT_EQ(error.code().value(), ERROR_FILE_NOT_FOUND);
        EXPECT_THAT(error.what(), testing::StartsWith("Unable to open registry key"));
    }
    ExpectProductWhole();
}

TEST_F(SlimInstallDirFolder, OpensTheKeyWithFullAccess) {
    in32BitView_.Add(subkey_);
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegOpenKeyExW, [&](HKEY root, LPCWSTR key, DWORD options, REGSAM access, PHKEY opened) {
        EXPECT_EQ(access, static_cast<REGSAM>(KEY_ALL_ACCESS | KEY_WOW64_32KEY));
        return RegOpenKeyExW(root, key, options, access, opened);
    });
    EXPECT_EQ(Call("DeleteHXSlimINSTALLDIRFolder"), 0U);
}

TEST_F(SlimInstallDirFolder, TheKeyIsClosedBeforeTheFolderGoes) {
    in32BitView_.SetText(subkey_, L"Location", L"C:\\hx\\product");
    int closed = 0;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegCloseKey, [&](HKEY key) {
        EXPECT_TRUE(folder_.Has(L"product\\plain.txt"));
        ++closed;
        return RegCloseKey(key);
    });
    EXPECT_EQ(Call("DeleteHXSlimINSTALLDIRFolder"), 0U);
    EXPECT_EQ(closed, 1);
    EXPECT_FALSE(folder_.Has(L"product"));
}

// ---- DeleteHXFolder

TEST_F(SettingsApplication, DeleteHXFolderClosesTheApplicationFirstAndThenDeletesItsFolder) {
    const ToolRecorder runs;
    folder_.MakeRecorder(L"product\\hxcmd.exe", 5);
    RegisterLocation(L"C:\\hx\\product");
    session_.SetActionData(L"C:\\hx\\kept");
    EXPECT_EQ(Call("DeleteHXFolder"), 0U);
    ASSERT_EQ(runs.Runs().size(), 1U);
    EXPECT_EQ(runs.Runs()[0].program, L"hxcmd.exe");
    EXPECT_THAT(runs.Runs()[0].commandLine, testing::EndsWith(L" exit"));
    EXPECT_THAT(folder_.Names(), ElementsAre(L"kept"));
    EXPECT_THAT(session_.LogLines(), IsEmpty());
}

TEST_F(SettingsApplication, DeleteHXFolderTakesTheActionDataWithoutTheKey) {
    session_.SetActionData(L"C:\\hx\\product\\");
    EXPECT_EQ(Call("DeleteHXFolder"), 0U);
    EXPECT_THAT(folder_.Names(), ElementsAre(L"kept"));
}

TEST_F(SettingsApplication, DeleteHXFolderLeavesWhatALinkLeadsTo) {
    folder_.MakeLink(L"product\\deep\\way out", L"kept");
    RegisterLocation(L"C:\\hx\\product\\");
    EXPECT_EQ(Call("DeleteHXFolder"), 0U);
    EXPECT_FALSE(folder_.Has(L"product\\plain.txt"));
    ExpectKeptWhole();
}

TEST_F(SettingsApplication, DeleteHXFolderAnswersZeroEvenWhenSomethingInUseStays) {
    RegisterLocation(L"C:\\hx\\product");
    const HeldFile held(folder_.Path(L"product\\plain.txt"));
    EXPECT_EQ(Call("DeleteHXFolder"), 0U);
    EXPECT_TRUE(folder_.Has(L"product\\plain.txt"));
}

TEST_F(SettingsApplication, DeleteHXFolderAnswersOneWhenTheRegisteredFolderIsNotThere) {
    RegisterLocation(L"C:\\hx\\no such folder");
    session_.SetActionData(L"C:\\hx\\product");
    EXPECT_EQ(Call("DeleteHXFolder"), 1U);
    ExpectProductWhole();
}

TEST_F(SettingsApplication, DeleteHXFolderAnswersOneWhenTheFolderOfTheActionDataIsNotThere) {
    session_.SetActionData(L"C:\\hx\\no such folder");
    EXPECT_EQ(Call("DeleteHXFolder"), 1U);
}

TEST_F(SettingsApplication, DeleteHXFolderAnswersOneWithoutAnyLocation) {
    const CurrentDirectory inProduct(folder_.Path(L"product"));
    EXPECT_EQ(Call("DeleteHXFolder"), 1U);
    ExpectProductWhole();
}

TEST_F(SettingsApplication, DeleteHXFolderAnswersAllOnesWhenTheActionDataCannotBeRead) {
    const CurrentDirectory inProduct(folder_.Path(L"product"));
    ImportHooks hooks(library_.Module());
    RefuseActionData(hooks);
    EXPECT_EQ(Call("DeleteHXFolder"), kPropertyNotRead);
    ExpectProductWhole();
}

TEST_F(SettingsApplication, DeleteHXFolderReadsActionDataOf519CharactersAndRefusesLongerOnes) {
    std::wstring location = L"C:\\hx\\product";
    while (location.size() < 518) {
        location += L"\\.";
    }
    location.resize(519, L'\\');
    session_.SetActionData(location + L"\\");
    EXPECT_EQ(Call("DeleteHXFolder"), kPropertyNotRead);
    ExpectProductWhole();
    session_.SetActionData(location);
    EXPECT_EQ(Call("DeleteHXFolder"), 0U);
    EXPECT_FALSE(folder_.Has(L"product"));
}

TEST_F(SettingsApplication, DeleteHXFolderReadsThePropertyOnceIntoRoomFor520Characters) {
    std::vector<DWORD> sizes;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, MsiGetPropertyW,
               [&](MSIHANDLE session, LPCWSTR name, LPWSTR value, LPDWORD size) -> UINT {
                   EXPECT_STREQ(name, L"CustomActionData");
                   sizes.push_back(*size);
                   return MsiGetPropertyW(session, name, value, size);
               });
    EXPECT_EQ(Call("DeleteHXFolder"), 1U);
    EXPECT_THAT(sizes, ElementsAre(520U));
}

// ---- Every action lets other errors end in its own answer.

class ActionsUnderShortage : public SettingsApplication, public testing::WithParamInterface<const char*> {};

TEST_P(ActionsUnderShortage, AnswerWithoutAnError) {
    tavo_.Add(L"HX");
    const ScratchKey in32BitView(L"SOFTWARE\\QEL", KEY_WOW64_32KEY);
    in32BitView.Add(L"ACE\\Packages\\Core-Static");
    StartedCommands started(library_.Module());
    started.RefuseWith(ERROR_FILE_NOT_FOUND);
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, MsiGetPropertyW,
               [](MSIHANDLE, LPCWSTR, LPWSTR, LPDWORD) -> UINT { throw std::bad_alloc(); });
    CORVI_HOOK(hooks, RegDeleteTreeW, [](HKEY, LPCWSTR) -> LSTATUS { throw std::bad_alloc(); });
    CORVI_HOOK(hooks, RegGetValueW, [](HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID, LPDWORD) -> LSTATUS {
        throw std::bad_alloc();
    });
    const UINT expected = std::string(GetParam()) == "DeleteHXFolder" ? 1U : 0U;
    EXPECT_EQ(Call(GetParam()), expected);
    ExpectProductWhole();
}

INSTANTIATE_TEST_SUITE_P(All, ActionsUnderShortage,
                         testing::Values("DeleteDMFTDirectory", "DeleteHXSparsePackageAssets",
                                         "DeleteHXINSTALLDIRFolder", "DeleteHXNoUpgrade",
                                         "DeleteHXSlimINSTALLDIRFolder", "DeleteHXFolder"));

}  // namespace
}  // namespace corvi::test
