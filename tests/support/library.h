#pragma once

#include <windows.h>

#include <msi.h>

#include <string>

namespace corvi::test {

/// The real C:\corvi\Corvi_CA.dll, loaded while this object lives.
class Library {
public:
    Library();
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    HMODULE Module() const { return module_; }

    /// Calls an exported action. What it throws passes through; throws std::runtime_error when there is
    /// no such export.
    UINT Call(const char* action, MSIHANDLE session) const;

private:
    HMODULE module_;
};

}  // namespace corvi::test
