#include "runtime/process.h"

#include <windows.h>

#include <gtest/gtest.h>

#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"

namespace corvi::test {
namespace {

constexpr wchar_t kChild[] = L"C:\\corvi\\child.exe";

std::wstring ChildCommand(const std::wstring& arguments) { return std::wstring(kChild) + L" " + arguments; }

TEST(RunCommandline, ACommandThatPrintsNothingAndExits3LogsAnEmptyOutputAndReturns3) {
    InstallerSession session;
    EXPECT_EQ(RunCommandline(ChildCommand(L"exit 3"), nullptr, session.Handle()), 3);
    EXPECT_EQ(session.LogLines(),
              std::vector<std::wstring>{L"RunCommandline: C:\\corvi\\child.exe exit 3 - \n"});
}

}  // namespace
}  // namespace corvi::test
