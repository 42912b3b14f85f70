#pragma once

#include <windows.h>

namespace corvi::test {

// The mark of a machine that tests and benchmarks may change: they write to its registry and delete folders.
inline constexpr wchar_t kThrowawayKey[] = L"SOFTWARE\\CorviTests";
inline constexpr wchar_t kThrowawayValue[] = L"ThrowawayMachine";

/// True on a machine with the mark: a number 1 below HKEY_LOCAL_MACHINE. Stands on RegGetValueW.
inline bool IsThrowawayMachine() {
    DWORD mark = 0;
    DWORD size = sizeof(mark);
    return RegGetValueW(HKEY_LOCAL_MACHINE, kThrowawayKey, kThrowawayValue, RRF_RT_REG_DWORD, nullptr, &mark,
                        &size) == ERROR_SUCCESS &&
           mark == 1;
}

/// Marks this machine. False when its registry does not let it. Stands on RegSetKeyValueW.
inline bool MarkAsThrowawayMachine() {
    const DWORD mark = 1;
    return RegSetKeyValueW(HKEY_LOCAL_MACHINE, kThrowawayKey, kThrowawayValue, REG_DWORD, &mark,
                           sizeof(mark)) == ERROR_SUCCESS;
}

}  // namespace corvi::test
