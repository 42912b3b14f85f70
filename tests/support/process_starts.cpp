#include "tests/support/process_starts.h"

namespace corvi::test {
namespace {

constexpr int kAttempts = 5;

BOOL WINAPI StartSteadily(LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES processSecurity,
                          LPSECURITY_ATTRIBUTES threadSecurity, BOOL inherit, DWORD flags, LPVOID environment,
                          LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION started) {
    // Not through an import: that of this program may lead here.
    static const auto start = reinterpret_cast<decltype(&CreateProcessW)>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32"), "CreateProcessW")));
    BOOL done = FALSE;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        done = start(application, commandLine, processSecurity, threadSecurity, inherit, flags, environment,
                     directory, startup, started);
        if (done != FALSE || GetLastError() != ERROR_INTERNAL_ERROR) {
            break;
        }
    }
    return done;
}

}  // namespace

SteadyStarts::SteadyStarts(HMODULE module) : imports_(module) {
    if (imports_.Imports("CreateProcessW")) {
        imports_.Replace("CreateProcessW", reinterpret_cast<void*>(&StartSteadily));
    }
}

}  // namespace corvi::test
