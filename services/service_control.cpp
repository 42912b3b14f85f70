#include "services/service_control.h"

#include <algorithm>
#include <cstddef>

#include "runtime/installer_log.h"
#include "runtime/local_memory.h"
#include "services/service_handle.h"

namespace corvi {
namespace {

constexpr DWORD kStopLimitMilliseconds = 30000;
constexpr DWORD kShortestWaitMilliseconds = 1000;
constexpr DWORD kLongestWaitMilliseconds = 10000;

constexpr DWORD kStopAccess = SERVICE_STOP | SERVICE_QUERY_STATUS | SERVICE_ENUMERATE_DEPENDENTS;

// The texts of the wait helpers go to the debugger output and never to the installer log.
constexpr wchar_t kOpenManagerFailed[] = L"Error: Failed to open SCM.\n";
constexpr wchar_t kQueryFailed[] = L"Error: QueryServiceStatusEx failed.\n";
constexpr wchar_t kControlFailed[] = L"Error: ControlService failed.\n";
constexpr wchar_t kAlreadyStopped[] = L"Service is already stopped.\n";
constexpr wchar_t kStopPending[] = L"Service stop pending...\n";
constexpr wchar_t kStopped[] = L"Service stopped successfully.\n";
constexpr wchar_t kPendingStopTimedOut[] = L"Service stop timed out.\n";
constexpr wchar_t kStopTimedOut[] = L"Error: Timeout waiting for service to stop.\n";
constexpr wchar_t kStartFailedFormat[] = L"Unable to start service and Error code is %d";
constexpr wchar_t kStarted[] = L"Service started successfully.\n";
constexpr wchar_t kNotStarted[] = L"Warning: Service did not start successfully.\n";

// Those of StopAndDeleteService go to the installer log. They speak of one service, and of pausing,
// whatever service is stopped. Kept: callers compare these texts.
constexpr wchar_t kLogManagerFailed[] = L"Opening SC Manager failed with error code: %d %s";
constexpr wchar_t kLogServiceFailed[] = L"Opening Windows Update Service failed with error code: %d %s";
constexpr wchar_t kLogStopFailed[] = L"Unable to pause Windows Update Service. Error code: %d %s";

static_assert(sizeof(SERVICE_STATUS_PROCESS) == 36, "the record that the service manager fills");
static_assert(offsetof(SERVICE_STATUS_PROCESS, dwWaitHint) == offsetof(SERVICE_STATUS, dwWaitHint) &&
                  offsetof(SERVICE_STATUS_PROCESS, dwProcessId) == sizeof(SERVICE_STATUS),
              "a process status record begins with a service status record");

DWORD Elapsed(DWORD start) { return GetTickCount() - start; }

DWORD WaitBetweenQueries(const SERVICE_STATUS_PROCESS& status) {
    return std::clamp(status.dwWaitHint / 10, kShortestWaitMilliseconds, kLongestWaitMilliseconds);
}

bool QueryStatus(const ServiceHandle& service, SERVICE_STATUS_PROCESS& status) {
    DWORD needed = 0;
    if (QueryServiceStatusEx(service.Get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                             sizeof(status), &needed) == FALSE) {
        OutputDebugStringW(kQueryFailed);
        return false;
    }
    return true;
}

enum class StopProgress { Stopped, NotPending, GivenUp };

// Waits for a stop that somebody else asked for. start: the tick count that the time limit runs from.
StopProgress AwaitPendingStop(const ServiceHandle& service, SERVICE_STATUS_PROCESS& status, DWORD start) {
    while (status.dwCurrentState == SERVICE_STOP_PENDING) {
        OutputDebugStringW(kStopPending);
        Sleep(WaitBetweenQueries(status));
        if (!QueryStatus(service, status)) {
            return StopProgress::GivenUp;
        }
        if (status.dwCurrentState == SERVICE_STOPPED) {
            OutputDebugStringW(kStopped);
            return StopProgress::Stopped;
        }
        if (Elapsed(start) > kStopLimitMilliseconds) {
            OutputDebugStringW(kPendingStopTimedOut);
            return StopProgress::GivenUp;
        }
    }
    return StopProgress::NotPending;
}

// Sends the stop control and waits. The wait hint is slept as it is here: with a hint of 0 the service
// is asked without pause until the time limit.
bool StopNow(const ServiceHandle& service, SERVICE_STATUS_PROCESS& status, DWORD start) {
    if (ControlService(service.Get(), SERVICE_CONTROL_STOP, reinterpret_cast<SERVICE_STATUS*>(&status)) ==
        FALSE) {
        OutputDebugStringW(kControlFailed);
        return false;
    }
    while (status.dwCurrentState != SERVICE_STOPPED) {
        Sleep(status.dwWaitHint);
        if (!QueryStatus(service, status)) {
            return false;
        }
        if (status.dwCurrentState != SERVICE_STOPPED && Elapsed(start) > kStopLimitMilliseconds) {
            OutputDebugStringW(kStopTimedOut);
            return false;
        }
    }
    OutputDebugStringW(kStopped);
    return true;
}

// Waits while a service that is to be started still stops. The timer starts anew in every round, and it
// is looked at before the state: a service with a short wait hint and a check point that stands still is
// given up after one round, even when it has stopped by then. Kept: callers expect that quick end.
bool AwaitStopBeforeStart(const ServiceHandle& service, SERVICE_STATUS_PROCESS& status) {
    while (status.dwCurrentState == SERVICE_STOP_PENDING) {
        const DWORD roundStart = GetTickCount();
        const DWORD checkPoint = status.dwCheckPoint;
        Sleep(WaitBetweenQueries(status));
        if (!QueryStatus(service, status)) {
            return false;
        }
        if (status.dwCheckPoint <= checkPoint && Elapsed(roundStart) > status.dwWaitHint) {
            OutputDebugStringW(kStopTimedOut);
            return false;
        }
    }
    return true;
}

bool StartNow(const ServiceHandle& service) {
    if (StartServiceW(service.Get(), 0, nullptr) != FALSE) {
        return true;
    }
    wchar_t text[64] = {};
    wsprintfW(text, kStartFailedFormat, static_cast<int>(GetLastError()));
    OutputDebugStringW(text);
    return false;
}

// Waits as long as the start makes progress. status: as last queried, afterwards the final one.
void AwaitStart(const ServiceHandle& service, SERVICE_STATUS_PROCESS& status) {
    DWORD progressStart = GetTickCount();
    DWORD checkPoint = status.dwCheckPoint;
    while (status.dwCurrentState == SERVICE_START_PENDING) {
        Sleep(WaitBetweenQueries(status));
        if (!QueryStatus(service, status)) {
            return;
        }
        if (status.dwCheckPoint > checkPoint) {
            progressStart = GetTickCount();
            checkPoint = status.dwCheckPoint;
        } else if (Elapsed(progressStart) > status.dwWaitHint) {
            return;
        }
    }
}

std::wstring SystemText(DWORD error) {
    LocalMemory<wchar_t*> text;
    FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                       FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
                   nullptr, error, 0, reinterpret_cast<wchar_t*>(text.Put()), 0, nullptr);
    return text ? text.Get() : L"";
}

// format: one of the texts above, with room for an error number and its description.
void LogLastError(MSIHANDLE session, const wchar_t* format) {
    const DWORD error = GetLastError();
    WriteInstallerLog(session, format, static_cast<int>(error), SystemText(error).c_str());
}

}  // namespace

int StopServiceAndWait(const std::wstring& serviceName) {
    const DWORD start = GetTickCount();
    const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager) {
        OutputDebugStringW(kOpenManagerFailed);
        return 0;
    }
    const ServiceHandle service(OpenServiceW(manager.Get(), serviceName.c_str(), kStopAccess));
    SERVICE_STATUS_PROCESS status = {};
    if (!service || !QueryStatus(service, status)) {
        return 0;
    }
    if (status.dwCurrentState == SERVICE_STOPPED) {
        OutputDebugStringW(kAlreadyStopped);
        return 1;
    }
    const StopProgress progress = AwaitPendingStop(service, status, start);
    if (progress != StopProgress::NotPending) {
        return progress == StopProgress::Stopped ? 1 : 0;
    }
    return StopNow(service, status, start) ? 1 : 0;
}

bool StartServiceAndWait() {
    const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager) {
        OutputDebugStringW(kOpenManagerFailed);
        return false;
    }
    const ServiceHandle service(OpenServiceW(manager.Get(), kTuepService, SERVICE_ALL_ACCESS));
    SERVICE_STATUS_PROCESS status = {};
    if (!service || !QueryStatus(service, status)) {
        return false;
    }
    if (status.dwCurrentState != SERVICE_STOPPED && status.dwCurrentState != SERVICE_STOP_PENDING) {
        return true;
    }
    if (!AwaitStopBeforeStart(service, status) || !StartNow(service) || !QueryStatus(service, status)) {
        return false;
    }
    AwaitStart(service, status);
    const bool runs = status.dwCurrentState == SERVICE_RUNNING;
    OutputDebugStringW(runs ? kStarted : kNotStarted);
    return runs;
}

void StopAndDeleteService(MSIHANDLE session, const std::wstring& serviceName) {
    // Declared first, so that it is closed after the manager.
    ServiceHandle service;
    ServiceHandle manager(OpenSCManagerW(nullptr, SERVICES_ACTIVE_DATABASEW, SC_MANAGER_ALL_ACCESS));
    if (!manager) {
        LogLastError(session, kLogManagerFailed);
    }
    // The manager's full access, asked for on the service: enough to stop and delete it.
    service.Reset(OpenServiceW(manager.Get(), serviceName.c_str(), SC_MANAGER_ALL_ACCESS));
    if (!service) {
        LogLastError(session, kLogServiceFailed);
        manager.Reset();
    }
    SERVICE_STATUS status = {};
    if (ControlService(service.Get(), SERVICE_CONTROL_STOP, &status) == FALSE) {
        LogLastError(session, kLogStopFailed);
    }
    DeleteService(service.Get());
}

void DeleteServiceByName(const std::wstring& serviceName) {
    const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager) {
        return;
    }
    const ServiceHandle service(OpenServiceW(manager.Get(), serviceName.c_str(), DELETE));
    if (service) {
        DeleteService(service.Get());
    }
}

}  // namespace corvi
