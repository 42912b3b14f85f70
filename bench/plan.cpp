#include <windows.h>

#include <string>

#include "bench/platform.h"
#include "bench/rows.h"

namespace corvi::bench {
namespace {

constexpr wchar_t kFolder[] = L"C:\\corvi\\planned";
constexpr int kFolders = 100;
constexpr int kFilesPerFolder = 100;

// Once: neither way takes anything away.
void Prepare() {
    if (!IsThere(kFolder)) {
        MakeFiles(kFolder, kFolders, kFilesPerFolder);
    }
}

void Check() {
    Require(IsThere(std::wstring(kFolder) + L"\\folder99\\file99.txt"), "leaving the folder alone");
}

void Plan() {
    const std::wstring call = L"C:\\corvi\\corvi.exe plan DeleteDMFTDirectory --data InstallDir=";
    Require(CreateAndWait(call + kFolder) == 0, "planning a deletion");
}

size_t CountFiles(const std::wstring& folder) {
    size_t files = 0;
    WIN32_FIND_DATAW found = {};
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) {
        return 0;
    }
    do {
        const std::wstring name = found.cFileName;
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
            ++files;
        } else if (name != L"." && name != L"..") {
            files += CountFiles(folder + L"\\" + name);
        }
    } while (FindNextFileW(search, &found) != FALSE);
    FindClose(search);
    return files;
}

// The least that a program can do: it is started, and finds every file.
void StartAndCount() {
    CreateAndWait(L"cmd.exe /C exit 0");
    Require(CountFiles(kFolder) == size_t{kFolders} * kFilesPerFolder, "finding every file");
}

}  // namespace

Row PlanRow() {
    return {"corvi plan of a deletion, 10,000 files in 100 folders",
            {"corvi plan", Prepare, Plan, Check},
            {{{"dir /s of the system", Prepare,
               [] { CreateAndWait(std::wstring(L"cmd.exe /C dir /s ") + kFolder + L" >nul"); }, Check},
              1.3},
             {{"bare loop in a new process: find every file", Prepare, StartAndCount, Check}, 1.3}}};
}

}  // namespace corvi::bench
