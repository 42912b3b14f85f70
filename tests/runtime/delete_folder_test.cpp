#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <msiquery.h>

#include <algorithm>
#include <memory>
#include <system_error>

#include "runtime/filesystem.h"
#include "tests/runtime/file_tree.h"
#include "tests/support/folders.h"
#include "tests/support/handle_count.h"
#include "tests/support/import_hooks.h"

namespace corvi::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::wstring Widened(const std::string& text) { return std::wstring(text.begin(), text.end()); }

bool EndsWith(const std::wstring& text, const std::wstring& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// A tree, and everything that one deletion of it shows outside: log lines on the handle that nothing
/// sets, and what is scheduled for the restart.
class DeleteFolderTest : public testing::Test {
protected:
    DeleteFolderTest() : hooks_(GetModuleHandleW(nullptr)) {
        CORVI_HOOK(hooks_, MsiRecordSetStringW, [this](MSIHANDLE, UINT, LPCWSTR text) -> UINT {
            lastText_ = text;
            return ERROR_SUCCESS;
        });
        CORVI_HOOK(hooks_, MsiProcessMessage, [this](MSIHANDLE session, INSTALLMESSAGE, MSIHANDLE) -> int {
            EXPECT_EQ(session, 0U) << "the installer must drop this line";
            lines_.push_back(lastText_);
            return 0;
        });
    }

    static std::wstring FailureLine(const std::wstring& path, const char* operation, DWORD code) {
        return L"Unable to delete directory " + path + L". Error code: " + Widened(operation) + L": " +
               Widened(std::system_category().message(static_cast<int>(code)));
    }

    /// Makes DeleteFileW refuse what ends in name.
    void RefuseFile(const std::wstring& name, DWORD code) {
        CORVI_HOOK(hooks_, DeleteFileW, [this, name, code](LPCWSTR path) -> BOOL {
            if (EndsWith(path, name)) {
                SetLastError(code);
                return FALSE;
            }
            return CORVI_ORIGINAL(hooks_, DeleteFileW)(path);
        });
    }

    /// Keeps scheduled paths instead of passing them on.
    void RecordScheduled() {
        CORVI_HOOK(hooks_, MoveFileExW, [this](LPCWSTR from, LPCWSTR to, DWORD flags) -> BOOL {
            EXPECT_EQ(to, nullptr);
            EXPECT_EQ(flags, 4U);
            scheduled_.push_back(from);
            return TRUE;
        });
    }

    FileTree tree_;
    ImportHooks hooks_;
    std::wstring lastText_;
    std::vector<std::wstring> lines_;
    std::vector<std::wstring> scheduled_;
};

TEST_F(DeleteFolderTest, APathThatDoesNotExistDoesNothing) {
    for (const wchar_t* path : {L"", L"C:\\corvi\\tree\\missing", L"C:\\corvi\\missing\\below\\", L"Q:\\x",
                                L"C:\\corvi\\tree\\*", L"C:\\corvi\\tree\\<>|"}) {
        DeleteFolder(path);
    }
    EXPECT_THAT(lines_, IsEmpty());
    EXPECT_TRUE(tree_.Exists(L""));
}

TEST_F(DeleteFolderTest, RemovesTheFolderWithEverythingInIt) {
    tree_.File(L"a\\b\\c\\file.txt");
    tree_.File(L"a\\file.txt");
    tree_.Folder(L"a\\empty");
    tree_.File(L"other.txt");
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_THAT(tree_.All(), ElementsAre(tree_.Path(L"other.txt")));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(DeleteFolderTest, TakesTrailingAndMixedSeparators) {
    for (const wchar_t* path :
         {L"C:\\corvi\\tree\\a\\", L"C:\\corvi\\tree\\a\\\\", L"C:/corvi/tree/a/", L"c:\\corvi/TREE\\a"}) {
        tree_.File(L"a\\b\\file.txt");
        DeleteFolder(path);
        EXPECT_FALSE(tree_.Exists(L"a")) << path;
    }
}

TEST_F(DeleteFolderTest, TakesARelativePath) {
    tree_.File(L"a\\b\\file.txt");
    DeleteFolder(L"tree\\a");
    EXPECT_FALSE(tree_.Exists(L"a"));
}

TEST_F(DeleteFolderTest, RemovesAFileInsteadOfAFolder) {
    DeleteFolder(tree_.File(L"file.txt"));
    EXPECT_FALSE(tree_.Exists(L"file.txt"));
    SetFileAttributesW(tree_.File(L"file.txt").c_str(), FILE_ATTRIBUTE_READONLY);
    DeleteFolder(tree_.Path(L"file.txt"));
    EXPECT_FALSE(tree_.Exists(L"file.txt"));
}

TEST_F(DeleteFolderTest, RemovesATreeWhoseFilesAreAllReadOnly) {
    for (const wchar_t* name : {L"a\\one.txt", L"a\\b\\two.txt", L"a\\b\\three.txt"}) {
        SetFileAttributesW(tree_.File(name).c_str(), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN);
    }
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_FALSE(tree_.Exists(L"a"));
    EXPECT_THAT(lines_, IsEmpty());
}

// Wine keeps no read-only bit on folders, so it is shown one.
TEST_F(DeleteFolderTest, ClearsTheReadOnlyBitOfAFolderBeforeItRemovesIt) {
    tree_.Folder(L"a");
    CORVI_HOOK(hooks_, GetFileAttributesW,
               [](LPCWSTR) -> DWORD { return FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY; });
    std::vector<std::pair<std::wstring, DWORD>> set;
    CORVI_HOOK(hooks_, SetFileAttributesW, [&](LPCWSTR path, DWORD attributes) -> BOOL {
        EXPECT_TRUE(tree_.Exists(L"a"));
        set.emplace_back(path, attributes);
        return TRUE;
    });
    DeleteFolder(tree_.Path(L"a"));
    hooks_.RestoreAll();
    EXPECT_THAT(set, ElementsAre(std::pair(tree_.Path(L"a"), DWORD{FILE_ATTRIBUTE_DIRECTORY})));
    EXPECT_FALSE(tree_.Exists(L"a"));
}

TEST_F(DeleteFolderTest, Removes5000FilesIn500Folders) {
    for (int folder = 0; folder < 500; ++folder) {
        for (int file = 0; file < 10; ++file) {
            tree_.File(L"a\\" + std::to_wstring(folder) + L"\\" + std::to_wstring(file));
        }
    }
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_FALSE(tree_.Exists(L"a"));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(DeleteFolderTest, RemovesPathsBeyond260Characters) {
    std::wstring name = L"a";
    for (int level = 0; level < 6; ++level) {
        name += L"\\" + std::wstring(100, static_cast<wchar_t>(L'a' + level));
        tree_.File(name + L"\\file.txt");
    }
    ASSERT_GT(tree_.Path(name).size(), 600U);
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_FALSE(tree_.Exists(L"a"));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(DeleteFolderTest, TakesAPathBeyond260CharactersItself) {
    const std::wstring name = std::wstring(200, L'a') + L"\\" + std::wstring(200, L'b') + L"\\c";
    tree_.File(name + L"\\file.txt");
    DeleteFolder(tree_.Path(name) + L"\\");
    EXPECT_FALSE(tree_.Exists(name));
    EXPECT_TRUE(tree_.Exists(std::wstring(200, L'a') + L"\\" + std::wstring(200, L'b')));
}

TEST_F(DeleteFolderTest, RemovesATreeOf200Levels) {
    std::wstring name = L"a";
    for (int level = 0; level < 200; ++level) {
        name += L"\\x";
    }
    tree_.File(name + L"\\file.txt");
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_FALSE(tree_.Exists(L"a"));
}

// The platform drops such endings and opens devices unless the path says otherwise.
TEST_F(DeleteFolderTest, RemovesNamesWithTrailingDotsOrBlanksAndNamesOfDevices) {
    for (const wchar_t* name : {L"a\\dot.", L"a\\dots...", L"a\\blank ", L"a\\folder. \\file.txt",
                                L"a\\folder. \\aux.txt", L"a\\nul", L"a\\COM1", L"a\\con .x"}) {
        tree_.File(name);
    }
    // What a misread "dot." would hit.
    tree_.File(L"a\\z\\dot");
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_FALSE(tree_.Exists(L"a"));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(DeleteFolderTest, RemovesNamesOfAllAlphabets) {
    for (const wchar_t* name : {L"a\\\u00e4\u00f6\u00fc.txt", L"a\\\u65e5\u672c\\\u8a9e.txt",
                                L"a\\\u05e9\u05dc\u05d5\u05dd", L"a\\\U0001F600.txt"}) {
        tree_.File(name);
    }
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_FALSE(tree_.Exists(L"a"));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(DeleteFolderTest, AFileHeldOpenWithoutDeleteSharingEndsTheRemovalAndRunsTheHandler) {
    KeptRestartList kept;
    tree_.File(L"a\\1\\file.txt");
    tree_.File(L"a\\2\\held.txt");
    tree_.File(L"a\\3\\file.txt");
    const FileHandle held = Hold(tree_.Path(L"a\\2\\held.txt"), FILE_SHARE_READ | FILE_SHARE_WRITE);
    DeleteFolder(tree_.Path(L"a"));
    // Folders come in the order of their names on this platform.
    EXPECT_FALSE(tree_.Exists(L"a\\1"));
    EXPECT_TRUE(tree_.Exists(L"a\\2\\held.txt"));
    EXPECT_TRUE(tree_.Exists(L"a\\3\\file.txt"));
    EXPECT_THAT(lines_, ElementsAre(FailureLine(tree_.Path(L"a"), "remove_all", ERROR_SHARING_VIOLATION)));
    EXPECT_THAT(ScheduledDeletes(), IsEmpty());
}

TEST_F(DeleteFolderTest, TheFailureLineTakesThePathAsItIs) {
    const std::wstring path = tree_.Folder(L"100%s %d %n");
    tree_.File(L"100%s %d %n\\held.txt");
    const FileHandle held = Hold(path + L"\\held.txt", FILE_SHARE_READ);
    DeleteFolder(path);
    EXPECT_THAT(lines_, ElementsAre(FailureLine(path, "remove_all", ERROR_SHARING_VIOLATION)));
}

TEST_F(DeleteFolderTest, AnErrorOfTheExistenceTestRunsTheHandlerAndDeletesNothing) {
    tree_.File(L"a\\file.txt");
    CORVI_HOOK(hooks_, GetFileAttributesW, [](LPCWSTR) -> DWORD {
        SetLastError(ERROR_GEN_FAILURE);
        return INVALID_FILE_ATTRIBUTES;
    });
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_THAT(lines_, ElementsAre(FailureLine(tree_.Path(L"a"), "exists", ERROR_GEN_FAILURE)));
    hooks_.RestoreAll();
    EXPECT_TRUE(tree_.Exists(L"a\\file.txt"));
}

TEST_F(DeleteFolderTest, AFilePendingDeletionDoesNotHangAndTheRestGoes) {
    KeptRestartList kept;
    tree_.File(L"a\\1\\pending.txt");
    tree_.File(L"a\\2\\file.txt");
    FileHandle held =
        Hold(tree_.Path(L"a\\1\\pending.txt"), FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_FALSE(tree_.Exists(L"a\\2"));
    EXPECT_THAT(lines_, IsEmpty());
    held.Reset();
    EXPECT_FALSE(tree_.Exists(L"a\\1\\pending.txt"));
    EXPECT_THAT(ScheduledDeletes(),
                ElementsAre(L"\\??\\" + tree_.Path(L"a\\1"), L"\\??\\" + tree_.Path(L"a")));
}

// A loaded module is what the restart is for. Contents come before their folders.
TEST_F(DeleteFolderTest, ALoadedModuleIsLeftToTheRestartAndTheRestGoes) {
    KeptRestartList kept;
    KeptRestartList::Replace({L"\\??\\C:\\somebody\\else.txt"});
    tree_.File(L"a\\1.txt");
    tree_.Folder(L"a\\bin");
    tree_.File(L"a\\z\\file.txt");
    const std::wstring module = tree_.Path(L"a\\bin\\module.dll");
    ASSERT_TRUE(CopyFileW(L"C:\\corvi\\Corvi_CA.dll", module.c_str(), TRUE));
    const HMODULE loaded = LoadLibraryW(module.c_str());
    ASSERT_NE(loaded, nullptr);
    DeleteFolder(tree_.Path(L"a"));
    FreeLibrary(loaded);
    EXPECT_THAT(tree_.All(), ElementsAre(tree_.Path(L"a"), tree_.Path(L"a\\bin"), module));
    EXPECT_THAT(ScheduledDeletes(),
                ElementsAre(L"\\??\\C:\\somebody\\else.txt", L"\\??\\" + module,
                            L"\\??\\" + tree_.Path(L"a\\bin"), L"\\??\\" + tree_.Path(L"a")));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(DeleteFolderTest, ARunningProgramIsLeftToTheRestart) {
    KeptRestartList kept;
    tree_.Folder(L"a");
    const std::wstring program = tree_.Path(L"a\\program.exe");
    ASSERT_TRUE(CopyFileW(L"C:\\corvi\\child.exe", program.c_str(), TRUE));
    const KernelHandle goOn(CreateEventW(nullptr, TRUE, FALSE, L"delete_folder_test"));
    std::wstring commandLine = L"program.exe wait delete_folder_test";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child = {};
    ASSERT_TRUE(CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr,
                               nullptr, &startup, &child));
    const KernelHandle process(child.hProcess);
    const KernelHandle thread(child.hThread);
    DeleteFolder(tree_.Path(L"a"));
    SetEvent(goOn.Get());
    WaitForSingleObject(process.Get(), 10000);
    EXPECT_THAT(ScheduledDeletes(), ElementsAre(L"\\??\\" + program, L"\\??\\" + tree_.Path(L"a")));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(DeleteFolderTest, SchedulesContentsBeforeTheirFolderAndThePathAsItWasGiven) {
    tree_.File(L"a\\b\\one.txt");
    tree_.File(L"a\\b\\two.txt");
    tree_.File(L"a\\c\\three.txt");
    RefuseFile(L".txt", ERROR_ACCESS_DENIED);
    RecordScheduled();
    DeleteFolder(tree_.Path(L"a") + L"\\");
    EXPECT_THAT(scheduled_,
                ElementsAre(tree_.Path(L"a\\b\\one.txt"), tree_.Path(L"a\\b\\two.txt"), tree_.Path(L"a\\b"),
                            tree_.Path(L"a\\c\\three.txt"), tree_.Path(L"a\\c"), tree_.Path(L"a\\")));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(DeleteFolderTest, SchedulesLongPathsToo) {
    KeptRestartList kept;
    const std::wstring name = L"a\\" + std::wstring(150, L'b') + L"\\" + std::wstring(150, L'c');
    tree_.File(name + L"\\file.txt");
    RefuseFile(L"file.txt", ERROR_ACCESS_DENIED);
    DeleteFolder(tree_.Path(L"a"));
    const auto scheduled = ScheduledDeletes();
    ASSERT_EQ(scheduled.size(), 4U);
    EXPECT_EQ(scheduled[0], L"\\??\\" + tree_.Path(name + L"\\file.txt"));
    EXPECT_EQ(scheduled[3], L"\\??\\" + tree_.Path(L"a"));
}

TEST_F(DeleteFolderTest, TheFallbackClearsTheReadOnlyBitOfEveryEntryBeforeItRemovesIt) {
    tree_.File(L"a\\b\\file.txt");
    CORVI_HOOK(hooks_, DeleteFileW, [](LPCWSTR) -> BOOL {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
    CORVI_HOOK(hooks_, GetFileAttributesW, [&](LPCWSTR path) -> DWORD {
        return CORVI_ORIGINAL(hooks_, GetFileAttributesW)(path) | FILE_ATTRIBUTE_READONLY;
    });
    std::vector<std::pair<std::wstring, bool>> set;
    CORVI_HOOK(hooks_, SetFileAttributesW, [&](LPCWSTR path, DWORD attributes) -> BOOL {
        set.emplace_back(path, (attributes & FILE_ATTRIBUTE_READONLY) != 0);
        return TRUE;
    });
    RecordScheduled();
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_THAT(set, testing::IsSupersetOf({std::pair(tree_.Path(L"a\\b\\file.txt"), false),
                                            std::pair(tree_.Path(L"a\\b"), false),
                                            std::pair(tree_.Path(L"a"), false)}));
    EXPECT_FALSE(std::any_of(set.begin(), set.end(), [](const auto& call) { return call.second; }));
}

TEST_F(DeleteFolderTest, ARefusalWithoutAnErrorCodeIsARefusalAllTheSame) {
    tree_.File(L"a\\file.txt");
    RefuseFile(L"file.txt", ERROR_SUCCESS);
    RecordScheduled();
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_THAT(scheduled_, ElementsAre(tree_.Path(L"a\\file.txt"), tree_.Path(L"a")));
}

TEST_F(DeleteFolderTest, WhatTheFallbackCannotMakeWritableIsScheduledWithoutAnAttempt) {
    tree_.File(L"a\\file.txt");
    int attempts = 0;
    CORVI_HOOK(hooks_, DeleteFileW, [&](LPCWSTR) -> BOOL {
        ++attempts;
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
    CORVI_HOOK(hooks_, SetFileAttributesW, [](LPCWSTR, DWORD) -> BOOL { return FALSE; });
    RecordScheduled();
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_EQ(attempts, 1);
    EXPECT_THAT(scheduled_, ElementsAre(tree_.Path(L"a\\file.txt"), tree_.Path(L"a")));
}

TEST_F(DeleteFolderTest, WhatIsFreeAgainInTheFallbackIsRemovedAndNotScheduled) {
    tree_.File(L"a\\b\\file.txt");
    bool refused = false;
    CORVI_HOOK(hooks_, DeleteFileW, [&](LPCWSTR path) -> BOOL {
        if (!std::exchange(refused, true)) {
            SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
        return CORVI_ORIGINAL(hooks_, DeleteFileW)(path);
    });
    RecordScheduled();
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_FALSE(tree_.Exists(L"a"));
    EXPECT_THAT(scheduled_, IsEmpty());
}

TEST_F(DeleteFolderTest, AnErrorInTheFallbackGoesToTheHandler) {
    tree_.File(L"a\\file.txt");
    int attempts = 0;
    CORVI_HOOK(hooks_, DeleteFileW, [&](LPCWSTR) -> BOOL {
        SetLastError(++attempts == 1 ? ERROR_ACCESS_DENIED : ERROR_SHARING_VIOLATION);
        return FALSE;
    });
    RecordScheduled();
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_THAT(lines_, ElementsAre(FailureLine(tree_.Path(L"a"), "remove", ERROR_SHARING_VIOLATION)));
    EXPECT_THAT(scheduled_, IsEmpty());
}

TEST_F(DeleteFolderTest, AFileInUseInsteadOfAFolderCannotBeIterated) {
    const std::wstring path = tree_.File(L"file.txt");
    RefuseFile(L"file.txt", ERROR_ACCESS_DENIED);
    RecordScheduled();
    DeleteFolder(path);
    EXPECT_THAT(lines_,
                ElementsAre(FailureLine(path, "recursive_directory_iterator::recursive_directory_iterator",
                                        ERROR_DIRECTORY)));
    EXPECT_THAT(scheduled_, IsEmpty());
}

TEST_F(DeleteFolderTest, AFolderThatMayNotBeListedIsLeftToTheRestartAndTheRestGoes) {
    tree_.File(L"a\\1\\file.txt");
    tree_.File(L"a\\2\\file.txt");
    CORVI_HOOK(hooks_, CreateFileW,
               [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition,
                   DWORD flags, HANDLE templateFile) -> HANDLE {
                   if (EndsWith(path, L"a\\1")) {
                       SetLastError(ERROR_ACCESS_DENIED);
                       return INVALID_HANDLE_VALUE;
                   }
                   return CORVI_ORIGINAL(hooks_, CreateFileW)(path, access, share, security, disposition,
                                                              flags, templateFile);
               });
    RecordScheduled();
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_FALSE(tree_.Exists(L"a\\2"));
    EXPECT_THAT(scheduled_, ElementsAre(tree_.Path(L"a\\1"), tree_.Path(L"a")));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(DeleteFolderTest, AFolderThatVanishesDuringTheWalkCountsAsGone) {
    tree_.File(L"a\\1\\file.txt");
    tree_.Folder(L"a\\2");
    tree_.File(L"a\\3\\file.txt");
    CORVI_HOOK(hooks_, DeleteFileW, [&](LPCWSTR path) -> BOOL {
        RemoveDirectoryW(tree_.Path(L"a\\2").c_str());
        return CORVI_ORIGINAL(hooks_, DeleteFileW)(path);
    });
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_FALSE(tree_.Exists(L"a"));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(DeleteFolderTest, AListingThatFailsRunsTheHandler) {
    tree_.File(L"a\\file.txt");
    CORVI_HOOK(hooks_, GetFileInformationByHandleEx,
               [](HANDLE, FILE_INFO_BY_HANDLE_CLASS, LPVOID, DWORD) -> BOOL {
                   SetLastError(ERROR_CRC);
                   return FALSE;
               });
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_THAT(lines_, ElementsAre(FailureLine(tree_.Path(L"a"), "remove_all", ERROR_CRC)));
    EXPECT_TRUE(tree_.Exists(L"a\\file.txt"));
}

// Wine shows links to folders, but cannot remove them: the removal of the link itself is done for it.
class DeleteFolderWithLinks : public DeleteFolderTest {
protected:
    DeleteFolderWithLinks() {
        CORVI_HOOK(hooks_, RemoveDirectoryW, [this](LPCWSTR path) -> BOOL {
            if ((GetFileAttributesW(path) & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
                RemoveLink(path);
                removedLinks_.push_back(path);
                return TRUE;
            }
            return CORVI_ORIGINAL(hooks_, RemoveDirectoryW)(path);
        });
        tree_.File(L"target\\below\\file.txt");
    }

    void ExpectTargetWhole() {
        EXPECT_TRUE(tree_.Exists(L"target\\below\\file.txt"));
        EXPECT_THAT(lines_, IsEmpty());
    }

    std::vector<std::wstring> removedLinks_;
};

TEST_F(DeleteFolderWithLinks, ALinkInsideTheTreeGoesAndItsTargetStaysWhole) {
    tree_.File(L"a\\b\\file.txt");
    const std::wstring link = tree_.Link(L"a\\b\\link", "../../target");
    ASSERT_NE(GetFileAttributesW(link.c_str()) & FILE_ATTRIBUTE_REPARSE_POINT, 0U);
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_FALSE(tree_.Exists(L"a"));
    EXPECT_THAT(removedLinks_, ElementsAre(link));
    ExpectTargetWhole();
}

TEST_F(DeleteFolderWithLinks, ALinkAsTheFolderItselfGoesAndItsTargetStaysWhole) {
    const std::wstring link = tree_.Link(L"link", "target");
    DeleteFolder(link);
    EXPECT_FALSE(tree_.Exists(L"link"));
    ExpectTargetWhole();
}

TEST_F(DeleteFolderWithLinks, ALinkWithATrailingBackslashIsStillTheLink) {
    const std::wstring link = tree_.Link(L"link", "target");
    DeleteFolder(link + L"\\");
    EXPECT_THAT(removedLinks_, ElementsAre(link));
    ExpectTargetWhole();
}

TEST_F(DeleteFolderWithLinks, ALinkToAFolderAboveItIsNotEntered) {
    tree_.File(L"a\\b\\file.txt");
    tree_.Link(L"a\\b\\up", "../..");
    DeleteFolder(tree_.Path(L"a\\b"));
    EXPECT_THAT(tree_.All(),
                ElementsAre(tree_.Path(L"a"), tree_.Path(L"target"), tree_.Path(L"target\\below"),
                            tree_.Path(L"target\\below\\file.txt")));
    ExpectTargetWhole();
}

// Wine hides such a link; Windows shows it, and it is shown here.
TEST_F(DeleteFolderTest, ALinkThatLeadsNowhereIsNotThereAndStays) {
    const std::wstring link = tree_.Path(L"link");
    CORVI_HOOK(hooks_, GetFileAttributesW,
               [](LPCWSTR) -> DWORD { return FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT; });
    std::vector<std::wstring> removed;
    CORVI_HOOK(hooks_, RemoveDirectoryW, [&](LPCWSTR path) -> BOOL {
        removed.emplace_back(path);
        return TRUE;
    });
    DeleteFolder(link);
    hooks_.RestoreAll();
    EXPECT_THAT(removed, IsEmpty());
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(DeleteFolderTest, AFileWithATrailingSeparatorIsNotThereAndStays) {
    const std::wstring file = tree_.File(L"file.txt");
    DeleteFolder(file + L"\\");
    DeleteFolder(file + L"/");
    EXPECT_TRUE(tree_.Exists(L"file.txt"));
    EXPECT_THAT(lines_, IsEmpty());
}

// As Windows refuses the current directory of a program.
TEST_F(DeleteFolderTest, AFolderWhoseRemovalIsASharingViolationIsLeftToTheRestartAndTheRestGoes) {
    tree_.File(L"a\\b\\file.txt");
    tree_.File(L"a\\c\\file.txt");
    CORVI_HOOK(hooks_, RemoveDirectoryW, [&](LPCWSTR path) -> BOOL {
        if (path == tree_.Path(L"a\\b")) {
            SetLastError(ERROR_SHARING_VIOLATION);
            return FALSE;
        }
        return CORVI_ORIGINAL(hooks_, RemoveDirectoryW)(path);
    });
    RecordScheduled();
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_THAT(tree_.All(), ElementsAre(tree_.Path(L"a"), tree_.Path(L"a\\b")));
    EXPECT_THAT(scheduled_, ElementsAre(tree_.Path(L"a\\b"), tree_.Path(L"a")));
    EXPECT_THAT(lines_, IsEmpty());
}

constexpr DWORD kDeduplicated = 0x80000013;
constexpr DWORD kJunction = 0xA0000003;

TEST_F(DeleteFolderTest, AReparsePointThatStandsForNoOtherNameIsAFolderLikeOthers) {
    tree_.File(L"a\\b\\file.txt");
    ShowAsReparsePoint(hooks_, L"b", kDeduplicated);
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_FALSE(tree_.Exists(L"a"));
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(DeleteFolderTest, AReparsePointThatStandsForAnotherNameOrIsUnknownIsNotEntered) {
    tree_.File(L"a\\b\\file.txt");
    std::vector<std::wstring> deleted;
    CORVI_HOOK(hooks_, DeleteFileW, [&](LPCWSTR path) -> BOOL {
        deleted.emplace_back(path);
        return TRUE;
    });
    RecordScheduled();
    for (const DWORD tag : {kJunction, DWORD{0}}) {
        ShowAsReparsePoint(hooks_, L"b", tag);
        DeleteFolder(tree_.Path(L"a"));
    }
    EXPECT_THAT(deleted, IsEmpty());
    EXPECT_TRUE(tree_.Exists(L"a\\b\\file.txt"));
}

// What the folder is is asked through a handle of its own.
TEST_F(DeleteFolderTest, TheFolderItselfIsALinkByItsTagAlone) {
    DWORD tag = kJunction;
    CORVI_HOOK(hooks_, GetFileAttributesW, [&](LPCWSTR path) -> DWORD {
        return CORVI_ORIGINAL(hooks_, GetFileAttributesW)(path) |
               (path == tree_.Path(L"a") ? FILE_ATTRIBUTE_REPARSE_POINT : 0);
    });
    CORVI_HOOK(hooks_, GetFileInformationByHandleEx,
               [&](HANDLE handle, FILE_INFO_BY_HANDLE_CLASS kind, LPVOID buffer, DWORD size) -> BOOL {
                   if (kind != FileAttributeTagInfo) {
                       return CORVI_ORIGINAL(hooks_, GetFileInformationByHandleEx)(handle, kind, buffer,
                                                                                   size);
                   }
                   *static_cast<FILE_ATTRIBUTE_TAG_INFO*>(buffer) = {0, tag};
                   return TRUE;
               });
    RecordScheduled();
    tree_.File(L"a\\b\\file.txt");
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_TRUE(tree_.Exists(L"a\\b\\file.txt")) << "a link's target is not ours";
    tag = kDeduplicated;
    DeleteFolder(tree_.Path(L"a"));
    hooks_.RestoreAll();
    EXPECT_FALSE(tree_.Exists(L"a"));
}

TEST_F(DeleteFolderTest, AFolderThatIsGoneBeforeItsLastRemovalRemovesNothingAndIsScheduled) {
    tree_.File(L"a\\file.txt");
    bool refused = false;
    CORVI_HOOK(hooks_, DeleteFileW, [&](LPCWSTR path) -> BOOL {
        SetLastError(ERROR_ACCESS_DENIED);
        return std::exchange(refused, true) && CORVI_ORIGINAL(hooks_, DeleteFileW)(path);
    });
    CORVI_HOOK(hooks_, SetFileAttributesW, [&](LPCWSTR path, DWORD) -> BOOL {
        if (path == tree_.Path(L"a")) {
            RemoveDirectoryW(path);
        }
        return TRUE;
    });
    RecordScheduled();
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_FALSE(tree_.Exists(L"a"));
    EXPECT_THAT(scheduled_, ElementsAre(tree_.Path(L"a")));
}

class DeleteFolderMissing : public DeleteFolderTest, public testing::WithParamInterface<DWORD> {};

TEST_P(DeleteFolderMissing, APathThatThePlatformDoesNotFindIsNoError) {
    CORVI_HOOK(hooks_, GetFileAttributesW, [](LPCWSTR) -> DWORD {
        SetLastError(GetParam());
        return INVALID_FILE_ATTRIBUTES;
    });
    DeleteFolder(L"\\\\server\\share\\folder");
    EXPECT_THAT(lines_, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Codes, DeleteFolderMissing,
                         testing::Values(ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_INVALID_DRIVE,
                                         ERROR_BAD_NETPATH, ERROR_BAD_NET_NAME, ERROR_INVALID_NAME,
                                         ERROR_BAD_PATHNAME, ERROR_DIRECTORY));

TEST_F(DeleteFolderTest, ADriveRootKeepsItsSeparatorAndOtherFoldersLoseTheirs) {
    std::vector<std::wstring> asked;
    CORVI_HOOK(hooks_, GetFileAttributesW, [&](LPCWSTR path) -> DWORD {
        asked.emplace_back(path);
        SetLastError(ERROR_FILE_NOT_FOUND);
        return asked.size() % 2 == 1 ? FILE_ATTRIBUTE_DIRECTORY : INVALID_FILE_ATTRIBUTES;
    });
    DeleteFolder(L"C:\\");
    DeleteFolder(L"\\\\server\\share\\");
    DeleteFolder(L"\\");
    EXPECT_THAT(asked,
                ElementsAre(L"C:\\", L"C:\\", L"\\\\server\\share\\", L"\\\\server\\share", L"\\", L"\\"));
}

TEST_F(DeleteFolderWithLinks, ALinkThatCannotBeRemovedIsScheduledAndNotEntered) {
    tree_.File(L"a\\file.txt");
    const std::wstring link = tree_.Link(L"a\\link", "../target");
    CORVI_HOOK(hooks_, RemoveDirectoryW, [&](LPCWSTR path) -> BOOL {
        SetLastError(ERROR_ACCESS_DENIED);
        return path != link && CORVI_ORIGINAL(hooks_, RemoveDirectoryW)(path);
    });
    RecordScheduled();
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_FALSE(tree_.Exists(L"a\\file.txt"));
    EXPECT_THAT(scheduled_, ElementsAre(link, tree_.Path(L"a")));
    ExpectTargetWhole();
}

// As on this platform without help: it refuses to remove a link whose target holds something.
TEST_F(DeleteFolderTest, ALinkAsTheFolderItselfThatCannotBeRemovedIsScheduledAndNotEntered) {
    tree_.File(L"target\\file.txt");
    const std::wstring link = tree_.Link(L"link", "target");
    RecordScheduled();
    DeleteFolder(link);
    EXPECT_TRUE(tree_.Exists(L"target\\file.txt"));
    EXPECT_THAT(scheduled_, ElementsAre(link));
    EXPECT_THAT(lines_, IsEmpty());
}

// Between the listing and the opening somebody puts a link in the place of a folder.
TEST_F(DeleteFolderWithLinks, AFolderThatHasBecomeALinkWhenItIsOpenedIsNotEntered) {
    tree_.File(L"a\\b\\file.txt");
    bool first = true;
    CORVI_HOOK(hooks_, GetFileInformationByHandle,
               [&](HANDLE handle, LPBY_HANDLE_FILE_INFORMATION information) -> BOOL {
                   const BOOL result =
                       CORVI_ORIGINAL(hooks_, GetFileInformationByHandle)(handle, information);
                   if (!std::exchange(first, false)) {
                       information->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
                   }
                   return result;
               });
    std::vector<std::wstring> deleted;
    CORVI_HOOK(hooks_, DeleteFileW, [&](LPCWSTR path) -> BOOL {
        deleted.emplace_back(path);
        return TRUE;
    });
    RecordScheduled();
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_THAT(deleted, IsEmpty());
    EXPECT_TRUE(tree_.Exists(L"a\\b\\file.txt"));
}

TEST_F(DeleteFolderTest, FoldersAreOpenedOnThemselvesAndHeldWhileTheirEntriesGo) {
    tree_.File(L"a\\b\\file.txt");
    std::vector<DWORD> flags;
    CORVI_HOOK(hooks_, CreateFileW,
               [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition,
                   DWORD fileFlags, HANDLE templateFile) -> HANDLE {
                   flags.push_back(fileFlags);
                   return CORVI_ORIGINAL(hooks_, CreateFileW)(path, access, share, security, disposition,
                                                              fileFlags, templateFile);
               });
    bool renamed = true;
    CORVI_HOOK(hooks_, DeleteFileW, [&](LPCWSTR path) -> BOOL {
        renamed = MoveFileW(tree_.Path(L"a\\b").c_str(), tree_.Path(L"a\\c").c_str()) != FALSE ||
                  MoveFileW(tree_.Path(L"a").c_str(), tree_.Path(L"c").c_str()) != FALSE;
        return CORVI_ORIGINAL(hooks_, DeleteFileW)(path);
    });
    DeleteFolder(tree_.Path(L"a"));
    EXPECT_FALSE(renamed);
    EXPECT_FALSE(tree_.Exists(L"a"));
    EXPECT_EQ(flags.size(), 2U);
    EXPECT_THAT(flags, testing::Each(DWORD{FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT}));
}

TEST_F(DeleteFolderTest, LeaksNoHandles) {
    RecordScheduled();
    const auto deleteThrice = [&] {
        tree_.File(L"a\\b\\held.txt");
        RefuseFile(L"held.txt", ERROR_SHARING_VIOLATION);
        DeleteFolder(tree_.Path(L"a"));
        RefuseFile(L"held.txt", ERROR_ACCESS_DENIED);
        DeleteFolder(tree_.Path(L"a"));
        RefuseFile(L"|", ERROR_SUCCESS);
        DeleteFolder(tree_.Path(L"a"));
    };
    deleteThrice();
    const unsigned long before = OpenHandleCount();
    for (int call = 0; call < 200; call += 3) {
        deleteThrice();
    }
    EXPECT_EQ(OpenHandleCount(), before);
}

/// Lets the call with the given number, of all calls of the platform that a deletion makes, fail.
class FaultyPlatform {
public:
    FaultyPlatform(ImportHooks& hooks, int failing, bool onwards, DWORD code)
        : failing_(failing), onwards_(onwards), code_(code) {
        CORVI_HOOK(hooks, GetFileAttributesW, [&hooks, this](LPCWSTR path) -> DWORD {
            return Fails() ? INVALID_FILE_ATTRIBUTES : CORVI_ORIGINAL(hooks, GetFileAttributesW)(path);
        });
        CORVI_HOOK(hooks, SetFileAttributesW, [&hooks, this](LPCWSTR path, DWORD attributes) -> BOOL {
            return !Fails() && CORVI_ORIGINAL(hooks, SetFileAttributesW)(path, attributes);
        });
        CORVI_HOOK(hooks, CreateFileW,
                   [&hooks, this](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                  DWORD disposition, DWORD flags, HANDLE templateFile) -> HANDLE {
                       return Fails() ? INVALID_HANDLE_VALUE
                                      : CORVI_ORIGINAL(hooks, CreateFileW)(path, access, share, security,
                                                                           disposition, flags, templateFile);
                   });
        CORVI_HOOK(hooks, GetFileInformationByHandle,
                   [&hooks, this](HANDLE handle, LPBY_HANDLE_FILE_INFORMATION information) -> BOOL {
                       return !Fails() &&
                              CORVI_ORIGINAL(hooks, GetFileInformationByHandle)(handle, information);
                   });
        CORVI_HOOK(
            hooks, GetFileInformationByHandleEx,
            [&hooks, this](HANDLE handle, FILE_INFO_BY_HANDLE_CLASS kind, LPVOID buffer, DWORD size) -> BOOL {
                return !Fails() &&
                       CORVI_ORIGINAL(hooks, GetFileInformationByHandleEx)(handle, kind, buffer, size);
            });
        CORVI_HOOK(hooks, DeleteFileW, [&hooks, this](LPCWSTR path) -> BOOL {
            return !Fails() && CORVI_ORIGINAL(hooks, DeleteFileW)(path);
        });
        CORVI_HOOK(hooks, RemoveDirectoryW, [&hooks, this](LPCWSTR path) -> BOOL {
            return !Fails() && CORVI_ORIGINAL(hooks, RemoveDirectoryW)(path);
        });
        CORVI_HOOK(hooks, MoveFileExW, [this](LPCWSTR, LPCWSTR, DWORD) -> BOOL { return !Fails(); });
    }

    bool WasReached() const { return calls_ >= failing_; }

private:
    bool Fails() {
        ++calls_;
        if (calls_ == failing_ || (onwards_ && calls_ > failing_)) {
            SetLastError(code_);
            return true;
        }
        return false;
    }

    int failing_;
    bool onwards_;
    DWORD code_;
    int calls_ = 0;
};

class DeleteFolderFaults : public DeleteFolderTest,
                           public testing::WithParamInterface<std::tuple<DWORD, bool>> {};

TEST_P(DeleteFolderFaults, AnyCallThatFailsLeavesATreeThatTheNextDeletionRemovesAndNoHandle) {
    const auto [code, onwards] = GetParam();
    tree_.File(L"outside.txt");
    for (int failing = 1;; ++failing) {
        ASSERT_LT(failing, 200);
        tree_.File(L"a\\b\\one.txt");
        SetFileAttributesW(tree_.File(L"a\\two.txt").c_str(), FILE_ATTRIBUTE_READONLY);
        tree_.Folder(L"a\\c");
        const unsigned long handles = OpenHandleCount();
        ImportHooks faults(GetModuleHandleW(nullptr));
        const FaultyPlatform platform(faults, failing, onwards, code);
        DeleteFolder(tree_.Path(L"a"));
        faults.RestoreAll();
        EXPECT_EQ(OpenHandleCount(), handles) << failing;
        DeleteFolder(tree_.Path(L"a"));
        ASSERT_THAT(tree_.All(), ElementsAre(tree_.Path(L"outside.txt"))) << failing;
        if (!platform.WasReached()) {
            break;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Codes, DeleteFolderFaults,
    testing::Combine(testing::Values(DWORD{ERROR_ACCESS_DENIED}, DWORD{ERROR_SHARING_VIOLATION},
                                     DWORD{ERROR_FILE_NOT_FOUND}, DWORD{ERROR_NOT_ENOUGH_MEMORY}),
                     testing::Bool()));

}  // namespace
}  // namespace corvi::test
