#include "services/app_shutdown.h"

#include <windows.h>

#include <msi.h>
#include <shlwapi.h>

#include <string>

#include "runtime/action_policy.h"
#include "runtime/filesystem.h"
#include "runtime/process.h"
#include "runtime/registry.h"
#include "runtime/text.h"
#include "services/settings_application.h"

namespace corvi {
namespace {

constexpr wchar_t kRecordingServerKey[] = L"SOFTWARE\\QEL Technologies\\Install\\TAVO DVR";

constexpr wchar_t kSettingsAppTool[] = L"hxcmd.exe";
constexpr wchar_t kRecordingServerTool[] = L"LSServCmd.exe";
constexpr wchar_t kExitArgument[] = L"exit";
constexpr DWORD kExitLimitMilliseconds = 30000;

constexpr const wchar_t* kSettingsAppImages[] = {L"LumenSettings.exe", L"LumenSoftware.exe"};
constexpr wchar_t kRecordingServerImage[] = L"TAVOLSServ.exe";

// The key is closed again before anything is started.
std::wstring ReadLocation(const std::wstring& keyPath, REGSAM access) {
    return RegKey::Open(HKEY_LOCAL_MACHINE, keyPath, access)
        .GetString(L"", kLocationValue, Unreadable::Throws);
}

// Asks an application to exit through its command tool, without waiting. toolExists: how the tool's
// presence is tested.
UINT AskToExit(const wchar_t* locationKey, const wchar_t* toolName, bool (*toolExists)(const std::wstring&)) {
    const std::wstring location = ReadLocation(locationKey, KEY_READ);
    if (!PathExists(location)) {
        return ERROR_SUCCESS;
    }
    const std::wstring tool = WithTrailingSeparator(location) + toolName;
    if (!toolExists(tool)) {
        return ERROR_INSTALL_FAILURE;
    }
    RunFromCommandBuffer(L"\"" + tool + L"\" " + kExitArgument, location, false);
    return ERROR_SUCCESS;
}

bool ShellPathExists(const std::wstring& path) { return PathFileExistsW(path.c_str()) != FALSE; }

std::wstring KillCommand(const std::wstring& toolPath, const wchar_t* imageName) {
    return L"\"" + toolPath + L"\" /IM " + imageName + L" /F";
}

// Kept, both: the quote behind /F, and the command itself as current directory. There is no such directory,
// so the platform refuses to start the tool and nothing is ended.
void KillSettingsAppImage(const std::wstring& toolPath, const wchar_t* imageName) {
    const std::wstring command = KillCommand(toolPath, imageName) + L"\"";
    RunFromCommandBuffer(command, command, true);
}

}  // namespace

void ExitHXApplication() noexcept {
    BestEffort([] {
        // Kept: this helper's own spelling of the key, with a trailing separator.
        const std::wstring location =
            ReadLocation(std::wstring(kSettingsAppInstallKey) + L"\\", kReadWriteAccess);
        // One more separator even behind a location that ends in one.
        ShellExecuteAndWait(location + L"\\" + kSettingsAppTool, kExitArgument, kExitLimitMilliseconds);
        return ERROR_SUCCESS;
    });
}

}  // namespace corvi

extern "C" {

UINT __stdcall ShutDownPQRNext(MSIHANDLE /*session*/) {
    return corvi::LetRegistryErrorThrough([] {
        return corvi::AskToExit(corvi::kSettingsAppInstallKey, corvi::kSettingsAppTool, &corvi::PathExists);
    });
}

UINT __stdcall ShutDownDVR(MSIHANDLE /*session*/) {
    return corvi::LetRegistryErrorThrough([] {
        return corvi::AskToExit(corvi::kRecordingServerKey, corvi::kRecordingServerTool,
                                &corvi::ShellPathExists);
    });
}

UINT __stdcall TerminateHXNextApp(MSIHANDLE /*session*/) {
    return corvi::BestEffort([] {
        const std::wstring toolPath = corvi::KillToolPath();
        for (const wchar_t* imageName : corvi::kSettingsAppImages) {
            corvi::KillSettingsAppImage(toolPath, imageName);
        }
        return ERROR_SUCCESS;
    });
}

UINT __stdcall TerminateDVRApp(MSIHANDLE /*session*/) {
    return corvi::MustStop([] {
        const std::wstring command = corvi::KillCommand(corvi::KillToolPath(), corvi::kRecordingServerImage);
        return corvi::RunFromCommandBuffer(command, L"", true) ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
    });
}

}  // extern "C"
