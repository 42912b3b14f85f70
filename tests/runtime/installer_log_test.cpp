#include "runtime/installer_log.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <msiquery.h>

#include "runtime/session.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"

namespace corvi::test {
namespace {

class InstallerLogTest : public testing::Test {
protected:
    std::wstring Logged(const std::wstring& text) {
        session_.ClearMessages();
        WriteInstallerLog(session_.Handle(), L"%s", text.c_str());
        return session_.LogLines().size() == 1 ? session_.LogLines()[0] : L"not one line";
    }

    InstallerSession session_;
};

TEST_F(InstallerLogTest, SendsOneInformationMessageWithoutFurtherFields) {
    WriteInstallerLog(session_.Handle(), L"%s took %d of %ls, %hs\n", L"it", 3, L"them", "narrow");
    ASSERT_EQ(session_.Messages().size(), 1U);
    EXPECT_EQ(session_.Messages()[0].type, static_cast<UINT>(INSTALLMESSAGE_INFO));
    EXPECT_EQ(session_.Messages()[0].fields, 0U);
    EXPECT_EQ(session_.Messages()[0].text, L"it took 3 of them, narrow\n");
}

TEST_F(InstallerLogTest, AddsNoLineEndAndNoPrefix) { EXPECT_EQ(Logged(L"plain"), L"plain"); }

TEST_F(InstallerLogTest, KeepsAnEmptyLine) { EXPECT_EQ(Logged(L""), L""); }

class InstallerLogLength : public InstallerLogTest, public testing::WithParamInterface<size_t> {};

TEST_P(InstallerLogLength, IsCutAfter519Characters) {
    std::wstring text(GetParam(), L'x');
    for (size_t index = 0; index < text.size(); ++index) {
        text[index] = static_cast<wchar_t>(L'a' + index % 26);
    }
    EXPECT_EQ(Logged(text), text.substr(0, 519));
}

INSTANTIATE_TEST_SUITE_P(Lengths, InstallerLogLength,
                         testing::Values(1U, 518U, 519U, 520U, 1022U, 1023U, 1024U, 1025U, 5000U));

TEST_F(InstallerLogTest, SignsInAValueAreNotInterpreted) {
    EXPECT_EQ(Logged(L"%s %n %d;[ProductName];{[X]}%%"), L"%s %n %d;[ProductName];{[X]}%%");
}

TEST_F(InstallerLogTest, AFailedFormattingIsLoggedAsABufferOverflow) {
    ImportHooks hooks(GetModuleHandleW(nullptr));
    CORVI_HOOK(hooks, wvsprintfW, [](LPWSTR, LPCWSTR, va_list) { return -1; });
    EXPECT_EQ(Logged(L"text"), L"CA buffer overflow\n");
}

TEST_F(InstallerLogTest, AFailedRecordIsSentAsNullAndNotClosed) {
    ImportHooks hooks(GetModuleHandleW(nullptr));
    std::vector<MSIHANDLE> sent;
    int closed = 0;
    CORVI_HOOK(hooks, MsiCreateRecord, [](UINT) -> MSIHANDLE { return 0; });
    CORVI_HOOK(hooks, MsiProcessMessage, [&](MSIHANDLE, INSTALLMESSAGE, MSIHANDLE record) {
        sent.push_back(record);
        return 0;
    });
    CORVI_HOOK(hooks, MsiCloseHandle, [&](MSIHANDLE) -> UINT {
        ++closed;
        return 0;
    });
    WriteInstallerLog(session_.Handle(), L"text");
    EXPECT_EQ(sent, std::vector<MSIHANDLE>{0});
    EXPECT_EQ(closed, 0);
}

TEST_F(InstallerLogTest, EveryRecordIsClosed) {
    ImportHooks hooks(GetModuleHandleW(nullptr));
    std::vector<MSIHANDLE> open;
    CORVI_HOOK(hooks, MsiCreateRecord, [&](UINT fields) {
        open.push_back(CORVI_ORIGINAL(hooks, MsiCreateRecord)(fields));
        return open.back();
    });
    CORVI_HOOK(hooks, MsiCloseHandle, [&](MSIHANDLE handle) {
        std::erase(open, handle);
        return CORVI_ORIGINAL(hooks, MsiCloseHandle)(handle);
    });
    WriteInstallerLog(session_.Handle(), L"text");
    EXPECT_TRUE(open.empty());
}

TEST_F(InstallerLogTest, TheThreeSessionsThatNothingSetsDropTheirLines) {
    EXPECT_EQ(launchSession, 0U);
    EXPECT_EQ(taskRegistrationSession, 0U);
    EXPECT_EQ(cleanupSession, 0U);
    for (const MSIHANDLE unset : {launchSession, taskRegistrationSession, cleanupSession}) {
        WriteInstallerLog(unset, L"dropped");
    }
    EXPECT_TRUE(session_.Messages().empty());
}

}  // namespace
}  // namespace corvi::test
