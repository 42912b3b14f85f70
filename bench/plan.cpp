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

}  // namespace

Row PlanRow() {
    return {"corvi plan of a deletion, 10,000 files in 100 folders",
            {"corvi plan", Prepare, Plan, Check},
            {{{"dir /s of the system", Prepare,
               [] { CreateAndWait(std::wstring(L"cmd.exe /C dir /s ") + kFolder + L" >nul"); }, Check},
              1.3}}};
}

}  // namespace corvi::bench
