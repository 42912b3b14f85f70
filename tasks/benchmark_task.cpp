#include <windows.h>

#include <msi.h>

#include <string>

#include "msiregistry/client_register.h"
#include "runtime/action_policy.h"
#include "runtime/filesystem.h"
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

constexpr wchar_t kTaskName[] = L"StartHXBM";
constexpr wchar_t kTaskFile[] = L"StartHXBM.xml";
constexpr wchar_t kProgram[] = L"hxcmd.exe";
constexpr wchar_t kArgument[] = L"benchmark";

constexpr wchar_t kGateValue[] = L"GiBenchmark";
constexpr wchar_t kGateClosed[] = L"1";

// The user's key is closed again before the gate is tested.
std::wstring ReadGate() {
    return RegKey::Open(HKEY_CURRENT_USER, kSettingsAppKey, kReadWriteAccess)
        .GetString(L"", kGateValue, Unreadable::Throws);
}

// Kept: the gate's text is taken for the name of a file first, so that it closes only where a file "1"
// stands in the current directory. Elsewhere the task is created even when the gate reads "1".
bool IsGateClosed() {
    const std::wstring gate = ReadGate();
    return PathExists(gate) && gate == kGateClosed;
}

// Unlike the logon tasks, this task is created from the rewritten copy of its definition.
void CreateFromRewrittenCopy(const std::wstring& definition, const std::wstring& location) {
    const std::wstring copy = GetTemporaryDirectory() + kTaskFile;
    RewriteTaskStartBoundary(definition, copy);
    CreateTaskFromFile(kTaskName, copy, location);
    ChangeTaskProgram(kTaskName, InstalledProgram(location, kProgram), kArgument, location);
}

UINT CreateBenchmarkTask() {
    if (IsGateClosed()) {
        return ERROR_SUCCESS;
    }
    const std::wstring location = ReadInstallLocation();
    if (!PathExists(location)) {
        return ERROR_SUCCESS;
    }
    const std::wstring definition = WithTrailingSeparator(location) + kTaskFile;
    if (PathExists(definition)) {
        CreateFromRewrittenCopy(definition, location);
    }
    return ERROR_SUCCESS;
}

// Records that the client which claimed the user-experience program last is gone, and forgets its name.
void ReleaseLastClaimant() {
    if (const RegKey key = OpenAnalyticsKey()) {
        SettleLastClaim(key, kClientUninstalled);
    }
}

UINT RemoveBenchmarkTask() {
    ReleaseLastClaimant();
    return DeleteTask(kTaskName) ? 1 : 0;
}

}  // namespace
}  // namespace corvi

extern "C" {

UINT __stdcall CreateBenchMarkRunOnceSchTask(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::LetRegistryErrorThrough([&] { return corvi::CreateBenchmarkTask(); });
}

UINT __stdcall RemoveBenchMarkRunOnceSchedularTask(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::RemoveBenchmarkTask(); });
}

}  // extern "C"
