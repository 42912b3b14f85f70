#pragma once

#include <windows.h>

#include <accctrl.h>
#include <aclapi.h>

#include <string>

namespace corvi::tool::plan {

// The files and folders as they would be after the changes that were noted so far. Each function stands
// in for the platform's of the same name.

DWORD WINAPI FileAttributes(LPCWSTR path);
BOOL WINAPI SetAttributes(LPCWSTR path, DWORD attributes);
HANDLE WINAPI OpenFile(LPCWSTR path, DWORD access, DWORD sharing, LPSECURITY_ATTRIBUTES security,
                       DWORD creation, DWORD flags, HANDLE model);
BOOL WINAPI ReadFromFile(HANDLE file, LPVOID buffer, DWORD size, LPDWORD read, LPOVERLAPPED overlapped);
BOOL WINAPI WriteToFile(HANDLE file, LPCVOID buffer, DWORD size, LPDWORD written, LPOVERLAPPED overlapped);
BOOL WINAPI MoveFilePointer(HANDLE file, LARGE_INTEGER distance, PLARGE_INTEGER position, DWORD method);
BOOL WINAPI FileSize(HANDLE file, PLARGE_INTEGER size);
BOOL WINAPI FileInformation(HANDLE file, LPBY_HANDLE_FILE_INFORMATION information);
BOOL WINAPI FileInformationOfClass(HANDLE file, FILE_INFO_BY_HANDLE_CLASS wanted, LPVOID buffer, DWORD size);
DWORD WINAPI FinalPath(HANDLE file, LPWSTR path, DWORD size, DWORD flags);
BOOL WINAPI DeleteOneFile(LPCWSTR path);
BOOL WINAPI RemoveFolder(LPCWSTR path);
BOOL WINAPI MoveOne(LPCWSTR from, LPCWSTR to, DWORD flags);
HANDLE WINAPI FindFirst(LPCWSTR pattern, LPWIN32_FIND_DATAW data);
BOOL WINAPI FindNext(HANDLE find, LPWIN32_FIND_DATAW data);
BOOL WINAPI CloseFind(HANDLE find);
BOOL WINAPI PathExists(LPCWSTR path);
BOOL WINAPI PathIsFolder(LPCWSTR path);
BOOL WINAPI PathIsEmptyFolder(LPCWSTR path);
int WINAPI CreateFolders(HWND window, LPCWSTR path, const SECURITY_ATTRIBUTES* security);
int RemoveByRuntime(const wchar_t* path);
DWORD WINAPI SetSecurity(HANDLE object, SE_OBJECT_TYPE type, SECURITY_INFORMATION what, PSID owner,
                         PSID group, PACL list, PACL auditList);

/// Closes a handle that one of these functions gave out; false when it is none of theirs.
bool CloseFile(HANDLE file);

/// The path by which the platform reaches what the action would find under this one; empty when the
/// action would find nothing, or something that only the notes know.
std::wstring RealPath(const std::wstring& path);

}  // namespace corvi::tool::plan
