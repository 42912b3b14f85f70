#include "runtime/system_info.h"

#include <gtest/gtest.h>

namespace corvi::test {
namespace {

TEST(IsRunningUnderWow64, A64BitProcessGetsZero) { EXPECT_EQ(IsRunningUnderWow64(), 0); }

TEST(MatchWindowsVersion, AFullVersionGivesItsThreeNumbers) {
    const auto groups = MatchWindowsVersion(L"10.22631.2861");
    ASSERT_TRUE(groups);
    EXPECT_EQ(groups->major, L"10");
    EXPECT_EQ(groups->build, L"22631");
    EXPECT_EQ(groups->revision, L"2861");
}

}  // namespace
}  // namespace corvi::test
