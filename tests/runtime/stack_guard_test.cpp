#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>

#include "runtime/process.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"

namespace corvi::test {
namespace {

constexpr wchar_t kProgram[] = L"C:\\corvi\\overrun.exe";

uint64_t GuardOfOneRun() {
    InstallerSession session;
    RunCommandline(kProgram + std::wstring(L" show"), nullptr, session.Handle());
    const std::wstring line = session.LogLines().at(0);
    return std::wcstoull(line.c_str() + line.rfind(L" - ") + 3, nullptr, 16);
}

TEST(StackGuard, AnOverrunEndsTheProcess) {
    EXPECT_EQ(static_cast<UINT>(RunCommandline(kProgram + std::wstring(L" overrun"), nullptr, 0)),
              0xC0000409U);
}

TEST(StackGuard, IsAnotherOneInEachProcessAndEndsInAZeroByte) {
    const uint64_t first = GuardOfOneRun();
    const uint64_t second = GuardOfOneRun();
    EXPECT_NE(first, second);
    EXPECT_NE(first >> 32U, 0U);
    EXPECT_EQ(first & 0xFFU, 0U);
}

// Every load of the DLL would load the provider as well.
TEST(StackGuard, NeedsNoCryptographicProvider) {
    const Library library;
    const ImportHooks imports(library.Module());
    EXPECT_TRUE(imports.Imports("RegOpenKeyExW"));
    for (const char* function : {"CryptAcquireContextA", "CryptAcquireContextW", "CryptGenRandom"}) {
        EXPECT_FALSE(imports.Imports(function)) << function;
    }
}

}  // namespace
}  // namespace corvi::test
