#include "runtime/filesystem.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/runtime/file_tree.h"
#include "tests/support/handle_count.h"
#include "tests/support/import_hooks.h"

namespace corvi::test {
namespace {

std::string Described(const char* operation, DWORD code) {
    return std::string(operation) + ": " + std::system_category().message(static_cast<int>(code));
}

// What an operation throws, as "CODE TEXT"; "nothing" when it does not throw.
template <typename Operation>
std::string Thrown(Operation&& operation) {
    try {
        operation();
    } catch (const FileSystemError& error) {
        return std::to_string(error.code().value()) + " " + error.what();
    }
    return "nothing";
}

TEST(FileSystemError, IsASystemErrorWithTheOperationAndTheSystemsDescription) {
    const FileSystemError error(ERROR_SHARING_VIOLATION, "remove_all");
    EXPECT_EQ(error.code().value(), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(error.code().category(), std::system_category());
    EXPECT_EQ(error.what(), Described("remove_all", ERROR_SHARING_VIOLATION));
}

TEST(PathExists, FindsFilesAndFoldersWithEitherSeparatorAndATrailingOne) {
    const FileTree tree;
    tree.File(L"folder\\file.txt");
    EXPECT_TRUE(PathExists(tree.Path(L"folder\\file.txt")));
    EXPECT_TRUE(PathExists(tree.Path(L"folder")));
    EXPECT_TRUE(PathExists(tree.Path(L"folder\\")));
    EXPECT_TRUE(PathExists(L"C:/corvi/tree/folder/"));
    EXPECT_TRUE(PathExists(L"C:\\"));
}

TEST(PathExists, IsFalseForEmptyMissingAndMalformedPaths) {
    for (const wchar_t* path : {L"", L"C:\\corvi\\missing", L"C:\\corvi\\missing\\below", L"Q:\\x",
                                L"C:\\corvi\\a*", L"C:\\corvi\\a?b", L"C:\\corvi\\<>|\"", L"1", L":"}) {
        EXPECT_FALSE(PathExists(path)) << path;
        EXPECT_FALSE(IsDirectory(path)) << path;
    }
    EXPECT_FALSE(PathExists(std::wstring(40000, L'x')));
}

TEST(PathExists, SeesThroughALink) {
    const FileTree tree;
    tree.File(L"target\\file.txt");
    tree.Link(L"link", "target");
    EXPECT_TRUE(PathExists(tree.Path(L"link")));
    EXPECT_TRUE(IsDirectory(tree.Path(L"link")));
}

// Wine does not show a dangling link at all; Windows shows the link, whose target then cannot be opened.
TEST(PathExists, MissesALinkWhoseTargetCannotBeFound) {
    ImportHooks hooks(GetModuleHandleW(nullptr));
    CORVI_HOOK(hooks, GetFileAttributesW,
               [](LPCWSTR) -> DWORD { return FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT; });
    EXPECT_FALSE(PathExists(L"C:\\corvi\\nowhere"));
    EXPECT_FALSE(IsDirectory(L"C:\\corvi\\nowhere"));
}

TEST(IsDirectory, IsTrueForFoldersOnly) {
    const FileTree tree;
    EXPECT_TRUE(IsDirectory(tree.Path()));
    EXPECT_TRUE(IsDirectory(tree.Path() + L"\\"));
    EXPECT_FALSE(IsDirectory(tree.File(L"file.txt")));
}

TEST(PathExists, WorksBeyond260Characters) {
    const FileTree tree;
    const std::wstring folder = std::wstring(120, L'a') + L"\\" + std::wstring(120, L'b');
    tree.File(folder + L"\\file.txt");
    EXPECT_TRUE(PathExists(tree.Path(folder + L"\\file.txt")));
    EXPECT_TRUE(IsDirectory(tree.Path(folder)));
    EXPECT_FALSE(PathExists(tree.Path(folder + L"\\missing.txt")));
}

struct ParentCase {
    const wchar_t* path;
    const wchar_t* parent;
};

class ParentPathOf : public testing::TestWithParam<ParentCase> {};

TEST_P(ParentPathOf, IsThePathWithoutItsLastElementAndTheSeparatorsBeforeIt) {
    EXPECT_EQ(ParentPath(GetParam().path), GetParam().parent);
}

INSTANTIATE_TEST_SUITE_P(
    Paths, ParentPathOf,
    testing::Values(ParentCase{L"C:\\a\\b.exe", L"C:\\a"}, ParentCase{L"C:\\b.exe", L"C:\\"},
                    ParentCase{L"b.exe", L""}, ParentCase{L"", L""}, ParentCase{L"C:\\", L"C:\\"},
                    ParentCase{L"C:", L"C:"}, ParentCase{L"C:b.exe", L"C:"}, ParentCase{L"\\", L"\\"},
                    ParentCase{L"a\\b", L"a"}, ParentCase{L"a/b", L"a"},
                    ParentCase{L"C:/a/b\\c.exe", L"C:/a/b"}, ParentCase{L"C:\\a\\\\b.exe", L"C:\\a"},
                    ParentCase{L"C:\\a\\/\\b.exe", L"C:\\a"}, ParentCase{L"C:\\a\\", L"C:\\a"},
                    ParentCase{L"C:\\\\\\b.exe", L"C:\\\\\\"}, ParentCase{L"\\a", L"\\"},
                    ParentCase{L"1:\\a", L"1:"}, ParentCase{L"A:\\a", L"A:\\"}, ParentCase{L"a:\\a", L"a:\\"},
                    ParentCase{L"Z:\\a", L"Z:\\"}, ParentCase{L"z:\\a", L"z:\\"}, ParentCase{L"@:\\a", L"@:"},
                    ParentCase{L"[:\\a", L"[:"},
                    ParentCase{L"\\SystemRoot\\System32\\x.sys", L"\\SystemRoot\\System32"},
                    ParentCase{L"\\??\\C:\\a\\x.sys", L"\\??\\C:\\a"}, ParentCase{L"\\??\\x", L"\\??\\"},
                    ParentCase{L"\\a?\\x", L"\\a?"}, ParentCase{L"\\?a\\x", L"\\?a"},
                    ParentCase{L"\\??\\\\x", L"\\??"}, ParentCase{L"\\\\?\\x", L"\\\\?\\"},
                    ParentCase{L"\\\\.\\x", L"\\\\.\\"}, ParentCase{L"\\\\?\\C:\\a\\x.sys", L"\\\\?\\C:\\a"},
                    ParentCase{L"\\\\server\\share\\x", L"\\\\server\\share"},
                    ParentCase{L"\\\\server\\share", L"\\\\server\\"},
                    ParentCase{L"\\\\server", L"\\\\server"}, ParentCase{L"\"C:\\a b\\c.exe\"", L"\"C:\\a b"},
                    ParentCase{L"C:\\a\\b.exe /run C:\\x", L"C:\\a\\b.exe /run C:"},
                    ParentCase{L"C:\\a b\\c.exe -x", L"C:\\a b"}));

// Several separators behind the drive are kept as they are here; this compiler's library keeps one.
TEST(ParentPath, AgreesWithTheStandardLibraryOnEveryShortPathOfADrive) {
    const std::wstring alphabet = L"a.\\/";
    for (int number = 0; number < 4 * 4 * 4 * 4 * 4 * 4; ++number) {
        std::wstring path = L"C:";
        for (int rest = number; rest > 0; rest /= 4) {
            path += alphabet[static_cast<size_t>(rest % 4)];
        }
        if (path.find_first_of(L"\\/") != 2 || path.find_first_not_of(L"\\/", 2) == 3) {
            ASSERT_EQ(ParentPath(path), std::filesystem::path(path).parent_path().wstring()) << path;
        }
    }
}

TEST(AreSameObject, ComparesByIdentityAndNotByText) {
    const FileTree tree;
    tree.File(L"one\\file.txt");
    tree.Folder(L"two");
    EXPECT_TRUE(AreSameObject(tree.Path(L"one"), tree.Path(L"one\\")));
    EXPECT_TRUE(AreSameObject(tree.Path(L"one"), L"c:/CORVI/Tree/ONE/"));
    EXPECT_TRUE(AreSameObject(tree.Path(L"one"), tree.Path(L"two\\..\\one")));
    EXPECT_TRUE(AreSameObject(tree.Path(L"one\\file.txt"), tree.Path(L"one\\FILE.TXT")));
    EXPECT_FALSE(AreSameObject(tree.Path(L"one"), tree.Path(L"two")));
    EXPECT_FALSE(AreSameObject(tree.Path(L"one"), tree.Path(L"one\\file.txt")));
}

TEST(AreSameObject, MeansTheSameVolumeAndBothHalvesOfTheFilesNumber) {
    const FileTree tree;
    const BY_HANDLE_FILE_INFORMATION one = [] {
        BY_HANDLE_FILE_INFORMATION information = {};
        information.dwVolumeSerialNumber = 7;
        information.nFileIndexHigh = 8;
        information.nFileIndexLow = 9;
        return information;
    }();
    BY_HANDLE_FILE_INFORMATION other = one;
    const auto areSame = [&] {
        ImportHooks hooks(GetModuleHandleW(nullptr));
        CORVI_HOOK(hooks, GetFileInformationByHandle,
                   [&, asked = 0](HANDLE, BY_HANDLE_FILE_INFORMATION* information) mutable -> BOOL {
                       *information = asked++ == 0 ? one : other;
                       return TRUE;
                   });
        return AreSameObject(tree.Path(), tree.Path());
    };
    EXPECT_TRUE(areSame());
    for (DWORD* part : {&other.dwVolumeSerialNumber, &other.nFileIndexHigh, &other.nFileIndexLow}) {
        other = one;
        ++*part;
        EXPECT_FALSE(areSame());
    }
}

TEST(AreSameObject, ThrowsWhenThePlatformDoesNotTellWhatIsOpen) {
    const FileTree tree;
    ImportHooks hooks(GetModuleHandleW(nullptr));
    CORVI_HOOK(hooks, GetFileInformationByHandle, [](HANDLE, BY_HANDLE_FILE_INFORMATION*) -> BOOL {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
    EXPECT_EQ(Thrown([&] { AreSameObject(tree.Path(), tree.Path()); }),
              "5 " + Described("equivalent", ERROR_ACCESS_DENIED));
}

TEST(AreSameObject, ThrowsWhenEitherSideCannotBeOpened) {
    const FileTree tree;
    const std::wstring missing = tree.Path(L"missing");
    const std::string expected = "2 " + Described("equivalent", ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Thrown([&] { AreSameObject(tree.Path(), missing); }), expected);
    EXPECT_EQ(Thrown([&] { AreSameObject(missing, tree.Path()); }), expected);
    EXPECT_EQ(Thrown([&] { AreSameObject(missing, missing); }), expected);
    EXPECT_NE(Thrown([&] { AreSameObject(L"", tree.Path()); }), "nothing");
    EXPECT_NE(Thrown([&] { AreSameObject(L"\"C:\\corvi", tree.Path()); }), "nothing");
}

TEST(RemoveOne, RemovesAFileAndAnEmptyFolder) {
    const FileTree tree;
    EXPECT_TRUE(RemoveOne(tree.File(L"file.txt")));
    EXPECT_TRUE(RemoveOne(tree.Folder(L"folder") + L"\\"));
    EXPECT_TRUE(tree.All().empty());
}

TEST(RemoveOne, RemovesAReadOnlyFile) {
    const FileTree tree;
    SetFileAttributesW(tree.File(L"file.txt").c_str(), FILE_ATTRIBUTE_READONLY);
    EXPECT_TRUE(RemoveOne(tree.Path(L"file.txt")));
    EXPECT_FALSE(tree.Exists(L"file.txt"));
}

TEST(RemoveOne, IsFalseWhenNothingOfThatNameIsThere) {
    for (const wchar_t* path : {L"", L"C:\\corvi\\missing", L"C:\\corvi\\missing\\below", L"C:\\corvi\\a*"}) {
        EXPECT_FALSE(RemoveOne(path)) << path;
    }
}

TEST(RemoveOne, ThrowsWhenItIsRefused) {
    const FileTree tree;
    tree.File(L"folder\\file.txt");
    EXPECT_EQ(Thrown([&] { RemoveOne(tree.Path(L"folder")); }),
              "145 " + Described("remove", ERROR_DIR_NOT_EMPTY));
    const FileHandle held = Hold(tree.Path(L"folder\\file.txt"), FILE_SHARE_READ);
    EXPECT_EQ(Thrown([&] { RemoveOne(tree.Path(L"folder\\file.txt")); }),
              "32 " + Described("remove", ERROR_SHARING_VIOLATION));
    EXPECT_TRUE(tree.Exists(L"folder\\file.txt"));
}

// Wine cannot remove a link: what is asked of the platform is what counts.
TEST(RemoveOne, RemovesALinkItselfAndNeverItsTarget) {
    const FileTree tree;
    tree.File(L"target\\file.txt");
    const std::wstring link = tree.Link(L"link", "target");
    ImportHooks hooks(GetModuleHandleW(nullptr));
    std::wstring removed;
    CORVI_HOOK(hooks, RemoveDirectoryW, [&](LPCWSTR path) -> BOOL {
        removed = path;
        return TRUE;
    });
    EXPECT_TRUE(RemoveOne(link + L"\\"));
    EXPECT_EQ(removed, link);
    EXPECT_TRUE(tree.Exists(L"target\\file.txt"));
}

TEST(OpenHandleCount, SeesEveryHandleThatIsOpenedAndClosed) {
    const unsigned long before = OpenHandleCount();
    const HANDLE first = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const HANDLE second = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_EQ(OpenHandleCount(), before + 2);
    CloseHandle(first);
    EXPECT_EQ(OpenHandleCount(), before + 1);
    CloseHandle(second);
    EXPECT_EQ(OpenHandleCount(), before);
}

TEST(Primitives, LeakNoHandles) {
    const FileTree tree;
    tree.File(L"one\\file.txt");
    const auto useAll = [&] {
        PathExists(tree.Path(L"one"));
        IsDirectory(tree.Path(L"missing"));
        AreSameObject(tree.Path(L"one"), tree.Path(L"one\\file.txt"));
        Thrown([&] { AreSameObject(tree.Path(L"one"), tree.Path(L"missing")); });
        Thrown([&] { RemoveOne(tree.Path(L"one")); });
        RemoveOne(tree.File(L"two.txt"));
    };
    useAll();
    const unsigned long before = OpenHandleCount();
    for (int round = 0; round < 200; ++round) {
        useAll();
    }
    EXPECT_EQ(OpenHandleCount(), before);
}

}  // namespace
}  // namespace corvi::test
