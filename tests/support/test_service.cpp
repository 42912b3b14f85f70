#include "tests/support/test_service.h"

#include <stdexcept>
#include <utility>

namespace corvi::test {
namespace {

class Handle {
public:
    explicit Handle(SC_HANDLE handle) : handle_(handle) {}
    ~Handle() {
        if (handle_ != nullptr) {
            CloseServiceHandle(handle_);
        }
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    SC_HANDLE Get() const { return handle_; }

private:
    SC_HANDLE handle_;
};

SC_HANDLE OpenManager() { return OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS); }

SC_HANDLE Open(const std::wstring& name, const Handle& manager) {
    return OpenServiceW(manager.Get(), name.c_str(), SERVICE_ALL_ACCESS);
}

constexpr int kAttempts = 1000;
constexpr DWORD kPause = 10;

}  // namespace

TestService::TestService(std::wstring name, const std::wstring& binaryPath, const std::wstring& mode)
    : name_(std::move(name)) {
    const Handle manager(OpenManager());
    const Handle service(CreateServiceW(manager.Get(), name_.c_str(), name_.c_str(), SERVICE_ALL_ACCESS,
                                        SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                        (binaryPath + mode).c_str(), nullptr, nullptr, nullptr, nullptr,
                                        nullptr));
    if (service.Get() == nullptr) {
        throw std::runtime_error("cannot create a service: " + std::to_string(GetLastError()));
    }
}

TestService::~TestService() {
    EndProgram();
    {
        const Handle manager(OpenManager());
        const Handle service(Open(name_, manager));
        DeleteService(service.Get());
    }
    for (int attempt = 0; attempt < kAttempts && Exists(); ++attempt) {
        Sleep(kPause);
    }
}

void TestService::Start() const {
    const Handle manager(OpenManager());
    const Handle service(Open(name_, manager));
    if (StartServiceW(service.Get(), 0, nullptr) == FALSE) {
        throw std::runtime_error("cannot start a service: " + std::to_string(GetLastError()));
    }
    WaitForState([](DWORD state) { return state == SERVICE_RUNNING; });
}

void TestService::SendStop() const {
    const Handle manager(OpenManager());
    const Handle service(Open(name_, manager));
    SERVICE_STATUS status = {};
    if (ControlService(service.Get(), SERVICE_CONTROL_STOP, &status) == FALSE) {
        throw std::runtime_error("cannot stop a service: " + std::to_string(GetLastError()));
    }
    WaitForState([](DWORD state) { return state != SERVICE_RUNNING; });
}

DWORD TestService::State() const { return Status().dwCurrentState; }

bool TestService::Exists() const { return ServiceExists(name_); }

bool TestService::IsMarkedForDeletion() const {
    const Handle manager(OpenManager());
    const Handle service(Open(name_, manager));
    return service.Get() != nullptr && DeleteService(service.Get()) == FALSE &&
           GetLastError() == ERROR_SERVICE_MARKED_FOR_DELETE;
}

SERVICE_STATUS_PROCESS TestService::Status() const {
    const Handle manager(OpenManager());
    const Handle service(Open(name_, manager));
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    QueryServiceStatusEx(service.Get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                         sizeof(status), &needed);
    return status;
}

void TestService::EndProgram() const {
    const DWORD id = Status().dwProcessId;
    if (id == 0) {
        return;
    }
    const HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, id);
    if (process != nullptr) {
        TerminateProcess(process, 0);
        WaitForSingleObject(process, kAttempts * kPause);
        CloseHandle(process);
    }
}

void TestService::WaitForState(bool (*reached)(DWORD state)) const {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (reached(State())) {
            return;
        }
        Sleep(kPause);
    }
    throw std::runtime_error("a service does not get into the state that the test needs");
}

bool ServiceExists(const std::wstring& name) {
    const Handle manager(OpenManager());
    return Handle(Open(name, manager)).Get() != nullptr;
}

}  // namespace corvi::test
