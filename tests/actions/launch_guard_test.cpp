#include <gtest/gtest.h>

#include "tests/support/installer_session.h"
#include "tests/support/library.h"

namespace corvi::test {
namespace {

TEST(LaunchedFromPim, SetToOneLetsTheInstallGoOnAndLogsTheValue) {
    Library library;
    InstallerSession session;
    session.SetProperty(L"LAUNCHED_FROM_PIM", L"1");
    EXPECT_EQ(library.Call("LaunchedFromPIM", session.Handle()), 0U);
    EXPECT_EQ(session.LogLines(), std::vector<std::wstring>{L"SABLE_CA Launched from PIM: 1 \n"});
}

}  // namespace
}  // namespace corvi::test
