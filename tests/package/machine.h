#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace corvi::test {

/// True when the machine key (below HKEY_LOCAL_MACHINE) exists in the 64-bit view.
bool MachineKeyExists(const std::wstring& key);
/// A text or number (as decimal text) below HKEY_LOCAL_MACHINE; nothing when it is not there.
std::optional<std::wstring> MachineValue(const std::wstring& key, const std::wstring& name);
void SetMachineText(const std::wstring& key, const std::wstring& name, const std::wstring& text);
void SetMachineNumber(const std::wstring& key, const std::wstring& name, DWORD number);
bool FileExists(const std::wstring& path);
/// True when a folder in which a program was started is gone, or as good as that: it is empty, and the
/// platform lets the program's console host hold it for a while.
bool StartFolderIsGone(const std::wstring& folder);
/// The product codes that are installed under an upgrade code.
std::vector<std::wstring> InstalledProducts(const std::wstring& upgradeCode);
/// Uninstalls every product that is installed under an upgrade code, each with the given properties.
void UninstallProducts(const std::wstring& upgradeCode, const std::wstring& properties = L"");

}  // namespace corvi::test
