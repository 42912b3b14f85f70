#pragma once

#include <windows.h>

#include "runtime/unique_handle.h"

namespace corvi {

struct ServiceHandleTraits {
    using Handle = SC_HANDLE;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle handle) noexcept { CloseServiceHandle(handle); }
};

/// The service manager or one service.
using ServiceHandle = UniqueHandle<ServiceHandleTraits>;

}  // namespace corvi
