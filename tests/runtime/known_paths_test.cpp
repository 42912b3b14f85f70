#include "runtime/known_paths.h"

#include <windows.h>

#include <shlobj.h>

#include <gtest/gtest.h>

#include <cwchar>

#include "runtime/text.h"
#include "tests/support/import_hooks.h"

namespace corvi::test {
namespace {

ImportHooks HooksOfThisProgram() { return ImportHooks(GetModuleHandleW(nullptr)); }

// Hands back a list that the platform made, with another result.
HRESULT ListOfSystemDirectory(PIDLIST_ABSOLUTE* itemList, HRESULT result) {
    return SUCCEEDED(SHGetSpecialFolderLocation(nullptr, CSIDL_SYSTEM, itemList)) ? result : E_UNEXPECTED;
}

TEST(GetKnownFolderPath, Number37GivesTheSystemDirectory) {
    std::wstring path;
    EXPECT_EQ(GetKnownFolderPath(37, path), 1);
    EXPECT_TRUE(EqualsIgnoringCase(path, L"C:\\Windows\\system32")) << path.size();
}

TEST(GetKnownFolderPath, AnUnknownNumberGivesZeroAndLeavesTheText) {
    std::wstring path = L"as before";
    EXPECT_EQ(GetKnownFolderPath(12345, path), 0);
    EXPECT_EQ(path, L"as before");
}

TEST(GetKnownFolderPath, AsksForTheFolderWithoutWindowTokenAndFlags) {
    auto hooks = HooksOfThisProgram();
    int asked = 0;
    CORVI_HOOK(hooks, SHGetFolderLocation,
               [&](HWND window, int csidl, HANDLE token, DWORD reserved, PIDLIST_ABSOLUTE* list) -> HRESULT {
                   ++asked;
                   EXPECT_EQ(window, nullptr);
                   EXPECT_EQ(csidl, 38);
                   EXPECT_EQ(token, nullptr);
                   EXPECT_EQ(reserved, 0U);
                   return CORVI_ORIGINAL(hooks, SHGetFolderLocation)(window, csidl, token, reserved, list);
               });
    std::wstring path;
    EXPECT_EQ(GetKnownFolderPath(CSIDL_PROGRAM_FILES, path), 1);
    EXPECT_EQ(asked, 1);
}

TEST(GetKnownFolderPath, ASuccessOtherThanSOkCountsAsFailureButItsListIsUsed) {
    auto hooks = HooksOfThisProgram();
    CORVI_HOOK(hooks, SHGetFolderLocation, [](HWND, int, HANDLE, DWORD, PIDLIST_ABSOLUTE* list) -> HRESULT {
        return ListOfSystemDirectory(list, S_FALSE);
    });
    std::wstring path;
    EXPECT_EQ(GetKnownFolderPath(CSIDL_SYSTEM, path), 0);
    EXPECT_TRUE(EqualsIgnoringCase(path, L"C:\\Windows\\system32"));
}

TEST(GetKnownFolderPath, SOkWithoutAListGivesOneAndLeavesTheText) {
    auto hooks = HooksOfThisProgram();
    CORVI_HOOK(hooks, SHGetFolderLocation,
               [](HWND, int, HANDLE, DWORD, PIDLIST_ABSOLUTE*) -> HRESULT { return S_OK; });
    std::wstring path = L"as before";
    EXPECT_EQ(GetKnownFolderPath(CSIDL_SYSTEM, path), 1);
    EXPECT_EQ(path, L"as before");
}

TEST(KnownFolder, GivesThePathOrAnEmptyTextWhenThePlatformCannotNameIt) {
    EXPECT_TRUE(EqualsIgnoringCase(KnownFolder(CSIDL_SYSTEM), L"C:\\Windows\\system32"));
    EXPECT_EQ(KnownFolder(12345), L"");
    auto hooks = HooksOfThisProgram();
    CORVI_HOOK(hooks, SHGetPathFromIDListW, [](PCIDLIST_ABSOLUTE, LPWSTR) -> BOOL { return FALSE; });
    EXPECT_EQ(KnownFolder(CSIDL_SYSTEM), L"");
}

TEST(GetKnownFolderPath, AListThatHasNoPathLeavesTheTextAndIsStillFreed) {
    auto hooks = HooksOfThisProgram();
    int freed = 0;
    CORVI_HOOK(hooks, SHGetPathFromIDListW, [](PCIDLIST_ABSOLUTE, LPWSTR) -> BOOL { return FALSE; });
    CORVI_HOOK(hooks, SHGetMalloc, [&](IMalloc** allocator) -> HRESULT {
        ++freed;
        return CORVI_ORIGINAL(hooks, SHGetMalloc)(allocator);
    });
    std::wstring path = L"as before";
    EXPECT_EQ(GetKnownFolderPath(CSIDL_SYSTEM, path), 1);
    EXPECT_EQ(path, L"as before");
    EXPECT_EQ(freed, 1);
}

class WindowsDirectory : public testing::Test {
protected:
    // What GetWindowsDirectoryW gives; an empty text makes it fail, with something left in the buffer.
    void Set(const std::wstring& directory) {
        CORVI_HOOK(hooks_, GetWindowsDirectoryW, [directory](LPWSTR buffer, UINT size) -> UINT {
            EXPECT_EQ(size, 260U);
            if (directory.empty()) {
                std::wmemcpy(buffer, L"C:\\", 4);
                SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return 0;
            }
            if (directory.size() >= size) {
                return static_cast<UINT>(directory.size() + 1);
            }
            std::wmemcpy(buffer, directory.c_str(), directory.size() + 1);
            return static_cast<UINT>(directory.size());
        });
    }

private:
    ImportHooks hooks_{GetModuleHandleW(nullptr)};
};

TEST_F(WindowsDirectory, IsGivenWithoutATrailingBackslash) {
    EXPECT_TRUE(EqualsIgnoringCase(GetWindowsFolder(), L"C:\\windows"));
}

TEST_F(WindowsDirectory, OfThisMachineGivesTheRootWithItsBackslash) {
    EXPECT_EQ(GetWindowsDriveRoot(), L"C:\\");
}

TEST_F(WindowsDirectory, IsCutAfterItsFirstBackslash) {
    Set(L"D:\\a\\b");
    EXPECT_EQ(GetWindowsDriveRoot(), L"D:\\");
}

TEST_F(WindowsDirectory, WithoutAnyBackslashIsReturnedWhole) {
    Set(L"D:/Windows");
    EXPECT_EQ(GetWindowsDriveRoot(), L"D:/Windows");
}

TEST_F(WindowsDirectory, ThatCannotBeReadGivesAnEmptyText) {
    Set(L"");
    EXPECT_EQ(GetWindowsDriveRoot(), L"");
    EXPECT_EQ(GetWindowsFolder(), L"");
}

TEST_F(WindowsDirectory, ThatDoesNotFitGivesAnEmptyText) {
    Set(L"C:\\" + std::wstring(260, L'x'));
    EXPECT_EQ(GetWindowsDriveRoot(), L"");
    EXPECT_EQ(GetWindowsFolder(), L"");
}

class TemporaryDirectory : public testing::Test {
protected:
    TemporaryDirectory() { GetEnvironmentVariableW(L"TMP", before_, MAX_PATH); }
    ~TemporaryDirectory() override { SetEnvironmentVariableW(L"TMP", before_); }

private:
    wchar_t before_[MAX_PATH] = {};
};

TEST_F(TemporaryDirectory, EndsWithABackslash) {
    SetEnvironmentVariableW(L"TMP", L"C:\\a b");
    EXPECT_EQ(GetTemporaryDirectory(), L"C:\\a b\\");
}

TEST_F(TemporaryDirectory, ThatDoesNotFitInto260CharactersGivesAnEmptyText) {
    SetEnvironmentVariableW(L"TMP", (L"C:\\" + std::wstring(300, L'x')).c_str());
    EXPECT_EQ(GetTemporaryDirectory(), L"");
}

TEST_F(TemporaryDirectory, ThatCannotBeReadGivesAnEmptyText) {
    auto hooks = HooksOfThisProgram();
    CORVI_HOOK(hooks, GetTempPathW, [](DWORD size, LPWSTR buffer) -> DWORD {
        EXPECT_EQ(size, 260U);
        std::wmemcpy(buffer, L"C:\\", 4);
        return 0;
    });
    EXPECT_EQ(GetTemporaryDirectory(), L"");
}

}  // namespace
}  // namespace corvi::test
