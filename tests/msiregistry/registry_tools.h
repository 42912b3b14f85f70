#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace corvi::test {

/// A REG_SZ value below root\key, the key being made; type: another string type.
void WriteText(HKEY root, const std::wstring& key, const std::wstring& name, const std::wstring& text,
               DWORD type = REG_SZ);
void WriteNumber(HKEY root, const std::wstring& key, const std::wstring& name, DWORD value);
void MakeKey(HKEY root, const std::wstring& key);

bool KeyExists(HKEY root, const std::wstring& key);
bool ValueExists(HKEY root, const std::wstring& key, const std::wstring& name);
std::optional<std::wstring> ReadText(HKEY root, const std::wstring& key, const std::wstring& name);
std::optional<DWORD> ReadNumber(HKEY root, const std::wstring& key, const std::wstring& name);
std::vector<std::wstring> ValueNames(HKEY root, const std::wstring& key);
std::vector<std::wstring> SubkeyNames(HKEY root, const std::wstring& key);

/// Deletes root\key with everything below it.
void DropKey(HKEY root, const std::wstring& key);

/// Every key and value below root\key (empty: the whole root), the values with type and data, one line each.
std::vector<std::wstring> ExportRegistry(HKEY root, const std::wstring& key = L"");

}  // namespace corvi::test
