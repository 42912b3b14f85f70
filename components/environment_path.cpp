#include "components/environment_path.h"

#include <windows.h>

#include <msi.h>

#include "runtime/action_policy.h"
#include "runtime/known_paths.h"
#include "runtime/registry.h"

namespace corvi {
namespace {

constexpr wchar_t kSystemEnvironmentKey[] =
    L"System\\CurrentControlSet\\Control\\Session Manager\\Environment";
constexpr wchar_t kSuiteFolderEntry[] = L"Windows\\System32\\TAVO;";
constexpr UINT kBroadcastTimeoutMilliseconds = 100;

// Reaches the windows of the calling process's own session. Run from a deferred action that is session 0,
// which has no windows of users: their programs see the new path only after the next logon.
void BroadcastEnvironmentChange() {
    SendMessageTimeoutW(HWND_BROADCAST, WM_SETTINGCHANGE, 0, reinterpret_cast<LPARAM>(L"Environment"),
                        SMTO_ABORTIFHUNG, kBroadcastTimeoutMilliseconds, nullptr);
}

}  // namespace

void AddToSystemPath(const std::wstring& valueName, const std::wstring& entry) {
    const RegKey environment = RegKey::Open(HKEY_LOCAL_MACHINE, kSystemEnvironmentKey, kReadWriteAccess);
    const std::wstring current = environment.GetString(L"", valueName, Unreadable::Throws);
    if (current.find(entry) != std::wstring::npos) {
        return;
    }
    const std::wstring extended = entry + current;
    // Kept: plain text even where the value was expandable. Its variables have been expanded by the reading.
    const LSTATUS written = environment.SetString(valueName, extended);
    if (written != ERROR_SUCCESS) {
        throw RegKeyError(written, UninstallWriteErrorText(valueName, extended));
    }
    BroadcastEnvironmentChange();
}

std::wstring SuitePathEntry() {
    const std::wstring root = GetWindowsDriveRoot();
    return root.empty() ? root : root + kSuiteFolderEntry;
}

}  // namespace corvi

extern "C" UINT __stdcall SetEnvPath_IPU_WA(MSIHANDLE /*session*/) {
    return corvi::LetRegistryErrorThrough([] {
        corvi::AddToSystemPath(corvi::kSystemPathValue, corvi::SuitePathEntry());
        return ERROR_SUCCESS;
    });
}
