#include "runtime/tree_walk.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "runtime/filesystem.h"
#include "tests/runtime/file_tree.h"
#include "tests/support/import_hooks.h"

namespace corvi::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

// The paths that a walk visits, each folder once.
std::vector<std::wstring> Visited(const std::wstring& root) {
    std::vector<std::wstring> paths;
    TreeWalk walk(root, "walk", TreeWalk::Unlistable::EndsWalk);
    while (walk.Next()) {
        if (!walk.IsLeaving()) {
            paths.push_back(walk.Path());
        }
    }
    return paths;
}

// The code of the error that work throws; 0 when it throws none.
template <typename Work>
int ErrorOf(Work&& work) {
    try {
        work();
    } catch (const FileSystemError& error) {
        return error.code().value();
    }
    return 0;
}

class TreeWalkTest : public testing::Test {
protected:
    FileTree tree_;
    ImportHooks hooks_{GetModuleHandleW(nullptr)};
};

TEST_F(TreeWalkTest, TheRootOfAnEmptyDriveHasNothingToList) {
    CORVI_HOOK(hooks_, GetFileInformationByHandleEx,
               [](HANDLE, FILE_INFO_BY_HANDLE_CLASS, LPVOID, DWORD) -> BOOL {
                   SetLastError(ERROR_FILE_NOT_FOUND);
                   return FALSE;
               });
    EXPECT_THAT(Visited(tree_.Path()), IsEmpty());
}

TEST_F(TreeWalkTest, AListingThatFailsOtherwiseEndsTheWalk) {
    CORVI_HOOK(hooks_, GetFileInformationByHandleEx,
               [](HANDLE, FILE_INFO_BY_HANDLE_CLASS, LPVOID, DWORD) -> BOOL {
                   SetLastError(ERROR_ACCESS_DENIED);
                   return FALSE;
               });
    EXPECT_EQ(ErrorOf([&] { Visited(tree_.Path()); }), ERROR_ACCESS_DENIED);
}

TEST_F(TreeWalkTest, ARootThatEndsInADotOrABlankIsTheFolderThatThePlatformReads) {
    const std::wstring file = tree_.File(L"a\\file.txt");
    for (const wchar_t* root : {L"a.", L"a ", L"a. ."}) {
        EXPECT_THAT(Visited(tree_.Path(root)), ElementsAre(file)) << root;
    }
}

// Behind a trailing separator the platform would open what a link leads to.
TEST_F(TreeWalkTest, TheRootIsOpenedAsItselfWhateverSeparatorsStandBehindIt) {
    const std::wstring folder = tree_.Folder(L"a");
    std::vector<std::wstring> opened;
    DWORD flags = 0;
    CORVI_HOOK(hooks_, CreateFileW,
               [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition,
                   DWORD flag, HANDLE model) -> HANDLE {
                   opened.emplace_back(path);
                   flags = flag;
                   return CORVI_ORIGINAL(hooks_, CreateFileW)(path, access, share, security, disposition,
                                                              flag, model);
               });
    for (const wchar_t* end : {L"", L"\\", L"/", L"\\\\"}) {
        opened.clear();
        Visited(folder + end);
        EXPECT_THAT(opened, ElementsAre(folder)) << end;
        EXPECT_NE(flags & FILE_FLAG_OPEN_REPARSE_POINT, 0U);
    }
    opened.clear();
    TreeWalk(L"C:\\", "walk", TreeWalk::Unlistable::EndsWalk);
    EXPECT_THAT(opened, ElementsAre(L"C:\\"));
}

TEST_F(TreeWalkTest, AFolderThatSomebodyHasOpenForWritingIsWalked) {
    const std::wstring file = tree_.File(L"a\\file.txt");
    const FileHandle writer(CreateFileW(tree_.Path(L"a").c_str(), GENERIC_WRITE,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                        OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    ASSERT_TRUE(writer);
    EXPECT_THAT(Visited(tree_.Path(L"a")), ElementsAre(file));
}

TEST_F(TreeWalkTest, ABareDriveIsItsCurrentFolderAndNotItsRoot) {
    wchar_t before[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, before);
    tree_.File(L"file.txt");
    SetCurrentDirectoryW(tree_.Path().c_str());
    EXPECT_THAT(Visited(L"C:"), ElementsAre(L"C:file.txt"));
    SetCurrentDirectoryW(before);
}

TEST_F(TreeWalkTest, TheRootOfADriveKeepsItsOneSeparator) {
    const std::vector<std::wstring> paths = [] {
        std::vector<std::wstring> found;
        TreeWalk walk(L"C:\\", "walk", TreeWalk::Unlistable::EndsWalk);
        while (walk.Next() && found.size() < 2000) {
            found.push_back(walk.Path());
        }
        return found;
    }();
    EXPECT_THAT(paths, Contains(L"C:\\corvi"));
}

TEST_F(TreeWalkTest, ALongPathGetsThePrefixOfItsKind) {
    const std::wstring name(250, L'x');
    EXPECT_EQ(PlatformPath(L"C:\\a\\" + name), L"\\\\?\\C:\\a\\" + name);
    EXPECT_EQ(PlatformPath(L"\\\\server\\share\\" + name), L"\\\\?\\UNC\\server\\share\\" + name);
    EXPECT_EQ(PlatformPath(L"\\\\?\\C:\\" + name), L"\\\\?\\C:\\" + name);
    EXPECT_EQ(PlatformPath(L"C:\\short"), L"C:\\short");
}

TEST_F(TreeWalkTest, AnAbsolutePathThatDoesNotFitAtFirstIsAskedForAgainWithRoom) {
    const std::wstring relative(250, L'x');
    const std::wstring absolute = L"C:\\" + std::wstring(700, L'y');
    std::vector<DWORD> sizes;
    CORVI_HOOK(hooks_, GetFullPathNameW, [&](LPCWSTR, DWORD size, LPWSTR buffer, LPWSTR*) -> DWORD {
        sizes.push_back(size);
        const auto length = static_cast<DWORD>(absolute.size());
        if (size <= length) {
            return length + 1;
        }
        std::wmemcpy(buffer, absolute.c_str(), length + 1);
        return length;
    });
    EXPECT_EQ(PlatformPath(relative), L"\\\\?\\" + absolute);
    EXPECT_THAT(sizes, ElementsAre(510U, 704U));
}

// Behind the prefix the platform takes a path literally: a relative one would name something else.
TEST_F(TreeWalkTest, APathThatCannotBeMadeAbsoluteGetsNoPrefixAndIsNotWalked) {
    tree_.File(L"a\\file.txt");
    CORVI_HOOK(hooks_, GetFullPathNameW, [](LPCWSTR, DWORD, LPWSTR, LPWSTR*) -> DWORD {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    });
    const std::wstring relative(300, L'x');
    EXPECT_EQ(PlatformPath(relative), relative);
    EXPECT_EQ(ErrorOf([&] { Visited(tree_.Path(L"a")); }), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(ErrorOf([&] { Visited(tree_.Path(L"a.")); }), ERROR_NOT_ENOUGH_MEMORY);
}

TEST_F(TreeWalkTest, TheTagOfAReparsePointDecidesWhatIsALink) {
    constexpr DWORD kFolder = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
    EXPECT_TRUE(IsLink({kFolder, IO_REPARSE_TAG_MOUNT_POINT}));
    EXPECT_TRUE(IsLink({kFolder, IO_REPARSE_TAG_SYMLINK}));
    EXPECT_TRUE(IsLink({kFolder, 0})) << "unknown";
    EXPECT_FALSE(IsLink({kFolder, IO_REPARSE_TAG_DEDUP}));
    EXPECT_FALSE(IsLink({FILE_ATTRIBUTE_DIRECTORY, IO_REPARSE_TAG_SYMLINK})) << "no reparse point";
    EXPECT_TRUE(IsRealFolder({kFolder, IO_REPARSE_TAG_DEDUP}));
    EXPECT_FALSE(IsRealFolder({kFolder, IO_REPARSE_TAG_MOUNT_POINT}));
    EXPECT_FALSE(IsRealFolder({FILE_ATTRIBUTE_NORMAL, 0}));
}

}  // namespace
}  // namespace corvi::test
