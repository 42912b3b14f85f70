#include <windows.h>

#include <msi.h>

#include <string>

#include "runtime/action_data.h"
#include "runtime/action_policy.h"
#include "runtime/filesystem.h"
#include "runtime/installer_log.h"
#include "runtime/process.h"
#include "runtime/registry.h"
#include "runtime/session.h"
#include "runtime/system_info.h"
#include "runtime/text.h"
#include "services/settings_application.h"

namespace corvi {
namespace {

// Where the command-line client is installed for a process under emulation, and what the older install
// proxy left, both below HKEY_LOCAL_MACHINE.
constexpr wchar_t kEmulatedClientKey[] = L"SOFTWARE\\Wow6432Node\\QEL\\ACE\\Packages\\Core-Static";
constexpr wchar_t kProxyInstallKey[] = L"SOFTWARE\\Wow6432Node\\QEL\\ACE\\Settings\\MOM\\Install";

constexpr wchar_t kClientProgram[] = L"CLI.exe";
/// Begins with a separator of its own. Kept: the path gets two in a row.
constexpr wchar_t kProxyFolder[] = L"\\MOM-InstallProxy-Net4";
constexpr wchar_t kProxyProgram[] = L"MOM.InstallProxy.exe";

constexpr wchar_t kActionDataProperty[] = L"CustomActionData";
/// Room for the install directory and for the command line, in characters with terminator.
constexpr size_t kDirectoryCapacity = 520;
constexpr size_t kCommandLineCapacity = 520;

/// Kept: DelInstallProxyKey turns the usual meaning around.
constexpr UINT kKeyDeleted = 1;
constexpr UINT kKeyNotDeleted = 0;

constexpr DWORD kMajorVersionOfWindows10 = 10;

/// Asks for the Windows version and then for the system information. Nothing uses the answers; the
/// questions are part of how the action is known to behave.
void AskForSystemInformation() {
    using GetVersion = LONG(WINAPI*)(OSVERSIONINFOW*);
    const HMODULE ntdll = GetModuleHandleW(L"ntdll");
    const auto getVersion =
        reinterpret_cast<GetVersion>(reinterpret_cast<void*>(GetProcAddress(ntdll, "RtlGetVersion")));
    if (getVersion == nullptr) {
        return;
    }
    OSVERSIONINFOW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    getVersion(&version);
    SYSTEM_INFO system = {};
    if (version.dwMajorVersion == kMajorVersionOfWindows10) {
        GetNativeSystemInfo(&system);
    } else {
        GetSystemInfo(&system);
    }
}

/// Where the command-line client is installed. Throws RegKeyError when key or value is missing.
std::wstring ReadClientLocation() {
    const wchar_t* key = IsRunningUnderWow64() != 0 ? kEmulatedClientKey : kCommandLineClientKey;
    return RegKey::Open(HKEY_LOCAL_MACHINE, key, KEY_READ).GetString(L"", kLocationValue, Unreadable::Throws);
}

/// The whole action data, taken as a directory. When the read fails, that is logged and what it left in
/// the buffer counts: the beginning of a text that does not fit, or nothing.
std::wstring ReadInstallDirectory(MSIHANDLE session) {
    const ShortProperty directory = ReadShortProperty(session, kActionDataProperty, kDirectoryCapacity);
    if (!directory.isRead) {
        WriteInstallerLog(session, L"SABLE_CA Could not get INSTALLDIR  \n");
    }
    return directory.text;
}

/// Without an install directory the path begins with two separators and so names a network share, on a
/// machine called like the proxy's folder, which the platform is then asked for.
std::wstring ProxyCommandLine(const std::wstring& installDirectory, const std::wstring& client) {
    const std::wstring proxyDirectory = WithTrailingSeparator(installDirectory) + kProxyFolder;
    const std::wstring proxy = WithTrailingSeparator(proxyDirectory) + kProxyProgram;
    return Bounded(L"\"" + proxy + L"\" Install " + client, kCommandLineCapacity);
}

/// Hands the application over to the command-line client. 1 when the proxy was started and has ended, 0
/// when it could not be started or there is no client.
UINT RunInstallProxy(MSIHANDLE session) {
    AskForSystemInformation();
    const std::wstring location = ReadClientLocation();
    if (!IsDirectory(location)) {
        return 0;
    }
    const std::wstring client = WithTrailingSeparator(location) + kClientProgram;
    // Kept: the line speaks of a deletion, though nothing is deleted.
    WriteInstallerLog(session, L"SABLE_CA DeleteFolder: %s \n", client.c_str());
    std::wstring commandLine = ProxyCommandLine(ReadInstallDirectory(session), client);
    return RunProcessAndWait(commandLine.data(), L"", true) ? 1 : 0;
}

/// Deletes the key alone: one with subkeys stays.
UINT DeleteProxyInstallKey(MSIHANDLE session) {
    WriteInstallerLog(session, L"SABLE_CA: DelInstallProxyKey  \n");
    if (RegDeleteKeyW(HKEY_LOCAL_MACHINE, kProxyInstallKey) != ERROR_SUCCESS) {
        return kKeyNotDeleted;
    }
    WriteInstallerLog(session, L"SABLE_CA: DelInstallProxyKey successfully  \n");
    return kKeyDeleted;
}

}  // namespace
}  // namespace corvi

extern "C" {

UINT __stdcall DelInstallProxyKey(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::DeleteProxyInstallKey(session); }, corvi::kKeyNotDeleted);
}

UINT __stdcall LaunchInstallProxyHX(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::RunInstallProxy(session); });
}

}  // extern "C"
