#include <windows.h>

#include "bench/platform.h"
#include "bench/rows.h"
#include "runtime/filesystem.h"

namespace corvi::bench {
namespace {

constexpr wchar_t kFolder[] = L"C:\\corvi\\files";
constexpr int kFolders = 100;
constexpr int kFilesPerFolder = 100;

void Prepare() { MakeFiles(kFolder, kFolders, kFilesPerFolder); }

void Check() { Require(!IsThere(kFolder), "deleting the folder"); }

}  // namespace

Row DeleteFolderRow() {
    return {"DeleteFolder, 10,000 files in 100 folders",
            {"DeleteFolder", Prepare, [] { DeleteFolder(kFolder); }, Check},
            {{{"rd /s /q of the system", Prepare,
               [] { CreateAndWait(std::wstring(L"cmd.exe /C rd /s /q ") + kFolder); }, Check},
              1.0},
             {{"bare loop: find, delete, remove", Prepare, [] { FindAndDelete(kFolder); }, Check}, 1.3}}};
}

}  // namespace corvi::bench
