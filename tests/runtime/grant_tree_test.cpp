#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "runtime/filesystem.h"
#include "tests/runtime/file_tree.h"
#include "tests/support/handle_count.h"
#include "tests/support/import_hooks.h"

namespace corvi::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A tree, and the command lines that would change its permissions. None of them is run.
class GrantTreeToUsersTest : public testing::Test {
protected:
    GrantTreeToUsersTest() : hooks_(GetModuleHandleW(nullptr)) {}

    void Grant(const std::wstring& path) {
        CORVI_HOOK(hooks_, CreateProcessW,
                   [this](LPCWSTR, LPWSTR commandLine, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL,
                          DWORD, LPVOID, LPCWSTR directory, LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL {
                       commands_.emplace_back(commandLine);
                       directories_.emplace_back(directory != nullptr ? directory : L"(none)");
                       SetLastError(ERROR_FILE_NOT_FOUND);
                       return FALSE;
                   });
        GrantTreeToUsers(path, L"Some User", L"C:\\windows\\");
        hooks_.RestoreAll();
    }

    // The paths whose permissions are changed, in order.
    std::vector<std::wstring> Granted() const {
        std::vector<std::wstring> paths;
        for (const std::wstring& command : commands_) {
            const size_t begin = command.find(L"icacls \"") + 8;
            const size_t end = command.find(L"\" /grant");
            if (end != std::wstring::npos) {
                paths.push_back(command.substr(begin, end - begin));
            }
        }
        return paths;
    }

    FileTree tree_;
    ImportHooks hooks_;
    std::vector<std::wstring> commands_;
    std::vector<std::wstring> directories_;
};

TEST_F(GrantTreeToUsersTest, OwnsAndGrantsTheFolderItselfInTheWorkingDirectory) {
    tree_.Folder(L"a");
    Grant(tree_.Path(L"a"));
    EXPECT_THAT(commands_, ElementsAre(L"cmd.exe /C \"icacls \"C:\\corvi\\tree\\a\" /setowner Some User\"",
                                       L"cmd.exe /C \"icacls \"C:\\corvi\\tree\\a\" /grant Users:F\""));
    EXPECT_THAT(directories_, ElementsAre(L"C:\\windows\\", L"C:\\windows\\"));
}

TEST_F(GrantTreeToUsersTest, GoesThroughFilesAndFoldersAlikeParentsBeforeChildren) {
    tree_.File(L"a\\1\\11\\file.txt");
    tree_.File(L"a\\1\\file.txt");
    tree_.File(L"a\\2.txt");
    tree_.Folder(L"a\\3");
    Grant(tree_.Path(L"a"));
    EXPECT_EQ(Granted(), tree_.All());
    EXPECT_EQ(commands_.size(), 2 * tree_.All().size());
}

TEST_F(GrantTreeToUsersTest, TheFolderItselfIsGrantedWithoutItsTrailingSeparators) {
    tree_.File(L"a\\file.txt");
    for (const wchar_t* given : {L"a\\", L"a\\\\", L"a/"}) {
        commands_.clear();
        Grant(tree_.Path(given));
        ASSERT_EQ(commands_.size(), 4U) << given;
        EXPECT_EQ(commands_[0], L"cmd.exe /C \"icacls \"C:\\corvi\\tree\\a\" /setowner Some User\"");
        EXPECT_EQ(commands_[1], L"cmd.exe /C \"icacls \"C:\\corvi\\tree\\a\" /grant Users:F\"");
        EXPECT_EQ(Granted().back(), tree_.Path(given) + L"file.txt");
    }
}

TEST_F(GrantTreeToUsersTest, ADriveRootKeepsItsSeparator) {
    CORVI_HOOK(hooks_, GetFileInformationByHandleEx,
               [](HANDLE, FILE_INFO_BY_HANDLE_CLASS, LPVOID, DWORD) -> BOOL {
                   SetLastError(ERROR_NO_MORE_FILES);
                   return FALSE;
               });
    Grant(L"C:\\");
    EXPECT_THAT(Granted(), ElementsAre(L"C:\\"));
}

TEST_F(GrantTreeToUsersTest, GrantsAndEntersAReparsePointThatStandsForNoOtherName) {
    tree_.File(L"a\\b\\file.txt");
    ShowAsReparsePoint(hooks_, L"b", 0x80000013);
    Grant(tree_.Path(L"a"));
    EXPECT_EQ(Granted().size(), 3U);
    commands_.clear();
    for (const DWORD tag : {0xA0000003, 0xA000000C}) {
        ShowAsReparsePoint(hooks_, L"b", tag);
        Grant(tree_.Path(L"a"));
    }
    EXPECT_THAT(Granted(), ElementsAre(tree_.Path(L"a"), tree_.Path(L"a")));
}

TEST_F(GrantTreeToUsersTest, DoesNothingWhenThePathIsMissingOrNoFolder) {
    Grant(tree_.Path(L"missing"));
    Grant(tree_.File(L"file.txt"));
    Grant(L"");
    EXPECT_THAT(commands_, IsEmpty());
}

TEST_F(GrantTreeToUsersTest, NeitherEntersALinkNorPassesItOn) {
    tree_.File(L"target\\file.txt");
    tree_.File(L"a\\file.txt");
    tree_.Link(L"a\\link", "../target");
    tree_.Link(L"a\\up", "..");
    Grant(tree_.Path(L"a"));
    EXPECT_THAT(Granted(), ElementsAre(tree_.Path(L"a"), tree_.Path(L"a\\file.txt")));
}

TEST_F(GrantTreeToUsersTest, DoesNothingWhenTheFolderItselfIsALink) {
    tree_.File(L"target\\file.txt");
    const std::wstring link = tree_.Link(L"link", "target");
    Grant(link);
    Grant(link + L"\\");
    EXPECT_THAT(commands_, IsEmpty());
}

TEST_F(GrantTreeToUsersTest, TheFirstErrorOfTheWalkEndsIt) {
    tree_.File(L"a\\1\\file.txt");
    tree_.File(L"a\\2\\file.txt");
    tree_.File(L"a\\3\\file.txt");
    ImportHooks faults(GetModuleHandleW(nullptr));
    CORVI_HOOK(faults, CreateFileW,
               [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition,
                   DWORD flags, HANDLE templateFile) -> HANDLE {
                   if (path == tree_.Path(L"a\\2")) {
                       SetLastError(ERROR_ACCESS_DENIED);
                       return INVALID_HANDLE_VALUE;
                   }
                   return CORVI_ORIGINAL(faults, CreateFileW)(path, access, share, security, disposition,
                                                              flags, templateFile);
               });
    Grant(tree_.Path(L"a"));
    EXPECT_THAT(Granted(), ElementsAre(tree_.Path(L"a"), tree_.Path(L"a\\1"), tree_.Path(L"a\\1\\file.txt"),
                                       tree_.Path(L"a\\2")));
}

TEST_F(GrantTreeToUsersTest, LeaksNoHandles) {
    tree_.File(L"a\\1\\file.txt");
    const auto grant = [&] {
        Grant(tree_.Path(L"a"));
        Grant(tree_.Path(L"missing"));
    };
    grant();
    const unsigned long before = OpenHandleCount();
    for (int round = 0; round < 200; ++round) {
        grant();
    }
    EXPECT_EQ(OpenHandleCount(), before);
}

}  // namespace
}  // namespace corvi::test
