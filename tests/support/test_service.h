#pragma once

#include <windows.h>

#include <string>

namespace corvi::test {

/// A service registered with the machine's service manager while this object lives; afterwards its
/// program is ended and the service deleted, if the test did not do so. Make it before any import hooks
/// of the test program: its own calls would meet them.
class TestService {
public:
    /// The program that plays every service; its first argument says how.
    static constexpr wchar_t kProgram[] = L"C:\\corvi\\service.exe";

    /// mode: the arguments of the program, "pending 50000 1" (tests/fixtures/service.cpp).
    TestService(std::wstring name, const std::wstring& mode)
        : TestService(std::move(name), std::wstring(kProgram) + L" ", mode) {}

    /// binaryPath + mode: the binary path as it is stored.
    TestService(std::wstring name, const std::wstring& binaryPath, const std::wstring& mode);
    ~TestService();
    TestService(const TestService&) = delete;
    TestService& operator=(const TestService&) = delete;

    const std::wstring& Name() const { return name_; }

    /// Starts it and waits until it runs.
    void Start() const;
    /// Sends the stop control and waits until the service has left the running state.
    void SendStop() const;

    /// The current state; 0 when there is no such service.
    DWORD State() const;
    /// True while the service manager knows the service, one that is only marked as deleted included.
    bool Exists() const;
    /// True when the service is marked for deletion: it cannot be deleted again.
    bool IsMarkedForDeletion() const;

private:
    SERVICE_STATUS_PROCESS Status() const;
    void EndProgram() const;
    void WaitForState(bool (*reached)(DWORD state)) const;

    std::wstring name_;
};

/// True while the service manager knows a service of that name.
bool ServiceExists(const std::wstring& name);

}  // namespace corvi::test
