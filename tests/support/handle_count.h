#pragma once

namespace corvi::test {

/// How many handles this process has open. Throws std::runtime_error when the platform does not tell.
unsigned long OpenHandleCount();

}  // namespace corvi::test
