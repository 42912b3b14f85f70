#include <windows.h>

#include <gtest/gtest.h>
#include <msiquery.h>
#include <tlhelp32.h>

#include <new>

#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/running_program.h"

namespace corvi::test {
namespace {

constexpr UINT kSourceAbsent = 1612;
constexpr UINT kInstallFailure = 1603;
constexpr wchar_t kNotLaunchedLine[] = L"SABLE_CA Not Launched from PIM and unable to get property";
constexpr wchar_t kBlockMessage[] =
    L"This package requires TAVO Installer Setup.\n"
    L"Please obtain and install TAVO Installer from www.example.com to continue installing this package.\n"
    L"This application will now abort.";

class LaunchGuardTest : public testing::Test {
protected:
    void ExpectBlockMessage() const {
        ASSERT_EQ(session_.Messages().size(), 2U);
        EXPECT_EQ(session_.Messages()[0].type, static_cast<UINT>(INSTALLMESSAGE_INFO));
        EXPECT_EQ(session_.Messages()[0].text, kNotLaunchedLine);
        EXPECT_EQ(session_.Messages()[1].type, static_cast<UINT>(INSTALLMESSAGE_USER));
        EXPECT_EQ(session_.Messages()[1].fields, 2U);
        EXPECT_EQ(session_.Messages()[1].text, kBlockMessage);
    }

    Library library_;
    InstallerSession session_;
};

TEST_F(LaunchGuardTest, OneLetsTheInstallGoOnAndIsLogged) {
    session_.SetProperty(L"LAUNCHED_FROM_PIM", L"1");
    EXPECT_EQ(library_.Call("LaunchedFromPIM", session_.Handle()), 0U);
    EXPECT_EQ(session_.Messages().size(), 1U);
    EXPECT_EQ(session_.LogLines(), std::vector<std::wstring>{L"SABLE_CA Launched from PIM: 1 \n"});
    EXPECT_EQ(library_.Call("BlockLaunch", session_.Handle()), 0U);
}

TEST_F(LaunchGuardTest, AnUnsetPropertyShowsTheBlockMessageAnd1612) {
    EXPECT_EQ(library_.Call("LaunchedFromPIM", session_.Handle()), kSourceAbsent);
    ExpectBlockMessage();
}

TEST_F(LaunchGuardTest, BlockLaunchTurnsAnyRefusalInto1603) {
    EXPECT_EQ(library_.Call("BlockLaunch", session_.Handle()), kInstallFailure);
    ExpectBlockMessage();
}

class OtherLaunchValues : public LaunchGuardTest, public testing::WithParamInterface<const wchar_t*> {};

TEST_P(OtherLaunchValues, AreRefused) {
    session_.SetProperty(L"LAUNCHED_FROM_PIM", GetParam());
    EXPECT_EQ(library_.Call("BlockLaunch", session_.Handle()), kInstallFailure);
    ExpectBlockMessage();
    session_.ClearMessages();
    EXPECT_EQ(library_.Call("LaunchedFromPIM", session_.Handle()), kSourceAbsent);
    ExpectBlockMessage();
}

INSTANTIATE_TEST_SUITE_P(Values, OtherLaunchValues,
                         testing::Values(L"0", L"yes", L"11", L"1 ", L" 1", L"01", L"%s%n",
                                         L"[ProductName]"));

TEST_F(LaunchGuardTest, AValueTooLongForTheBufferCountsAsNotAvailable) {
    session_.SetProperty(L"LAUNCHED_FROM_PIM", std::wstring(260, L'1'));
    EXPECT_EQ(library_.Call("LaunchedFromPIM", session_.Handle()), kSourceAbsent);
    ExpectBlockMessage();
}

TEST_F(LaunchGuardTest, APropertyThatCannotBeReadCountsAsNotAvailable) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, MsiGetPropertyW, [](MSIHANDLE, LPCWSTR name, LPWSTR value, LPDWORD size) -> UINT {
        EXPECT_STREQ(name, L"LAUNCHED_FROM_PIM");
        EXPECT_EQ(*size, 260U);
        lstrcpyW(value, L"1");
        return ERROR_INVALID_HANDLE;
    });
    EXPECT_EQ(library_.Call("BlockLaunch", session_.Handle()), kInstallFailure);
    ExpectBlockMessage();
}

TEST_F(LaunchGuardTest, AnErrorOnTheWayIsARefusal) {
    session_.SetProperty(L"LAUNCHED_FROM_PIM", L"1");
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, MsiGetPropertyW,
               [](MSIHANDLE, LPCWSTR, LPWSTR, LPDWORD) -> UINT { throw std::bad_alloc(); });
    EXPECT_EQ(library_.Call("LaunchedFromPIM", session_.Handle()), kSourceAbsent);
    EXPECT_EQ(library_.Call("BlockLaunch", session_.Handle()), kInstallFailure);
}

class InstallManagerImages : public LaunchGuardTest, public testing::WithParamInterface<const wchar_t*> {};

TEST_P(InstallManagerImages, BlockTheInstallWhileTheyRun) {
    EXPECT_EQ(library_.Call("BlockKITELaunch", session_.Handle()), 0U);
    {
        const RunningProgram manager(GetParam());
        EXPECT_EQ(library_.Call("BlockKITELaunch", session_.Handle()), kInstallFailure);
    }
    EXPECT_EQ(library_.Call("BlockKITELaunch", session_.Handle()), 0U);
    EXPECT_TRUE(session_.Messages().empty());
}

INSTANTIATE_TEST_SUITE_P(Cases, InstallManagerImages,
                         testing::Values(L"TAVOInstallManager.exe", L"tavoinstallmanager.exe",
                                         L"TAVOINSTALLMANAGER.EXE", L"tAVOiNSTALLmANAGER.Exe"));

TEST_F(LaunchGuardTest, AnotherProgramWithALongerNameDoesNotBlock) {
    const RunningProgram other(L"XTAVOInstallManager.exe");
    const RunningProgram longer(L"TAVOInstallManager.exe2.exe");
    EXPECT_EQ(library_.Call("BlockKITELaunch", session_.Handle()), 0U);
}

TEST_F(LaunchGuardTest, TheFirstProcessOfTheListBlocksToo) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, Process32FirstW, [](HANDLE, LPPROCESSENTRY32W entry) -> BOOL {
        EXPECT_EQ(entry->dwSize, sizeof(PROCESSENTRY32W));
        lstrcpyW(entry->szExeFile, L"TAVOInstallManager.exe");
        return TRUE;
    });
    CORVI_HOOK(hooks, Process32NextW, [](HANDLE, LPPROCESSENTRY32W) -> BOOL { return FALSE; });
    EXPECT_EQ(library_.Call("BlockKITELaunch", session_.Handle()), kInstallFailure);
}

TEST_F(LaunchGuardTest, AFailedSnapshotIsClosedAndDoesNotBlock) {
    ImportHooks hooks(library_.Module());
    std::vector<HANDLE> closed;
    CORVI_HOOK(hooks, CreateToolhelp32Snapshot, [](DWORD flags, DWORD process) -> HANDLE {
        EXPECT_EQ(flags, static_cast<DWORD>(TH32CS_SNAPPROCESS));
        EXPECT_EQ(process, 0U);
        return INVALID_HANDLE_VALUE;
    });
    CORVI_HOOK(hooks, CloseHandle, [&](HANDLE handle) {
        closed.push_back(handle);
        return FALSE;
    });
    EXPECT_EQ(library_.Call("BlockKITELaunch", session_.Handle()), 0U);
    EXPECT_EQ(closed, std::vector<HANDLE>{INVALID_HANDLE_VALUE});
}

TEST_F(LaunchGuardTest, TheSnapshotIsClosedOnBothOutcomes) {
    ImportHooks hooks(library_.Module());
    HANDLE taken = nullptr;
    std::vector<HANDLE> closed;
    CORVI_HOOK(hooks, CreateToolhelp32Snapshot, [&](DWORD flags, DWORD process) {
        taken = CreateToolhelp32Snapshot(flags, process);
        return taken;
    });
    CORVI_HOOK(hooks, CloseHandle, [&](HANDLE handle) {
        closed.push_back(handle);
        return CloseHandle(handle);
    });
    EXPECT_EQ(library_.Call("BlockKITELaunch", session_.Handle()), 0U);
    EXPECT_EQ(closed, std::vector<HANDLE>{taken});
    closed.clear();
    const RunningProgram manager(L"TAVOInstallManager.exe");
    EXPECT_EQ(library_.Call("BlockKITELaunch", session_.Handle()), kInstallFailure);
    EXPECT_EQ(closed, std::vector<HANDLE>{taken});
}

bool KeyExists(const wchar_t* path) {
    HKEY key = nullptr;
    const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key);
    RegCloseKey(key);
    return status == ERROR_SUCCESS;
}

void CreateKey(const wchar_t* path) {
    HKEY key = nullptr;
    ASSERT_EQ(
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
        ERROR_SUCCESS);
    RegSetValueExW(key, L"Value", 0, REG_SZ, reinterpret_cast<const BYTE*>(L"x"), 4);
    RegCloseKey(key);
}

TEST_F(LaunchGuardTest, DeleteQelKeyRemovesTheWholeKeyAndNothingBesideIt) {
    CreateKey(L"SOFTWARE\\QEL\\Deep\\Deeper");
    CreateKey(L"SOFTWARE\\QEL Technologies\\Kept");
    CreateKey(L"SOFTWARE\\Wow6432Node\\QEL\\Kept");
    EXPECT_EQ(library_.Call("DeleteQELKey", session_.Handle()), 0U);
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\QEL"));
    EXPECT_TRUE(KeyExists(L"SOFTWARE\\QEL Technologies\\Kept"));
    EXPECT_TRUE(KeyExists(L"SOFTWARE\\Wow6432Node\\QEL\\Kept"));
    EXPECT_TRUE(session_.Messages().empty());
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\QEL Technologies");
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Wow6432Node\\QEL");
}

TEST_F(LaunchGuardTest, DeleteQelKeySucceedsWithoutTheKeyAndWhenItIsRefused) {
    EXPECT_EQ(library_.Call("DeleteQELKey", session_.Handle()), 0U);
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegDeleteTreeW, [](HKEY root, LPCWSTR path) -> LSTATUS {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        EXPECT_STREQ(path, L"SOFTWARE\\QEL");
        return ERROR_ACCESS_DENIED;
    });
    EXPECT_EQ(library_.Call("DeleteQELKey", session_.Handle()), 0U);
}

}  // namespace
}  // namespace corvi::test
