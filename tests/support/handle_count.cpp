#include "tests/support/handle_count.h"

#include <windows.h>

#include <winternl.h>

#include <cstddef>
#include <stdexcept>
#include <vector>

namespace corvi::test {
namespace {

// GetProcessHandleCount answers 0 for every process on Wine; the list of all processes is right there.
std::vector<std::byte> ReadProcessList() {
    using Query = NTSTATUS(WINAPI*)(SYSTEM_INFORMATION_CLASS, PVOID, ULONG, PULONG);
    const auto query = reinterpret_cast<Query>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll"), "NtQuerySystemInformation")));
    std::vector<std::byte> list(size_t{64} * 1024);
    for (;;) {
        ULONG needed = 0;
        const NTSTATUS status =
            query(SystemProcessInformation, list.data(), static_cast<ULONG>(list.size()), &needed);
        if (status >= 0) {
            return list;
        }
        if (needed <= list.size()) {
            throw std::runtime_error("the list of processes cannot be read");
        }
        list.resize(needed * size_t{2});
    }
}

}  // namespace

unsigned long OpenHandleCount() {
    const std::vector<std::byte> list = ReadProcessList();
    const auto self = static_cast<ULONG_PTR>(GetCurrentProcessId());
    for (size_t offset = 0;;) {
        const auto* const entry = reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(list.data() + offset);
        if (reinterpret_cast<ULONG_PTR>(entry->UniqueProcessId) == self) {
            if (entry->HandleCount == 0) {
                throw std::runtime_error("the platform does not count handles");
            }
            return entry->HandleCount;
        }
        if (entry->NextEntryOffset == 0) {
            throw std::runtime_error("this process is not in the list of processes");
        }
        offset += entry->NextEntryOffset;
    }
}

}  // namespace corvi::test
