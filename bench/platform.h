#pragma once

#include <windows.h>

#include <string>

namespace corvi::bench {

/// Starts a command line without a window and waits for its end. Gives its exit code.
DWORD CreateAndWait(const std::wstring& commandLine);

/// Makes folders with files in them below an absent folder.
void MakeFiles(const std::wstring& folder, int folders, int filesPerFolder);

bool IsThere(const std::wstring& path);

/// Deletes a folder with everything in it, the plain way: search, delete, remove.
void FindAndDelete(const std::wstring& folder);

}  // namespace corvi::bench
