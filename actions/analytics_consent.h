#pragma once

#include <windows.h>

namespace corvi {

/// Tells the suite's installer whether the user-experience program (TUEP) is to be installed: writes
/// REG_DWORD "TUEP" under HKEY_LOCAL_MACHINE\SOFTWARE\TAVO\Install, 0 to enable it, 1 after its removal.
/// The key is created when it is missing. True when the value was written.
bool SetInstallTuepFlag(DWORD value);

}  // namespace corvi
