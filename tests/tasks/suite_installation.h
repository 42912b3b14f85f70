#pragma once

#include <windows.h>

#include <string>

#include "tests/support/scratch_key.h"
#include "tests/tasks/task_files.h"

namespace corvi::test {

inline constexpr wchar_t kInstallDirectory[] = L"C:\\corvi\\install";
/// As much of a task definition as the platform's tool wants.
inline constexpr wchar_t kTaskDefinition[] =
    L"<Task version=\"1.2\" xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\">"
    L"<Actions><Exec><Command>x.exe</Command><WorkingDirectory>old</WorkingDirectory></Exec></Actions>"
    L"</Task>";

/// An installed suite: the directory and the registry value that names it. What a tool that still runs holds
/// of the directory stays behind.
class SuiteInstallation {
public:
    SuiteInstallation();
    ~SuiteInstallation();
    SuiteInstallation(const SuiteInstallation&) = delete;
    SuiteInstallation& operator=(const SuiteInstallation&) = delete;

    /// Registers another location, which need not exist.
    void SetLocation(const std::wstring& location) const { key_.SetText(L"", L"Location", location); }
    /// Puts a task definition into the install directory.
    void AddTaskFile(const std::wstring& fileName, const std::wstring& xml = kTaskDefinition) const {
        WriteBytes(std::wstring(kInstallDirectory) + L'\\' + fileName, Utf16(xml));
    }
    const ScratchKey& Key() const { return key_; }

private:
    ScratchKey key_{L"SOFTWARE\\QEL Technologies\\Install\\HXNext"};
};

/// The directory for temporary files, with its trailing backslash.
std::wstring TemporaryDirectory();

}  // namespace corvi::test
