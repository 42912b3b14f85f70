#include <windows.h>

#include "bench/platform.h"
#include "bench/rows.h"
#include "runtime/process.h"

namespace corvi::bench {
namespace {

constexpr wchar_t kCommand[] = L"echo measured";

}  // namespace

Row RunCommandlineRow() {
    return {"RunCommandline, cmd.exe /C echo",
            {"RunCommandline", nullptr,
             [] { Require(RunCommandline(kCommand, nullptr, 0) == 0, "RunCommandline"); }},
            {{{"bare create and wait, output not read", nullptr,
               [] { CreateAndWait(std::wstring(L"cmd.exe /C \"") + kCommand + L" >nul\""); }},
              1.3}},
            10};
}

}  // namespace corvi::bench
