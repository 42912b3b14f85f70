#include "runtime/action_data.h"

#include <gtest/gtest.h>
#include <msiquery.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"

namespace corvi::test {
namespace {

TEST(GetActionDataValue, TakesEachEntryUpToItsSemicolon) {
    const std::wstring data = L"InstallDir=C:\\A;DLLName=b.dll";
    EXPECT_EQ(GetActionDataValue(data, L"InstallDir="), L"C:\\A");
    EXPECT_EQ(GetActionDataValue(data, L"DLLName="), L"b.dll");
}

TEST(GetActionDataValue, TheLastEntryRunsToTheEndOfTheText) {
    EXPECT_EQ(GetActionDataValue(L"TaskName=T1", L"TaskName="), L"T1");
}

TEST(GetActionDataValue, AnEmptyValueIsEmpty) {
    EXPECT_EQ(GetActionDataValue(L"Username=;TaskName=T1", L"Username="), L"");
    EXPECT_EQ(GetActionDataValue(L"TaskName=", L"TaskName="), L"");
}

TEST(GetActionDataValue, TheKeyIsFoundEvenInsideALongerKey) {
    EXPECT_EQ(GetActionDataValue(L"VCDLLName=x.dll;DLLName=y.dll", L"DLLName="), L"x.dll");
}

TEST(GetActionDataValue, TheKeySearchRegardsCase) {
    EXPECT_EQ(GetActionDataValue(L"taskname=abcdefgh;n", L"TaskName="), L"=abcdefgh");
    EXPECT_EQ(GetActionDataValue(L"0123456789;TASKNAME=T", L"TaskName="), L"89");
}

TEST(GetActionDataValue, AnAbsentKeyGivesTheTextFromItsLengthLessOne) {
    EXPECT_EQ(GetActionDataValue(L"abcdefghijklm;n", L"InstallDir="), L"klm");
}

TEST(GetActionDataValue, AnAbsentKeyOnATextOfExactlyThatLengthGivesAnEmptyValue) {
    EXPECT_EQ(GetActionDataValue(L"abcdefghij", L"InstallDir="), L"");
}

TEST(GetActionDataValue, AnAbsentKeyOnAShorterTextThrowsOutOfRange) {
    try {
        GetActionDataValue(L"abcdefghi", L"InstallDir=");
        FAIL() << "nothing was thrown";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "invalid string position");
    }
    EXPECT_THROW(GetActionDataValue(L"", L"InstallDir="), std::out_of_range);
}

TEST(GetActionDataValue, BlanksQuotesAndTemplateSignsArePartOfTheValue) {
    EXPECT_EQ(GetActionDataValue(L"Action= \"%s\" %n [X] =;", L"Action="), L" \"%s\" %n [X] =");
}

class ReadActionDataTest : public testing::Test {
protected:
    InstallerSession session_;
};

TEST_F(ReadActionDataTest, GivesAndLogsTheWholeText) {
    session_.SetActionData(L"TaskName=T1;Username=me");
    EXPECT_EQ(ReadActionData(session_.Handle()), L"TaskName=T1;Username=me");
    EXPECT_EQ(session_.LogLines(), std::vector<std::wstring>{L"CustomActionData: TaskName=T1;Username=me"});
}

TEST_F(ReadActionDataTest, AnEmptyPropertyIsLoggedAsEmpty) {
    EXPECT_EQ(ReadActionData(session_.Handle()), L"");
    EXPECT_EQ(session_.LogLines(), std::vector<std::wstring>{L"CustomActionData: "});
}

TEST_F(ReadActionDataTest, SixtyFourThousandCharactersArriveWholeAndAreLoggedCut) {
    const std::wstring data = L"InstallDir=" + std::wstring(65536, L'x');
    session_.SetActionData(data);
    EXPECT_EQ(ReadActionData(session_.Handle()), data);
    ASSERT_EQ(session_.LogLines().size(), 1U);
    EXPECT_EQ(session_.LogLines()[0], (L"CustomActionData: " + data).substr(0, 519));
}

TEST_F(ReadActionDataTest, FormatSignsBracketsAndSemicolonsInTheValueAreNotInterpreted) {
    session_.SetActionData(L"%s%n;[ProductName];{x}%d%%");
    EXPECT_EQ(ReadActionData(session_.Handle()), L"%s%n;[ProductName];{x}%d%%");
    EXPECT_EQ(session_.LogLines(),
              std::vector<std::wstring>{L"CustomActionData: %s%n;[ProductName];{x}%d%%"});
}

TEST_F(ReadActionDataTest, AHandleThatIsNoSessionGivesAnEmptyText) {
    EXPECT_EQ(ReadActionData(0), L"");
    EXPECT_EQ(ReadActionData(0x7FFFFFFF), L"");
}

TEST_F(ReadActionDataTest, AShortPropertyFitsUpTo259Characters) {
    const std::wstring longest(259, L'v');
    session_.SetProperty(L"SHORT", longest);
    const ShortProperty fits = ReadShortProperty(session_.Handle(), L"SHORT");
    EXPECT_TRUE(fits.isRead);
    EXPECT_EQ(fits.text, longest);
    session_.SetProperty(L"SHORT", longest + L'v');
    const ShortProperty cut = ReadShortProperty(session_.Handle(), L"SHORT");
    EXPECT_FALSE(cut.isRead);
    EXPECT_EQ(cut.text, longest) << "what fitted";
    EXPECT_TRUE(ReadShortProperty(session_.Handle(), L"SHORT", 261).isRead);
}

TEST_F(ReadActionDataTest, AShortPropertyThatIsNotSetReadsEmptyAndWithoutSessionNotAtAll) {
    const ShortProperty notSet = ReadShortProperty(session_.Handle(), L"NEVER_SET");
    EXPECT_TRUE(notSet.isRead);
    EXPECT_EQ(notSet.text, L"");
    EXPECT_FALSE(ReadShortProperty(0, L"NEVER_SET").isRead);
}

/// Answers every read of a property by filling the room for it, without a terminator, and keeps the sizes of
/// that room. length: what the property's length is said to be.
void FillWithoutTerminator(ImportHooks& hooks, DWORD length, std::vector<DWORD>& rooms) {
    CORVI_HOOK(hooks, MsiGetPropertyW,
               [length, &rooms](MSIHANDLE, LPCWSTR, LPWSTR text, LPDWORD size) -> UINT {
                   rooms.push_back(*size);
                   std::fill_n(text, *size, L'x');
                   *size = length;
                   return ERROR_SUCCESS;
               });
}

TEST_F(ReadActionDataTest, ATextThatThePlatformLeavesUnterminatedEndsWithItsRoom) {
    ImportHooks hooks(GetModuleHandleW(nullptr));
    std::vector<DWORD> rooms;
    FillWithoutTerminator(hooks, 5, rooms);
    EXPECT_EQ(ReadActionData(session_.Handle()), L"xxxxx");
    EXPECT_EQ(rooms, (std::vector<DWORD>{0, 6}));
    EXPECT_EQ(session_.LogLines(), std::vector<std::wstring>{L"CustomActionData: xxxxx"});
    EXPECT_EQ(ReadShortProperty(session_.Handle(), L"SHORT").text, std::wstring(259, L'x'));
    EXPECT_EQ(ReadShortProperty(session_.Handle(), L"SHORT", 4).text, L"xxx");
    EXPECT_EQ(rooms, (std::vector<DWORD>{0, 6, 260, 4}));
}

}  // namespace
}  // namespace corvi::test
