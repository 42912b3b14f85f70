#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

#include "tests/support/process_starts.h"
#include "tests/support/test_run.h"
#include "tests/support/throwaway_machine.h"

namespace corvi::test {
namespace {

// A machine that has just come up starts its service manager beside the first programs: tests of services,
// of tasks and of the installer would meet none.
bool WaitForServiceManager() {
    constexpr DWORD kLimitMilliseconds = 60000;
    constexpr DWORD kPauseMilliseconds = 50;
    const ULONGLONG start = GetTickCount64();
    for (;;) {
        const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
        const DWORD error = GetLastError();
        if (manager != nullptr) {
            CloseServiceHandle(manager);
            return true;
        }
        if (GetTickCount64() - start >= kLimitMilliseconds) {
            std::fprintf(stderr,
                         "The service manager does not answer after %lu s (error %lu); no test was run.\n",
                         kLimitMilliseconds / 1000, error);
            return false;
        }
        Sleep(kPauseMilliseconds);
    }
}

}  // namespace

int RunOnThrowawayMachine(const std::function<int()>& run) {
    if (!IsThrowawayMachine()) {
        std::fprintf(stderr, "This machine is not marked as throwaway; no test was run.\n");
        return 2;
    }
    if (!WaitForServiceManager()) {
        return 3;
    }
    const SteadyStarts starts(GetModuleHandleW(nullptr));
    return run();
}

int RunTests(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}

}  // namespace corvi::test
