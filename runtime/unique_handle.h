#pragma once

#include <utility>

namespace corvi {

/// Owns one platform handle and closes it exactly once. Traits: `using Handle`, `static Handle None()`
/// (the value that means "not open") and `static void Close(Handle)`, called for every other value.
template <typename Traits>
class UniqueHandle {
public:
    using Handle = typename Traits::Handle;

    UniqueHandle() noexcept = default;
    explicit UniqueHandle(Handle handle) noexcept : handle_(handle) {}
    ~UniqueHandle() { Reset(); }

    UniqueHandle(UniqueHandle&& other) noexcept : handle_(other.Release()) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept {
        if (this != &other) {
            Reset(other.Release());
        }
        return *this;
    }
    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;

    explicit operator bool() const noexcept { return handle_ != Traits::None(); }
    Handle Get() const noexcept { return handle_; }

    /// Gives the handle up without closing it.
    Handle Release() noexcept { return std::exchange(handle_, Traits::None()); }

    /// Closes what is held and takes the given handle.
    void Reset(Handle handle = Traits::None()) noexcept {
        const Handle old = std::exchange(handle_, handle);
        if (old != Traits::None()) {
            Traits::Close(old);
        }
    }

    /// For platform calls that write a new handle: closes what is held and gives its address.
    Handle* Put() noexcept {
        Reset();
        return &handle_;
    }

private:
    Handle handle_ = Traits::None();
};

}  // namespace corvi
