#include "runtime/system_info.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <string>
#include <vector>

#include "runtime/registry.h"
#include "tests/support/import_hooks.h"

namespace corvi::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr wchar_t kVersionKey[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";

TEST(IsRunningUnderWow64, A64BitProcessGetsZero) { EXPECT_EQ(IsRunningUnderWow64(), 0); }

// One value of the version key, put back afterwards.
class SavedValue {
public:
    explicit SavedValue(const wchar_t* name) : name_(name), data_(1024) {
        auto size = static_cast<DWORD>(data_.size());
        existed_ = RegGetValueW(HKEY_LOCAL_MACHINE, kVersionKey, name, RRF_RT_ANY | RRF_NOEXPAND, &type_,
                                data_.data(), &size) == ERROR_SUCCESS;
        data_.resize(size);
    }
    ~SavedValue() {
        Delete();
        if (existed_) {
            Set(type_, data_.data(), data_.size());
        }
    }
    SavedValue(const SavedValue&) = delete;
    SavedValue& operator=(const SavedValue&) = delete;

    void Delete() const { RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kVersionKey, name_); }
    void Set(DWORD number) const { Set(REG_DWORD, &number, sizeof(number)); }
    void Set(const std::wstring& text) const {
        Set(REG_SZ, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
    }

private:
    void Set(DWORD type, const void* data, size_t size) const {
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, kVersionKey, name_, type, data, static_cast<DWORD>(size));
    }

    const wchar_t* name_;
    bool existed_ = false;
    DWORD type_ = REG_NONE;
    std::vector<BYTE> data_;
};

class WindowsVersionTest : public testing::Test {
protected:
    WindowsVersionTest() {
        major_.Set(10);
        build_.Set(L"22631");
        revision_.Set(2861);
    }

    static void ExpectError(LSTATUS code, const char* message) {
        try {
            GetWindowsVersion();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const RegKeyError& error) {
            EXPECT_EQ(error.code().value(), code);
            EXPECT_THAT(error.what(), HasSubstr(message));
        }
    }

    SavedValue major_{L"CurrentMajorVersionNumber"};
    SavedValue build_{L"CurrentBuild"};
    SavedValue revision_{L"UBR"};
    ImportHooks hooks_{GetModuleHandleW(nullptr)};
};

TEST_F(WindowsVersionTest, IsMajorBuildAndRevision) { EXPECT_EQ(GetWindowsVersion(), L"10.22631.2861"); }

TEST_F(WindowsVersionTest, NumbersAreUnsignedAndTheBuildIsTakenAsStored) {
    major_.Set(0xFFFFFFFF);
    build_.Set(L" 0001x");
    revision_.Set(0U);
    EXPECT_EQ(GetWindowsVersion(), L"4294967295. 0001x.0");
}

TEST_F(WindowsVersionTest, AnEmptyBuildLeavesTwoDots) {
    build_.Set(L"");
    EXPECT_EQ(GetWindowsVersion(), L"10..2861");
}

TEST_F(WindowsVersionTest, TheKeyIsOpenedOncePerValueWithReadAndWriteAccess) {
    std::vector<std::wstring> keys;
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
                   EXPECT_EQ(access, 0x2001FU);
                   keys.emplace_back(subkey);
                   return CORVI_ORIGINAL(hooks_, RegOpenKeyExW)(root, subkey, options, access, key);
               });
    GetWindowsVersion();
    EXPECT_THAT(keys, ElementsAre(kVersionKey, kVersionKey, kVersionKey));
}

TEST_F(WindowsVersionTest, AKeyThatCannotBeOpenedThrows) {
    CORVI_HOOK(hooks_, RegOpenKeyExW,
               [](HKEY, LPCWSTR, DWORD, REGSAM, PHKEY) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    ExpectError(ERROR_ACCESS_DENIED, "Unable to open registry key");
}

TEST_F(WindowsVersionTest, AMissingMajorNumberThrows) {
    major_.Delete();
    ExpectError(ERROR_FILE_NOT_FOUND, "Unable to get registry value");
}

TEST_F(WindowsVersionTest, AMissingBuildThrows) {
    build_.Delete();
    ExpectError(ERROR_FILE_NOT_FOUND, "Unable to get registry value");
}

TEST_F(WindowsVersionTest, AMissingRevisionThrows) {
    revision_.Delete();
    ExpectError(ERROR_FILE_NOT_FOUND, "Unable to get registry value");
}

TEST_F(WindowsVersionTest, AValueOfAnotherTypeThrows) {
    revision_.Set(L"2861");
    EXPECT_THROW(GetWindowsVersion(), RegKeyError);
    revision_.Set(2861);
    build_.Set(22631);
    EXPECT_THROW(GetWindowsVersion(), RegKeyError);
}

// The three groups joined by "|", or "none".
std::wstring Matched(const std::wstring& text) {
    const auto groups = MatchWindowsVersion(text);
    return groups ? groups->major + L"|" + groups->build + L"|" + groups->revision : L"none";
}

std::wstring MatchedByRegularExpression(const std::wstring& text) {
    static const std::wregex pattern(L"(\\d+)\\.(\\d+).(\\d+).*");
    std::wsmatch match;
    return std::regex_match(text, match, pattern)
               ? match[1].str() + L"|" + match[2].str() + L"|" + match[3].str()
               : L"none";
}

TEST(MatchWindowsVersion, AFullVersionGivesItsThreeNumbers) {
    EXPECT_EQ(Matched(L"10.22631.2861"), L"10|22631|2861");
}

TEST(MatchWindowsVersion, TheSecondSeparatorIsAnyCharacter) {
    EXPECT_EQ(Matched(L"10.22631x2861"), L"10|22631|2861");
}

TEST(MatchWindowsVersion, TheFirstSeparatorIsADot) { EXPECT_EQ(Matched(L"10x22631.2861"), L"none"); }

TEST(MatchWindowsVersion, WithoutASecondSeparatorABuildDigitTakesItsPlace) {
    EXPECT_EQ(Matched(L"10.22631"), L"10|226|1");
}

TEST(MatchWindowsVersion, WhatFollowsTheRevisionIsIgnored) {
    EXPECT_EQ(Matched(L"10.22631.2861.5 and more"), L"10|22631|2861");
}

TEST(MatchWindowsVersion, TheWholeTextHasToMatch) {
    EXPECT_EQ(Matched(L"v10.22631.2861"), L"none");
    EXPECT_EQ(Matched(L" 10.22631.2861"), L"none");
    EXPECT_EQ(Matched(L"10.22631.2861\n"), L"none");
    EXPECT_EQ(Matched(L""), L"none");
    EXPECT_EQ(Matched(L"10..2861"), L"none");
    EXPECT_EQ(Matched(L"10.22"), L"none");
}

TEST(MatchWindowsVersion, AnAbsurdlyLongTextIsSettledQuickly) {
    EXPECT_EQ(Matched(L"1." + std::wstring(100000, L'9')), L"1|" + std::wstring(99998, L'9') + L"|9");
    EXPECT_EQ(Matched(L"1." + std::wstring(100000, L'9') + L"\n"), L"none");
}

TEST(MatchWindowsVersion, AgreesWithTheRegularExpressionOnEveryTextOfUpTo7Characters) {
    const std::wstring alphabet = L"1.x\n0";
    std::vector<std::wstring> texts{L""};
    for (size_t index = 0; index < texts.size(); ++index) {
        const std::wstring text = texts[index];
        ASSERT_EQ(Matched(text), MatchedByRegularExpression(text)) << index;
        for (const wchar_t character : alphabet) {
            if (text.size() < 7) {
                texts.push_back(text + character);
            }
        }
    }
    EXPECT_EQ(texts.size(), 97656U);
}

TEST(MatchWindowsVersion, AgreesWithTheRegularExpressionOnAMillionRandomTexts) {
    const std::wstring alphabet = L"0123456789......x- \n\r\x2028\x2029\x0085\x0663\xFF13\x00B2\xD835\0";
    std::mt19937 random(20240601);
    std::uniform_int_distribution<size_t> anyLength(0, 16);
    std::uniform_int_distribution<size_t> anyCharacter(0, alphabet.size() - 1);
    int matches = 0;
    for (int round = 0; round < 1000000; ++round) {
        // Every other text begins as a version does, so that matches are not rare.
        std::wstring text = round % 2 == 0 ? L"10.2" : L"";
        for (size_t length = anyLength(random); length > 0; --length) {
            text += alphabet[anyCharacter(random)];
        }
        const std::wstring matched = Matched(text);
        ASSERT_EQ(matched, MatchedByRegularExpression(text)) << "round " << round;
        matches += matched != L"none" ? 1 : 0;
    }
    EXPECT_GT(matches, 50000);
}

TEST(MatchWindowsVersion, AgreesWithTheRegularExpressionOnEveryCharacterInEveryPlace) {
    for (unsigned code = 0; code <= 0xFFFF; ++code) {
        const std::wstring character(1, static_cast<wchar_t>(code));
        for (const std::wstring& text :
             {character + L".2.3", L"1" + character + L"2.3", L"1." + character + L".3",
              L"1.2" + character + L"3", L"1.2." + character, L"1.2.3" + character}) {
            ASSERT_EQ(Matched(text), MatchedByRegularExpression(text)) << std::hex << code;
        }
    }
}

}  // namespace
}  // namespace corvi::test
