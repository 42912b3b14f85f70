#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <system_error>

#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/scratch_key.h"

namespace corvi::test {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr wchar_t kAnalytics[] = L"SOFTWARE\\TAVO\\TAVOAnalytics";

class AnalyticsConsent : public testing::Test {
protected:
    UINT Call(const char* action) { return library.Call(action, session.Handle()); }

    UINT Disable(const std::wstring& property) {
        session.SetProperty(L"DISABLEANALYTICS", property);
        return Call("DisabelAnalyticsKey");
    }

    /// The stored consent; empty when there is none.
    static std::wstring Consent() {
        wchar_t text[100] = {};
        DWORD size = sizeof(text);
        RegGetValueW(HKEY_LOCAL_MACHINE, kAnalytics, L"AnalyticsAccepted", RRF_RT_REG_SZ, nullptr, text,
                     &size);
        return text;
    }

    static DWORD InstallFlag() {
        DWORD number = 0xFFFFFFFF;
        DWORD size = sizeof(number);
        RegGetValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TAVO\\Install", L"TUEP", RRF_RT_REG_DWORD, nullptr,
                     &number, &size);
        return number;
    }

    /// Refuses every open of the consent's key.
    void RefuseOpening() {
        CORVI_HOOK(hooks, RegOpenKeyExW,
                   [this](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                       if (path == std::wstring(kAnalytics)) {
                           masks.push_back(access);
                           return ERROR_ACCESS_DENIED;
                       }
                       return CORVI_ORIGINAL(hooks, RegOpenKeyExW)(root, path, options, access, key);
                   });
    }

    ScratchKey tavo{L"SOFTWARE\\TAVO"};
    Library library;
    InstallerSession session;
    ImportHooks hooks{library.Module()};
    std::vector<REGSAM> masks;
};

// EnableAnalyticsKey

TEST_F(AnalyticsConsent, EnableMakesTheKeyAndWritesTrue) {
    EXPECT_EQ(Call("EnableAnalyticsKey"), 0U);
    EXPECT_EQ(Consent(), L"true");
    EXPECT_EQ(InstallFlag(), 0U);
    EXPECT_THAT(session.LogLines(), IsEmpty());
}

TEST_F(AnalyticsConsent, EnableWritesTheFlagBeforeItLooksAtTheConsent) {
    DWORD flag = 1;
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   if (path == std::wstring(kAnalytics)) {
                       flag = InstallFlag();
                   }
                   return CORVI_ORIGINAL(hooks, RegOpenKeyExW)(root, path, options, access, key);
               });
    tavo.Add(L"TAVOAnalytics");
    EXPECT_EQ(Call("EnableAnalyticsKey"), 0U);
    EXPECT_EQ(flag, 0U);
}

TEST_F(AnalyticsConsent, EnableStoresTheTextWithItsTerminator) {
    tavo.Add(L"TAVOAnalytics");
    DWORD type = 0;
    DWORD bytes = 0;
    CORVI_HOOK(
        hooks, RegSetValueExW,
        [&](HKEY key, LPCWSTR name, DWORD reserved, DWORD kind, const BYTE* data, DWORD size) -> LSTATUS {
            if (name == L"AnalyticsAccepted"s) {
                type = kind;
                bytes = size;
            }
            return CORVI_ORIGINAL(hooks, RegSetValueExW)(key, name, reserved, kind, data, size);
        });
    EXPECT_EQ(Call("EnableAnalyticsKey"), 0U);
    EXPECT_EQ(type, static_cast<DWORD>(REG_SZ));
    EXPECT_EQ(bytes, 10U);
}

TEST_F(AnalyticsConsent, EnableOverwritesARefusal) {
    tavo.SetText(L"TAVOAnalytics", L"AnalyticsAccepted", L"false");
    tavo.SetNumber(L"Install", L"TUEP", 1);
    EXPECT_EQ(Call("EnableAnalyticsKey"), 0U);
    EXPECT_EQ(Consent(), L"true");
    EXPECT_EQ(InstallFlag(), 0U);
}

TEST_F(AnalyticsConsent, EnableCreatesUnderThePathWithItsBackslashForReadingAndWriting) {
    std::vector<std::pair<std::wstring, REGSAM>> created;
    CORVI_HOOK(hooks, RegCreateKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD reserved, LPWSTR type, DWORD options, REGSAM access,
                   LPSECURITY_ATTRIBUTES security, PHKEY key, LPDWORD disposition) -> LSTATUS {
                   created.emplace_back(path, access);
                   return CORVI_ORIGINAL(hooks, RegCreateKeyExW)(root, path, reserved, type, options, access,
                                                                 security, key, disposition);
               });
    EXPECT_EQ(Call("EnableAnalyticsKey"), 0U);
    EXPECT_THAT(created,
                ElementsAre(std::pair(L"SOFTWARE\\TAVO\\Install"s, static_cast<REGSAM>(KEY_SET_VALUE)),
                            std::pair(kAnalytics + L"\\"s, static_cast<REGSAM>(KEY_READ | KEY_WRITE))));
}

TEST_F(AnalyticsConsent, EnableLetsTheRegistryErrorOutWhenTheKeyCannotBeCreated) {
    RefuseOpening();
    CORVI_HOOK(hooks, RegCreateKeyExW,
               [](HKEY, LPCWSTR, DWORD, LPWSTR, DWORD, REGSAM, LPSECURITY_ATTRIBUTES, PHKEY,
                  LPDWORD) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    try {
        Call("EnableAnalyticsKey");
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), 5);
        EXPECT_THAT(error.what(), StartsWith("Unable to get create registry key"));
    }
}

TEST_F(AnalyticsConsent, EnableAnswersZeroWhenTheCreatedKeyCannotBeOpened) {
    RefuseOpening();
    EXPECT_EQ(Call("EnableAnalyticsKey"), 0U);
    EXPECT_THAT(masks, ElementsAre(0xF003FU, 0xF003FU));
    EXPECT_EQ(Consent(), L"");
}

// DisabelAnalyticsKey

TEST_F(AnalyticsConsent, DisableWritesFalseForEveryValueThatBeginsWithYes) {
    for (const wchar_t* value : {L"Yes", L"YES1", L"yes", L"yEs, please"}) {
        tavo.SetText(L"TAVOAnalytics", L"AnalyticsAccepted", L"true");
        EXPECT_EQ(Disable(value), 0U);
        EXPECT_EQ(Consent(), L"false") << value;
    }
}

TEST_F(AnalyticsConsent, DisableWritesNothingForAnyOtherValue) {
    tavo.SetText(L"TAVOAnalytics", L"AnalyticsAccepted", L"true");
    for (const wchar_t* value : {L"1", L"true", L" YES", L"", L"ye", L"no yes"}) {
        EXPECT_EQ(Disable(value), 0U);
        EXPECT_EQ(Consent(), L"true") << value;
    }
}

TEST_F(AnalyticsConsent, DisableWritesNothingWhenThePropertyDoesNotFitItsBuffer) {
    tavo.SetText(L"TAVOAnalytics", L"AnalyticsAccepted", L"true");
    EXPECT_EQ(Disable(L"yes" + std::wstring(257, L'x')), 0U);
    EXPECT_EQ(Consent(), L"true");
    EXPECT_EQ(Disable(L"yes" + std::wstring(256, L'x')), 0U);
    EXPECT_EQ(Consent(), L"false");
}

TEST_F(AnalyticsConsent, DisableWithoutASessionAnswersZero) {
    tavo.SetText(L"TAVOAnalytics", L"AnalyticsAccepted", L"true");
    EXPECT_EQ(library.Call("DisabelAnalyticsKey", 0), 0U);
    EXPECT_EQ(Consent(), L"true");
}

TEST_F(AnalyticsConsent, DisableDoesNotCreateAMissingKey) {
    EXPECT_EQ(Disable(L"YES"), 0U);
    EXPECT_FALSE(tavo.Exists(L"TAVOAnalytics"));
    EXPECT_THAT(session.LogLines(), IsEmpty());
}

// DeleteAnalyticsKey

TEST_F(AnalyticsConsent, DeleteRemovesTheKeyWithItsValues) {
    tavo.SetText(L"TAVOAnalytics", L"AnalyticsAccepted", L"true");
    EXPECT_EQ(Call("DeleteAnalyticsKey"), 0U);
    EXPECT_FALSE(tavo.Exists(L"TAVOAnalytics"));
    EXPECT_THAT(session.LogLines(), ElementsAre(L"PPC Key deleted"));
}

TEST_F(AnalyticsConsent, DeleteKeepsAKeyWithSubkeys) {
    tavo.Add(L"TAVOAnalytics\\Sub");
    EXPECT_EQ(Call("DeleteAnalyticsKey"), 0U);
    EXPECT_TRUE(tavo.Exists(L"TAVOAnalytics\\Sub"));
    EXPECT_THAT(session.LogLines(), ElementsAre(L"PPC Key not deleted"));
}

TEST_F(AnalyticsConsent, DeleteLogsThatTheKeyCannotBeOpened) {
    EXPECT_EQ(Call("DeleteAnalyticsKey"), 0U);
    EXPECT_THAT(session.LogLines(), ElementsAre(L"Could not access PPC Key"));
    session.ClearMessages();
    tavo.Add(L"TAVOAnalytics");
    RefuseOpening();
    EXPECT_EQ(Call("DeleteAnalyticsKey"), 0U);
    EXPECT_THAT(session.LogLines(), ElementsAre(L"Could not access PPC Key"));
    EXPECT_TRUE(tavo.Exists(L"TAVOAnalytics"));
}

}  // namespace
}  // namespace corvi::test
