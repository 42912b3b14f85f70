#include <windows.h>

#include <msi.h>
#include <shlobj.h>

#include <string>

#include "runtime/action_policy.h"
#include "runtime/filesystem.h"
#include "runtime/installer_log.h"
#include "runtime/known_paths.h"
#include "runtime/registry.h"
#include "runtime/session.h"
#include "runtime/text.h"
#include "services/settings_application.h"
#include "tasks/install_location.h"
#include "tasks/schtasks.h"
#include "tasks/task_file.h"

namespace corvi {
namespace {

// A program of the suite that is started when a user logs on.
struct LogonTask {
    const wchar_t* name;  // also the name of the autostart entry that the task replaces
    const wchar_t* taskFile;
    const wchar_t* program;
    const wchar_t* arguments;
};

constexpr LogonTask kSettingsApplication = {L"StartHX", L"StartHX.xml", L"hxcmd.exe", L"startwithdelay"};
constexpr LogonTask kRecordingServer = {L"StartDVR", L"StartDVR.xml", L"LSServCmd.exe", L""};

constexpr wchar_t kBrandingValue[] = L"LazeStart";
constexpr DWORD kStartedByBranding = 1;

// Where the rewritten copy of a task file goes; empty when there is no directory for temporary files.
std::wstring RewrittenCopy(const LogonTask& task) {
    const std::wstring directory = GetTemporaryDirectory();
    return directory.empty() ? directory : directory + task.taskFile;
}

// Replaces the autostart entry of a program by a task. False when the install location does not exist.
bool CreateLogonTask(const LogonTask& task) {
    DeleteRunValue(task.name);
    const std::wstring location = ReadInstallLocation();
    if (!PathExists(location)) {
        return false;
    }
    const std::wstring taskFile = WithTrailingSeparator(location) + task.taskFile;
    // The task is created from the installed file. Kept: the copy with its working directory set is made
    // all the same and stays behind in the directory for temporary files, where nothing reads it.
    RewriteTaskFile(taskFile, RewrittenCopy(task), location);
    CreateTaskFromFile(task.name, taskFile, location);
    ChangeTaskProgram(task.name, InstalledProgram(location, task.program), task.arguments, location);
    return true;
}

UINT CreationResult(bool created) { return created ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE; }

UINT CreateSettingsApplicationTask(MSIHANDLE session) {
    const bool created = CreateLogonTask(kSettingsApplication);
    WriteInstallerLog(session, created ? L"StartHX Scheduled task creation is successful"
                                       : L"StartHX Scheduled task creation failed");
    // Kept: line and notification on every version of Windows, whatever the line says.
    WriteInstallerLog(session, L"Win 11 only code");
    SHChangeNotify(SHCNE_ASSOCCHANGED, SHCNF_IDLIST, nullptr, nullptr);
    return CreationResult(created);
}

// True when the branding has taken over starting the settings application: only a 32-bit 1 says so.
bool IsStartedByBranding() {
    const RegKey key = RegKey::TryOpen(HKEY_LOCAL_MACHINE, kSettingsAppKey, KEY_READ);
    if (!key) {
        return false;
    }
    DWORD value = 0;
    DWORD size = sizeof(value);
    return RegQueryValueExW(key.Get(), kBrandingValue, nullptr, nullptr, reinterpret_cast<BYTE*>(&value),
                            &size) == ERROR_SUCCESS &&
           size == sizeof(value) && value == kStartedByBranding;
}

}  // namespace
}  // namespace corvi

extern "C" {

UINT __stdcall CreateLogonSchTask(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::LetRegistryErrorThrough([&] { return corvi::CreateSettingsApplicationTask(session); });
}

UINT __stdcall CreateDVRLogonSchTask(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::LetRegistryErrorThrough(
        [&] { return corvi::CreationResult(corvi::CreateLogonTask(corvi::kRecordingServer)); });
}

// The results of the next three are not result codes of the installer's; the packages that schedule
// them do not depend on them.

UINT __stdcall RemoveHXSchedularTask(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort(
        [&]() -> UINT { return corvi::DeleteTask(corvi::kSettingsApplication.name) ? 1 : 0; });
}

UINT __stdcall RemoveDVRSchedularTask(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort(
        [&]() -> UINT { return corvi::DeleteTask(corvi::kRecordingServer.name) ? 1 : 0; });
}

UINT __stdcall LaunchHX(MSIHANDLE session) {
    corvi::currentSession = session;
    constexpr UINT kAlways = 1;
    return corvi::BestEffort(
        [&] {
            corvi::RunTask(corvi::kSettingsApplication.name);
            return kAlways;
        },
        kAlways);
}

UINT __stdcall DeleteSchedTaskonBranding(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&]() -> UINT {
        if (corvi::IsStartedByBranding()) {
            corvi::DeleteTask(corvi::kSettingsApplication.name);
        }
        return ERROR_SUCCESS;
    });
}

}  // extern "C"
