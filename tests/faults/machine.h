#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace corvi::test {

// Fills the machine for a scenario. Keys are below HKEY_LOCAL_MACHINE unless a root is given, files are
// below C:\faults unless the path is absolute. Everything is made by plain platform calls: it is done anew
// for every fault.

/// Values of the machine that scenarios change and every program reads: put back at the end of this object.
class KeptValues {
public:
    KeptValues();
    ~KeptValues();
    KeptValues(const KeptValues&) = delete;
    KeptValues& operator=(const KeptValues&) = delete;

private:
    struct Value {
        DWORD type = REG_NONE;
        std::vector<BYTE> data;
        bool isThere = false;
    };
    std::vector<Value> values_;
};

/// The folder of the scenarios' files, without trailing backslash.
inline constexpr wchar_t kFolder[] = L"C:\\faults";

/// Deletes a key with everything below it.
void DropKey(const std::wstring& key, HKEY root = HKEY_LOCAL_MACHINE);
/// Deletes a value.
void DropValue(const std::wstring& key, const std::wstring& name);
void MakeKey(const std::wstring& key, HKEY root = HKEY_LOCAL_MACHINE);
void SetText(const std::wstring& key, const std::wstring& name, const std::wstring& text, DWORD type = REG_SZ,
             HKEY root = HKEY_LOCAL_MACHINE);
void SetNumber(const std::wstring& key, const std::wstring& name, DWORD number,
               HKEY root = HKEY_LOCAL_MACHINE);
void SetTexts(const std::wstring& key, const std::wstring& name, const std::vector<std::wstring>& texts);

/// Deletes a folder with everything below it, read-only files included.
void DropFolder(const std::wstring& path);
/// Makes a folder and those above it.
void MakeFolder(const std::wstring& path);
/// Makes a small file, and the folders above it.
void MakeFile(const std::wstring& path, DWORD attributes = FILE_ATTRIBUTE_NORMAL);
/// The absolute path of a path below C:\faults.
std::wstring Below(const std::wstring& relative);

}  // namespace corvi::test
