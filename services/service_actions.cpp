#include "services/service_actions.h"

#include <windows.h>

#include <msi.h>

#include "runtime/action_data.h"
#include "runtime/action_policy.h"
#include "runtime/filesystem.h"
#include "runtime/installer_log.h"
#include "runtime/session.h"
#include "runtime/standard_output.h"
#include "services/service_handle.h"
#include "services/service_registration.h"

namespace corvi {
namespace {

constexpr wchar_t kServiceNameKey[] = L"ServiceName=";
constexpr wchar_t kDirectoryKey[] = L"DirectoryOfBinary=";
constexpr wchar_t kAnyDirectory[] = L"*";

constexpr DWORD kPollMilliseconds = 101;
// Polling goes on while no more than this was waited: 30 polls.
constexpr DWORD kPollLimitMilliseconds = 3000;

bool IsInDirectory(const std::wstring& binaryPath, const std::wstring& directory) {
    // Neither quotes nor arguments are taken off the binary path. Kept: with a quote in front, the usual
    // form, it has no directory that could be examined, and the service stays.
    const std::wstring parent = ParentPath(binaryPath);
    WriteInstallerLog(cleanupSession, L"Parent path of %s is %s", binaryPath.c_str(), parent.c_str());
    return directory == kAnyDirectory || AreSameObject(parent, directory);
}

void StopBeforeDelete(const ServiceHandle& service) {
    SERVICE_STATUS status = {};
    if (ControlService(service.Get(), SERVICE_CONTROL_STOP, &status) == FALSE) {
        return;
    }
    for (DWORD waited = 0; status.dwCurrentState != SERVICE_STOPPED && waited <= kPollLimitMilliseconds;
         waited += kPollMilliseconds) {
        WriteInstallerLog(cleanupSession, L"Waiting for service to stop.");
        Sleep(kPollMilliseconds);
        QueryServiceStatus(service.Get(), &status);
    }
}

void DeleteAndLog(const ServiceHandle& service, const std::wstring& serviceName) {
    if (DeleteService(service.Get()) != FALSE) {
        WriteInstallerLog(cleanupSession, L"Successfully deleted %s", serviceName.c_str());
        return;
    }
    const DWORD error = GetLastError();
    WriteInstallerLog(cleanupSession, L"Unable to delete %s. Error code: %d", serviceName.c_str(),
                      static_cast<int>(error));
}

}  // namespace

void DeleteServiceInDirectory(const std::wstring& serviceName, const std::wstring& directory) {
    if (serviceName.empty()) {
        WriteInstallerLog(cleanupSession, L"Empty service name provided");
        return;
    }
    const ServiceHandle manager(OpenSCManagerW(nullptr, SERVICES_ACTIVE_DATABASEW, SC_MANAGER_ALL_ACCESS));
    if (!manager) {
        WriteInstallerLog(cleanupSession, L"Unable call  OpenSCManager. Error code: %d",
                          static_cast<int>(GetLastError()));
        return;
    }
    // The manager's full access, asked for on the service: enough to examine, stop and delete it.
    const ServiceHandle service(OpenServiceW(manager.Get(), serviceName.c_str(), SC_MANAGER_ALL_ACCESS));
    if (!service) {
        const DWORD error = GetLastError();
        WriteInstallerLog(cleanupSession, L"Unable to open service %s. Error code: %d", serviceName.c_str(),
                          static_cast<int>(error));
        return;
    }
    const std::wstring binaryPath = GetServiceBinaryPath(service);
    WriteStandardOutput(L"binary path = " + binaryPath + L"\n");
    if (!IsInDirectory(binaryPath, directory)) {
        WriteInstallerLog(cleanupSession, L"%s is not in directory %s", binaryPath.c_str(),
                          directory.c_str());
        return;
    }
    StopBeforeDelete(service);
    DeleteAndLog(service, serviceName);
}

}  // namespace corvi

extern "C" UINT __stdcall DeleteServiceIfBinaryIsInDirectory(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] {
        const std::wstring actionData = corvi::ReadActionData(session);
        const std::wstring serviceName = corvi::GetActionDataValue(actionData, corvi::kServiceNameKey);
        const std::wstring directory = corvi::GetActionDataValue(actionData, corvi::kDirectoryKey);
        corvi::DeleteServiceInDirectory(serviceName, directory);
        return ERROR_SUCCESS;
    });
}
