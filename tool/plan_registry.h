#pragma once

#include <windows.h>

#include <string>

namespace corvi::tool::plan {

// The registry as it would be after the changes that were noted so far. Each function stands in for the
// platform's of the same name: reads show the noted changes, writes are noted and nothing else.

LSTATUS WINAPI OpenKey(HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY result);
LSTATUS WINAPI CreateKey(HKEY root, LPCWSTR subkey, DWORD reserved, LPWSTR className, DWORD options,
                         REGSAM access, LPSECURITY_ATTRIBUTES security, PHKEY result, LPDWORD disposition);
LSTATUS WINAPI CloseKey(HKEY key);
LSTATUS WINAPI QueryValue(HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size);
LSTATUS WINAPI GetValue(HKEY key, LPCWSTR subkey, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
                        LPDWORD size);
LSTATUS WINAPI SetValue(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size);
LSTATUS WINAPI DeleteValue(HKEY key, LPCWSTR name);
LSTATUS WINAPI DeleteKeyValue(HKEY key, LPCWSTR subkey, LPCWSTR name);
LSTATUS WINAPI DeleteKey(HKEY key, LPCWSTR subkey);
LSTATUS WINAPI DeleteKeyOfView(HKEY key, LPCWSTR subkey, REGSAM view, DWORD reserved);
LSTATUS WINAPI DeleteTree(HKEY key, LPCWSTR subkey);
LSTATUS WINAPI EnumKey(HKEY key, DWORD index, LPWSTR name, LPDWORD length, LPDWORD reserved, LPWSTR className,
                       LPDWORD classLength, PFILETIME written);
LSTATUS WINAPI EnumValue(HKEY key, DWORD index, LPWSTR name, LPDWORD length, LPDWORD reserved, LPDWORD type,
                         LPBYTE data, LPDWORD size);
LSTATUS WINAPI QueryInfoKey(HKEY key, LPWSTR className, LPDWORD classLength, LPDWORD reserved,
                            LPDWORD subkeys, LPDWORD longestSubkey, LPDWORD longestClass, LPDWORD values,
                            LPDWORD longestValue, LPDWORD largestData, LPDWORD descriptorSize,
                            PFILETIME written);

/// Makes a key below HKEY_LOCAL_MACHINE disappear without a note: a service that goes takes its key along.
void HideMachineKey(const std::wstring& path);

}  // namespace corvi::tool::plan
