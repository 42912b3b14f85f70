#include "msiregistry/product_version.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cwchar>
#include <random>
#include <string>
#include <vector>

#include "tests/support/import_hooks.h"

namespace corvi::test {
namespace {

using Components = std::array<std::wstring, 4>;

bool NotOlder(const std::wstring& a, const std::wstring& b) {
    return IsNotOlder(ParseProductVersion(a), ParseProductVersion(b));
}

void ExpectParsed(const std::wstring& text, VersionKind kind, const Components& components) {
    const ProductVersion version = ParseProductVersion(text);
    EXPECT_EQ(version.kind, kind);
    EXPECT_EQ(version.components, components);
}

void ExpectNotParsed(const std::wstring& text) {
    ExpectParsed(text, VersionKind::NotParsed, {L"x", L"x", L"x", L"x"});
}

/// a is newer than b: the comparison says so from both sides.
void ExpectNewer(const std::wstring& a, const std::wstring& b) {
    EXPECT_TRUE(NotOlder(a, b));
    EXPECT_FALSE(NotOlder(b, a));
}

void ExpectEqual(const std::wstring& a, const std::wstring& b) {
    EXPECT_TRUE(NotOlder(a, b));
    EXPECT_TRUE(NotOlder(b, a));
}

TEST(ParseProductVersion, AFreshRecordIsNotParsedAndItsComponentsAreX) {
    const ProductVersion fresh;
    EXPECT_EQ(static_cast<int>(fresh.kind), 0);
    EXPECT_EQ(fresh.components, (Components{L"x", L"x", L"x", L"x"}));
}

TEST(ParseProductVersion, TheKindsHaveFixedNumbers) {
    EXPECT_EQ(static_cast<int>(ParseProductVersion(L"1.2").kind), 1);
    EXPECT_EQ(static_cast<int>(ParseProductVersion(L"1.2.3").kind), 2);
    EXPECT_EQ(static_cast<int>(ParseProductVersion(L"1.2.3.4").kind), 3);
    EXPECT_EQ(static_cast<int>(ParseProductVersion(L"*").kind), 4);
}

TEST(ParseProductVersion, OnlyTheExactAsteriskIsTheWildcard) {
    ExpectParsed(L"*", VersionKind::Wildcard, {L"*", L"*", L"*", L"*"});
    ExpectNotParsed(L"**");
    ExpectNotParsed(L" *");
    ExpectParsed(L"1.*", VersionKind::TwoComponents, {L"1", L"*", L"0", L"0"});
}

TEST(ParseProductVersion, MissingComponentsAreZero) {
    ExpectParsed(L"1.2.3.4", VersionKind::FourComponents, {L"1", L"2", L"3", L"4"});
    ExpectParsed(L"1.2.3", VersionKind::ThreeComponents, {L"1", L"2", L"3", L"0"});
    ExpectParsed(L"1.2", VersionKind::TwoComponents, {L"1", L"2", L"0", L"0"});
}

TEST(ParseProductVersion, ComponentsAreKeptAsTheyAreWritten) {
    ExpectParsed(L"007. 2.a b.0x4", VersionKind::FourComponents, {L"007", L" 2", L"a b", L"0x4"});
}

TEST(ParseProductVersion, AnotherCountOfComponentsIsNotParsed) {
    ExpectNotParsed(L"");
    ExpectNotParsed(L"1");
    ExpectNotParsed(L"1.2.3.4.5");
    ExpectNotParsed(L"....");
}

TEST(ParseProductVersion, AnEmptyPieceIsAComponent) {
    ExpectParsed(L"1..2", VersionKind::ThreeComponents, {L"1", L"", L"2", L"0"});
    ExpectParsed(L"1.2.", VersionKind::ThreeComponents, {L"1", L"2", L"", L"0"});
    ExpectParsed(L"1.", VersionKind::TwoComponents, {L"1", L"", L"0", L"0"});
    ExpectParsed(L".", VersionKind::TwoComponents, {L"", L"", L"0", L"0"});
    ExpectNotParsed(L"1.2.3.4.");
}

TEST(IsNotOlder, AWildcardOnEitherSideIsAlwaysNotOlder) {
    for (const wchar_t* other : {L"1.2", L"*", L"", L"1.2.3.4.5"}) {
        ExpectEqual(L"*", other);
    }
}

TEST(IsNotOlder, AVersionThatIsNotParsedIsNeverNotOlderAndNothingIsNotOlderThanIt) {
    for (const wchar_t* other : {L"1.2", L"0.0", L"", L"1"}) {
        EXPECT_FALSE(NotOlder(L"1", other));
        EXPECT_FALSE(NotOlder(other, L"1"));
    }
}

TEST(IsNotOlder, EqualVersionsOfAnyLengthAreNotOlder) {
    ExpectEqual(L"1.2.3.4", L"1.2.3.4");
    ExpectEqual(L"1.2", L"1.2.0.0");
    ExpectEqual(L"1.2.0", L"1.2");
    ExpectEqual(L"01.002", L"1.2.00");
}

TEST(IsNotOlder, EachComponentDecidesInItsTurn) {
    ExpectNewer(L"2.0.0.0", L"1.9.9.9");
    ExpectNewer(L"1.2.0.0", L"1.1.9.9");
    ExpectNewer(L"1.1.2.0", L"1.1.1.9");
    ExpectNewer(L"1.1.1.2", L"1.1.1.1");
}

TEST(IsNotOlder, ComponentsAreNumbersAndNotText) {
    ExpectNewer(L"10.2.0.0", L"9.9.9.9");
    ExpectNewer(L"1.10", L"1.9");
    ExpectNewer(L"1.1.10", L"1.1.9");
    ExpectNewer(L"1.1.1.10", L"1.1.1.9");
}

TEST(IsNotOlder, TextThatIsNoNumberIsZero) {
    ExpectEqual(L"a.b", L"0.0");
    ExpectEqual(L"1..2", L"1.0.2");
    ExpectEqual(L"1.*", L"1.0");
    ExpectNewer(L"1.abc.5", L"1.0.3");
    ExpectNewer(L"1.5", L"1.abc");
}

TEST(IsNotOlder, TheNumberAtTheBeginningOfAComponentCounts) {
    ExpectEqual(L"5beta.1", L"5.1rc2");
    ExpectEqual(L" 5.\t1", L"5.1");
    ExpectEqual(L"+5.1", L"5.1");
    ExpectNewer(L"0.1", L"-1.1");
    ExpectEqual(L"-.1", L"0.1");
}

TEST(IsNotOlder, AnExponentIsPartOfTheNumber) {
    ExpectEqual(L"1e3.0", L"1000.0");
    ExpectEqual(L"1E+3.0", L"1000.0");
    ExpectNewer(L"1.0", L"1e-3.0");
    ExpectEqual(L"1e.0", L"1.0");
    ExpectEqual(L"1e+.0", L"1.0");
    ExpectEqual(L"1d3.0", L"1.0");
}

TEST(IsNotOlder, HexadecimalDigitsAreNotDecimal) { ExpectEqual(L"0x10.0", L"0.0"); }

TEST(IsNotOlder, DigitsOfOtherScriptsAreNoNumber) {
    ExpectEqual(L"\u0663.\uff15", L"0.0");
    ExpectNewer(L"1.0", L"\u0669.0");
}

TEST(IsNotOlder, HugeNumbersAreComparedAsDoubles) {
    ExpectNewer(L"4294967296.0", L"4294967295.0");
    ExpectNewer(L"9007199254740992.0", L"9007199254740991.0");
    // The next number has no double of its own.
    ExpectEqual(L"9007199254740993.0", L"9007199254740992.0");
    ExpectNewer(L"1" + std::wstring(100, L'0') + L".0", std::wstring(99, L'9') + L".0");
    ExpectEqual(std::wstring(400, L'9') + L".0", std::wstring(500, L'9') + L".0");
    ExpectNewer(std::wstring(400, L'9') + L".0", L"1.0");
    ExpectEqual(std::wstring(60000, L'0') + L"1.0", L"1.0");
}

TEST(IsNotOlder, AnExponentAndTheDigitsBeforeItMakeUpForEachOther) {
    ExpectEqual(L"1" + std::wstring(300, L'0') + L"e-300.0", L"1.0");
    ExpectEqual(std::wstring(300, L'0') + L"1e300.0", L"1e300.0");
    ExpectEqual(L"1" + std::wstring(20000, L'0') + L"e-20000.0", L"1.0");
    ExpectEqual(L"0e99999999999999999999.0", L"0.0");
    ExpectEqual(L"5e99999999999999999999.0", L"inf.0");
    ExpectEqual(L"5e-99999999999999999999.0", L"0.0");
    ExpectEqual(L"-5e99999999999999999999.0", L"-inf.0");
}

TEST(IsNotOlder, TheLastOfManyDigitsStillDecidesWhichDoubleIsTheNearest) {
    // Exactly between two doubles, and above that by its last digit.
    const std::wstring between = L"9007199254740993" + std::wstring(60, L'0');
    ExpectEqual(between + L"0e-61.0", L"9007199254740992.0");
    ExpectEqual(between + L"1e-61.0", L"9007199254740994.0");
}

/// A number of up to 45 digits, often with a sign and an exponent.
std::wstring RandomNumber(std::mt19937& random) {
    const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
    std::wstring text = below(4) == 0 ? L"-" : L"";
    const unsigned length = 1 + below(45);
    for (unsigned index = 0; index < length; ++index) {
        text += static_cast<wchar_t>(L'0' + below(10));
    }
    if (below(2) == 0) {
        text += (below(2) == 0 ? L"e" : L"E-") + std::to_wstring(below(340));
    }
    return text;
}

TEST(IsNotOlder, ComparesAsTheRuntimesConversionDoes) {
    std::mt19937 random(1);
    std::wstring before = L"1";
    for (int round = 0; round < 5000; ++round) {
        std::wstring number = RandomNumber(random);
        // Every other one is a close neighbour of the one before.
        if (round % 2 == 1) {
            number = before;
            number[number.size() - 1 - random() % number.size()] = L'7';
        }
        const bool expected = std::wcstod(number.c_str(), nullptr) >= std::wcstod(before.c_str(), nullptr);
        EXPECT_EQ(NotOlder(number + L".0", before + L".0"), expected)
            << std::string(number.begin(), number.end()) << " " << std::string(before.begin(), before.end());
        before = number;
    }
}

TEST(IsNotOlder, NothingIsAllocatedSoThatNoShortageOfMemoryEndsTheComparison) {
    const ProductVersion version = ParseProductVersion(L"12345678901234567890.2e5.nan.-inf");
    const ProductVersion other = ParseProductVersion(std::wstring(5000, L'9') + L".0x10.+7.00000000000001");
    ImportHooks hooks(GetModuleHandleW(nullptr));
    int allocations = 0;
    CORVI_HOOK(hooks, malloc, [&](size_t size) -> void* {
        ++allocations;
        return CORVI_ORIGINAL(hooks, malloc)(size);
    });
    if (hooks.Imports("calloc")) {
        CORVI_HOOK(hooks, calloc, [&](size_t count, size_t size) -> void* {
            ++allocations;
            return CORVI_ORIGINAL(hooks, calloc)(count, size);
        });
    }
    allocations = 0;
    const bool notOlder = IsNotOlder(version, other);
    const int during = allocations;
    const std::wstring counted(1000, L'x');
    hooks.RestoreAll();
    EXPECT_FALSE(notOlder);
    EXPECT_EQ(during, 0);
    EXPECT_EQ(allocations, 1) << "the count works";
}

TEST(IsNotOlder, TheWordForInfinityIsANumber) {
    ExpectNewer(L"Inf.0", L"999.0");
    ExpectEqual(L"infinity.0", L"inf.0");
    ExpectNewer(L"0.0", L"-inf.0");
}

TEST(IsNotOlder, AMinorThatIsNotANumberIsNeverNotOlder) {
    EXPECT_FALSE(NotOlder(L"1.nan.5", L"1.0.3"));
    EXPECT_FALSE(NotOlder(L"1.5.5", L"1.NaN.3"));
    EXPECT_FALSE(NotOlder(L"1.nan.5", L"1.nan.5"));
    EXPECT_TRUE(NotOlder(L"2.nan", L"1.0"));
}

TEST(IsNotOlder, AnyOtherComponentThatIsNotANumberDecidesNothing) {
    EXPECT_FALSE(NotOlder(L"nan.1", L"nan.1"));
    EXPECT_FALSE(NotOlder(L"1.1.nan.2", L"1.1.nan.1"));
    EXPECT_FALSE(NotOlder(L"1.1.1.nan", L"1.1.1.0"));
}

TEST(IsNotOlder, TheLocaleOfTheProcessHasNoSay) {
    // A comma as decimal point: the runtime's own conversion would read "1,9" as nearly two.
    ASSERT_NE(std::setlocale(LC_ALL, "German_Germany"), nullptr);
    ASSERT_STREQ(std::localeconv()->decimal_point, ",");
    ASSERT_GT(std::wcstod(L"1,9", nullptr), 1.5);
    ExpectEqual(L"1,9.0", L"1.0");
    ExpectEqual(L"1,9.0", L"1,2.0");
    ExpectNewer(L"2.0", L"1,9.0");
    std::setlocale(LC_ALL, "C");
}

}  // namespace
}  // namespace corvi::test
