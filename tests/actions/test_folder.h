#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace corvi::test {

/// A folder on drive C: that a test fills with files, folders and links: empty at the start, gone at the
/// end, whatever is read-only in it. Relative paths below are relative to it, with backslashes.
class TestFolder {
public:
    /// name: one path element ("product").
    explicit TestFolder(const std::wstring& name);
    ~TestFolder();
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;

    /// The folder, absolute, without trailing backslash.
    const std::wstring& Path() const { return path_; }
    std::wstring Path(const std::wstring& relative) const { return path_ + L'\\' + relative; }

    /// Makes a file and the folders above it; attributes: FILE_ATTRIBUTE_READONLY for instance.
    void MakeFile(const std::wstring& relative, DWORD attributes = FILE_ATTRIBUTE_NORMAL) const;
    void MakeFolder(const std::wstring& relative) const;

    /// Makes a real link to a file or folder, which exists or not; both are relative to this folder.
    void MakeLink(const std::wstring& link, const std::wstring& target) const;

    /// Puts a program that notes how it was started (see ToolRecorder::Runs), and the folders above it.
    void MakeRecorder(const std::wstring& relative, unsigned exitCode = 0) const;

    /// True when there is something of that name, a link that leads nowhere included.
    bool Has(const std::wstring& relative) const;

    /// The names directly in the folder or in a folder below it, sorted.
    std::vector<std::wstring> Names(const std::wstring& relative = L"") const;

private:
    void Remove() const;

    std::wstring path_;
};

/// Holds a file open without sharing it while this object lives.
class HeldFile {
public:
    explicit HeldFile(const std::wstring& path);
    ~HeldFile() { CloseHandle(file_); }
    HeldFile(const HeldFile&) = delete;
    HeldFile& operator=(const HeldFile&) = delete;

private:
    HANDLE file_;
};

/// Makes a folder the process's current one while this object lives.
class CurrentDirectory {
public:
    explicit CurrentDirectory(const std::wstring& path);
    ~CurrentDirectory() { SetCurrentDirectoryW(previous_.c_str()); }
    CurrentDirectory(const CurrentDirectory&) = delete;
    CurrentDirectory& operator=(const CurrentDirectory&) = delete;

private:
    std::wstring previous_;
};

/// Deletes a key below HKEY_LOCAL_MACHINE with everything below it, if it is there.
void DropMachineKey(const std::wstring& key);

}  // namespace corvi::test
