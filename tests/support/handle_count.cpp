#include "tests/support/handle_count.h"

#include <windows.h>

#include <winternl.h>

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <vector>

namespace corvi::test {
namespace {

// The list of all handles of all processes. On Wine GetProcessHandleCount answers 0, and the list of
// processes has the size of each handle table, which a few leaks do not change: the handles are counted one
// by one.
constexpr ULONG kExtendedHandles = 64;

struct HandleEntry {
    void* object;
    ULONG_PTR process;
    ULONG_PTR handle;
    ULONG access;
    USHORT trace;
    USHORT type;
    ULONG attributes;
    ULONG reserved;
};
struct HandleList {
    ULONG_PTR count;
    ULONG_PTR reserved;
};

std::vector<std::byte> ReadHandleList() {
    using Query = NTSTATUS(WINAPI*)(ULONG, PVOID, ULONG, PULONG);
    const auto query = reinterpret_cast<Query>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll"), "NtQuerySystemInformation")));
    constexpr size_t kLargest = size_t{256} * 1024 * 1024;
    for (size_t size = size_t{256} * 1024; size <= kLargest; size *= 2) {
        std::vector<std::byte> list(size);
        ULONG needed = 0;
        if (query(kExtendedHandles, list.data(), static_cast<ULONG>(list.size()), &needed) >= 0) {
            return list;
        }
    }
    throw std::runtime_error("the list of handles cannot be read");
}

}  // namespace

unsigned long OpenHandleCount() {
    const std::vector<std::byte> list = ReadHandleList();
    const auto* const head = reinterpret_cast<const HandleList*>(list.data());
    const auto* const first = reinterpret_cast<const HandleEntry*>(list.data() + sizeof(HandleList));
    const auto self = static_cast<ULONG_PTR>(GetCurrentProcessId());
    const auto count = std::count_if(first, first + head->count,
                                     [self](const HandleEntry& entry) { return entry.process == self; });
    if (count == 0) {
        throw std::runtime_error("the platform does not list handles");
    }
    return static_cast<unsigned long>(count);
}

}  // namespace corvi::test
