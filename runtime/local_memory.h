#pragma once

#include <windows.h>

#include "runtime/unique_handle.h"

namespace corvi {

template <typename Pointer>
struct LocalMemoryTraits {
    using Handle = Pointer;
    static Handle None() noexcept { return nullptr; }
    static void Close(Handle memory) noexcept { LocalFree(memory); }
};

/// Memory that the platform made for its caller (a text, an access list) and that LocalFree gives back.
/// Pointer: the pointer type under which the platform call hands it over.
template <typename Pointer>
using LocalMemory = UniqueHandle<LocalMemoryTraits<Pointer>>;

}  // namespace corvi
