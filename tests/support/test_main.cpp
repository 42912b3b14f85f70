#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

namespace {

// These tests write to the machine's registry and delete directories: they only start on a machine
// that was made for it.
bool IsThrowawayMachine() {
    DWORD mark = 0;
    DWORD size = sizeof(mark);
    return RegGetValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\CorviTests", L"ThrowawayMachine", RRF_RT_REG_DWORD,
                        nullptr, &mark, &size) == ERROR_SUCCESS &&
           mark == 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (!IsThrowawayMachine()) {
        std::fprintf(stderr, "This machine is not marked as throwaway; no test was run.\n");
        return 2;
    }
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
