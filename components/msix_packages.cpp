#include "components/msix_packages.h"

#include "runtime/action_policy.h"
#include "runtime/filesystem.h"
#include "runtime/installer_log.h"
#include "runtime/known_paths.h"
#include "runtime/process.h"
#include "runtime/registry.h"
#include "runtime/session.h"
#include "services/app_shutdown.h"

namespace corvi {
namespace {

// The commands that install and the one that removes name PowerShell in two ways, and both ways stay:
// the first leaves %SYSTEMROOT% to the command interpreter and quotes, the second does neither.
constexpr wchar_t kInstallPrefix[] =
    L"\"%SYSTEMROOT%\\System32\\WindowsPowerShell\\v1.0\\powershell.exe\" \"";
constexpr wchar_t kInstallSuffix[] = L"\"";
// Relative to the Windows drive's root.
constexpr wchar_t kPowerShellDirectory[] = L"Windows\\System32\\WindowsPowerShell\\v1.0";

constexpr wchar_t kContextMenuFolder[] = L"Program Files\\ContextMenuDemo\\";
constexpr wchar_t kContextMenuCertificate[] = L"MyKey.cer";
constexpr wchar_t kContextMenuPackage[] = L"PhotoStoreDemoPkg.msix";

constexpr wchar_t kChatKey[] = L"SOFTWARE\\TAVO\\HX\\Chat";
constexpr wchar_t kChatInstallPathValue[] = L"InstallPath";
constexpr wchar_t kChatDataPathValue[] = L"DataPath";

int RunInstallCommand(const std::wstring& powerShellCommand) {
    return RunCommandline(kInstallPrefix + powerShellCommand + kInstallSuffix, nullptr, 0);
}

UINT InstallContextMenu() {
    const std::wstring folder = GetWindowsDriveRoot() + kContextMenuFolder;
    const int certificateResult = ImportCertificate(folder + kContextMenuCertificate);
    const int packageResult = AddAppxPackage(folder + kContextMenuPackage);
    return certificateResult == 0 && packageResult == 0 ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

// Throws RegKeyError at the first thing that cannot be read; what stands behind it stays.
void DeleteChatFolders(MSIHANDLE session) {
    const RegKey chat = RegKey::Open(HKEY_LOCAL_MACHINE, kChatKey, KEY_READ);
    WriteInstallerLog(session, L"UninstallTAVOChat: Got registry \n");
    DeleteFolder(chat.GetString(L"", kChatInstallPathValue, Unreadable::Throws));
    WriteInstallerLog(session, L"UninstallTAVOChat: install path \n");
    DeleteFolder(chat.GetString(L"", kChatDataPathValue, Unreadable::Throws));
    WriteInstallerLog(session, L"UninstallTAVOChat: data path \n");
}

void DeleteRecordedChatFolders(MSIHANDLE session) {
    try {
        DeleteChatFolders(session);
    } catch (const RegKeyError&) {
        // Silent: a chat companion that never ran has recorded nothing.
    }
}

UINT RemoveChat(MSIHANDLE session) {
    ExitHXApplication();
    const int removed = RemoveAppxPackage(session, kChatPackages);
    WriteInstallerLog(session, L"UninstallTAVOChat: Exit code for LSX CM CHAT MSIX Package uninstall: %d \n",
                      removed);
    DeleteRecordedChatFolders(session);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kChatKey);
    WriteInstallerLog(session, L"UninstallTAVOChat: deleted registry \n");
    return ERROR_SUCCESS;
}

}  // namespace

int ImportCertificate(const std::wstring& certificatePath) {
    return RunInstallCommand(L"Import-Certificate -FilePath '" + certificatePath +
                             L"' -CertStoreLocation Cert:\\LocalMachine\\Root");
}

int AddAppxPackage(const std::wstring& packagePath) {
    return RunInstallCommand(L"Add-AppxPackage -Path '" + packagePath + L"'");
}

int RemoveAppxPackage(MSIHANDLE session, const std::wstring& familyPattern) {
    const std::wstring directory = GetWindowsDriveRoot() + kPowerShellDirectory;
    // Kept: the pipe is not quoted, so that the command interpreter takes it for one of its own and the
    // second half never reaches PowerShell.
    const std::wstring command = directory + L"\\powershell.exe Get-AppxPackage -AllUsers " + familyPattern +
                                 L" | Remove-AppxPackage -AllUsers";
    WriteInstallerLog(session, L"removeAPPXPackage: cmd: %s - cwd:%s \n", command.c_str(), directory.c_str());
    return RunCommandline(command, directory.c_str(), session);
}

}  // namespace corvi

extern "C" {

UINT __stdcall InstallContextMenuMSIX(MSIHANDLE /*session*/) {
    return corvi::MustStop([] { return corvi::InstallContextMenu(); });
}

UINT __stdcall UninstallTAVOChat(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::RemoveChat(session); });
}

}  // extern "C"
