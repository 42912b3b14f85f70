#include "tool/plan_services.h"

#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tool/plan_machine.h"
#include "tool/plan_processes.h"
#include "tool/plan_registry.h"

namespace corvi::tool::plan {
namespace {

constexpr wchar_t kServicesKey[] = L"SYSTEM\\CurrentControlSet\\Services\\";

struct CreatedService {
    std::wstring displayName;
    std::wstring binaryPath;
    DWORD type = 0;
    DWORD start = 0;
    DWORD errorControl = 0;
};

/// What was noted about one service.
struct ServiceNotes {
    std::optional<DWORD> state;
    bool deleted = false;
    std::optional<CreatedService> created;
};

struct HeldService {
    SC_HANDLE real = nullptr;  ///< null for one that only the notes know
    std::wstring name;
    DWORD access = 0;
};

std::map<std::wstring, ServiceNotes> notes;  ///< by the names in lower case
std::unordered_map<SC_HANDLE, HeldService> openServices;
bool settled = false;

std::wstring Lower(std::wstring text) {
    CharLowerBuffW(text.data(), static_cast<DWORD>(text.size()));
    return text;
}

ServiceNotes& NotesOn(const HeldService& service) { return notes[Lower(service.name)]; }

const ServiceNotes* FindNotes(const std::wstring& name) {
    const auto found = notes.find(Lower(name));
    return found == notes.end() ? nullptr : &found->second;
}

SC_HANDLE Register(HeldService service) {
    const auto handle = static_cast<SC_HANDLE>(static_cast<void*>(NewStandInHandle()));
    openServices[handle] = std::move(service);
    return handle;
}

const HeldService* Find(SC_HANDLE handle) {
    const auto open = openServices.find(handle);
    return open == openServices.end() ? nullptr : &open->second;
}

bool May(const HeldService& service, DWORD right) {
    return (service.access & (right | GENERIC_ALL | MAXIMUM_ALLOWED)) != 0;
}

DWORD Settled(DWORD state) {
    if (!settled) {
        return state;
    }
    if (state == SERVICE_STOP_PENDING) {
        return SERVICE_STOPPED;
    }
    return state == SERVICE_START_PENDING ? DWORD{SERVICE_RUNNING} : state;
}

void Apply(SERVICE_STATUS_PROCESS& status, DWORD state) {
    if (status.dwCurrentState == state) {
        return;
    }
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    status.dwCheckPoint = 0;
    status.dwWaitHint = 0;
    if (state == SERVICE_STOPPED) {
        status.dwProcessId = 0;
    }
}

/// A service's status as it would be now; ERROR_SUCCESS, or the platform's error.
DWORD StatusOf(const HeldService& service, SERVICE_STATUS_PROCESS& status) {
    status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = SERVICE_STOPPED;
    if (!May(service, SERVICE_QUERY_STATUS)) {
        return ERROR_ACCESS_DENIED;
    }
    if (service.real != nullptr) {
        DWORD needed = 0;
        if (QueryServiceStatusEx(service.real, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                                 sizeof(status), &needed) == FALSE) {
            return GetLastError();
        }
    }
    const ServiceNotes* noted = FindNotes(service.name);
    Apply(status, noted != nullptr && noted->state ? *noted->state : Settled(status.dwCurrentState));
    return ERROR_SUCCESS;
}

/// The same for a change that needs no right to ask.
DWORD StateForChange(const HeldService& service) {
    HeldService asked = service;
    asked.access = SERVICE_QUERY_STATUS;
    SC_HANDLE opened = nullptr;
    if (service.real != nullptr && !May(service, SERVICE_QUERY_STATUS)) {
        const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
        opened = OpenServiceW(manager, service.name.c_str(), SERVICE_QUERY_STATUS);
        CloseServiceHandle(manager);
        asked.real = opened;
    }
    SERVICE_STATUS_PROCESS status = {};
    const DWORD error = StatusOf(asked, status);
    if (opened != nullptr) {
        CloseServiceHandle(opened);
    }
    return error == ERROR_SUCCESS ? status.dwCurrentState : DWORD{SERVICE_STOPPED};
}

/// A service goes for good, and its key with it, when it was deleted and does not run.
void HideKeyWhenGone(const HeldService& service) {
    const ServiceNotes& noted = NotesOn(service);
    if (noted.deleted && StateForChange(service) == SERVICE_STOPPED) {
        HideMachineKey(kServicesKey + service.name);
    }
}

std::wstring Expanded(const std::wstring& text) {
    std::vector<wchar_t> expanded(32768);
    const DWORD length =
        ExpandEnvironmentStringsW(text.c_str(), expanded.data(), static_cast<DWORD>(expanded.size()));
    return length > 0 && length <= expanded.size() ? std::wstring(expanded.data()) : text;
}

std::wstring BinaryPathOf(const HeldService& service) {
    const ServiceNotes* noted = FindNotes(service.name);
    if (noted != nullptr && noted->created) {
        return noted->created->binaryPath;
    }
    const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    const SC_HANDLE real = OpenServiceW(manager, service.name.c_str(), SERVICE_QUERY_CONFIG);
    std::vector<BYTE> buffer(8192);
    DWORD needed = 0;
    auto* configuration = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
    const bool known =
        real != nullptr &&
        QueryServiceConfigW(real, configuration, static_cast<DWORD>(buffer.size()), &needed) != FALSE;
    std::wstring path =
        known && configuration->lpBinaryPathName != nullptr ? configuration->lpBinaryPathName : L"";
    CloseServiceHandle(real);
    CloseServiceHandle(manager);
    return path;
}

BOOL GiveCreatedConfiguration(const CreatedService& created, LPQUERY_SERVICE_CONFIGW configuration,
                              DWORD size, LPDWORD needed) {
    const std::size_t texts = created.binaryPath.size() + created.displayName.size() + 5;
    *needed = static_cast<DWORD>(sizeof(QUERY_SERVICE_CONFIGW) + texts * sizeof(wchar_t));
    if (size < *needed) {
        return Refuse(ERROR_INSUFFICIENT_BUFFER, FALSE);
    }
    auto* bytes = reinterpret_cast<BYTE*>(configuration);
    std::memset(bytes, 0, *needed);
    configuration->dwServiceType = created.type;
    configuration->dwStartType = created.start;
    configuration->dwErrorControl = created.errorControl;
    auto* next = reinterpret_cast<wchar_t*>(bytes + sizeof(QUERY_SERVICE_CONFIGW));
    const auto put = [&next](const std::wstring& text) {
        wchar_t* start = next;
        std::memcpy(start, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
        next += text.size() + 1;
        return start;
    };
    configuration->lpBinaryPathName = put(created.binaryPath);
    configuration->lpDisplayName = put(created.displayName);
    configuration->lpLoadOrderGroup = put(L"");
    configuration->lpDependencies = configuration->lpLoadOrderGroup;
    configuration->lpServiceStartName = configuration->lpLoadOrderGroup;
    return TRUE;
}

std::wstring StartInWords(DWORD start) {
    switch (start) {
        case SERVICE_AUTO_START:
            return L"automatic start";
        case SERVICE_DEMAND_START:
            return L"start on demand";
        case SERVICE_DISABLED:
            return L"disabled";
        default:
            return L"start type " + std::to_wstring(start);
    }
}

}  // namespace

SC_HANDLE WINAPI OpenManager(LPCWSTR machine, LPCWSTR database, DWORD access) {
    return OpenSCManagerW(machine, database, access);
}

SC_HANDLE WINAPI OpenOneService(SC_HANDLE manager, LPCWSTR name, DWORD access) {
    if (name == nullptr) {
        return ::OpenServiceW(manager, name, access);
    }
    const ServiceNotes* noted = FindNotes(name);
    if (noted != nullptr && noted->created) {
        return Register({nullptr, name, access});
    }
    const SC_HANDLE real = ::OpenServiceW(manager, name, access);
    if (real == nullptr) {
        return nullptr;
    }
    HeldService service{real, name, access};
    if (noted != nullptr && noted->deleted && StateForChange(service) == SERVICE_STOPPED) {
        CloseServiceHandle(real);
        return Refuse(ERROR_SERVICE_DOES_NOT_EXIST, static_cast<SC_HANDLE>(nullptr));
    }
    return Register(std::move(service));
}

SC_HANDLE WINAPI CreateOneService(SC_HANDLE manager, LPCWSTR name, LPCWSTR displayName, DWORD access,
                                  DWORD type, DWORD start, DWORD errorControl, LPCWSTR binaryPath,
                                  LPCWSTR /*group*/, LPDWORD /*tag*/, LPCWSTR /*dependencies*/,
                                  LPCWSTR /*account*/, LPCWSTR /*password*/) {
    const auto refuse = [](DWORD error) { return Refuse(error, static_cast<SC_HANDLE>(nullptr)); };
    if (manager == nullptr) {
        return refuse(ERROR_INVALID_HANDLE);
    }
    if (name == nullptr) {
        return refuse(ERROR_INVALID_ADDRESS);
    }
    const SC_HANDLE existing = OpenOneService(manager, name, SERVICE_QUERY_STATUS);
    if (existing != nullptr) {
        CloseService(existing);
        const ServiceNotes* noted = FindNotes(name);
        return refuse(noted != nullptr && noted->deleted ? ERROR_SERVICE_MARKED_FOR_DELETE
                                                         : ERROR_SERVICE_EXISTS);
    }
    if (const DWORD error = GetLastError(); error != ERROR_SERVICE_DOES_NOT_EXIST) {
        return refuse(error);
    }
    notes[Lower(name)] = {
        SERVICE_STOPPED, false,
        CreatedService{displayName != nullptr ? displayName : L"", binaryPath != nullptr ? binaryPath : L"",
                       type, start, errorControl}};
    Journal().Add({Deed::CreateService, name,
                   (binaryPath != nullptr ? binaryPath : L"") + std::wstring(L", ") + StartInWords(start)});
    return Register({nullptr, name, access});
}

BOOL WINAPI CloseService(SC_HANDLE handle) {
    const auto open = openServices.find(handle);
    if (open == openServices.end()) {
        return CloseServiceHandle(handle);
    }
    if (open->second.real != nullptr) {
        CloseServiceHandle(open->second.real);
    }
    openServices.erase(open);
    return TRUE;
}

BOOL WINAPI ServiceStatus(SC_HANDLE handle, LPSERVICE_STATUS status) {
    const HeldService* service = Find(handle);
    if (service == nullptr) {
        return QueryServiceStatus(handle, status);
    }
    SERVICE_STATUS_PROCESS now = {};
    if (const DWORD error = StatusOf(*service, now); error != ERROR_SUCCESS) {
        return Refuse(error, FALSE);
    }
    std::memcpy(status, &now, sizeof(*status));
    return TRUE;
}

BOOL WINAPI ServiceStatusOfClass(SC_HANDLE handle, SC_STATUS_TYPE type, LPBYTE buffer, DWORD size,
                                 LPDWORD needed) {
    const HeldService* service = Find(handle);
    if (service == nullptr || type != SC_STATUS_PROCESS_INFO) {
        return QueryServiceStatusEx(handle, type, buffer, size, needed);
    }
    *needed = sizeof(SERVICE_STATUS_PROCESS);
    if (size < sizeof(SERVICE_STATUS_PROCESS)) {
        return Refuse(ERROR_INSUFFICIENT_BUFFER, FALSE);
    }
    SERVICE_STATUS_PROCESS now = {};
    if (const DWORD error = StatusOf(*service, now); error != ERROR_SUCCESS) {
        return Refuse(error, FALSE);
    }
    std::memcpy(buffer, &now, sizeof(now));
    return TRUE;
}

BOOL WINAPI ServiceConfiguration(SC_HANDLE handle, LPQUERY_SERVICE_CONFIGW configuration, DWORD size,
                                 LPDWORD needed) {
    const HeldService* service = Find(handle);
    if (service == nullptr) {
        return QueryServiceConfigW(handle, configuration, size, needed);
    }
    const ServiceNotes* noted = FindNotes(service->name);
    return noted != nullptr && noted->created
               ? GiveCreatedConfiguration(*noted->created, configuration, size, needed)
               : QueryServiceConfigW(service->real, configuration, size, needed);
}

BOOL WINAPI ControlOneService(SC_HANDLE handle, DWORD control, LPSERVICE_STATUS status) {
    const HeldService* service = Find(handle);
    if (service == nullptr) {
        return Refuse(ERROR_INVALID_HANDLE, FALSE);
    }
    if (control != SERVICE_CONTROL_STOP) {
        EndPlan(End::NotTrusted, 0, L"it sends a service the control " + std::to_wstring(control));
    }
    if (!May(*service, SERVICE_STOP)) {
        return Refuse(ERROR_ACCESS_DENIED, FALSE);
    }
    const DWORD state = StateForChange(*service);
    if (state == SERVICE_STOPPED) {
        return Refuse(ERROR_SERVICE_NOT_ACTIVE, FALSE);
    }
    if (state == SERVICE_STOP_PENDING || state == SERVICE_START_PENDING) {
        return Refuse(ERROR_SERVICE_CANNOT_ACCEPT_CTRL, FALSE);
    }
    Journal().Add({Deed::StopService, service->name});
    NotesOn(*service).state = SERVICE_STOPPED;
    HideKeyWhenGone(*service);
    *status = {};
    status->dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status->dwCurrentState = SERVICE_STOPPED;
    return TRUE;
}

BOOL WINAPI StartOneService(SC_HANDLE handle, DWORD /*count*/, LPCWSTR* /*arguments*/) {
    const HeldService* service = Find(handle);
    if (service == nullptr) {
        return Refuse(ERROR_INVALID_HANDLE, FALSE);
    }
    if (!May(*service, SERVICE_START)) {
        return Refuse(ERROR_ACCESS_DENIED, FALSE);
    }
    if (NotesOn(*service).deleted) {
        return Refuse(ERROR_SERVICE_MARKED_FOR_DELETE, FALSE);
    }
    if (StateForChange(*service) != SERVICE_STOPPED) {
        return Refuse(ERROR_SERVICE_ALREADY_RUNNING, FALSE);
    }
    DWORD error = ERROR_SUCCESS;
    ProgramOf(Expanded(BinaryPathOf(*service)), &error);
    if (error != ERROR_SUCCESS) {
        return Refuse(error, FALSE);
    }
    Journal().Add({Deed::StartService, service->name});
    NotesOn(*service).state = SERVICE_RUNNING;
    return TRUE;
}

BOOL WINAPI DeleteOneService(SC_HANDLE handle) {
    const HeldService* service = Find(handle);
    if (service == nullptr) {
        return Refuse(ERROR_INVALID_HANDLE, FALSE);
    }
    if (!May(*service, DELETE)) {
        return Refuse(ERROR_ACCESS_DENIED, FALSE);
    }
    ServiceNotes& noted = NotesOn(*service);
    if (noted.deleted) {
        return Refuse(ERROR_SERVICE_MARKED_FOR_DELETE, FALSE);
    }
    noted.deleted = true;
    Journal().Add({Deed::DeleteService, service->name});
    if (noted.created) {
        noted.created.reset();
    } else {
        HideKeyWhenGone(*service);
    }
    return TRUE;
}

BOOL WINAPI ConfigureService(SC_HANDLE handle, DWORD level, LPVOID information) {
    const HeldService* service = Find(handle);
    if (service == nullptr) {
        return Refuse(ERROR_INVALID_HANDLE, FALSE);
    }
    if (!May(*service, SERVICE_CHANGE_CONFIG)) {
        return Refuse(ERROR_ACCESS_DENIED, FALSE);
    }
    const bool delayed =
        level == SERVICE_CONFIG_DELAYED_AUTO_START_INFO && information != nullptr &&
        static_cast<const SERVICE_DELAYED_AUTO_START_INFO*>(information)->fDelayedAutostart != FALSE;
    Journal().Add(
        {Deed::ConfigureService, service->name,
         delayed ? L"delayed automatic start" : L"other settings (" + std::to_wstring(level) + L")"});
    return TRUE;
}

void LetServicesSettle() { settled = true; }

}  // namespace corvi::tool::plan
