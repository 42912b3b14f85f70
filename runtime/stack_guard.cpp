// What code calls for whose stack is guarded against overruns. The compiler's own library takes the guard
// value from a cryptographic service provider: every load of the DLL, one for each custom action, would
// load that provider too, which takes longer than the DLL itself. Here it is mixed from clocks, numbers and
// addresses of the process, as Visual C++ does it, and an overrun ends the process without going on.

#include <windows.h>

#if defined(__GNUC__)
#include <cstdint>
#include <cstdlib>

namespace {

// STATUS_STACK_BUFFER_OVERRUN
constexpr UINT kStackBufferOverrun = 0xC0000409;

// Spreads every bit over all others.
uint64_t Mixed(uint64_t value) {
    value = (value ^ (value >> 30U)) * 0xBF58476D1CE4E5B9U;
    value = (value ^ (value >> 27U)) * 0x94D049BB133111EBU;
    return value ^ (value >> 31U);
}

// The stack cannot be trusted any more: nothing is unwound, no handler runs.
[[noreturn]] void EndProcess() {
    TerminateProcess(GetCurrentProcess(), kStackBufferOverrun);
    std::abort();
}

}  // namespace

// The names are the compiler's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
extern "C" {

uintptr_t __stack_chk_guard = 0;

void __stack_chk_fail() { EndProcess(); }

// The checked string functions of the compiler's library end here.
void __chk_fail() { EndProcess(); }
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)

namespace {

// Before all other constructors; unguarded, as the whole file is, for the value changes while it runs.
[[gnu::constructor(101)]] void SetUpStackGuard() {
    FILETIME now = {};
    LARGE_INTEGER counter = {};
    GetSystemTimeAsFileTime(&now);
    QueryPerformanceCounter(&counter);
    uint64_t value = Mixed((uint64_t{now.dwHighDateTime} << 32U) | now.dwLowDateTime);
    value = Mixed(value ^ static_cast<uint64_t>(counter.QuadPart));
    value = Mixed(value ^ ((uint64_t{GetCurrentProcessId()} << 32U) | GetCurrentThreadId()));
    value = Mixed(value ^ reinterpret_cast<uintptr_t>(&now));
    value = Mixed(value ^ reinterpret_cast<uintptr_t>(&__stack_chk_guard));
    // A text that overruns cannot carry the zero byte at the end of the value.
    __stack_chk_guard = value & ~uint64_t{0xFF};
}

}  // namespace
#endif
