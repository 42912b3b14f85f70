#pragma once

#include <windows.h>

#include <utility>
#include <vector>

#include "tests/support/import_hooks.h"

namespace corvi::test {

/// A clock that a module sees instead of the real one: it moves only while the module sleeps, and by
/// perLook whenever it is looked at.
class HookedClock {
public:
    explicit HookedClock(ImportHooks& hooks, DWORD start = 1000) : now(start), start_(start) {
        CORVI_HOOK(hooks, Sleep, [this](DWORD milliseconds) {
            sleeps.push_back(milliseconds);
            now += milliseconds;
        });
    }

    /// For a module that reads the tick count at all.
    void HookTickCount(ImportHooks& hooks) {
        CORVI_HOOK(hooks, GetTickCount, [this]() -> DWORD { return std::exchange(now, now + perLook); });
    }

    /// Milliseconds since the start, across a wrap of the tick count.
    DWORD Passed() const { return now - start_; }

    DWORD now;
    DWORD perLook = 0;
    std::vector<DWORD> sleeps;

private:
    DWORD start_;
};

}  // namespace corvi::test
