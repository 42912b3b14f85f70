#pragma once

#include <windows.h>

#include <functional>
#include <utility>

namespace corvi::test {

/// Runs work on a thread of its own; the destructor waits for its end. On the platform's threads: the
/// compiler's library has none of its own in this toolchain.
class TestThread {
public:
    explicit TestThread(std::function<void()> work)
        : work_(std::move(work)), thread_(CreateThread(nullptr, 0, Run, this, 0, nullptr)) {}
    ~TestThread() {
        WaitForSingleObject(thread_, INFINITE);
        CloseHandle(thread_);
    }
    TestThread(const TestThread&) = delete;
    TestThread& operator=(const TestThread&) = delete;

private:
    static DWORD WINAPI Run(void* self) {
        static_cast<TestThread*>(self)->work_();
        return 0;
    }

    std::function<void()> work_;
    HANDLE thread_;
};

/// Runs work on a thread of its own and waits for its end.
inline void RunOnOwnThread(std::function<void()> work) { const TestThread thread(std::move(work)); }

}  // namespace corvi::test
