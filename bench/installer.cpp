#include <windows.h>

#include <string>

#include "bench/platform.h"
#include "bench/rows.h"

namespace corvi::bench {
namespace {

void RunInstaller(const std::wstring& arguments) {
    Require(CreateAndWait(L"C:\\windows\\system32\\msiexec.exe " + arguments + L" /qn") == 0,
            "an installer's run");
}

Way InstallOf(const std::string& name, const std::wstring& package) {
    // Both packages are one product: what was measured last is taken away first.
    return {name,
            [] {
                CreateAndWait(
                    L"C:\\windows\\system32\\msiexec.exe /x "
                    L"{2F4A0C7B-93E1-4D56-A7C8-5B1E90D3F64A} /qn");
            },
            [package] { RunInstaller(L"/i C:\\corvi\\" + package); }};
}

}  // namespace

Row InstallerCallsRow() {
    return {"install of a package that calls 47 cheap actions",
            InstallOf("Corvi_CA.dll", L"calls_library.msi"),
            {{InstallOf("empty DLL", L"calls_empty.msi"), 1.3}},
            1};
}

}  // namespace corvi::bench
