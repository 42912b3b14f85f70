#include <windows.h>

#include <msi.h>
#include <shlwapi.h>

#include <string>

#include "runtime/action_policy.h"
#include "runtime/filesystem.h"
#include "runtime/process.h"
#include "runtime/registry.h"
#include "runtime/session.h"
#include "services/app_shutdown.h"

namespace corvi {
namespace {

// All keys are below HKEY_LOCAL_MACHINE.
constexpr wchar_t kVRKey[] = L"SOFTWARE\\QEL Technologies\\Install\\WVR64";
constexpr wchar_t kVRDirectoryValue[] = L"InstallDir";
constexpr wchar_t kVRFolder[] = L"WVR";
constexpr wchar_t kVRDriverFolder[] = L"WVR\\OpenVR";

constexpr wchar_t kSteamVRKey[] =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Steam App 250820";
constexpr wchar_t kSteamVRDirectoryValue[] = L"InstallLocation";
constexpr wchar_t kSteamVRPathTool[] = L"\\bin\\win64\\vrpathreg.exe";

constexpr wchar_t kInstallKey[] = L"SOFTWARE\\QEL Technologies\\Install";
constexpr wchar_t kRecordingEnabledValue[] = L"TAVODVR_Enabled";
constexpr wchar_t kTrackingKey[] = L"SOFTWARE\\TAVODVR";
constexpr wchar_t kTrackedValue[] = L"TAVODVR_Tracked";

constexpr DWORD kRecordingEnabled = 1;
constexpr DWORD kTracked = 1;

/// Kept: TrackDVRAnalytics answers 1, not 0, when it has done its work.
constexpr UINT kTrackingCreated = 1;
constexpr UINT kTrackingNotCreated = 0;

/// Deletes the VR component's folder, and then the folder that held it if that is empty now.
UINT DeleteVRFolder() {
    ExitHXApplication();
    const std::wstring installDirectory = ReadMachineText(kVRKey, kVRDirectoryValue);
    // Not installed. Without a directory the folder's name would mean one of the current directory.
    if (installDirectory.empty()) {
        return ERROR_SUCCESS;
    }
    const std::wstring folder = installDirectory + kVRFolder;
    if (PathFileExistsW(folder.c_str()) != FALSE) {
        DeleteFolder(folder);
    }
    const std::wstring parent = ParentPath(installDirectory);
    if (PathIsDirectoryEmptyW(parent.c_str()) != FALSE) {
        RemoveOne(parent);
    }
    return ERROR_SUCCESS;
}

/// Takes the VR component's driver out of the SteamVR runtime with SteamVR's own tool.
UINT RemoveVRDriver() {
    ExitHXApplication();
    const std::wstring installDirectory = ReadMachineText(kVRKey, kVRDirectoryValue);
    const std::wstring steamVRDirectory = ReadMachineText(kSteamVRKey, kSteamVRDirectoryValue);
    // With either missing there is nothing to unregister, or nothing to unregister it with: the tool's
    // path alone would mean one of the current drive.
    if (installDirectory.empty() || steamVRDirectory.empty()) {
        return ERROR_SUCCESS;
    }
    const std::wstring tool = steamVRDirectory + kSteamVRPathTool;
    if (PathFileExistsW(tool.c_str()) != FALSE) {
        std::wstring commandLine =
            L"\"" + tool + L"\" removedriver \"" + installDirectory + kVRDriverFolder + L"\"";
        RunProcessAndWait(commandLine.data(), L"", true);
    }
    return ERROR_SUCCESS;
}

/// Closes a key and then its handle once more. The second close of a closed handle fails without harm
/// and is kept.
void CloseTwice(RegKey& key) {
    const HKEY handle = key.Get();
    key.Close();
    RegCloseKey(handle);
}

/// True when the machine's recording was enabled. Closes the key when it was not.
bool IsRecordingEnabled(RegKey& install) {
    DWORD enabled = 0xFFFFFFFF;
    DWORD size = sizeof(enabled);
    if (RegQueryValueExW(install.Get(), kRecordingEnabledValue, nullptr, nullptr,
                         reinterpret_cast<BYTE*>(&enabled), &size) != ERROR_SUCCESS) {
        return false;
    }
    if (enabled != kRecordingEnabled) {
        CloseTwice(install);
        return false;
    }
    return true;
}

/// Creates the tracking key, once in the machine's life: only when it is known to be missing.
UINT CreateTrackingKey() {
    LSTATUS status = ERROR_SUCCESS;
    RegKey::TryOpen(HKEY_LOCAL_MACHINE, kTrackingKey, KEY_READ, &status);
    if (status != ERROR_FILE_NOT_FOUND) {
        return kTrackingNotCreated;
    }
    const RegKey tracking = RegKey::TryCreate(HKEY_LOCAL_MACHINE, kTrackingKey, KEY_ALL_ACCESS);
    if (!tracking) {
        return kTrackingNotCreated;
    }
    tracking.SetDword(kTrackedValue, kTracked);
    return kTrackingCreated;
}

UINT TrackEnabledRecording() {
    RegKey install = RegKey::TryOpen(HKEY_LOCAL_MACHINE, kInstallKey, KEY_ALL_ACCESS);
    if (!install || !IsRecordingEnabled(install)) {
        return kTrackingNotCreated;
    }
    return CreateTrackingKey();
}

}  // namespace
}  // namespace corvi

extern "C" {

UINT __stdcall DeleteWVRFolder(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([] { return corvi::DeleteVRFolder(); });
}

UINT __stdcall UnRegisterWVR(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([] { return corvi::RemoveVRDriver(); });
}

UINT __stdcall TrackDVRAnalytics(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([] { return corvi::TrackEnabledRecording(); }, corvi::kTrackingNotCreated);
}

}  // extern "C"
