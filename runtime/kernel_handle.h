#pragma once

#include <windows.h>

#include "runtime/unique_handle.h"

namespace corvi {

struct KernelHandleTraits {
    using Handle = HANDLE;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle handle) noexcept { CloseHandle(handle); }
};

/// A process, thread, pipe end or token: null means none.
using KernelHandle = UniqueHandle<KernelHandleTraits>;

struct FileHandleTraits {
    using Handle = HANDLE;
    static Handle None() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Handle handle) noexcept { CloseHandle(handle); }
};

/// A file, directory or snapshot: INVALID_HANDLE_VALUE means none.
using FileHandle = UniqueHandle<FileHandleTraits>;

}  // namespace corvi
