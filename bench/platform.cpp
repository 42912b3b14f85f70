#include "bench/platform.h"

#include "bench/harness.h"
#include "runtime/kernel_handle.h"

namespace corvi::bench {

DWORD CreateAndWait(const std::wstring& commandLine) {
    std::wstring writable = commandLine;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child = {};
    Require(CreateProcessW(nullptr, writable.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                           nullptr, &startup, &child) != FALSE,
            "starting a program");
    const KernelHandle process(child.hProcess);
    const KernelHandle thread(child.hThread);
    DWORD exitCode = 0;
    WaitForSingleObject(process.Get(), INFINITE);
    GetExitCodeProcess(process.Get(), &exitCode);
    return exitCode;
}

void MakeFiles(const std::wstring& folder, int folders, int filesPerFolder) {
    Require(CreateDirectoryW(folder.c_str(), nullptr) != FALSE, "making a folder");
    for (int number = 0; number < folders; ++number) {
        const std::wstring subfolder = folder + L"\\folder" + std::to_wstring(number);
        Require(CreateDirectoryW(subfolder.c_str(), nullptr) != FALSE, "making a folder");
        for (int file = 0; file < filesPerFolder; ++file) {
            const std::wstring path = subfolder + L"\\file" + std::to_wstring(file) + L".txt";
            const FileHandle handle(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                                FILE_ATTRIBUTE_NORMAL, nullptr));
            Require(static_cast<bool>(handle), "making a file");
        }
    }
}

bool IsThere(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

void FindAndDelete(const std::wstring& folder) {
    WIN32_FIND_DATAW found = {};
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
    Require(search != INVALID_HANDLE_VALUE, "searching a folder");
    do {
        const std::wstring name = found.cFileName;
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
            DeleteFileW((folder + L"\\" + name).c_str());
        } else if (name != L"." && name != L"..") {
            FindAndDelete(folder + L"\\" + name);
        }
    } while (FindNextFileW(search, &found) != FALSE);
    FindClose(search);
    RemoveDirectoryW(folder.c_str());
}

}  // namespace corvi::bench
