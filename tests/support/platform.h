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

/// True when the host of a program's console keeps the folder in which the program was started for its own:
/// the folder cannot be removed then until the host has ended too, a little after the program. Asked once,
/// with a program of our own.
bool ConsoleHostHoldsFolder();

/// True when the platform's installer skips the rest of the sequence, successfully, after an action that
/// answers ERROR_NO_MORE_ITEMS (259), as documented; false when it goes on. Asked once, with a package of our
/// own.
bool InstallerSkipsTheRest();

/// True when the platform makes and removes links by its own calls. Asked once, with a link of our own.
bool MakesLinks();

}  // namespace corvi::test
