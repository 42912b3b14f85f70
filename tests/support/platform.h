#pragma once

#include <windows.h>

#include <string>

namespace corvi::test {

// Where platforms answer differently, and each may, a test asks here what this one does.

/// What the platform hands over for a REG_MULTI_SZ value that is stored as exactly these characters: it may
/// add terminators that are missing, of an empty list too. Asked once for each text, through RegGetValueW.
std::wstring MultiStringHandedOver(const std::wstring& stored);

/// True when the platform's TaskKill.exe ends every process of an image name, false when it ends only the
/// first that it finds. Asked once, with two processes of our own.
bool TaskKillEndsEveryProcess();

}  // namespace corvi::test
