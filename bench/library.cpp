#include <windows.h>

#include "bench/rows.h"

namespace corvi::bench {
namespace {

void LoadAndUnload(const wchar_t* path) {
    const HMODULE module = LoadLibraryW(path);
    Require(module != nullptr, "loading a DLL");
    FreeLibrary(module);
}

}  // namespace

Row LibraryLoadRow() {
    return {"load and unload Corvi_CA.dll",
            {"Corvi_CA.dll", nullptr, [] { LoadAndUnload(L"C:\\corvi\\Corvi_CA.dll"); }},
            {{{"empty DLL", nullptr, [] { LoadAndUnload(L"C:\\corvi\\empty.dll"); }}, 1.3}},
            100};
}

}  // namespace corvi::bench
