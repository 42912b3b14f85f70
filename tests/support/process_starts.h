#pragma once

#include <windows.h>

#include "tool/interception.h"

namespace corvi::test {

/// Lets one module's starts of processes be tried again when the platform refuses them with
/// ERROR_INTERNAL_ERROR. So Wine answers, once in about 1,000 starts on a loaded machine, when the new
/// process dies before it has begun; no test is about that. A test's own hook of CreateProcessW takes the
/// place of this one; what it finds behind the import (CORVI_ORIGINAL) tries again.
class SteadyStarts {
public:
    /// module: a loaded DLL, or GetModuleHandleW(nullptr) for the running test program.
    explicit SteadyStarts(HMODULE module);

private:
    tool::Interception imports_;
};

}  // namespace corvi::test
