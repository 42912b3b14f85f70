#include <windows.h>

#include "bench/platform.h"
#include "bench/rows.h"
#include "runtime/process.h"

namespace corvi::bench {
namespace {

// Without output: the bare way has nobody to read it.
constexpr wchar_t kCommand[] = L"exit 0";

}  // namespace

Row RunCommandlineRow() {
    return {"RunCommandline, cmd.exe /C exit 0",
            {"RunCommandline", nullptr, [] { RunCommandline(kCommand, nullptr, 0); }},
            {{{"bare create and wait, same command line", nullptr,
               [] { CreateAndWait(std::wstring(L"cmd.exe /C \"") + kCommand + L"\""); }},
              1.3}},
            10};
}

}  // namespace corvi::bench
