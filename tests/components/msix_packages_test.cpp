#include "components/msix_packages.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <msiquery.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/components/registry_values.h"
#include "tests/components/started_commands.h"
#include "tests/support/folders.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/tool_recorder.h"

namespace corvi::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

constexpr wchar_t kPowerShellDirectory[] = L"C:\\Windows\\System32\\WindowsPowerShell\\v1.0";
const std::wstring kPowerShell = L"C:\\windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe";
// The command interpreter takes the second half of the removal for a program of its own.
const std::wstring kPipedTool = L"C:\\windows\\System32\\WindowsPowerShell\\v1.0\\Remove-AppxPackage.exe";

const std::wstring kInstallPrefix = L"\"%SYSTEMROOT%\\System32\\WindowsPowerShell\\v1.0\\powershell.exe\" \"";
const std::wstring kImportCommand =
    kInstallPrefix +
    L"Import-Certificate -FilePath 'C:\\Program Files\\ContextMenuDemo\\MyKey.cer' -CertStoreLocation "
    L"Cert:\\LocalMachine\\Root\"";
const std::wstring kAddCommand =
    kInstallPrefix + L"Add-AppxPackage -Path 'C:\\Program Files\\ContextMenuDemo\\PhotoStoreDemoPkg.msix'\"";
const std::wstring kRemoveChatCommand =
    L"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe Get-AppxPackage -AllUsers "
    L"TavoCorporationInc-LSXCMCHAT* | Remove-AppxPackage -AllUsers";

HMODULE ThisProgram() { return GetModuleHandleW(nullptr); }

void ScriptExitCode(const std::wstring& tool, unsigned exitCode) {
    std::ofstream(fs::path(tool + L".exitcode")) << exitCode;
}

class ContextMenuInstall : public testing::Test {
protected:
    ContextMenuInstall() : started_(library_.Module()) { tools_.StandInFor(kPowerShell); }

    // Runs the action with these exit codes of the two steps.
    UINT CallWith(unsigned certificateCode, unsigned packageCode) {
        started_.BeforeEach(
            [=](size_t before) { ScriptExitCode(kPowerShell, before == 0 ? certificateCode : packageCode); });
        return library_.Call("InstallContextMenuMSIX", 0);
    }

    ToolRecorder tools_;
    Library library_;
    StartedCommands started_;
};

TEST_F(ContextMenuInstall, CertificateComesFirstThenThePackage) {
    EXPECT_EQ(CallWith(0, 0), 0U);
    EXPECT_THAT(started_.All(), ElementsAre(StartedCommand{kImportCommand, std::nullopt},
                                            StartedCommand{kAddCommand, std::nullopt}));
}

TEST_F(ContextMenuInstall, PowerShellReceivesEachCommandAsOneQuotedArgument) {
    CallWith(0, 0);
    const auto runs = tools_.Runs();
    ASSERT_EQ(runs.size(), 2U);
    const std::wstring program = L"\"C:\\windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe\" ";
    EXPECT_EQ(runs[0].commandLine, program + kImportCommand.substr(kInstallPrefix.size() - 1));
    EXPECT_EQ(runs[1].commandLine, program + kAddCommand.substr(kInstallPrefix.size() - 1));
}

TEST_F(ContextMenuInstall, FailedCertificateFailsTheInstallAndThePackageIsAddedAllTheSame) {
    EXPECT_EQ(CallWith(1, 0), 1603U);
    EXPECT_THAT(started_.Commands(), ElementsAre(kImportCommand, kAddCommand));
    EXPECT_EQ(tools_.Runs().size(), 2U);
}

TEST_F(ContextMenuInstall, FailedPackageFailsTheInstall) { EXPECT_EQ(CallWith(0, 5), 1603U); }

TEST_F(ContextMenuInstall, BothFailedFailsTheInstall) { EXPECT_EQ(CallWith(2, 3), 1603U); }

TEST_F(ContextMenuInstall, PowerShellThatCannotBeStartedFailsTheInstall) {
    started_.RefuseWith(ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(library_.Call("InstallContextMenuMSIX", 0), 1603U);
    EXPECT_EQ(started_.All().size(), 2U);
}

TEST_F(ContextMenuInstall, ExitCodeThatCannotBeReadFailsTheInstall) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, GetExitCodeProcess, [](HANDLE, LPDWORD) -> BOOL {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
    EXPECT_EQ(library_.Call("InstallContextMenuMSIX", 0), 1603U);
    EXPECT_EQ(started_.All().size(), 2U) << "the package is added all the same";
}

TEST_F(ContextMenuInstall, AnyErrorFailsTheInstall) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, GetWindowsDirectoryW, [](LPWSTR, UINT) -> UINT { throw std::bad_alloc(); });
    EXPECT_EQ(library_.Call("InstallContextMenuMSIX", 0), 1603U);
}

TEST_F(ContextMenuInstall, NothingIsLogged) {
    InstallerSession session;
    EXPECT_EQ(library_.Call("InstallContextMenuMSIX", session.Handle()), 0U);
    EXPECT_TRUE(session.Messages().empty());
}

TEST(ImportCertificate, GivesPowerShellsExitCode) {
    ToolRecorder tools;
    tools.StandInFor(kPowerShell, 77);
    StartedCommands started(ThisProgram());
    EXPECT_EQ(ImportCertificate(L"D:\\my keys\\a.cer"), 77);
    EXPECT_THAT(started.All(),
                ElementsAre(StartedCommand{kInstallPrefix + L"Import-Certificate -FilePath 'D:\\my "
                                                            L"keys\\a.cer' -CertStoreLocation "
                                                            L"Cert:\\LocalMachine\\Root\"",
                                           std::nullopt}));
}

TEST(AddAppxPackage, GivesPowerShellsExitCode) {
    ToolRecorder tools;
    tools.StandInFor(kPowerShell, 78);
    StartedCommands started(ThisProgram());
    EXPECT_EQ(AddAppxPackage(L"D:\\p\\a b.msix"), 78);
    EXPECT_THAT(started.All(),
                ElementsAre(StartedCommand{kInstallPrefix + L"Add-AppxPackage -Path 'D:\\p\\a b.msix'\"",
                                           std::nullopt}));
}

TEST(RemoveAppxPackage, NamesPowerShellByItsPathUnquotedAndRunsInItsDirectory) {
    ToolRecorder tools;
    tools.StandInFor(kPowerShell);
    tools.StandInFor(kPipedTool);
    StartedCommands started(ThisProgram());
    EXPECT_EQ(RemoveAppxPackage(0, L"TavoCorporationInc-LSXCM*"), 0);
    EXPECT_THAT(started.All(),
                ElementsAre(StartedCommand{L"C:\\Windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe "
                                           L"Get-AppxPackage -AllUsers TavoCorporationInc-LSXCM* | "
                                           L"Remove-AppxPackage -AllUsers",
                                           kPowerShellDirectory}));
    std::vector<std::wstring> programs;
    for (const RecordedRun& run : tools.WaitForRuns(2)) {
        programs.push_back(run.program);
        EXPECT_TRUE(fs::equivalent(run.currentDirectory, kPowerShellDirectory));
    }
    EXPECT_THAT(programs, testing::UnorderedElementsAre(L"powershell.exe", L"Remove-AppxPackage.exe"));
}

TEST(RemoveAppxPackage, LogsTheCommandAndTheRun) {
    ToolRecorder tools;
    tools.StandInFor(kPowerShell);
    tools.StandInFor(kPipedTool, 5);
    InstallerSession session;
    EXPECT_EQ(RemoveAppxPackage(session.Handle(), L"TavoCorporationInc-LSXCMCHAT*"), 5);
    EXPECT_THAT(session.LogLines(),
                ElementsAre(L"removeAPPXPackage: cmd: " + kRemoveChatCommand +
                                L" - cwd:C:\\Windows\\System32\\WindowsPowerShell\\v1.0 \n",
                            L"RunCommandline: " + kRemoveChatCommand + L" - \n"));
}

TEST(RemoveAppxPackage, StartThatFailsGivesThePlatformsError) {
    StartedCommands started(ThisProgram());
    started.RefuseWith(ERROR_DIRECTORY);
    EXPECT_EQ(RemoveAppxPackage(0, L"x"), ERROR_DIRECTORY);
}

constexpr wchar_t kChatKey[] = L"SOFTWARE\\TAVO\\HX\\Chat";
constexpr wchar_t kSettingsAppKey[] = L"SOFTWARE\\QEL Technologies\\Install\\HXNext";
const fs::path kFolders = L"C:\\corvi\\chat";

class ChatRemoval : public testing::Test {
protected:
    ChatRemoval() {
        tools_.StandInFor(kPowerShell);
        tools_.StandInFor(kPipedTool);
    }
    void TearDown() override { RemoveFolder(kFolders); }

    static std::wstring MakeFolder(const wchar_t* name) {
        const fs::path folder = kFolders / name;
        fs::create_directories(folder / "inner");
        std::ofstream(folder / "inner" / "file.txt") << "x";
        return folder.wstring();
    }

    UINT Call() { return library_.Call("UninstallTAVOChat", session_.Handle()); }

    // The lines behind those of the package removal.
    std::vector<std::wstring> LinesAfterRemoval() const {
        auto lines = session_.LogLines();
        lines.erase(lines.begin(), lines.begin() + std::min<ptrdiff_t>(3, std::ssize(lines)));
        return lines;
    }

    TemporaryKey chat_{kChatKey};
    TemporaryKey settingsApp_{kSettingsAppKey};
    ToolRecorder tools_;
    Library library_;
    InstallerSession session_;
};

const std::wstring kGotKey = L"UninstallTAVOChat: Got registry \n";
const std::wstring kInstallGone = L"UninstallTAVOChat: install path \n";
const std::wstring kDataGone = L"UninstallTAVOChat: data path \n";
const std::wstring kKeyGone = L"UninstallTAVOChat: deleted registry \n";

TEST_F(ChatRemoval, DeletesBothFoldersAndTheKeyAndLogsEachStep) {
    const std::wstring install = MakeFolder(L"install");
    const std::wstring data = MakeFolder(L"data");
    StoreText(kChatKey, L"InstallPath", install);
    StoreText(kChatKey, L"DataPath", data);
    StoreText(std::wstring(kChatKey) + L"\\Sub", L"Any", L"1");
    EXPECT_EQ(Call(), 0U);
    EXPECT_FALSE(fs::exists(install));
    EXPECT_FALSE(fs::exists(data));
    EXPECT_FALSE(KeyExists(kChatKey));
    EXPECT_THAT(session_.LogLines(),
                ElementsAre(L"removeAPPXPackage: cmd: " + kRemoveChatCommand +
                                L" - cwd:C:\\Windows\\System32\\WindowsPowerShell\\v1.0 \n",
                            L"RunCommandline: " + kRemoveChatCommand + L" - \n",
                            L"UninstallTAVOChat: Exit code for LSX CM CHAT MSIX Package uninstall: 0 \n",
                            kGotKey, kInstallGone, kDataGone, kKeyGone));
}

TEST_F(ChatRemoval, EachStepIsDoneWhenItIsLogged) {
    const std::wstring install = MakeFolder(L"install");
    const std::wstring data = MakeFolder(L"data");
    StoreText(kChatKey, L"InstallPath", install);
    StoreText(kChatKey, L"DataPath", data);
    std::vector<std::string> left;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, MsiProcessMessage, [&](MSIHANDLE, INSTALLMESSAGE, MSIHANDLE) -> int {
        left.push_back(std::string(fs::exists(install) ? "install " : "") +
                       (fs::exists(data) ? "data " : "") + (KeyExists(kChatKey) ? "key" : ""));
        return 0;
    });
    EXPECT_EQ(Call(), 0U);
    ASSERT_EQ(left.size(), 7U);
    left.erase(left.begin(), left.begin() + 3);
    EXPECT_THAT(left, ElementsAre("install data key", "data key", "key", ""));
}

TEST_F(ChatRemoval, WithoutTheKeyThePackageIsRemovedAndTheKeyDeletionIsTriedAllTheSame) {
    std::vector<std::wstring> deleted;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegDeleteTreeW, [&](HKEY root, LPCWSTR key) -> LSTATUS {
        deleted.push_back(root == HKEY_LOCAL_MACHINE ? key : L"below another root");
        return RegDeleteTreeW(root, key);
    });
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(tools_.WaitForRuns(2).size(), 2U);
    EXPECT_THAT(deleted, ElementsAre(kChatKey));
    EXPECT_THAT(LinesAfterRemoval(), ElementsAre(kKeyGone));
}

TEST_F(ChatRemoval, WithoutTheDataPathTheInstallFolderGoesAndTheDataStays) {
    const std::wstring install = MakeFolder(L"install");
    const std::wstring data = MakeFolder(L"data");
    StoreText(kChatKey, L"InstallPath", install);
    EXPECT_EQ(Call(), 0U);
    EXPECT_FALSE(fs::exists(install));
    EXPECT_TRUE(fs::exists(data));
    EXPECT_FALSE(KeyExists(kChatKey));
    EXPECT_THAT(LinesAfterRemoval(), ElementsAre(kGotKey, kInstallGone, kKeyGone));
}

TEST_F(ChatRemoval, WithoutTheInstallPathBothFoldersStay) {
    const std::wstring data = MakeFolder(L"data");
    StoreText(kChatKey, L"DataPath", data);
    EXPECT_EQ(Call(), 0U);
    EXPECT_TRUE(fs::exists(data));
    EXPECT_FALSE(KeyExists(kChatKey));
    EXPECT_THAT(LinesAfterRemoval(), ElementsAre(kGotKey, kKeyGone));
}

TEST_F(ChatRemoval, PathOfAnotherTypeCountsAsMissing) {
    const std::wstring data = MakeFolder(L"data");
    StoreNumber(kChatKey, L"InstallPath", 1);
    StoreText(kChatKey, L"DataPath", data);
    EXPECT_EQ(Call(), 0U);
    EXPECT_TRUE(fs::exists(data));
    EXPECT_THAT(LinesAfterRemoval(), ElementsAre(kGotKey, kKeyGone));
}

TEST_F(ChatRemoval, FoldersThatAreNotThereChangeNothing) {
    StoreText(kChatKey, L"InstallPath", L"C:\\corvi\\no such folder");
    StoreText(kChatKey, L"DataPath", L"");
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(LinesAfterRemoval(), ElementsAre(kGotKey, kInstallGone, kDataGone, kKeyGone));
}

TEST_F(ChatRemoval, FailedPackageRemovalIsLoggedAndDoesNotStopTheAction) {
    ScriptExitCode(kPipedTool, 15);
    StoreText(kChatKey, L"InstallPath", MakeFolder(L"install"));
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(
        session_.LogLines(),
        testing::Contains(L"UninstallTAVOChat: Exit code for LSX CM CHAT MSIX Package uninstall: 15 \n"));
    EXPECT_FALSE(fs::exists(kFolders / "install"));
    EXPECT_FALSE(KeyExists(kChatKey));
}

TEST_F(ChatRemoval, PowerShellThatCannotBeStartedIsLoggedAsItsErrorCode) {
    StartedCommands started(library_.Module());
    started.RefuseWith(ERROR_DIRECTORY);
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(
        session_.LogLines(),
        testing::Contains(L"UninstallTAVOChat: Exit code for LSX CM CHAT MSIX Package uninstall: 267 \n"));
}

TEST_F(ChatRemoval, KeyThatCannotBeDeletedIsNoFailure) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegDeleteTreeW, [](HKEY, LPCWSTR) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(LinesAfterRemoval(), ElementsAre(kKeyGone));
}

TEST_F(ChatRemoval, KeyIsClosedBeforeItIsDeleted) {
    StoreText(kChatKey, L"InstallPath", L"C:\\corvi\\no such folder");
    std::vector<HKEY> open;
    bool openAtDeletion = true;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR key, DWORD options, REGSAM access, PHKEY opened) -> LSTATUS {
                   const LSTATUS status = RegOpenKeyExW(root, key, options, access, opened);
                   if (status == ERROR_SUCCESS) {
                       open.push_back(*opened);
                   }
                   return status;
               });
    CORVI_HOOK(hooks, RegCloseKey, [&](HKEY key) -> LSTATUS {
        std::erase(open, key);
        return RegCloseKey(key);
    });
    CORVI_HOOK(hooks, RegDeleteTreeW, [&](HKEY root, LPCWSTR key) -> LSTATUS {
        openAtDeletion = !open.empty();
        return RegDeleteTreeW(root, key);
    });
    EXPECT_EQ(Call(), 0U);
    EXPECT_FALSE(openAtDeletion);
}

// Wine lets any handle do anything; Windows does not.
TEST_F(ChatRemoval, KeyIsOpenedForReading) {
    chat_.Create();
    std::vector<REGSAM> masks;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR key, DWORD options, REGSAM access, PHKEY opened) -> LSTATUS {
                   if (key == std::wstring(kChatKey)) {
                       EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
                       masks.push_back(access);
                   }
                   return RegOpenKeyExW(root, key, options, access, opened);
               });
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(masks, ElementsAre(REGSAM{KEY_READ}));
}

TEST_F(ChatRemoval, FolderWhosePathCannotBeReadStaysAndSoDoesTheOneBehindIt) {
    const std::wstring install = MakeFolder(L"install");
    const std::wstring data = MakeFolder(L"data");
    StoreText(kChatKey, L"InstallPath", install);
    StoreText(kChatKey, L"DataPath", data);
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegGetValueW,
               [](HKEY key, LPCWSTR subkey, LPCWSTR name, DWORD flags, LPDWORD type, PVOID value,
                  LPDWORD size) -> LSTATUS {
                   return name == std::wstring(L"InstallPath")
                              ? ERROR_ACCESS_DENIED
                              : RegGetValueW(key, subkey, name, flags, type, value, size);
               });
    EXPECT_EQ(Call(), 0U);
    EXPECT_TRUE(fs::exists(install));
    EXPECT_TRUE(fs::exists(data));
    EXPECT_FALSE(KeyExists(kChatKey));
}

TEST_F(ChatRemoval, SettingsApplicationIsAskedToExitFirst) {
    tools_.StandInFor(L"C:\\corvi\\hx\\hxcmd.exe");
    StoreText(kSettingsAppKey, L"Location", L"C:\\corvi\\hx");
    EXPECT_EQ(Call(), 0U);
    const auto runs = tools_.WaitForRuns(3);
    ASSERT_EQ(runs.size(), 3U);
    EXPECT_EQ(runs[0].program, L"hxcmd.exe");
    EXPECT_THAT(runs[0].commandLine, testing::EndsWith(L"exit"));
}

}  // namespace
}  // namespace corvi::test
