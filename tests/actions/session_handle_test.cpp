// The exported actions are called here as this program's own functions, not in the DLL: what an action keeps
// for helpers without a handle is no export. What they would do on the machine is refused.

#include <windows.h>

#include <gtest/gtest.h>
#include <msi.h>
#include <msiquery.h>
#include <shellapi.h>

#include <exception>
#include <ostream>
#include <utility>

#include "runtime/session.h"
#include "tests/support/import_hooks.h"

extern "C" {
UINT __stdcall DeleteAnalyticsKey(MSIHANDLE session);
UINT __stdcall DeleteandRetainValues(MSIHANDLE session);
UINT __stdcall SetDCLogFileRegistry(MSIHANDLE session);
UINT __stdcall PreInstallKMSDK(MSIHANDLE session);
UINT __stdcall PostUnInstallKITE(MSIHANDLE session);
UINT __stdcall DelInstallProxyKey(MSIHANDLE session);
UINT __stdcall LaunchInstallProxyHX(MSIHANDLE session);
UINT __stdcall BlockLaunch(MSIHANDLE session);
UINT __stdcall BlockKITELaunch(MSIHANDLE session);
UINT __stdcall PreInstallPPC(MSIHANDLE session);
UINT __stdcall PostInstallPPC(MSIHANDLE session);
UINT __stdcall UnInstallPPC(MSIHANDLE session);
UINT __stdcall DeleteWVRFolder(MSIHANDLE session);
UINT __stdcall UnRegisterWVR(MSIHANDLE session);
UINT __stdcall TrackDVRAnalytics(MSIHANDLE session);
UINT __stdcall DeleteDMFTDirectory(MSIHANDLE session);
UINT __stdcall DeleteHXSparsePackageAssets(MSIHANDLE session);
UINT __stdcall DeleteHXINSTALLDIRFolder(MSIHANDLE session);
UINT __stdcall DeleteHXNoUpgrade(MSIHANDLE session);
UINT __stdcall DeleteHXSlimINSTALLDIRFolder(MSIHANDLE session);
UINT __stdcall DeleteHXFolder(MSIHANDLE session);
UINT __stdcall DeleteOPTXCameraGUID(MSIHANDLE session);
UINT __stdcall SetPermissionsRegisterDLL(MSIHANDLE session);
UINT __stdcall UnregisterDLL(MSIHANDLE session);
UINT __stdcall UninstallTAVOChat(MSIHANDLE session);
UINT __stdcall CheckForClients(MSIHANDLE session);
UINT __stdcall DeleteServiceIfBinaryIsInDirectory(MSIHANDLE session);
UINT __stdcall CreateBenchMarkRunOnceSchTask(MSIHANDLE session);
UINT __stdcall RemoveBenchMarkRunOnceSchedularTask(MSIHANDLE session);
UINT __stdcall CreateTriggerlessElevatedScheduleTask(MSIHANDLE session);
UINT __stdcall CreateLogonSchTask(MSIHANDLE session);
UINT __stdcall CreateDVRLogonSchTask(MSIHANDLE session);
UINT __stdcall RemoveHXSchedularTask(MSIHANDLE session);
UINT __stdcall RemoveDVRSchedularTask(MSIHANDLE session);
UINT __stdcall LaunchHX(MSIHANDLE session);
UINT __stdcall DeleteSchedTaskonBranding(MSIHANDLE session);
}

namespace corvi::test {
namespace {

constexpr MSIHANDLE kSession = 0x1234;

struct Action {
    const char* name;
    UINT(__stdcall* call)(MSIHANDLE session);
    friend void PrintTo(const Action& action, std::ostream* out) { *out << action.name; }
};

constexpr Action kActions[] = {
    {"DeleteAnalyticsKey", &DeleteAnalyticsKey},
    {"DeleteandRetainValues", &DeleteandRetainValues},
    {"SetDCLogFileRegistry", &SetDCLogFileRegistry},
    {"PreInstallKMSDK", &PreInstallKMSDK},
    {"PostUnInstallKITE", &PostUnInstallKITE},
    {"DelInstallProxyKey", &DelInstallProxyKey},
    {"LaunchInstallProxyHX", &LaunchInstallProxyHX},
    {"BlockLaunch", &BlockLaunch},
    {"BlockKITELaunch", &BlockKITELaunch},
    {"PreInstallPPC", &PreInstallPPC},
    {"PostInstallPPC", &PostInstallPPC},
    {"UnInstallPPC", &UnInstallPPC},
    {"DeleteWVRFolder", &DeleteWVRFolder},
    {"UnRegisterWVR", &UnRegisterWVR},
    {"TrackDVRAnalytics", &TrackDVRAnalytics},
    {"DeleteDMFTDirectory", &DeleteDMFTDirectory},
    {"DeleteHXSparsePackageAssets", &DeleteHXSparsePackageAssets},
    {"DeleteHXINSTALLDIRFolder", &DeleteHXINSTALLDIRFolder},
    {"DeleteHXNoUpgrade", &DeleteHXNoUpgrade},
    {"DeleteHXSlimINSTALLDIRFolder", &DeleteHXSlimINSTALLDIRFolder},
    {"DeleteHXFolder", &DeleteHXFolder},
    {"DeleteOPTXCameraGUID", &DeleteOPTXCameraGUID},
    {"SetPermissionsRegisterDLL", &SetPermissionsRegisterDLL},
    {"UnregisterDLL", &UnregisterDLL},
    {"UninstallTAVOChat", &UninstallTAVOChat},
    {"CheckForClients", &CheckForClients},
    {"DeleteServiceIfBinaryIsInDirectory", &DeleteServiceIfBinaryIsInDirectory},
    {"CreateBenchMarkRunOnceSchTask", &CreateBenchMarkRunOnceSchTask},
    {"RemoveBenchMarkRunOnceSchedularTask", &RemoveBenchMarkRunOnceSchedularTask},
    {"CreateTriggerlessElevatedScheduleTask", &CreateTriggerlessElevatedScheduleTask},
    {"CreateLogonSchTask", &CreateLogonSchTask},
    {"CreateDVRLogonSchTask", &CreateDVRLogonSchTask},
    {"RemoveHXSchedularTask", &RemoveHXSchedularTask},
    {"RemoveDVRSchedularTask", &RemoveDVRSchedularTask},
    {"LaunchHX", &LaunchHX},
    {"DeleteSchedTaskonBranding", &DeleteSchedTaskonBranding},
};

/// Refuses what would start, end, write or move anything.
void RefuseEverything(ImportHooks& hooks) {
    CORVI_HOOK(hooks, CreateProcessW,
               [](LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID, LPCWSTR,
                  LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL { return FALSE; });
    CORVI_HOOK(hooks, ShellExecuteExW, [](SHELLEXECUTEINFOW*) -> BOOL { return FALSE; });
    CORVI_HOOK(hooks, OpenSCManagerW, [](LPCWSTR, LPCWSTR, DWORD) -> SC_HANDLE { return nullptr; });
    CORVI_HOOK(hooks, RegisterEventSourceW, [](LPCWSTR, LPCWSTR) -> HANDLE { return nullptr; });
    CORVI_HOOK(hooks, RegCreateKeyExW,
               [](HKEY, LPCWSTR, DWORD, LPWSTR, DWORD, REGSAM, const LPSECURITY_ATTRIBUTES, PHKEY,
                  LPDWORD) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    CORVI_HOOK(hooks, RegSetValueExW, [](HKEY, LPCWSTR, DWORD, DWORD, const BYTE*, DWORD) -> LSTATUS {
        return ERROR_ACCESS_DENIED;
    });
    CORVI_HOOK(hooks, RegDeleteTreeW, [](HKEY, LPCWSTR) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    CORVI_HOOK(hooks, MoveFileExW, [](LPCWSTR, LPCWSTR, DWORD) -> BOOL { return FALSE; });
    CORVI_HOOK(hooks, CoCreateInstance,
               [](REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID*) -> HRESULT { return E_FAIL; });
}

/// The registry error that some of them let out is no matter of these tests.
void Call(const Action& action) {
    try {
        action.call(kSession);
    } catch (const std::exception& error) {
        testing::Test::RecordProperty(action.name, error.what());
    }
}

class SessionHandle : public testing::TestWithParam<Action> {};

TEST_P(SessionHandle, IsKeptBeforeTheFirstLineIsLogged) {
    ImportHooks hooks(GetModuleHandleW(nullptr));
    RefuseEverything(hooks);
    CORVI_HOOK(hooks, MsiProcessMessage, [](MSIHANDLE, INSTALLMESSAGE, MSIHANDLE) -> int {
        EXPECT_EQ(currentSession, kSession);
        return 0;
    });
    currentSession = 0;
    Call(GetParam());
    EXPECT_EQ(std::exchange(currentSession, 0), kSession);
}

INSTANTIATE_TEST_SUITE_P(Actions, SessionHandle, testing::ValuesIn(kActions),
                         [](const testing::TestParamInfo<Action>& action) { return action.param.name; });

}  // namespace
}  // namespace corvi::test
