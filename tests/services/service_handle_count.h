#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include "tests/support/import_hooks.h"

namespace corvi::test {

/// Counts the handles that the real service manager hands out and takes back.
class HandleCount {
public:
    explicit HandleCount(ImportHooks& hooks) {
        CORVI_HOOK(hooks, OpenSCManagerW, [&, this](LPCWSTR machine, LPCWSTR database, DWORD access) {
            return Counted(CORVI_ORIGINAL(hooks, OpenSCManagerW)(machine, database, access));
        });
        CORVI_HOOK(hooks, OpenServiceW, [&, this](SC_HANDLE manager, LPCWSTR name, DWORD access) {
            return Counted(CORVI_ORIGINAL(hooks, OpenServiceW)(manager, name, access));
        });
        CORVI_HOOK(hooks, CloseServiceHandle, [&, this](SC_HANDLE handle) -> BOOL {
            const BOOL closed = CORVI_ORIGINAL(hooks, CloseServiceHandle)(handle);
            open_ -= closed != FALSE ? 1 : 0;
            failedCloses_ += closed != FALSE ? 0 : 1;
            return closed;
        });
    }
    ~HandleCount() {
        EXPECT_EQ(open_, 0);
        EXPECT_EQ(failedCloses_, 0);
    }
    HandleCount(const HandleCount&) = delete;
    HandleCount& operator=(const HandleCount&) = delete;

private:
    SC_HANDLE Counted(SC_HANDLE handle) {
        open_ += handle != nullptr ? 1 : 0;
        return handle;
    }
    int open_ = 0;
    int failedCloses_ = 0;
};

}  // namespace corvi::test
