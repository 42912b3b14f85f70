#include "components/camera_registration.h"

#include "components/environment_path.h"
#include "runtime/action_data.h"
#include "runtime/action_policy.h"
#include "runtime/filesystem.h"
#include "runtime/installer_log.h"
#include "runtime/process.h"
#include "runtime/registry.h"
#include "runtime/session.h"
#include "runtime/unique_handle.h"

namespace corvi {
namespace {

constexpr wchar_t kInstallDirectoryKey[] = L"InstallDir=";
constexpr wchar_t kDllNameKey[] = L"DLLName=";
constexpr wchar_t kUserNameKey[] = L"Username=";
constexpr wchar_t kMediaSourceNameKey[] = L"VCDLLName=";

constexpr wchar_t kRegisterPrefix[] = L"regsvr32.exe /s \"";
constexpr wchar_t kUnregisterPrefix[] = L"regsvr32.exe /u /s \"";
constexpr char kCameraScanEntry[] = "OptxScanCameras";
// One truth value in, one integer out. The argument fills its whole register with 1 or 0, so that it
// reads the same as bool and as BOOL.
using CameraScan = int(__cdecl*)(BOOL registered);

// The first Windows 11: these are texts, and compared as such.
constexpr wchar_t kWindows11Major[] = L"10";
constexpr wchar_t kWindows11Build[] = L"22000";
constexpr wchar_t kWindows11Revision[] = L"348";

struct ModuleTraits {
    using Handle = HMODULE;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle handle) noexcept { FreeLibrary(handle); }
};

int RunUnregistration(const std::wstring& dllName, const std::wstring& directory) {
    return RunCommandline(kUnregisterPrefix + directory + dllName + L"\"", directory.c_str(), 0);
}

UINT ResultOf(int exitCode) { return exitCode == 0 ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE; }

// "10.22000.1000" lies before "10.22000.348", and build "9999" behind "22000": the comparison is one of
// texts, and the set of machines that have the media source registered rests on it.
bool MeansWindows11(const WindowsVersionGroups& version) {
    return version.major == kWindows11Major &&
           (version.build > kWindows11Build ||
            (version.build == kWindows11Build && version.revision >= kWindows11Revision));
}

// A version that cannot be read counts as one that cannot be understood.
std::optional<WindowsVersionVerdict> ExamineWindows() {
    try {
        return IsWindows11(GetWindowsVersion());
    } catch (const RegKeyError&) {
        return std::nullopt;
    }
}

// True when the media source has to be handled: it is installed and Windows can use it.
bool UsesMediaSource(MSIHANDLE session, const std::wstring& mediaSourcePath) {
    const auto windows = ExamineWindows();
    if (!windows) {
        return false;
    }
    WriteInstallerLog(session, L"OS Version: %s-%s-%s", windows->groups.major.c_str(),
                      windows->groups.build.c_str(), windows->groups.revision.c_str());
    // Without a file name the path is that of the directory, which is no media source.
    return windows->isWindows11 && IsFile(mediaSourcePath);
}

UINT RegisterMediaSource(MSIHANDLE session, const std::wstring& dllName, const std::wstring& directory) {
    const UINT result = RegisterComDll(dllName, directory);
    if (result == ERROR_SUCCESS) {
        RunCameraScan(session, true, directory + dllName);
    }
    return result;
}

UINT UnregisterMediaSource(MSIHANDLE session, const std::wstring& dllName, const std::wstring& directory) {
    RunCameraScan(session, false, directory + dllName);
    return UnregisterComDll(dllName, directory);
}

UINT InstallCameraComponents(MSIHANDLE session) {
    const std::wstring actionData = ReadActionData(session);
    const std::wstring directory = GetActionDataValue(actionData, kInstallDirectoryKey);
    const std::wstring dllName = GetActionDataValue(actionData, kDllNameKey);
    const std::wstring userName = GetActionDataValue(actionData, kUserNameKey);
    const std::wstring mediaSourceName = GetActionDataValue(actionData, kMediaSourceNameKey);
    WriteInstallerLog(session, L"DLL Path %s", directory.c_str());
    WriteInstallerLog(session, L"DLL Name %s", dllName.c_str());
    WriteInstallerLog(session, L"Username %s", userName.c_str());
    WriteInstallerLog(session, L"VC Dll Name %s", mediaSourceName.c_str());

    // Kept, and a trap: any user may replace the components from here on, and they are loaded with the
    // installer's rights below and at the uninstall.
    GrantTreeToUsers(directory, userName, directory);
    if (UsesMediaSource(session, directory + mediaSourceName) &&
        RegisterMediaSource(session, mediaSourceName, directory) != ERROR_SUCCESS) {
        return ERROR_INSTALL_FAILURE;
    }
    return RegisterComDll(dllName, directory);
}

UINT RemoveCameraComponents(MSIHANDLE session) {
    const std::wstring actionData = ReadActionData(session);
    const std::wstring directory = GetActionDataValue(actionData, kInstallDirectoryKey);
    const std::wstring dllName = GetActionDataValue(actionData, kDllNameKey);
    const std::wstring mediaSourceName = GetActionDataValue(actionData, kMediaSourceNameKey);
    WriteInstallerLog(session, L"DLL Path %s", directory.c_str());
    WriteInstallerLog(session, L"DLL Name %s", dllName.c_str());
    WriteInstallerLog(session, L"VC DLL Name %s", mediaSourceName.c_str());

    // Where there is a media source, only that one is unregistered; the COM server stays registered.
    return UsesMediaSource(session, directory + mediaSourceName)
               ? UnregisterMediaSource(session, mediaSourceName, directory)
               : UnregisterComDll(dllName, directory);
}

}  // namespace

UINT RegisterComDll(const std::wstring& dllName, const std::wstring& directory) {
    RunUnregistration(dllName, directory);
    return ResultOf(
        RunCommandline(kRegisterPrefix + directory + L"\\" + dllName + L"\"", directory.c_str(), 0));
}

UINT UnregisterComDll(const std::wstring& dllName, const std::wstring& directory) {
    return ResultOf(RunUnregistration(dllName, directory));
}

void RunCameraScan(MSIHANDLE session, bool registered, const std::wstring& mediaSourcePath) {
    const UniqueHandle<ModuleTraits> mediaSource(LoadLibraryW(mediaSourcePath.c_str()));
    if (!mediaSource) {
        // The file is named so whatever it is called.
        WriteInstallerLog(session, L"load VirtualCameraMediaSource.dll failed: %d", GetLastError());
        return;
    }
    const FARPROC entry = GetProcAddress(mediaSource.Get(), kCameraScanEntry);
    if (entry == nullptr) {
        WriteInstallerLog(session, L"GetProcAddress(OptxScanCameras) failed: %d", GetLastError());
        return;
    }
    const auto scan = reinterpret_cast<CameraScan>(reinterpret_cast<void*>(entry));
    const int result = scan(registered ? TRUE : FALSE);
    WriteInstallerLog(session, L"OptxScanCameras(%d): %d", registered ? 1 : 0, result);
}

std::optional<WindowsVersionVerdict> IsWindows11(const std::wstring& versionText) {
    auto groups = MatchWindowsVersion(versionText);
    if (!groups) {
        return std::nullopt;
    }
    const bool isWindows11 = MeansWindows11(*groups);
    return WindowsVersionVerdict{std::move(*groups), isWindows11};
}

}  // namespace corvi

extern "C" {

UINT __stdcall SetPermissionsRegisterDLL(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::LetRegistryErrorThrough([&] {
        // Action data that cannot be taken apart names nothing to register, which is no reason to stop
        // an install. The path is extended in every case.
        const UINT result = corvi::BestEffort([&] { return corvi::InstallCameraComponents(session); });
        corvi::AddToSystemPath(corvi::kSystemPathValue, corvi::SuitePathEntry());
        return result;
    });
}

UINT __stdcall UnregisterDLL(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::RemoveCameraComponents(session); });
}

}  // extern "C"
