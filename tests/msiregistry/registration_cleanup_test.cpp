#include "msiregistry/registration_cleanup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "runtime/registry.h"
#include "tests/msiregistry/installer_products.h"
#include "tests/msiregistry/registry_tools.h"
#include "tests/support/import_hooks.h"

namespace corvi::test {
namespace {

using testing::ElementsAre;

using Names = std::vector<std::wstring>;

constexpr wchar_t kName[] = L"TAVO User Experience Program Installer";
constexpr wchar_t kOtherCase[] = L"tavo USER experience program INSTALLER";
constexpr wchar_t kOtherName[] = L"TAVO User Experience Program Installer 2";

const std::wstring kUninstall = L"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\";
const std::wstring kInstaller = L"Software\\Microsoft\\Windows\\CurrentVersion\\Installer\\";
const std::wstring kUserData = kInstaller + L"UserData\\";
const std::wstring kFolders = kInstaller + L"Folders";
const std::wstring kMachineCodes = kInstaller + L"UpgradeCodes\\";
const std::wstring kClasses = L"Software\\Classes\\Installer\\";
const std::wstring kMachineSid = L"S-1-5-18";
const std::wstring kUserSid = L"S-1-5-21-1-2-3-1001";
const std::wstring kPackageFile = L"C:\\windows\\Installer\\corvi_planted.msi";

// The keys are named by packed product codes, which nothing here ever unpacks.
const std::wstring kPacked = L"0123456789ABCDEF0123456789ABCDEF";
const std::wstring kOtherPacked = L"FEDCBA9876543210FEDCBA9876543210";
const std::wstring kCode = L"{7E570000-BBBB-4B00-8C00-000000000001}";
const std::wstring kOtherCode = L"{7E570000-BBBB-4B00-8C00-000000000002}";

class RegistrationCleanup : public testing::Test {
protected:
    RegistrationCleanup() : hooks_(GetModuleHandleW(nullptr)) { Clean(); }
    void TearDown() override {
        hooks_.RestoreAll();
        Clean();
    }

    static void Clean() {
        ForgetAllInstallations();
        DropKey(HKEY_USERS, L"S-1-5-21-9-9-9-1");
        DropKey(HKEY_USERS, L"S-1-5-21-9-9-9-2");
        DeleteFileW(kPackageFile.c_str());
    }

    static std::wstring ProductKey(const std::wstring& sid, const std::wstring& packed) {
        return kUserData + sid + L"\\Products\\" + packed;
    }
    static std::wstring PropertiesKey(const std::wstring& sid, const std::wstring& packed) {
        return ProductKey(sid, packed) + L"\\InstallProperties";
    }

    /// An installed product of a user, as far as the user's data go.
    static void PlantInstalled(const std::wstring& sid, const std::wstring& packed, const std::wstring& code,
                               const std::wstring& name = kName) {
        const std::wstring properties = PropertiesKey(sid, packed);
        WriteText(HKEY_LOCAL_MACHINE, properties, L"DisplayName", name);
        WriteText(HKEY_LOCAL_MACHINE, properties, L"UninstallString", L"MsiExec.exe /I" + code,
                  REG_EXPAND_SZ);
        WriteText(HKEY_LOCAL_MACHINE, properties, L"LocalPackage", kPackageFile);
        MakeKey(HKEY_LOCAL_MACHINE, ProductKey(sid, packed) + L"\\Usage");
    }

    /// A key that says which products use an upgrade code or a component.
    static void PlantUsers(HKEY root, const std::wstring& key, const Names& packedCodes) {
        MakeKey(root, key);
        for (const std::wstring& packed : packedCodes) {
            WriteText(root, key, packed, L"");
        }
    }

    /// Advertisement data below root\installerKey (which ends in a backslash).
    static void PlantAdvertised(HKEY root, const std::wstring& installerKey, const std::wstring& packed,
                                const std::wstring& name = kName) {
        WriteText(root, installerKey + L"Products\\" + packed, L"ProductName", name);
        MakeKey(root, installerKey + L"Products\\" + packed + L"\\SourceList\\Media");
        WriteText(root, installerKey + L"Features\\" + packed, L"Everything", L"");
    }
    static bool IsAdvertised(HKEY root, const std::wstring& installerKey, const std::wstring& packed) {
        return KeyExists(root, installerKey + L"Products\\" + packed) ||
               KeyExists(root, installerKey + L"Features\\" + packed);
    }

    static bool IsInstalled(const std::wstring& sid, const std::wstring& packed) {
        return KeyExists(HKEY_LOCAL_MACHINE, ProductKey(sid, packed));
    }

    static void PlantPackageFile() {
        std::filesystem::create_directories(L"C:\\windows\\Installer");
        std::ofstream(std::filesystem::path(kPackageFile)) << "package";
    }

    /// Keys below root\path seem to be absent, or refused.
    void FailOpensBelow(HKEY root, const std::wstring& path, LSTATUS status) {
        CORVI_HOOK(
            hooks_, RegOpenKeyExW,
            [=, this](HKEY key, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) -> LSTATUS {
                return key == root && std::wstring(subkey).rfind(path, 0) == 0
                           ? status
                           : CORVI_ORIGINAL(hooks_, RegOpenKeyExW)(key, subkey, options, access, opened);
            });
    }

    /// The machine's classes seem not to be reachable by HKEY_CLASSES_ROOT, which is the same key here, so
    /// that what follows finds them as they were.
    void HideClassesRoot() { FailOpensBelow(HKEY_CLASSES_ROOT, L"", ERROR_FILE_NOT_FOUND); }

    static void ExpectError(const char* message, LSTATUS code) {
        try {
            RemoveProductRegistration(kName);
            ADD_FAILURE() << "nothing was thrown";
        } catch (const RegKeyError& error) {
            EXPECT_THAT(error.what(), testing::StartsWith(message));
            EXPECT_EQ(error.code().value(), code);
        }
    }

    ImportHooks hooks_;
};

// --- Uninstall entries ---

TEST_F(RegistrationCleanup, EveryUninstallEntryOfTheNameGoesWhateverItsCase) {
    WriteText(HKEY_LOCAL_MACHINE, kUninstall + L"Corvi test 1", L"DisplayName", kName);
    MakeKey(HKEY_LOCAL_MACHINE, kUninstall + L"Corvi test 1\\Below\\Deeper");
    WriteText(HKEY_LOCAL_MACHINE, kUninstall + L"Corvi test 2", L"DisplayName", kOtherCase);
    WriteText(HKEY_LOCAL_MACHINE, kUninstall + L"Corvi test 3", L"DisplayName", kName, REG_EXPAND_SZ);
    RemoveProductRegistration(kName);
    for (const wchar_t* entry : {L"Corvi test 1", L"Corvi test 2", L"Corvi test 3"}) {
        EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kUninstall + entry));
    }
}

TEST_F(RegistrationCleanup, OtherUninstallEntriesStay) {
    WriteText(HKEY_LOCAL_MACHINE, kUninstall + L"Corvi test 1", L"DisplayName", kOtherName);
    WriteText(HKEY_LOCAL_MACHINE, kUninstall + L"Corvi test 2", L"DisplayName",
              L"TAVO User Experience Program");
    MakeKey(HKEY_LOCAL_MACHINE, kUninstall + L"Corvi test 3");
    WriteNumber(HKEY_LOCAL_MACHINE, kUninstall + L"Corvi test 4", L"DisplayName", 7);
    // The name has to stand in the entry itself.
    WriteText(HKEY_LOCAL_MACHINE, kUninstall + L"Corvi test 5\\Below", L"DisplayName", kName);
    WriteText(HKEY_LOCAL_MACHINE, kUninstall + L"Corvi test 6", L"DisplayName", kName, REG_BINARY);
    RemoveProductRegistration(kName);
    for (const wchar_t* entry : {L"Corvi test 1", L"Corvi test 2", L"Corvi test 3", L"Corvi test 4",
                                 L"Corvi test 5\\Below", L"Corvi test 6"}) {
        EXPECT_TRUE(KeyExists(HKEY_LOCAL_MACHINE, kUninstall + entry));
    }
}

// --- The users' installer data ---

TEST_F(RegistrationCleanup, EveryInstalledProductOfTheNameGoesForEveryUser) {
    PlantInstalled(kMachineSid, kPacked, kCode);
    PlantInstalled(kMachineSid, kOtherPacked, kOtherCode, kOtherCase);
    PlantInstalled(kUserSid, kPacked, kCode);
    PlantInstalled(L"x-s-1-5-y", kPacked, kCode);
    PlantInstalled(L"S-1-5", kPacked, kCode);
    PlantInstalled(L"S-1-52", kPacked, kCode);
    RemoveProductRegistration(kName);
    EXPECT_FALSE(IsInstalled(kMachineSid, kPacked));
    EXPECT_FALSE(IsInstalled(kMachineSid, kOtherPacked));
    EXPECT_FALSE(IsInstalled(kUserSid, kPacked));
    for (const wchar_t* user : {L"x-s-1-5-y", L"S-1-5", L"S-1-52"}) {
        EXPECT_FALSE(IsInstalled(user, kPacked));
    }
}

TEST_F(RegistrationCleanup, AUserKeyThatIsNoSecurityIdentifierStays) {
    for (const wchar_t* user : {L"S-1-15-18", L"S-1-4", L"-1-5-18", L"S-1--5"}) {
        PlantInstalled(user, kPacked, kCode);
    }
    RemoveProductRegistration(kName);
    for (const wchar_t* user : {L"S-1-15-18", L"S-1-4", L"-1-5-18", L"S-1--5"}) {
        EXPECT_TRUE(IsInstalled(user, kPacked));
    }
}

TEST_F(RegistrationCleanup, ProductsWithAnotherNameOrNoneStay) {
    PlantInstalled(kMachineSid, kPacked, kCode, kOtherName);
    MakeKey(HKEY_LOCAL_MACHINE, ProductKey(kMachineSid, kOtherPacked));
    PlantInstalled(kUserSid, kPacked, kCode);
    WriteNumber(HKEY_LOCAL_MACHINE, PropertiesKey(kUserSid, kPacked), L"DisplayName", 7);
    PlantPackageFile();
    RemoveProductRegistration(kName);
    EXPECT_TRUE(IsInstalled(kMachineSid, kPacked));
    EXPECT_TRUE(IsInstalled(kMachineSid, kOtherPacked));
    EXPECT_TRUE(IsInstalled(kUserSid, kPacked));
    EXPECT_TRUE(std::filesystem::exists(kPackageFile));
}

TEST_F(RegistrationCleanup, FoldersInTheProductsCacheAreForgotten) {
    PlantInstalled(kMachineSid, kPacked, kCode);
    const std::wstring own = L"C:\\Windows\\Installer\\" + kCode + L"\\";
    const std::wstring ownInOtherCase =
        L"c:\\WINDOWS\\installer\\{7e570000-bbbb-4b00-8c00-000000000001}\\Icons";
    const std::wstring other = L"C:\\Windows\\Installer\\" + kOtherCode + L"\\";
    for (const std::wstring& folder : {own, ownInOtherCase, other, std::wstring(L"C:\\Program Files\\")}) {
        WriteText(HKEY_LOCAL_MACHINE, kFolders, folder, L"1");
    }
    RemoveProductRegistration(kName);
    EXPECT_THAT(ValueNames(HKEY_LOCAL_MACHINE, kFolders),
                testing::UnorderedElementsAre(other, L"C:\\Program Files\\"));
}

TEST_F(RegistrationCleanup, AFolderThatMatchesWithoutTheClosingBraceStays) {
    PlantInstalled(kMachineSid, kPacked, kCode);
    const std::wstring other = L"C:\\Windows\\Installer\\" + kCode.substr(0, kCode.size() - 1) + L"0}\\";
    WriteText(HKEY_LOCAL_MACHINE, kFolders, other, L"1");
    RemoveProductRegistration(kName);
    EXPECT_THAT(ValueNames(HKEY_LOCAL_MACHINE, kFolders), ElementsAre(other));
    EXPECT_FALSE(IsInstalled(kMachineSid, kPacked));
}

TEST_F(RegistrationCleanup, AFolderOutsideTheWindowsDirectoryStays) {
    PlantInstalled(kMachineSid, kPacked, kCode);
    const std::wstring foreign = L"D:\\Backup\\Installer\\" + kCode + L"\\";
    WriteText(HKEY_LOCAL_MACHINE, kFolders, foreign, L"1");
    RemoveProductRegistration(kName);
    EXPECT_THAT(ValueNames(HKEY_LOCAL_MACHINE, kFolders), ElementsAre(foreign));
}

TEST_F(RegistrationCleanup, WithoutTheWindowsDirectoryAllFoldersStayAndTheRestGoes) {
    const std::wstring own = L"C:\\Windows\\Installer\\" + kCode + L"\\";
    const std::wstring foreign = L"D:\\Backup\\Installer\\" + kCode + L"\\";
    for (const UINT answer : {0U, UINT{MAX_PATH}, 400U}) {
        PlantInstalled(kMachineSid, kPacked, kCode);
        PlantAdvertised(HKEY_CLASSES_ROOT, L"Installer\\", kPacked);
        WriteText(HKEY_CLASSES_ROOT, L"Installer\\Products\\" + kPacked, L"ProductIcon", kCode);
        WriteText(HKEY_LOCAL_MACHINE, kFolders, own, L"1");
        WriteText(HKEY_LOCAL_MACHINE, kFolders, foreign, L"1");
        CORVI_HOOK(hooks_, GetWindowsDirectoryW, [=](LPWSTR, UINT) -> UINT { return answer; });
        RemoveProductRegistration(kName);
        hooks_.RestoreAll();
        EXPECT_THAT(ValueNames(HKEY_LOCAL_MACHINE, kFolders), testing::UnorderedElementsAre(own, foreign));
        EXPECT_FALSE(IsInstalled(kMachineSid, kPacked));
        EXPECT_FALSE(IsAdvertised(HKEY_CLASSES_ROOT, L"Installer\\", kPacked));
    }
}

TEST_F(RegistrationCleanup, AnInstalledProductLosesItsFoldersUpgradeCodeComponentsPackageAndThenItself) {
    PlantInstalled(kMachineSid, kPacked, kCode);
    PlantPackageFile();
    const std::wstring components = kUserData + kMachineSid + L"\\Components\\";
    PlantUsers(HKEY_LOCAL_MACHINE, components + L"Only", {kPacked});
    PlantUsers(HKEY_LOCAL_MACHINE, kMachineCodes + L"Only", {kPacked});
    WriteText(HKEY_LOCAL_MACHINE, kFolders, L"C:\\Windows\\Installer\\" + kCode + L"\\", L"1");
    Names leftAtEachDeletion;
    const auto note = [&] {
        std::wstring left = ValueNames(HKEY_LOCAL_MACHINE, kFolders).empty() ? L"-" : L"F";
        left += KeyExists(HKEY_LOCAL_MACHINE, kMachineCodes + L"Only") ? L"U" : L"-";
        left += KeyExists(HKEY_LOCAL_MACHINE, components + L"Only") ? L"C" : L"-";
        left += std::filesystem::exists(kPackageFile) ? L"P" : L"-";
        left += IsInstalled(kMachineSid, kPacked) ? L"I" : L"-";
        leftAtEachDeletion.push_back(left);
    };
    CORVI_HOOK(hooks_, RegDeleteValueW, [&](HKEY key, LPCWSTR name) -> LSTATUS {
        note();
        return CORVI_ORIGINAL(hooks_, RegDeleteValueW)(key, name);
    });
    CORVI_HOOK(hooks_, RegDeleteTreeW, [&](HKEY key, LPCWSTR subkey) -> LSTATUS {
        note();
        return CORVI_ORIGINAL(hooks_, RegDeleteTreeW)(key, subkey);
    });
    CORVI_HOOK(hooks_, DeleteFileW, [&](LPCWSTR path) -> BOOL {
        note();
        return CORVI_ORIGINAL(hooks_, DeleteFileW)(path);
    });
    RemoveProductRegistration(kName);
    hooks_.RestoreAll();
    EXPECT_THAT(leftAtEachDeletion, ElementsAre(L"FUCPI", L"-UCPI", L"--CPI", L"---PI", L"----I"));
}

TEST_F(RegistrationCleanup, AnUninstallStringWithoutBracesLeavesAllFoldersAndTheRestGoes) {
    for (const wchar_t* text : {L"setup.exe /uninstall", L"", L"{", L"}", L"}{"}) {
        PlantInstalled(kMachineSid, kPacked, kCode);
        WriteText(HKEY_LOCAL_MACHINE, PropertiesKey(kMachineSid, kPacked), L"UninstallString", text);
        WriteText(HKEY_LOCAL_MACHINE, kFolders, L"C:\\Windows\\Installer\\" + kCode + L"\\", L"1");
        RemoveProductRegistration(kName);
        EXPECT_EQ(ValueNames(HKEY_LOCAL_MACHINE, kFolders).size(), 1U);
        EXPECT_FALSE(IsInstalled(kMachineSid, kPacked));
    }
}

TEST_F(RegistrationCleanup, AnUninstallStringThatCannotBeReadLeavesAllFoldersAndTheRestGoes) {
    PlantInstalled(kMachineSid, kPacked, kCode);
    WriteNumber(HKEY_LOCAL_MACHINE, PropertiesKey(kMachineSid, kPacked), L"UninstallString", 7);
    WriteText(HKEY_LOCAL_MACHINE, kFolders, L"C:\\Windows\\Installer\\" + kCode + L"\\", L"1");
    RemoveProductRegistration(kName);
    EXPECT_EQ(ValueNames(HKEY_LOCAL_MACHINE, kFolders).size(), 1U);
    EXPECT_FALSE(IsInstalled(kMachineSid, kPacked));
}

TEST_F(RegistrationCleanup, TheProductCodeIsCutFromTheFirstBraceToTheFirstClosingOne) {
    PlantInstalled(kMachineSid, kPacked, kCode);
    WriteText(HKEY_LOCAL_MACHINE, PropertiesKey(kMachineSid, kPacked), L"UninstallString",
              L"x " + kCode + L" y " + kOtherCode + L"}");
    WriteText(HKEY_LOCAL_MACHINE, kFolders, L"C:\\Windows\\Installer\\" + kCode + L"\\", L"1");
    WriteText(HKEY_LOCAL_MACHINE, kFolders, L"C:\\Windows\\Installer\\" + kOtherCode + L"\\", L"1");
    RemoveProductRegistration(kName);
    EXPECT_THAT(ValueNames(HKEY_LOCAL_MACHINE, kFolders),
                ElementsAre(L"C:\\Windows\\Installer\\" + kOtherCode + L"\\"));
}

TEST_F(RegistrationCleanup, AnUpgradeCodeKeepsItsOtherProductsAndDisappearsWithItsLast) {
    PlantInstalled(kMachineSid, kPacked, kCode);
    PlantUsers(HKEY_LOCAL_MACHINE, kMachineCodes + L"Shared", {kOtherPacked, kPacked});
    PlantUsers(HKEY_LOCAL_MACHINE, kMachineCodes + L"Only", {kPacked});
    MakeKey(HKEY_LOCAL_MACHINE, kMachineCodes + L"Only\\Below");
    PlantUsers(HKEY_LOCAL_MACHINE, kMachineCodes + L"OthersOnly", {kOtherPacked});
    PlantUsers(HKEY_LOCAL_MACHINE, kMachineCodes + L"None", {});
    PlantUsers(HKEY_LOCAL_MACHINE, kMachineCodes + L"AnotherCase", {L"0123456789abcdef0123456789abcdef"});
    RemoveProductRegistration(kName);
    EXPECT_THAT(SubkeyNames(HKEY_LOCAL_MACHINE, kInstaller + L"UpgradeCodes"),
                testing::UnorderedElementsAre(L"Shared", L"OthersOnly", L"None"));
    EXPECT_THAT(ValueNames(HKEY_LOCAL_MACHINE, kMachineCodes + L"Shared"), ElementsAre(kOtherPacked));
    EXPECT_THAT(ValueNames(HKEY_LOCAL_MACHINE, kMachineCodes + L"OthersOnly"), ElementsAre(kOtherPacked));
}

TEST_F(RegistrationCleanup, AnUpgradeCodeIsClosedBeforeItIsDeleted) {
    PlantInstalled(kMachineSid, kPacked, kCode);
    PlantUsers(HKEY_LOCAL_MACHINE, kMachineCodes + L"Only", {kPacked});
    std::vector<HKEY> open;
    std::vector<bool> openAtDeletion;
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   const LSTATUS status =
                       CORVI_ORIGINAL(hooks_, RegOpenKeyExW)(root, subkey, options, access, key);
                   if (status == ERROR_SUCCESS && subkey == std::wstring(L"Only")) {
                       open.push_back(*key);
                   }
                   return status;
               });
    CORVI_HOOK(hooks_, RegCloseKey, [&](HKEY key) -> LSTATUS {
        std::erase(open, key);
        return CORVI_ORIGINAL(hooks_, RegCloseKey)(key);
    });
    CORVI_HOOK(hooks_, RegDeleteTreeW, [&](HKEY key, LPCWSTR subkey) -> LSTATUS {
        if (subkey == std::wstring(L"Only")) {
            openAtDeletion.push_back(!open.empty());
        }
        return CORVI_ORIGINAL(hooks_, RegDeleteTreeW)(key, subkey);
    });
    RemoveProductRegistration(kName);
    EXPECT_THAT(openAtDeletion, ElementsAre(false));
}

TEST_F(RegistrationCleanup, ComponentsOfTheSameUserFollowTheSameRule) {
    PlantInstalled(kMachineSid, kPacked, kCode);
    const std::wstring components = kUserData + kMachineSid + L"\\Components\\";
    const std::wstring usersComponents = kUserData + kUserSid + L"\\Components\\";
    PlantUsers(HKEY_LOCAL_MACHINE, components + L"Shared", {kPacked, kOtherPacked});
    PlantUsers(HKEY_LOCAL_MACHINE, components + L"Only", {kPacked});
    PlantUsers(HKEY_LOCAL_MACHINE, components + L"OthersOnly", {kOtherPacked});
    PlantUsers(HKEY_LOCAL_MACHINE, usersComponents + L"Only", {kPacked});
    RemoveProductRegistration(kName);
    EXPECT_THAT(SubkeyNames(HKEY_LOCAL_MACHINE, kUserData + kMachineSid + L"\\Components"),
                testing::UnorderedElementsAre(L"Shared", L"OthersOnly"));
    EXPECT_THAT(ValueNames(HKEY_LOCAL_MACHINE, components + L"Shared"), ElementsAre(kOtherPacked));
    EXPECT_TRUE(KeyExists(HKEY_LOCAL_MACHINE, usersComponents + L"Only"));
}

TEST_F(RegistrationCleanup, TheCachedPackageIsDeletedEvenWhenItsPathIsLong) {
    std::wstring folder = L"C:\\windows\\Installer";
    while (folder.size() < 240) {
        folder += L"\\a_long_folder_name";
    }
    std::filesystem::create_directories(folder);
    const std::wstring package = folder.substr(0, 256) + L"\\p.msi";
    std::ofstream(std::filesystem::path(package)) << "package";
    ASSERT_TRUE(std::filesystem::exists(package));
    PlantInstalled(kMachineSid, kPacked, kCode);
    WriteText(HKEY_LOCAL_MACHINE, PropertiesKey(kMachineSid, kPacked), L"LocalPackage", package);
    RemoveProductRegistration(kName);
    EXPECT_FALSE(std::filesystem::exists(package));
    std::filesystem::remove_all(L"C:\\windows\\Installer\\a_long_folder_name");
}

TEST_F(RegistrationCleanup, ACachedPackageThatIsGoneOrInUseIsNoError) {
    PlantInstalled(kMachineSid, kPacked, kCode);
    RemoveProductRegistration(kName);
    EXPECT_FALSE(IsInstalled(kMachineSid, kPacked));

    PlantPackageFile();
    const HANDLE open = CreateFileW(kPackageFile.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(open, INVALID_HANDLE_VALUE);
    PlantInstalled(kMachineSid, kPacked, kCode);
    RemoveProductRegistration(kName);
    CloseHandle(open);
    EXPECT_FALSE(IsInstalled(kMachineSid, kPacked));
    EXPECT_TRUE(std::filesystem::exists(kPackageFile));
}

TEST_F(RegistrationCleanup, WithoutLocalPackageTheCleanupEndsWhereItStands) {
    WriteText(HKEY_LOCAL_MACHINE, kUninstall + L"Corvi test 1", L"DisplayName", kName);
    PlantInstalled(kMachineSid, kPacked, kCode);
    PlantUsers(HKEY_LOCAL_MACHINE, kMachineCodes + L"Only", {kPacked});
    PlantUsers(HKEY_LOCAL_MACHINE, kUserData + kMachineSid + L"\\Components\\Only", {kPacked});
    WriteText(HKEY_LOCAL_MACHINE, kFolders, L"C:\\Windows\\Installer\\" + kCode + L"\\", L"1");
    PlantAdvertised(HKEY_LOCAL_MACHINE, kClasses, kPacked);
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, PropertiesKey(kMachineSid, kPacked).c_str(), L"LocalPackage");
    ExpectError("Unable to get registry value", ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kUninstall + L"Corvi test 1"));
    EXPECT_TRUE(ValueNames(HKEY_LOCAL_MACHINE, kFolders).empty());
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kMachineCodes + L"Only"));
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kUserData + kMachineSid + L"\\Components\\Only"));
    EXPECT_TRUE(IsInstalled(kMachineSid, kPacked));
    EXPECT_TRUE(IsAdvertised(HKEY_LOCAL_MACHINE, kClasses, kPacked));
}

TEST_F(RegistrationCleanup, ALocalPackageOfTheWrongTypeIsAnErrorToo) {
    PlantInstalled(kMachineSid, kPacked, kCode);
    WriteNumber(HKEY_LOCAL_MACHINE, PropertiesKey(kMachineSid, kPacked), L"LocalPackage", 7);
    ExpectError("Unable to get registry value", ERROR_UNSUPPORTED_TYPE);
    EXPECT_TRUE(IsInstalled(kMachineSid, kPacked));
}

TEST_F(RegistrationCleanup, AnotherProductWithoutLocalPackageIsNoError) {
    PlantInstalled(kMachineSid, kPacked, kCode, kOtherName);
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, PropertiesKey(kMachineSid, kPacked).c_str(), L"LocalPackage");
    EXPECT_NO_THROW(RemoveProductRegistration(kName));
}

// --- Advertisement data by HKEY_CLASSES_ROOT ---

TEST_F(RegistrationCleanup, AdvertisedProductsOfTheMachineGoWithTheirFeatures) {
    PlantAdvertised(HKEY_CLASSES_ROOT, L"Installer\\", kPacked);
    PlantAdvertised(HKEY_CLASSES_ROOT, L"Installer\\", kOtherPacked, kOtherCase);
    const std::wstring third(32, L'3');
    PlantAdvertised(HKEY_CLASSES_ROOT, L"Installer\\", third, kOtherName);
    RemoveProductRegistration(kName);
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, L"Installer\\Products\\" + kPacked));
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, L"Installer\\Features\\" + kPacked));
    EXPECT_FALSE(IsAdvertised(HKEY_CLASSES_ROOT, L"Installer\\", kOtherPacked));
    EXPECT_TRUE(KeyExists(HKEY_CLASSES_ROOT, L"Installer\\Products\\" + third + L"\\SourceList\\Media"));
    EXPECT_TRUE(ValueExists(HKEY_CLASSES_ROOT, L"Installer\\Features\\" + third, L"Everything"));
}

TEST_F(RegistrationCleanup, AnAdvertisedProductLosesItsUpgradeCodeThenItsFeaturesThenItself) {
    PlantAdvertised(HKEY_CLASSES_ROOT, L"Installer\\", kPacked);
    PlantUsers(HKEY_CLASSES_ROOT, L"Installer\\UpgradeCodes\\Only", {kPacked});
    Names leftAtEachDeletion;
    CORVI_HOOK(hooks_, RegDeleteTreeW, [&](HKEY key, LPCWSTR subkey) -> LSTATUS {
        std::wstring left;
        for (const std::wstring& path :
             {std::wstring(L"UpgradeCodes\\Only"), L"Features\\" + kPacked, L"Products\\" + kPacked}) {
            left +=
                KeyExists(HKEY_CLASSES_ROOT, L"Installer\\" + path) ? path.substr(0, 1) : std::wstring(L"-");
        }
        leftAtEachDeletion.push_back(left);
        return CORVI_ORIGINAL(hooks_, RegDeleteTreeW)(key, subkey);
    });
    RemoveProductRegistration(kName);
    EXPECT_THAT(leftAtEachDeletion, ElementsAre(L"UFP", L"-FP", L"--P"));
}

TEST_F(RegistrationCleanup, TheIconOfAnAdvertisedProductNamesItsCache) {
    PlantAdvertised(HKEY_CLASSES_ROOT, L"Installer\\", kPacked);
    WriteText(HKEY_CLASSES_ROOT, L"Installer\\Products\\" + kPacked, L"ProductIcon",
              L"C:\\Windows\\Installer\\" + kCode + L"\\icon.exe,0");
    WriteText(HKEY_LOCAL_MACHINE, kFolders, L"C:\\Windows\\Installer\\" + kCode + L"\\", L"1");
    WriteText(HKEY_LOCAL_MACHINE, kFolders, L"C:\\Windows\\Installer\\" + kOtherCode + L"\\", L"1");
    RemoveProductRegistration(kName);
    EXPECT_THAT(ValueNames(HKEY_LOCAL_MACHINE, kFolders),
                ElementsAre(L"C:\\Windows\\Installer\\" + kOtherCode + L"\\"));
}

TEST_F(RegistrationCleanup, AnAdvertisedProductWithoutIconLeavesAllFolders) {
    PlantAdvertised(HKEY_CLASSES_ROOT, L"Installer\\", kPacked);
    WriteText(HKEY_LOCAL_MACHINE, kFolders, L"C:\\Windows\\Installer\\" + kCode + L"\\", L"1");
    RemoveProductRegistration(kName);
    EXPECT_EQ(ValueNames(HKEY_LOCAL_MACHINE, kFolders).size(), 1U);
    EXPECT_FALSE(IsAdvertised(HKEY_CLASSES_ROOT, L"Installer\\", kPacked));
}

TEST_F(RegistrationCleanup, AdvertisedUpgradeCodesFollowTheRuleOfSharedValues) {
    PlantAdvertised(HKEY_CLASSES_ROOT, L"Installer\\", kPacked);
    PlantUsers(HKEY_CLASSES_ROOT, L"Installer\\UpgradeCodes\\Shared", {kPacked, kOtherPacked});
    PlantUsers(HKEY_CLASSES_ROOT, L"Installer\\UpgradeCodes\\Only", {kPacked});
    PlantUsers(HKEY_CLASSES_ROOT, L"Installer\\UpgradeCodes\\OthersOnly", {kOtherPacked});
    RemoveProductRegistration(kName);
    EXPECT_THAT(SubkeyNames(HKEY_CLASSES_ROOT, L"Installer\\UpgradeCodes"),
                testing::UnorderedElementsAre(L"Shared", L"OthersOnly"));
    EXPECT_THAT(ValueNames(HKEY_CLASSES_ROOT, L"Installer\\UpgradeCodes\\Shared"), ElementsAre(kOtherPacked));
}

TEST_F(RegistrationCleanup, AnAdvertisedProductWithoutNameIsPassedByInTheClassesRoot) {
    MakeKey(HKEY_CLASSES_ROOT, L"Installer\\Products\\" + kOtherPacked);
    PlantAdvertised(HKEY_CLASSES_ROOT, L"Installer\\", kPacked);
    FailOpensBelow(HKEY_LOCAL_MACHINE, L"Software\\Classes\\", ERROR_FILE_NOT_FOUND);
    EXPECT_NO_THROW(RemoveProductRegistration(kName));
    EXPECT_FALSE(IsAdvertised(HKEY_CLASSES_ROOT, L"Installer\\", kPacked));
}

// --- Advertisement data by HKEY_LOCAL_MACHINE ---

TEST_F(RegistrationCleanup, TheMachinesClassesAreCleanedOnTheirOwn) {
    PlantAdvertised(HKEY_LOCAL_MACHINE, kClasses, kPacked);
    PlantAdvertised(HKEY_LOCAL_MACHINE, kClasses, kOtherPacked, kOtherName);
    WriteText(HKEY_LOCAL_MACHINE, kClasses + L"Products\\" + kPacked, L"ProductIcon", kCode);
    WriteText(HKEY_LOCAL_MACHINE, kFolders, L"C:\\Windows\\Installer\\" + kCode + L"\\", L"1");
    PlantUsers(HKEY_LOCAL_MACHINE, kClasses + L"UpgradeCodes\\Shared", {kPacked, kOtherPacked});
    PlantUsers(HKEY_LOCAL_MACHINE, kClasses + L"UpgradeCodes\\Only", {kPacked});
    HideClassesRoot();
    RemoveProductRegistration(kName);
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kClasses + L"Products\\" + kPacked));
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kClasses + L"Features\\" + kPacked));
    EXPECT_TRUE(IsAdvertised(HKEY_LOCAL_MACHINE, kClasses, kOtherPacked));
    EXPECT_THAT(ValueNames(HKEY_LOCAL_MACHINE, kClasses + L"UpgradeCodes\\Shared"),
                ElementsAre(kOtherPacked));
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kClasses + L"UpgradeCodes\\Only"));
    // The icon counts by the classes root only.
    EXPECT_EQ(ValueNames(HKEY_LOCAL_MACHINE, kFolders).size(), 1U);
}

TEST_F(RegistrationCleanup, AProductOfTheMachinesClassesMustHaveAName) {
    MakeKey(HKEY_LOCAL_MACHINE, kClasses + L"Products\\" + kPacked);
    PlantAdvertised(HKEY_USERS, L".Default\\Software\\Microsoft\\Installer\\", kPacked);
    ExpectError("Unable to get registry value", ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(IsAdvertised(HKEY_USERS, L".Default\\Software\\Microsoft\\Installer\\", kPacked));
}

TEST_F(RegistrationCleanup, AProductNameOfTheWrongTypeIsAnErrorInTheMachinesClasses) {
    WriteNumber(HKEY_LOCAL_MACHINE, kClasses + L"Products\\" + kPacked, L"ProductName", 7);
    ExpectError("Unable to get registry value", ERROR_UNSUPPORTED_TYPE);
}

// --- Advertisement data of the users ---

void ExpectOnlyTheOtherProductIsLeft(const std::wstring& userInstaller) {
    EXPECT_FALSE(KeyExists(HKEY_USERS, userInstaller + L"Products\\" + kPacked));
    EXPECT_FALSE(KeyExists(HKEY_USERS, userInstaller + L"Features\\" + kPacked));
    EXPECT_TRUE(KeyExists(HKEY_USERS, userInstaller + L"Products\\" + kOtherPacked + L"\\SourceList\\Media"));
    EXPECT_TRUE(KeyExists(HKEY_USERS, userInstaller + L"Features\\" + kOtherPacked));
    EXPECT_THAT(SubkeyNames(HKEY_USERS, userInstaller + L"UpgradeCodes"), ElementsAre(L"Shared"));
    EXPECT_THAT(ValueNames(HKEY_USERS, userInstaller + L"UpgradeCodes\\Shared"), ElementsAre(kOtherPacked));
}

TEST_F(RegistrationCleanup, AdvertisedProductsOfEveryUserGo) {
    const std::wstring first = L"S-1-5-21-9-9-9-1\\Software\\Microsoft\\Installer\\";
    const std::wstring second = L".Default\\Software\\Microsoft\\Installer\\";
    MakeKey(HKEY_USERS, L"S-1-5-21-9-9-9-2");
    for (const std::wstring& user : {first, second}) {
        PlantAdvertised(HKEY_USERS, user, kPacked);
        PlantAdvertised(HKEY_USERS, user, kOtherPacked, kOtherName);
        PlantUsers(HKEY_USERS, user + L"UpgradeCodes\\Shared", {kPacked, kOtherPacked});
        PlantUsers(HKEY_USERS, user + L"UpgradeCodes\\Only", {kPacked});
    }
    RemoveProductRegistration(kName);
    ExpectOnlyTheOtherProductIsLeft(first);
    ExpectOnlyTheOtherProductIsLeft(second);
    EXPECT_TRUE(KeyExists(HKEY_USERS, L"S-1-5-21-9-9-9-2"));
}

TEST_F(RegistrationCleanup, AProductOfAUserMustHaveAName) {
    MakeKey(HKEY_USERS, L".Default\\Software\\Microsoft\\Installer\\Products\\" + kPacked);
    ExpectError("Unable to get registry value", ERROR_FILE_NOT_FOUND);
}

// --- Keys ---

TEST_F(RegistrationCleanup, AMachineWithoutAnyInstallationIsNoError) {
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kInstaller + L"UserData"));
    EXPECT_NO_THROW(RemoveProductRegistration(kName));
}

TEST_F(RegistrationCleanup, KeysThatAMachineNeedNotHaveArePassedByForAMatchingProductToo) {
    PlantInstalled(kMachineSid, kPacked, kCode);
    MakeKey(HKEY_LOCAL_MACHINE, kUserData + kUserSid);
    WriteText(HKEY_CLASSES_ROOT, L"Installer\\Products\\" + kPacked, L"ProductName", kName);
    WriteText(HKEY_USERS, L".Default\\Software\\Microsoft\\Installer\\Products\\" + kPacked, L"ProductName",
              kName);
    EXPECT_NO_THROW(RemoveProductRegistration(kName));
    EXPECT_FALSE(IsInstalled(kMachineSid, kPacked));
    EXPECT_FALSE(KeyExists(HKEY_CLASSES_ROOT, L"Installer\\Products\\" + kPacked));
    EXPECT_FALSE(KeyExists(HKEY_USERS, L".Default\\Software\\Microsoft\\Installer\\Products\\" + kPacked));
}

TEST_F(RegistrationCleanup, AKeyThatIsThereAndCannotBeOpenedEndsTheCleanup) {
    PlantInstalled(kMachineSid, kPacked, kCode);
    PlantUsers(HKEY_LOCAL_MACHINE, kMachineCodes + L"Only", {kPacked});
    MakeKey(HKEY_LOCAL_MACHINE, kUserData + kMachineSid + L"\\Components");
    WriteText(HKEY_LOCAL_MACHINE, kFolders, L"C:\\Windows\\Installer\\" + kCode + L"\\", L"1");
    for (const std::wstring& key :
         {kUninstall.substr(0, kUninstall.size() - 1), kInstaller + L"UserData",
          kUserData + kMachineSid + L"\\Products", kFolders, L"SOFTWARE" + kMachineCodes.substr(8, 50),
          kUserData + kMachineSid + L"\\Components"}) {
        FailOpensBelow(HKEY_LOCAL_MACHINE, key, ERROR_ACCESS_DENIED);
        ExpectError("Unable to open registry key", ERROR_ACCESS_DENIED);
        hooks_.RestoreAll();
        EXPECT_TRUE(IsInstalled(kMachineSid, kPacked));
    }
    RemoveProductRegistration(kName);
    EXPECT_FALSE(IsInstalled(kMachineSid, kPacked));
}

TEST_F(RegistrationCleanup, ThePassesFollowEachOtherAndOpenEveryKeyForReadingAndWriting) {
    MakeKey(HKEY_LOCAL_MACHINE, kUserData + kMachineSid);
    Names paths;
    CORVI_HOOK(
        hooks_, RegOpenKeyExW,
        [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
            EXPECT_EQ(access, REGSAM{0x2001F});
            EXPECT_EQ(options, 0U);
            if (root != HKEY_USERS) {
                paths.push_back((root == HKEY_CLASSES_ROOT ? L"HKCR " : L"HKLM ") + std::wstring(path));
            } else if (paths.empty() || paths.back() != L"users") {
                paths.push_back(L"users");
            }
            return CORVI_ORIGINAL(hooks_, RegOpenKeyExW)(root, path, options, access, key);
        });
    RemoveProductRegistration(kName);
    hooks_.RestoreAll();
    EXPECT_THAT(
        paths,
        ElementsAre(L"HKLM Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall",
                    L"HKLM Software\\Microsoft\\Windows\\CurrentVersion\\Installer\\UserData",
                    L"HKLM Software\\Microsoft\\Windows\\CurrentVersion\\Installer\\UserData\\S-1-5-18\\"
                    L"Products",
                    L"HKCR Installer\\Products", L"HKLM Software\\Classes\\Installer\\Products", L"users"));
}

TEST_F(RegistrationCleanup, RefusedDeletionsAreNoErrors) {
    PlantInstalled(kMachineSid, kPacked, kCode);
    PlantUsers(HKEY_LOCAL_MACHINE, kMachineCodes + L"Shared", {kPacked, kOtherPacked});
    PlantUsers(HKEY_LOCAL_MACHINE, kMachineCodes + L"Only", {kPacked});
    WriteText(HKEY_LOCAL_MACHINE, kFolders, L"C:\\Windows\\Installer\\" + kCode + L"\\", L"1");
    PlantAdvertised(HKEY_CLASSES_ROOT, L"Installer\\", kPacked);
    int refused = 0;
    CORVI_HOOK(hooks_, RegDeleteTreeW, [&](HKEY, LPCWSTR) -> LSTATUS {
        ++refused;
        return ERROR_ACCESS_DENIED;
    });
    CORVI_HOOK(hooks_, RegDeleteValueW, [&](HKEY, LPCWSTR) -> LSTATUS {
        ++refused;
        return ERROR_ACCESS_DENIED;
    });
    EXPECT_NO_THROW(RemoveProductRegistration(kName));
    // Folder, shared and only upgrade code, product; features and product by each of the two roots.
    EXPECT_EQ(refused, 8);
}

// --- Nothing else ---

TEST_F(RegistrationCleanup, ANameThatMatchesNothingChangesNothing) {
    const InstalledProduct product(L"tuep_1", L"01");
    PlantUsers(HKEY_LOCAL_MACHINE, kMachineCodes + L"Only", {kPacked});
    PlantAdvertised(HKEY_USERS, L".Default\\Software\\Microsoft\\Installer\\", kPacked);
    const Names machineBefore = ExportRegistry(HKEY_LOCAL_MACHINE);
    const Names usersBefore = ExportRegistry(HKEY_USERS);
    ASSERT_GT(machineBefore.size(), 1000U);
    RemoveProductRegistration(L"TAVO User Experience Program");
    const Names machineAfter = ExportRegistry(HKEY_LOCAL_MACHINE);
    const Names usersAfter = ExportRegistry(HKEY_USERS);
    EXPECT_TRUE(machineBefore == machineAfter);
    EXPECT_TRUE(usersBefore == usersAfter);
    EXPECT_TRUE(std::filesystem::exists(product.CachedPackage()));
}

TEST_F(RegistrationCleanup, TheCostGrowsLinearlyWithTheComponents) {
    const std::wstring components = kUserData + kMachineSid + L"\\Components\\";
    const auto callsWith = [&](int from, int count) {
        PlantInstalled(kMachineSid, kPacked, kCode);
        for (int index = from; index < count; ++index) {
            PlantUsers(HKEY_LOCAL_MACHINE, components + std::to_wstring(index), {kOtherPacked});
        }
        int calls = 0;
        CORVI_HOOK(hooks_, RegOpenKeyExW,
                   [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                       ++calls;
                       return CORVI_ORIGINAL(hooks_, RegOpenKeyExW)(root, path, options, access, key);
                   });
        CORVI_HOOK(hooks_, RegEnumValueW,
                   [&](HKEY key, DWORD index, LPWSTR name, LPDWORD length, LPDWORD reserved, LPDWORD type,
                       LPBYTE data, LPDWORD size) -> LSTATUS {
                       ++calls;
                       return CORVI_ORIGINAL(hooks_, RegEnumValueW)(key, index, name, length, reserved, type,
                                                                    data, size);
                   });
        CORVI_HOOK(hooks_, RegEnumKeyExW,
                   [&](HKEY key, DWORD index, LPWSTR name, LPDWORD length, LPDWORD reserved, LPWSTR type,
                       LPDWORD typeLength, PFILETIME written) -> LSTATUS {
                       ++calls;
                       return CORVI_ORIGINAL(hooks_, RegEnumKeyExW)(key, index, name, length, reserved, type,
                                                                    typeLength, written);
                   });
        RemoveProductRegistration(kName);
        hooks_.RestoreAll();
        return calls;
    };
    const int few = callsWith(0, 1000);
    const int many = callsWith(1000, 2000);
    EXPECT_GT(few, 3000);
    // Each further key costs three calls: it is listed, opened and its value is looked at.
    EXPECT_EQ(many - few, 3000);
}

// --- Real installations ---

bool IsMentionedBelow(HKEY root, const std::wstring& key, const InstalledProduct& product) {
    const Names lines = ExportRegistry(root, key);
    return std::any_of(lines.begin(), lines.end(), [&](const std::wstring& line) {
        return line.find(product.PackedCode()) != std::wstring::npos;
    });
}

void ExpectForgotten(const InstalledProduct& product, const std::wstring& cachedPackage) {
    EXPECT_EQ(MsiQueryProductStateW(product.Code().c_str()), INSTALLSTATE_UNKNOWN);
    EXPECT_EQ(product.UserDataKey(), L"");
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kUninstall + product.Code()));
    EXPECT_FALSE(std::filesystem::exists(cachedPackage));
    EXPECT_FALSE(
        IsMentionedBelow(HKEY_LOCAL_MACHINE, L"Software\\Microsoft\\Windows\\CurrentVersion", product));
    EXPECT_FALSE(IsMentionedBelow(HKEY_LOCAL_MACHINE, L"Software\\Classes\\Installer", product));
    EXPECT_FALSE(IsMentionedBelow(HKEY_CURRENT_USER, L"Software", product));
}

void ExpectRepairsAndUninstalls(const InstalledProduct& product) {
    EXPECT_TRUE(product.IsKnown());
    ASSERT_TRUE(std::filesystem::remove(product.OwnFile()));
    EXPECT_EQ(product.Repair(), 0U);
    EXPECT_TRUE(std::filesystem::exists(product.OwnFile()));
    EXPECT_EQ(product.Uninstall(), 0U);
    EXPECT_FALSE(product.IsKnown());
    EXPECT_FALSE(std::filesystem::exists(product.OwnFile()));
}

class RealInstallation : public RegistrationCleanup, public testing::WithParamInterface<Scope> {};

TEST_P(RealInstallation, IsForgottenAndAnotherProductStillRepairsAndUninstalls) {
    const InstalledProduct product(L"tuep_1", L"01", GetParam());
    const InstalledProduct companion(L"companion", L"05", GetParam());
    const std::wstring cachedPackage = product.CachedPackage();
    ASSERT_TRUE(std::filesystem::exists(cachedPackage));
    RemoveProductRegistration(kName);
    ExpectForgotten(product, cachedPackage);
    ExpectRepairsAndUninstalls(companion);
}

TEST_P(RealInstallation, TwoProductsOfOneNameAreBothForgotten) {
    const InstalledProduct older(L"tuep_1", L"01", GetParam());
    const InstalledProduct newer(L"tuep_2", L"02", GetParam());
    const std::wstring olderPackage = older.CachedPackage();
    const std::wstring newerPackage = newer.CachedPackage();
    RemoveProductRegistration(kName);
    ExpectForgotten(older, olderPackage);
    ExpectForgotten(newer, newerPackage);
}

TEST_P(RealInstallation, ThePackageInstallsAgainAsIfItHadNeverBeenThere) {
    {
        const InstalledProduct product(L"tuep_1", L"01", GetParam());
        RemoveProductRegistration(kName);
        EXPECT_FALSE(product.IsKnown());
    }
    const InstalledProduct again(L"tuep_1", L"01", GetParam());
    EXPECT_TRUE(std::filesystem::exists(again.OwnFile()));
    ExpectRepairsAndUninstalls(again);
}

INSTANTIATE_TEST_SUITE_P(Scopes, RealInstallation, testing::Values(Scope::Machine, Scope::User),
                         [](const testing::TestParamInfo<Scope>& information) {
                             return information.param == Scope::Machine ? "PerMachine" : "PerUser";
                         });

}  // namespace
}  // namespace corvi::test
