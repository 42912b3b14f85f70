#include "tests/support/import_hooks.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "tests/support/library.h"

namespace corvi::test {
namespace {

TEST(ImportHooks, ReplacesAnEntryOfADllAndRecordsTheCall) {
    const Library library;
    ImportHooks hooks(library.Module());
    std::wstring deleted;
    CORVI_HOOK(hooks, RegDeleteTreeW, [&](HKEY, LPCWSTR path) -> LSTATUS {
        deleted = path;
        return ERROR_SUCCESS;
    });
    library.Call("DeleteQELKey", 0);
    EXPECT_EQ(deleted, L"SOFTWARE\\QEL");
}

TEST(ImportHooks, PutsThePlatformsFunctionBackAtTheEndOfTheScope) {
    const Library library;
    int calls = 0;
    {
        ImportHooks hooks(library.Module());
        CORVI_HOOK(hooks, RegDeleteTreeW, [&](HKEY, LPCWSTR) -> LSTATUS { return ++calls; });
        library.Call("DeleteQELKey", 0);
    }
    library.Call("DeleteQELKey", 0);
    EXPECT_EQ(calls, 1);
}

TEST(ImportHooks, ASecondReplacementTakesThePlaceOfTheFirst) {
    const Library library;
    ImportHooks hooks(library.Module());
    int first = 0;
    int second = 0;
    CORVI_HOOK(hooks, RegDeleteTreeW, [&](HKEY, LPCWSTR) -> LSTATUS { return ++first; });
    CORVI_HOOK(hooks, RegDeleteTreeW, [&](HKEY, LPCWSTR) -> LSTATUS { return ++second; });
    library.Call("DeleteQELKey", 0);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
    hooks.RestoreAll();
    library.Call("DeleteQELKey", 0);
    EXPECT_EQ(second, 1);
}

TEST(ImportHooks, CallsOfOtherModulesStillReachThePlatform) {
    const Library library;
    ImportHooks hooks(library.Module());
    CORVI_HOOK(hooks, RegDeleteTreeW, [](HKEY, LPCWSTR) -> LSTATUS { return ERROR_SUCCESS; });
    EXPECT_EQ(RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\CorviNoSuchKey"), ERROR_FILE_NOT_FOUND);
}

TEST(ImportHooks, TheTestProgramsOwnCallsCanBeReplacedAndTheOriginalReached) {
    ImportHooks hooks(GetModuleHandleW(nullptr));
    CORVI_HOOK(hooks, RegDeleteTreeW, [&](HKEY root, LPCWSTR path) {
        return CORVI_ORIGINAL(hooks, RegDeleteTreeW)(root, path) + 1000;
    });
    EXPECT_EQ(RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\CorviNoSuchKey"), ERROR_FILE_NOT_FOUND + 1000);
}

TEST(ImportHooks, AFunctionThatIsNotImportedIsAnError) {
    const Library library;
    ImportHooks hooks(library.Module());
    EXPECT_FALSE(hooks.Imports("ExitWindowsEx"));
    EXPECT_TRUE(hooks.Imports("RegDeleteTreeW"));
    const auto replaceAbsent = [&] { CORVI_HOOK(hooks, ExitWindowsEx, [](UINT, DWORD) { return FALSE; }); };
    EXPECT_THROW(replaceAbsent(), std::runtime_error);
    EXPECT_THROW(hooks.Original("RegDeleteTreeW"), std::runtime_error);
}

TEST(ImportHooks, TheListOfImportsNamesLibraryFunctionAndWhereTheAddressStands) {
    const Library library;
    const auto imports = tool::ListImports(library.Module());
    const auto found = std::find_if(imports.begin(), imports.end(), [](const tool::Import& import) {
        return import.function == "RegDeleteTreeW";
    });
    ASSERT_NE(found, imports.end());
    EXPECT_EQ(_stricmp(found->library.c_str(), "advapi32.dll"), 0);
    ImportHooks hooks(library.Module());
    CORVI_HOOK(hooks, RegDeleteTreeW, [](HKEY, LPCWSTR) -> LSTATUS { return ERROR_SUCCESS; });
    EXPECT_NE(*found->entry, hooks.Original("RegDeleteTreeW"));
    hooks.RestoreAll();
    EXPECT_EQ(*found->entry,
              reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"advapi32"), "RegDeleteTreeW")));
}

}  // namespace
}  // namespace corvi::test
