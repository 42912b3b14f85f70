#include "tests/faults/stand_ins.h"

#include <cstring>
#include <map>
#include <stdexcept>

namespace corvi::test {
namespace {

struct Service {
    std::wstring binaryPath;
    DWORD state = SERVICE_STOPPED;
    int queriesUntilSettled = 0;
};

constexpr int kQueriesOfAChange = 2;
constexpr DWORD kWaitHint = 2000;

struct Platform {
    std::map<std::wstring, Service> services;
    std::map<SC_HANDLE, std::wstring> handles;
    UINT_PTR nextHandle = 0x100;
    DWORD now = 1000;
};

Platform& Machine() {
    static Platform machine;
    return machine;
}

BOOL Fail(DWORD error) {
    SetLastError(error);
    return FALSE;
}

SC_HANDLE NewHandle(const std::wstring& name) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): nobody looks behind a handle
    const auto handle = reinterpret_cast<SC_HANDLE>(Machine().nextHandle += 0x10);
    Machine().handles[handle] = name;
    return handle;
}

Service* Find(SC_HANDLE handle) {
    const auto named = Machine().handles.find(handle);
    if (named == Machine().handles.end()) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    const auto service = Machine().services.find(named->second);
    if (service == Machine().services.end()) {
        SetLastError(ERROR_SERVICE_MARKED_FOR_DELETE);
        return nullptr;
    }
    return &service->second;
}

// A change of state is reported as pending by the first queries.
template <typename Status>
void Report(Service& service, Status& status) {
    status = {};
    if (service.queriesUntilSettled > 0 && --service.queriesUntilSettled == 0) {
        service.state = service.state == SERVICE_STOP_PENDING ? SERVICE_STOPPED : SERVICE_RUNNING;
    }
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = service.state;
    status.dwWaitHint = service.queriesUntilSettled > 0 ? kWaitHint : 0;
    status.dwCheckPoint = service.queriesUntilSettled > 0 ? kQueriesOfAChange : 0;
}

// The handle of a program that has ended with 0, again and again.
HANDLE EndedProgram() {
    static const HANDLE ended = [] {
        wchar_t commandLine[] = L"C:\\corvi\\suite_tool.exe";
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION process = {};
        if (CreateProcessW(nullptr, commandLine, nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr,
                           &startup, &process) == FALSE) {
            throw std::runtime_error("cannot start a program");
        }
        WaitForSingleObject(process.hProcess, INFINITE);
        CloseHandle(process.hThread);
        return process.hProcess;
    }();
    HANDLE copy = nullptr;
    DuplicateHandle(GetCurrentProcess(), ended, GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS);
    return copy;
}

}  // namespace

void ResetStandIns() { Machine() = Platform(); }

void AddService(const std::wstring& name, const std::wstring& binaryPath, bool running) {
    const DWORD state = running ? SERVICE_RUNNING : SERVICE_STOPPED;
    Machine().services[name] = {binaryPath, state, 0};
}

void AddStoppingService(const std::wstring& name, const std::wstring& binaryPath) {
    Machine().services[name] = {binaryPath, SERVICE_STOP_PENDING, kQueriesOfAChange + 1};
}

BOOL WINAPI StartProgram(LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID,
                         LPCWSTR, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION process) {
    if ((startup->dwFlags & STARTF_USESTDHANDLES) != 0 && startup->hStdOutput != nullptr) {
        DWORD written = 0;
        WriteFile(startup->hStdOutput, "done\r\n", 6, &written, nullptr);
    }
    process->hProcess = EndedProgram();
    process->hThread = EndedProgram();
    return TRUE;
}

BOOL WINAPI StartThroughShell(SHELLEXECUTEINFOW* information) {
    information->hProcess = EndedProgram();
    return TRUE;
}

SC_HANDLE WINAPI OpenManager(LPCWSTR, LPCWSTR, DWORD) { return NewHandle(L"the service manager"); }

SC_HANDLE WINAPI OpenOneService(SC_HANDLE manager, LPCWSTR name, DWORD) {
    if (Machine().handles.count(manager) == 0) {
        Fail(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    if (Machine().services.count(name) == 0) {
        Fail(ERROR_SERVICE_DOES_NOT_EXIST);
        return nullptr;
    }
    return NewHandle(name);
}

SC_HANDLE WINAPI CreateOneService(SC_HANDLE, LPCWSTR name, LPCWSTR, DWORD, DWORD, DWORD, DWORD,
                                  LPCWSTR binaryPath, LPCWSTR, LPDWORD, LPCWSTR, LPCWSTR, LPCWSTR) {
    if (Machine().services.count(name) != 0) {
        Fail(ERROR_SERVICE_EXISTS);
        return nullptr;
    }
    AddService(name, binaryPath, false);
    return NewHandle(name);
}

BOOL WINAPI CloseService(SC_HANDLE handle) {
    return Machine().handles.erase(handle) != 0 ? TRUE : Fail(ERROR_INVALID_HANDLE);
}

BOOL WINAPI QueryOneStatus(SC_HANDLE handle, LPSERVICE_STATUS status) {
    Service* const service = Find(handle);
    if (service == nullptr) {
        return FALSE;
    }
    Report(*service, *status);
    return TRUE;
}

BOOL WINAPI QueryOneStatusEx(SC_HANDLE handle, SC_STATUS_TYPE, LPBYTE buffer, DWORD, LPDWORD needed) {
    Service* const service = Find(handle);
    *needed = sizeof(SERVICE_STATUS_PROCESS);
    if (service == nullptr) {
        return FALSE;
    }
    Report(*service, *reinterpret_cast<SERVICE_STATUS_PROCESS*>(buffer));
    return TRUE;
}

BOOL WINAPI QueryOneConfig(SC_HANDLE handle, LPQUERY_SERVICE_CONFIGW config, DWORD size, LPDWORD needed) {
    const Service* const service = Find(handle);
    if (service == nullptr) {
        return FALSE;
    }
    const size_t textBytes = (service->binaryPath.size() + 1) * sizeof(wchar_t);
    *needed = static_cast<DWORD>(sizeof(*config) + textBytes);
    if (size < *needed) {
        return Fail(ERROR_INSUFFICIENT_BUFFER);
    }
    *config = {};
    config->lpBinaryPathName = reinterpret_cast<wchar_t*>(config + 1);
    std::memcpy(config->lpBinaryPathName, service->binaryPath.c_str(), textBytes);
    return TRUE;
}

BOOL WINAPI ControlOneService(SC_HANDLE handle, DWORD, LPSERVICE_STATUS status) {
    Service* const service = Find(handle);
    if (service == nullptr) {
        return FALSE;
    }
    if (service->state != SERVICE_RUNNING) {
        return Fail(ERROR_SERVICE_NOT_ACTIVE);
    }
    service->state = SERVICE_STOP_PENDING;
    service->queriesUntilSettled = kQueriesOfAChange + 1;
    Report(*service, *status);
    return TRUE;
}

BOOL WINAPI StartOneService(SC_HANDLE handle, DWORD, LPCWSTR*) {
    Service* const service = Find(handle);
    if (service == nullptr) {
        return FALSE;
    }
    service->state = SERVICE_START_PENDING;
    service->queriesUntilSettled = kQueriesOfAChange;
    return TRUE;
}

BOOL WINAPI DeleteOneService(SC_HANDLE handle) {
    if (Find(handle) == nullptr) {
        return FALSE;
    }
    Machine().services.erase(Machine().handles[handle]);
    return TRUE;
}

BOOL WINAPI ConfigureOneService(SC_HANDLE handle, DWORD, LPVOID) {
    return Find(handle) != nullptr ? TRUE : FALSE;
}

void WINAPI PassTime(DWORD milliseconds) { Machine().now += milliseconds; }

// Looked at, it moves: a wait without pauses ends as well.
DWORD WINAPI TickCount() { return Machine().now += 10; }

std::wstring ServiceName(SC_HANDLE service) {
    const auto named = Machine().handles.find(service);
    return named == Machine().handles.end() ? std::wstring() : named->second;
}

}  // namespace corvi::test
