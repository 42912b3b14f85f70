#pragma once

#include <windows.h>

#include <utility>

#include "runtime/registry.h"

namespace corvi {

/// The three ways in which an exported action may treat a failure of its work. An action names its way
/// in its first line, so that a deviation is a word at the call site and not a missing catch.
/// work: a callable without arguments that returns the action's result code.

/// Best effort: whatever the work throws is caught, and the action answers resultOnError, usually 0, so
/// that housekeeping never stops an install.
template <typename Work>
UINT BestEffort(Work&& work, UINT resultOnError = ERROR_SUCCESS) noexcept {
    try {
        return static_cast<UINT>(std::forward<Work>(work)());
    } catch (...) {
        return resultOnError;
    }
}

/// Must stop: whatever the work throws is caught and becomes ERROR_INSTALL_FAILURE (1603).
template <typename Work>
UINT MustStop(Work&& work) noexcept {
    return BestEffort(std::forward<Work>(work), ERROR_INSTALL_FAILURE);
}

/// Lets a registry error through: a RegKeyError leaves the action, and the installer sees the action
/// crash. Kept for the few actions whose contract it is. Everything else is caught as in BestEffort.
template <typename Work>
UINT LetRegistryErrorThrough(Work&& work, UINT resultOnError = ERROR_SUCCESS) {
    try {
        return static_cast<UINT>(std::forward<Work>(work)());
    } catch (const RegKeyError&) {
        throw;
    } catch (...) {
        return resultOnError;
    }
}

}  // namespace corvi
