#include "tests/support/folders.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/import_hooks.h"

namespace corvi::test {
namespace {

namespace fs = std::filesystem;

constexpr wchar_t kFolder[] = L"C:\\corvi\\folder";
constexpr wchar_t kFile[] = L"C:\\corvi\\folder\\below\\file.txt";

class RemoveFolderTest : public testing::Test {
protected:
    RemoveFolderTest() {
        fs::create_directories(fs::path(kFile).parent_path());
        std::ofstream(fs::path(kFile)) << "x";
    }
    void TearDown() override { RemoveFolderAtEnd(kFolder); }
};

TEST_F(RemoveFolderTest, EverythingInItGoesReadOnlyOrNot) {
    SetFileAttributesW(kFile, FILE_ATTRIBUTE_READONLY);
    RemoveFolder(std::wstring(kFolder) + L"\\");
    EXPECT_FALSE(fs::exists(kFolder));
    RemoveFolder(kFolder);
}

TEST_F(RemoveFolderTest, ALinkGoesAndWhatItLeadsToStays) {
    const std::wstring link = L"C:\\corvi\\folder\\removed\\link";
    fs::create_directories(L"C:\\corvi\\folder\\removed");
    MakeLink(link, L"..\\below");
    EXPECT_TRUE(fs::exists(link + L"\\file.txt"));
    RemoveFolder(L"C:\\corvi\\folder\\removed");
    EXPECT_FALSE(fs::exists(L"C:\\corvi\\folder\\removed"));
    EXPECT_TRUE(fs::exists(kFile));

    MakeLink(L"C:\\corvi\\folder\\link", L"below");
    RemoveFolder(L"C:\\corvi\\folder\\link");
    EXPECT_FALSE(fs::exists(L"C:\\corvi\\folder\\link"));
    EXPECT_TRUE(fs::exists(kFile));
}

TEST_F(RemoveFolderTest, WhatIsStillHeldGoesWhenItIsLetGo) {
    HANDLE held = CreateFileW(kFile, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);
    int refusals = 0;
    ImportHooks hooks(GetModuleHandleW(nullptr));
    CORVI_HOOK(hooks, DeleteFileW, [&](LPCWSTR path) -> BOOL {
        const BOOL deleted = CORVI_ORIGINAL(hooks, DeleteFileW)(path);
        const DWORD error = GetLastError();
        if (deleted == FALSE && ++refusals == 2) {
            CloseHandle(held);
        }
        SetLastError(error);
        return deleted;
    });
    RemoveFolder(kFolder);
    EXPECT_EQ(refusals, 2);
    EXPECT_FALSE(fs::exists(kFolder));
}

TEST_F(RemoveFolderTest, AFolderThatStaysIsAnError) {
    const HANDLE held = CreateFileW(kFile, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_THROW(RemoveFolder(kFolder), fs::filesystem_error);
    CloseHandle(held);
}

}  // namespace
}  // namespace corvi::test
