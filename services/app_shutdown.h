#pragma once

namespace corvi {

/// Asks the settings application to exit by running its "hxcmd.exe" with "exit" from the install
/// location, and waits at most 30,000 ms for that tool. Every error is swallowed.
void ExitHXApplication() noexcept;

}  // namespace corvi
