#include <windows.h>

#include <msi.h>
#include <msiquery.h>

#include <exception>
#include <optional>
#include <string>

#include "components/firewall.h"
#include "components/msix_packages.h"
#include "runtime/action_data.h"
#include "runtime/action_policy.h"
#include "runtime/filesystem.h"
#include "runtime/installer_log.h"
#include "runtime/registry.h"
#include "runtime/session.h"
#include "services/app_shutdown.h"
#include "services/settings_application.h"

namespace corvi {
namespace {

// What the settings application leaves on the machine; the key is below HKEY_LOCAL_MACHINE.
constexpr wchar_t kTavoKey[] = L"SOFTWARE\\TAVO";
constexpr wchar_t kInstallSubkey[] = L"Install";
constexpr wchar_t kHXSubkey[] = L"HX";
constexpr const wchar_t* kFirewallRules[] = {
    L"Lumen Software: Host Application",
    L"TAVO Revvo: Host Application",
    L"TAVO Revvo",
    L"TAVO Lumen Software",
    L"Lumen Software: Host Service",
    L"TAVO Lumen Software Service",
    L"TAVO Link",
    L"TAVO Software: Host Application",
};

constexpr wchar_t kActionDataProperty[] = L"CustomActionData";
constexpr wchar_t kInstallDirKey[] = L"InstallDir=";
constexpr wchar_t kImagingFolder[] = L"IMAGINGFOLDER";

/// Room for a location that the package passes, in characters with terminator.
constexpr size_t kLocationCapacity = 520;

constexpr UINT kPropertyNotRead = 0xFFFFFFFF;
/// What DeleteHXFolder answers when there was nothing to delete; callers only tell it from 0.
constexpr UINT kNotDeleted = 1;

/// Where the settings application is installed, as its own registry key says, with or without trailing
/// backslash. Empty when key or value is missing.
std::wstring GetHXNextLocation() { return ReadMachineText(kSettingsAppInstallKey, kLocationValue); }

/// The whole action data, taken as a directory. Nothing when it cannot be read or does not fit: a cut
/// path would name another directory.
std::optional<std::wstring> ReadLocationProperty(MSIHANDLE session) {
    const ShortProperty location = ReadShortProperty(session, kActionDataProperty, kLocationCapacity);
    return location.isRead ? std::make_optional(location.text) : std::nullopt;
}

/// The install location from the registry or, when that names none, from the action data. Nothing when
/// the action data is needed and cannot be read; empty when it names none either.
std::optional<std::wstring> FindInstallLocation(MSIHANDLE session) {
    std::wstring location = GetHXNextLocation();
    if (!location.empty()) {
        return location;
    }
    return ReadLocationProperty(session);
}

/// Asks the installer for the target path of a directory of the package. Nothing uses the answer; that
/// it is asked is part of how the action is known to behave.
void QueryTargetPath(MSIHANDLE session, const wchar_t* directory) {
    wchar_t none[] = L"";
    DWORD length = 0;
    if (MsiGetTargetPathW(session, directory, none, &length) == ERROR_MORE_DATA) {
        DWORD size = length + 1;
        std::wstring path(size, L'\0');
        MsiGetTargetPathW(session, directory, path.data(), &size);
    }
}

UINT DeleteCameraFilterDirectory(MSIHANDLE session) {
    const std::wstring directory = GetActionDataValue(ReadActionData(session), kInstallDirKey);
    QueryTargetPath(session, kImagingFolder);
    DeleteFolder(directory);
    return ERROR_SUCCESS;
}

UINT DeleteSparsePackageAssets(MSIHANDLE session) {
    const auto location = FindInstallLocation(session);
    // Without a location the names below would mean the root of whatever drive is current.
    if (!location || location->empty()) {
        return ERROR_SUCCESS;
    }
    DeleteFolder(*location + L"\\Assets");
    DeleteFolder(*location + L"\\Strings");
    RemoveOne(*location + L"\\resources.pri");
    return ERROR_SUCCESS;
}

void RemoveCompanionPackages(MSIHANDLE session) {
    const int contextMenu = RemoveAppxPackage(session, kContextMenuPackages);
    WriteInstallerLog(session,
                      L"DeleteHXINSTALLDIRFolder: Exit code for LSX CM MSIX Package uninstall: %d \n",
                      contextMenu);
    const int chat = RemoveAppxPackage(session, kChatPackages);
    WriteInstallerLog(
        session, L"DeleteHXINSTALLDIRFolder: Exit code for LSX CM CHAT MSIX Package uninstall: %d \n", chat);
}

void DeleteFirewallRules() {
    for (const wchar_t* rule : kFirewallRules) {
        DeleteFirewallRule(rule);
    }
}

void DeleteInstallLocation(MSIHANDLE session) {
    try {
        const auto location = FindInstallLocation(session);
        if (!location) {
            throw std::exception();
        }
        WriteInstallerLog(session, L"DeleteHXINSTALLDIRFolder: HXNEXT install location: %s \n",
                          location->c_str());
        DeleteFolder(*location);
    } catch (...) {
        WriteInstallerLog(session,
                          L"DeleteHXINSTALLDIRFolder: Failed to delete HXNEXT directory. "
                          L"Exception occurred. \n");
    }
}

/// Deletes the keys that a run without upgrade must not find. The lines carry the prefix of another
/// action: those who read the logs search for it.
UINT DeleteSettingsKeys(MSIHANDLE session) {
    const RegKey tavo = RegKey::Open(HKEY_LOCAL_MACHINE, kTavoKey, kReadWriteAccess);
    const LSTATUS install = RegDeleteTreeW(tavo.Get(), kInstallSubkey);
    WriteInstallerLog(session, L"DeleteHXINSTALLDIRFolder: Deleting Install registry result: %d \n",
                      static_cast<int>(install));
    const LSTATUS settings = RegDeleteTreeW(tavo.Get(), kHXSubkey);
    WriteInstallerLog(session, L"DeleteHXINSTALLDIRFolder: Deleting HX registry result: %d \n",
                      static_cast<int>(settings));
    return ERROR_SUCCESS;
}

/// Where the command-line client is installed; empty when its key names no directory. The key is closed
/// again.
std::wstring ReadSlimInstallLocation() {
    return RegKey::Open(HKEY_LOCAL_MACHINE, kCommandLineClientKey, KEY_ALL_ACCESS | KEY_WOW64_32KEY)
        .GetString(L"", kLocationValue, Unreadable::IsEmpty);
}

UINT CloseAndDeleteApplication(MSIHANDLE session) {
    ExitHXApplication();
    const auto location = FindInstallLocation(session);
    if (!location) {
        return kPropertyNotRead;
    }
    if (!PathExists(*location)) {
        return kNotDeleted;
    }
    DeleteFolder(*location);
    return ERROR_SUCCESS;
}

}  // namespace
}  // namespace corvi

extern "C" {

UINT __stdcall DeleteDMFTDirectory(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::DeleteCameraFilterDirectory(session); });
}

UINT __stdcall DeleteHXSparsePackageAssets(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::DeleteSparsePackageAssets(session); });
}

UINT __stdcall DeleteHXINSTALLDIRFolder(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&]() -> UINT {
        corvi::RemoveCompanionPackages(session);
        corvi::DeleteFirewallRules();
        corvi::DeleteInstallLocation(session);
        return ERROR_SUCCESS;
    });
}

UINT __stdcall DeleteHXNoUpgrade(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::LetRegistryErrorThrough([&] { return corvi::DeleteSettingsKeys(session); });
}

UINT __stdcall DeleteHXSlimINSTALLDIRFolder(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::LetRegistryErrorThrough([] {
        corvi::DeleteFolder(corvi::ReadSlimInstallLocation());
        return ERROR_SUCCESS;
    });
}

UINT __stdcall DeleteHXFolder(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::CloseAndDeleteApplication(session); }, corvi::kNotDeleted);
}

}  // extern "C"
