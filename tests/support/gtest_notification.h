#pragma once

// Included in front of GoogleTest by the build. GoogleTest's own class stands on std::mutex, which the C++
// library does not have in every release of this toolchain's thread model: here it stands on a platform
// event.

#include <mutex>

#if !defined(_GLIBCXX_HAS_GTHREADS)
#define GTEST_HAS_NOTIFICATION_ 1

#include <windows.h>

namespace testing::internal {

class Notification {
public:
    Notification() : event_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~Notification() { CloseHandle(event_); }
    Notification(const Notification&) = delete;
    Notification& operator=(const Notification&) = delete;

    void Notify() { SetEvent(event_); }
    void WaitForNotification() { WaitForSingleObject(event_, INFINITE); }

private:
    HANDLE event_;
};

}  // namespace testing::internal
#endif
