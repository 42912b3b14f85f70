#pragma once

#include <windows.h>

#include <msi.h>

#include <memory>

#include "tests/support/process_starts.h"

namespace corvi::test {

/// The real C:\corvi\Corvi_CA.dll, loaded while this object lives.
class Library {
public:
    Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    HMODULE Module() const { return module_.get(); }

    /// Calls an exported action. What it throws passes through; throws std::runtime_error when there is
    /// no such export.
    UINT Call(const char* action, MSIHANDLE session) const;

private:
    struct Unload {
        using pointer = HMODULE;
        void operator()(HMODULE module) const { FreeLibrary(module); }
    };
    std::unique_ptr<HMODULE, Unload> module_;
    SteadyStarts starts_;
};

}  // namespace corvi::test
