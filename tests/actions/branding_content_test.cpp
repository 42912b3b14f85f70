#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/actions/test_folder.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/scratch_key.h"

namespace corvi::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// The settings application's folder, C:\hx\install, with two folders, a skins folder and a file, and the
/// branding key.
class BrandingContent : public testing::Test {
protected:
    BrandingContent() {
        folder_.MakeFile(L"install\\Skins\\dark\\skin.xml");
        folder_.MakeFile(L"install\\Partner\\logo.png");
        folder_.MakeFile(L"install\\Other\\deep\\file.bin", FILE_ATTRIBUTE_READONLY);
        folder_.MakeFile(L"install\\app.exe");
        RegisterDirectory(L"C:\\hx\\install");
    }

    void RegisterDirectory(const std::wstring& directory) const {
        tavo_.SetText(L"HX", L"HXBrandingInstallDir", directory);
    }

    void RegisterExpandable(const std::wstring& directory) const {
        tavo_.SetValue(L"HX", L"HXBrandingInstallDir", REG_EXPAND_SZ, directory.c_str(),
                       (directory.size() + 1) * sizeof(wchar_t));
    }

    void Retain(const std::wstring& text) const { branding_.SetText(L"", L"Content", text); }

    UINT Call() const { return library_.Call("DeleteandRetainValues", session_.Handle()); }

    void ExpectLeft(const std::vector<std::wstring>& names) const {
        EXPECT_THAT(folder_.Names(L"install"), testing::ElementsAreArray(names));
    }
    void ExpectAllLeft() const { ExpectLeft({L"Other", L"Partner", L"Skins", L"app.exe"}); }

    TestFolder folder_{L"hx"};
    ScratchKey tavo_{L"SOFTWARE\\TAVO"};
    ScratchKey branding_{L"SOFTWARE\\TAVOBranding"};
    Library library_;
    InstallerSession session_;
};

TEST_F(BrandingContent, ASkinsSubkeyKeepsTheSkinsAndAFullPathKeepsItsFolderAndAllElseGoes) {
    branding_.Add(L"Skins");
    Retain(L"C:\\hx\\install\\Partner");
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({L"Partner", L"Skins"});
    EXPECT_TRUE(folder_.Has(L"install\\Skins\\dark\\skin.xml"));
    EXPECT_TRUE(folder_.Has(L"install\\Partner\\logo.png"));
    EXPECT_THAT(session_.Messages(), IsEmpty());
}

TEST_F(BrandingContent, WithoutTheBrandingKeyTheSkinsGoToo) {
    DropMachineKey(branding_.Path());
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({});
}

TEST_F(BrandingContent, AnEmptyBrandingKeyRetainsNothing) {
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({});
}

TEST_F(BrandingContent, APathThatDiffersOnlyInCaseRetainsNothing) {
    Retain(L"C:\\hx\\install\\partner");
    branding_.SetText(L"", L"Second", L"c:\\hx\\install\\app.exe");
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({});
}

TEST_F(BrandingContent, ASingleFileIsRetainedByItsPath) {
    Retain(L"C:\\hx\\install\\app.exe");
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({L"app.exe"});
}

TEST_F(BrandingContent, AValueMayHoldForwardSlashesAndBeTheUnnamedOne) {
    branding_.SetText(L"", L"", L"C:/hx\\install/Partner");
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({L"Partner"});
}

TEST_F(BrandingContent, OnlyTheWholePathRetains) {
    branding_.SetText(L"", L"Name", L"Partner");
    branding_.SetText(L"", L"Beginning", L"C:\\hx\\install");
    branding_.SetText(L"", L"Inside", L"C:\\hx\\install\\Partner\\logo.png");
    branding_.SetText(L"", L"Separator", L"C:\\hx\\install\\Partner\\");
    branding_.SetText(L"", L"Nothing", L"");
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({});
}

TEST_F(BrandingContent, ValuesOfOtherTypesRetainNothing) {
    const std::wstring path = L"C:\\hx\\install\\Partner";
    const size_t size = (path.size() + 1) * sizeof(wchar_t);
    branding_.SetValue(L"", L"Expandable", REG_EXPAND_SZ, path.c_str(), size);
    branding_.SetValue(L"", L"Binary", REG_BINARY, path.c_str(), size);
    branding_.SetValue(L"", L"Several", REG_MULTI_SZ, (path + L'\0').c_str(), size + sizeof(wchar_t));
    branding_.SetNumber(L"", L"Number", 1);
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({});
}

TEST_F(BrandingContent, AValueWithoutTerminatorCounts) {
    const std::wstring path = L"C:\\hx\\install\\Partner";
    branding_.SetValue(L"", L"Open", REG_SZ, (path + L"!").c_str(), path.size() * sizeof(wchar_t));
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({L"Partner"});
}

TEST_F(BrandingContent, ASubkeyNamedLikeAPathInForwardSlashesRetains) {
    branding_.Add(L"C:/hx/install/Partner");
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({L"Partner"});
}

TEST_F(BrandingContent, AValueThatReadsSkinsKeepsTheSkinsLikeTheSubkey) {
    Retain(L"Skins");
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({L"Skins"});
}

TEST_F(BrandingContent, TheSkinsEntryIsExact) {
    branding_.Add(L"skins");
    branding_.Add(L"Skins2");
    Retain(L"Skins ");
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({});
}

TEST_F(BrandingContent, EveryEntryWithSkinsInItsNameIsASkin) {
    folder_.MakeFile(L"install\\MySkinsBackup\\a.txt");
    folder_.MakeFile(L"install\\Skins.zip");
    folder_.MakeFile(L"install\\skins.lower");
    branding_.Add(L"Skins");
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({L"MySkinsBackup", L"Skins", L"Skins.zip"});
}

TEST_F(BrandingContent, ADirectoryWithSkinsInItsOwnPathIsKeptWhole) {
    folder_.MakeFile(L"SkinsBase\\app.exe");
    RegisterDirectory(L"C:\\hx\\SkinsBase");
    branding_.Add(L"Skins");
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(folder_.Names(L"SkinsBase"), ElementsAre(L"app.exe"));
    ExpectAllLeft();
}

TEST_F(BrandingContent, ADirectoryEndingInASeparatorIsCleanedLikeAnyOther) {
    for (const wchar_t* directory : {L"C:\\hx\\install\\", L"C:/hx/install/", L"C:/hx\\install"}) {
        folder_.MakeFile(L"install\\app.exe");
        folder_.MakeFile(L"install\\Other\\deep\\again.bin");
        RegisterDirectory(directory);
        EXPECT_EQ(Call(), 0U);
        ExpectLeft({});
    }
}

TEST_F(BrandingContent, ADirectoryEndingInASeparatorIsComparedWithTheDoubledSeparator) {
    RegisterDirectory(L"C:\\hx\\install\\");
    Retain(L"C:\\hx\\install\\\\Partner");
    branding_.SetText(L"", L"Single", L"C:\\hx\\install\\app.exe");
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({L"Partner"});
}

TEST_F(BrandingContent, TheEntriesAreAskedForWithOneSeparator) {
    std::vector<std::wstring> patterns;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, FindFirstFileW, [&](LPCWSTR pattern, LPWIN32_FIND_DATAW) -> HANDLE {
        patterns.emplace_back(pattern);
        return INVALID_HANDLE_VALUE;
    });
    for (const wchar_t* directory : {L"C:\\hx\\install", L"C:\\hx\\install\\", L"C:/hx/install/"}) {
        RegisterDirectory(directory);
        EXPECT_EQ(Call(), 0U);
    }
    EXPECT_THAT(patterns,
                ElementsAre(L"C:\\hx\\install\\*.*", L"C:\\hx\\install\\*.*", L"C:/hx/install/*.*"));
    ExpectAllLeft();
}

TEST_F(BrandingContent, AMissingDirectoryValueOrKeyDeletesNothing) {
    const CurrentDirectory inside(folder_.Path(L"install"));
    RegisterDirectory(L"C:\\hx\\no such folder");
    EXPECT_EQ(Call(), 0U);
    RegisterDirectory(L"");
    EXPECT_EQ(Call(), 0U);
    tavo_.SetNumber(L"HX", L"HXBrandingInstallDir", 1);
    EXPECT_EQ(Call(), 0U);
    DropMachineKey(tavo_.Path());
    tavo_.Add(L"HX");
    EXPECT_EQ(Call(), 0U);
    DropMachineKey(tavo_.Path());
    EXPECT_EQ(Call(), 0U);
    ExpectAllLeft();
}

TEST_F(BrandingContent, ADirectoryThatIsAFileStays) {
    RegisterDirectory(L"C:\\hx\\install\\app.exe");
    EXPECT_EQ(Call(), 0U);
    ExpectAllLeft();
}

TEST_F(BrandingContent, AFileThatCannotBeDeletedStaysAndTheNextFollows) {
    folder_.MakeFile(L"install\\a read-only.txt", FILE_ATTRIBUTE_READONLY);
    folder_.MakeFile(L"install\\b held.txt");
    folder_.MakeFile(L"install\\z plain.txt");
    const HeldFile held(folder_.Path(L"install\\b held.txt"));
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({L"a read-only.txt", L"b held.txt"});
}

TEST_F(BrandingContent, AFolderInUseDoesNotKeepTheOthers) {
    const HeldFile held(folder_.Path(L"install\\Other\\deep\\file.bin"));
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({L"Other"});
    EXPECT_TRUE(folder_.Has(L"install\\Other\\deep\\file.bin"));
}

TEST_F(BrandingContent, WhatLinksLeadToStays) {
    folder_.MakeFile(L"kept\\precious.txt");
    folder_.MakeLink(L"install\\way out", L"kept");
    folder_.MakeLink(L"install\\Other\\way out", L"kept");
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(folder_.Names(L"kept"), ElementsAre(L"precious.txt"));
    EXPECT_FALSE(folder_.Has(L"install\\Partner"));
    EXPECT_FALSE(folder_.Has(L"install\\app.exe"));
}

TEST_F(BrandingContent, ALinkAsDirectoryIsNotEntered) {
    folder_.MakeLink(L"linked", L"install");
    for (const wchar_t* directory : {L"C:\\hx\\linked", L"C:\\hx\\linked\\", L"C:/hx/linked//"}) {
        RegisterDirectory(directory);
        EXPECT_EQ(Call(), 0U);
        ExpectAllLeft();
    }
}

// Cut to the room for it, the path would name the other file.
TEST_F(BrandingContent, AFilePathOf256CharactersIsNotCutToTheNameOfAnotherFile) {
    const std::wstring directory = L"C:\\hx\\install\\";
    const std::wstring name(255 - directory.size(), L'n');
    folder_.MakeFile(L"install\\" + name);
    folder_.MakeFile(L"install\\" + name + L"x");
    Retain(directory + name);
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({name, name + L"x"});
    branding_.SetText(L"", L"Content", L"");
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({name + L"x"});
}

TEST_F(BrandingContent, ABrandingKeyThatCannotBeReadToTheEndKeepsEverything) {
    Retain(L"C:\\hx\\install\\Partner");
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegEnumValueW,
               [](HKEY, DWORD, LPWSTR, LPDWORD, LPDWORD, LPDWORD, LPBYTE, LPDWORD) -> LSTATUS {
                   return ERROR_ACCESS_DENIED;
               });
    EXPECT_EQ(Call(), 0U);
    ExpectAllLeft();
}

// Registered by a package, the directory usually has no trailing separator; content is retained by the path
// that an administrator writes.
TEST_F(BrandingContent, WholePathsMatchBelowADirectoryRegisteredWithoutTrailingSeparator) {
    folder_.MakeFile(L"install\\Partner\\again.png");
    Retain(L"C:\\hx\\install\\Partner");
    branding_.SetText(L"", L"Second", L"C:\\hx\\install\\app.exe");
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({L"Partner", L"app.exe"});
    EXPECT_TRUE(folder_.Has(L"install\\Partner\\again.png"));
}

TEST_F(BrandingContent, AnExpandableDirectoryIsTakenAsItIsStored) {
    SetEnvironmentVariableW(L"CORVI_BRANDING", L"C:\\hx\\install");
    RegisterExpandable(L"%CORVI_BRANDING%");
    EXPECT_EQ(Call(), 0U);
    ExpectAllLeft();
    RegisterExpandable(L"C:\\hx\\install");
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({});
    SetEnvironmentVariableW(L"CORVI_BRANDING", nullptr);
}

TEST_F(BrandingContent, ADirectoryOfAnotherTypeThanATextIsNone) {
    const std::wstring directory = L"C:\\hx\\install";
    const size_t size = (directory.size() + 1) * sizeof(wchar_t);
    for (const DWORD type : {REG_BINARY, REG_NONE, REG_MULTI_SZ, REG_LINK}) {
        tavo_.SetValue(L"HX", L"HXBrandingInstallDir", type, directory.c_str(), size);
        EXPECT_EQ(Call(), 0U) << type;
        ExpectAllLeft();
    }
}

TEST_F(BrandingContent, ADirectoryWithoutTerminatorCounts) {
    const std::wstring directory = L"C:\\hx\\install";
    tavo_.SetValue(L"HX", L"HXBrandingInstallDir", REG_SZ, (directory + L"!").c_str(),
                   directory.size() * sizeof(wchar_t));
    EXPECT_EQ(Call(), 0U);
    ExpectLeft({});
}

// Cut to its room it would name another directory.
TEST_F(BrandingContent, ADirectoryThatIsLongerThanItsRoomIsNone) {
    const std::wstring slashes(259 - wcslen(L"C:\\hx\\install"), L'\\');
    RegisterDirectory(L"C:\\hx" + slashes + L"\\install\\");
    EXPECT_EQ(Call(), 0U);
    ExpectAllLeft();
    RegisterDirectory(L"C:\\hx" + slashes + L"\\install");
    EXPECT_EQ(Call(), 0U);
    // The folders go; the path of the file is longer than the room for it.
    ExpectLeft({L"app.exe"});
}

TEST_F(BrandingContent, TheDirectoryIsReadInto520Bytes) {
    std::vector<DWORD> sizes;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegQueryValueExW,
               [&](HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size) {
                   if (name == std::wstring(L"HXBrandingInstallDir")) {
                       sizes.push_back(*size);
                   }
                   return RegQueryValueExW(key, name, reserved, type, data, size);
               });
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(sizes, ElementsAre(520U));
}

TEST_F(BrandingContent, ABrandingKeyThatCannotBeOpenedKeepsEverything) {
    Retain(L"C:\\hx\\install\\Partner");
    ImportHooks hooks(library_.Module());
    for (const LSTATUS refusal : {ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_MEMORY, ERROR_KEY_DELETED}) {
        CORVI_HOOK(hooks, RegOpenKeyExW,
                   [&](HKEY root, LPCWSTR key, DWORD options, REGSAM access, PHKEY opened) -> LSTATUS {
                       return key == branding_.Path() ? refusal
                                                      : RegOpenKeyExW(root, key, options, access, opened);
                   });
        EXPECT_EQ(Call(), 0U);
        ExpectAllLeft();
    }
}

TEST_F(BrandingContent, ABrandingValueWhoseTypeCannotBeAskedKeepsEverything) {
    Retain(L"C:\\hx\\install\\Partner");
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegQueryValueExW,
               [&](HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size) {
                   return name == std::wstring(L"Content")
                              ? ERROR_ACCESS_DENIED
                              : RegQueryValueExW(key, name, reserved, type, data, size);
               });
    EXPECT_EQ(Call(), 0U);
    ExpectAllLeft();
}

TEST_F(BrandingContent, ABrandingValueThatCannotBeReadKeepsEverything) {
    Retain(L"C:\\hx\\install\\Partner");
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegGetValueW, [](HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID, LPDWORD) -> LSTATUS {
        return ERROR_ACCESS_DENIED;
    });
    EXPECT_EQ(Call(), 0U);
    ExpectAllLeft();
}

TEST_F(BrandingContent, ADirectoryOfWhichNobodyCanTellWhetherItIsALinkIsNotEntered) {
    int asked = 0;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, GetFileAttributesW, [&](LPCWSTR path) -> DWORD {
        // The first question is whether it exists.
        if (++asked == 1) {
            return GetFileAttributesW(path);
        }
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_FILE_ATTRIBUTES;
    });
    EXPECT_EQ(Call(), 0U);
    EXPECT_GE(asked, 2);
    ExpectAllLeft();
}

// Nothing is deleted here: the second answer says that the directory may be a link.
TEST_F(BrandingContent, ADrivesRootIsLookedAtAsTheRootNotAsTheCurrentFolderOfTheDrive) {
    for (const wchar_t* root : {L"C:\\", L"C:/"}) {
        RegisterDirectory(root);
        std::vector<std::wstring> asked;
        ImportHooks hooks(library_.Module());
        CORVI_HOOK(hooks, GetFileAttributesW, [&](LPCWSTR path) -> DWORD {
            asked.emplace_back(path);
            return asked.size() == 1 ? GetFileAttributesW(path) : INVALID_FILE_ATTRIBUTES;
        });
        EXPECT_EQ(Call(), 0U);
        EXPECT_THAT(asked, ElementsAre(root, L"C:\\"));
        ExpectAllLeft();
    }
}

// Wine lets any handle do anything; Windows does not.
TEST_F(BrandingContent, BothKeysAreOpenedForReading) {
    std::vector<std::pair<std::wstring, REGSAM>> opened;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegOpenKeyExW, [&](HKEY root, LPCWSTR key, DWORD options, REGSAM access, PHKEY result) {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        opened.emplace_back(key, access);
        return RegOpenKeyExW(root, key, options, access, result);
    });
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(opened, ElementsAre(std::make_pair(L"SOFTWARE\\TAVOBranding", REGSAM{KEY_READ}),
                                    std::make_pair(L"SOFTWARE\\TAVO\\HX\\", REGSAM{KEY_READ})));
}

TEST_F(BrandingContent, ErrorsAreCaught) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, FindFirstFileW, [](LPCWSTR, LPWIN32_FIND_DATAW) -> HANDLE { throw std::bad_alloc(); });
    EXPECT_EQ(Call(), 0U);
    ExpectAllLeft();
}

}  // namespace
}  // namespace corvi::test
