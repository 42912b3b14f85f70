#include "runtime/registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>
#include <utility>

#include "tests/support/handle_count.h"
#include "tests/support/import_hooks.h"
#include "tests/support/scratch_key.h"

namespace corvi::test {
namespace {

using namespace std::string_literals;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr wchar_t kScratch[] = L"SOFTWARE\\CorviTests\\Registry";

/// Runs work and gives the RegKeyError that it threw; a failure of the test when it threw none.
template <typename Work>
RegKeyError ErrorOf(Work&& work) {
    try {
        work();
    } catch (const RegKeyError& error) {
        return error;
    }
    ADD_FAILURE() << "no RegKeyError was thrown";
    return {-1, ""};
}

class Registry : public testing::Test {
protected:
    RegKey OpenScratch(REGSAM access = KEY_ALL_ACCESS) const {
        return RegKey::Open(HKEY_LOCAL_MACHINE, kScratch, access);
    }

    ScratchKey scratch{kScratch};
    ImportHooks hooks{GetModuleHandleW(nullptr)};
};

TEST_F(Registry, ErrorIsASystemErrorWithTheCodeAndTheComposedText) {
    static_assert(std::is_base_of_v<std::system_error, RegKeyError>);
    const RegKeyError error(ERROR_ACCESS_DENIED, kOpenKeyFailed);
    EXPECT_EQ(error.code(), std::error_code(5, std::system_category()));
    EXPECT_EQ(error.what(), "Unable to open registry key: " + std::system_category().message(5));
}

TEST_F(Registry, MessagesStandAsTheyAre) {
    EXPECT_STREQ(kOpenKeyFailed, "Unable to open registry key");
    EXPECT_STREQ(kGetValueFailed, "Unable to get registry value");
    EXPECT_STREQ(kCreateKeyFailed, "Unable to get create registry key");
    EXPECT_STREQ(kQueryKeyFailed, "Unable to get query key information");
    EXPECT_STREQ(kEnumerateFailed, "Unable to get enumerate subkeys");
    EXPECT_EQ(kReadWriteAccess, 0x2001FU);
}

TEST_F(Registry, OpenPassesTheMaskAndNoOptions) {
    DWORD options = 1;
    REGSAM mask = 0;
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD option, REGSAM access, PHKEY key) -> LSTATUS {
                   options = option;
                   mask = access;
                   return CORVI_ORIGINAL(hooks, RegOpenKeyExW)(root, path, option, access, key);
               });
    EXPECT_TRUE(RegKey::Open(HKEY_LOCAL_MACHINE, kScratch, KEY_READ | KEY_WOW64_64KEY));
    EXPECT_EQ(options, 0U);
    EXPECT_EQ(mask, 0x20119U);
}

TEST_F(Registry, OpenOfAMissingKeyThrowsItsCode) {
    const auto error =
        ErrorOf([] { RegKey::Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\CorviTests\\None", KEY_READ); });
    EXPECT_EQ(error.code().value(), 2);
    EXPECT_THAT(error.what(), StartsWith("Unable to open registry key"));
}

TEST_F(Registry, OpenThatIsRefusedThrowsAccessDenied) {
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [](HKEY, LPCWSTR, DWORD, REGSAM, PHKEY) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    EXPECT_EQ(ErrorOf([this] { OpenScratch(); }).code().value(), 5);
}

TEST_F(Registry, TryOpenGivesTheStatusAndThrowsNothing) {
    LSTATUS status = -1;
    EXPECT_FALSE(RegKey::TryOpen(HKEY_LOCAL_MACHINE, L"SOFTWARE\\CorviTests\\None", KEY_READ, &status));
    EXPECT_EQ(status, ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(RegKey::TryOpen(HKEY_LOCAL_MACHINE, kScratch, KEY_READ, &status));
    EXPECT_EQ(status, ERROR_SUCCESS);
}

TEST_F(Registry, CreateOpensOrCreatesBelowARootOrAnOpenKeyWithTheAskedAccess) {
    std::vector<REGSAM> accesses;
    CORVI_HOOK(hooks, RegCreateKeyExW,
               [&](HKEY root, LPCWSTR subkey, DWORD reserved, LPWSTR type, DWORD options, REGSAM access,
                   LPSECURITY_ATTRIBUTES security, PHKEY key, LPDWORD disposition) -> LSTATUS {
                   accesses.push_back(access);
                   EXPECT_EQ(options, DWORD{REG_OPTION_NON_VOLATILE});
                   return CORVI_ORIGINAL(hooks, RegCreateKeyExW)(root, subkey, reserved, type, options,
                                                                 access, security, key, disposition);
               });
    const RegKey made = RegKey::Create(HKEY_LOCAL_MACHINE, kScratch + L"\\Made"s, KEY_READ | KEY_WRITE);
    EXPECT_TRUE(RegKey::TryCreate(made.Get(), L"Deeper", KEY_SET_VALUE));
    EXPECT_THAT(accesses, ElementsAre(REGSAM{KEY_READ | KEY_WRITE}, REGSAM{KEY_SET_VALUE}));
    EXPECT_THAT(made.EnumSubkeys(), ElementsAre(L"Deeper"));
}

TEST_F(Registry, OpenIfPresentGivesNoneForAMissingKeyAloneAndThrowsWhenOneIsRefused) {
    EXPECT_TRUE(RegKey::OpenIfPresent(HKEY_LOCAL_MACHINE, kScratch, KEY_READ));
    EXPECT_FALSE(RegKey::OpenIfPresent(HKEY_LOCAL_MACHINE, kScratch + L"\\None"s, KEY_READ));
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [](HKEY, LPCWSTR, DWORD, REGSAM, PHKEY) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    const auto error = ErrorOf([] { RegKey::OpenIfPresent(HKEY_LOCAL_MACHINE, kScratch, KEY_READ); });
    EXPECT_EQ(error.code().value(), ERROR_ACCESS_DENIED);
    EXPECT_THAT(error.what(), StartsWith("Unable to open registry key"));
}

TEST_F(Registry, CreateThatIsRefusedThrowsOrGivesNone) {
    CORVI_HOOK(hooks, RegCreateKeyExW,
               [](HKEY, LPCWSTR, DWORD, LPWSTR, DWORD, REGSAM, LPSECURITY_ATTRIBUTES, PHKEY,
                  LPDWORD) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    EXPECT_FALSE(RegKey::TryCreate(HKEY_LOCAL_MACHINE, kScratch, KEY_READ));
    const auto error = ErrorOf([] { RegKey::Create(HKEY_LOCAL_MACHINE, kScratch, KEY_READ); });
    EXPECT_EQ(error.code().value(), ERROR_ACCESS_DENIED);
    EXPECT_THAT(error.what(), StartsWith("Unable to get create registry key"));
}

TEST_F(Registry, ReadMachineTextGivesTheTextOrNothing) {
    scratch.SetText(L"", L"Text", L"abc");
    EXPECT_EQ(ReadMachineText(kScratch, L"Text"), L"abc");
    EXPECT_EQ(ReadMachineText(kScratch, L"None"), L"");
    EXPECT_EQ(ReadMachineText(kScratch + L"\\None"s, L"Text"), L"");
}

TEST_F(Registry, OpenOrCreatePrefersTheExistingKeyWithAllAccess) {
    std::vector<REGSAM> masks;
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD option, REGSAM access, PHKEY key) -> LSTATUS {
                   masks.push_back(access);
                   return CORVI_ORIGINAL(hooks, RegOpenKeyExW)(root, path, option, access, key);
               });
    CORVI_HOOK(
        hooks, RegCreateKeyExW,
        [](HKEY, LPCWSTR, DWORD, LPWSTR, DWORD, REGSAM, LPSECURITY_ATTRIBUTES, PHKEY, LPDWORD) -> LSTATUS {
            ADD_FAILURE() << "an existing key was created";
            return ERROR_ACCESS_DENIED;
        });
    EXPECT_TRUE(RegKey::OpenOrCreate(HKEY_LOCAL_MACHINE, kScratch));
    EXPECT_THAT(masks, ElementsAre(0xF003FU));
}

TEST_F(Registry, OpenOrCreateCreatesAMissingKeyForSettingValues) {
    DWORD options = 1;
    REGSAM mask = 0;
    CORVI_HOOK(hooks, RegCreateKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD reserved, LPWSTR type, DWORD option, REGSAM access,
                   LPSECURITY_ATTRIBUTES security, PHKEY key, LPDWORD disposition) -> LSTATUS {
                   options = option;
                   mask = access;
                   return CORVI_ORIGINAL(hooks, RegCreateKeyExW)(root, path, reserved, type, option, access,
                                                                 security, key, disposition);
               });
    EXPECT_TRUE(RegKey::OpenOrCreate(HKEY_LOCAL_MACHINE, kScratch + L"\\Made"s));
    EXPECT_EQ(options, static_cast<DWORD>(REG_OPTION_NON_VOLATILE));
    EXPECT_EQ(mask, static_cast<REGSAM>(KEY_SET_VALUE));
    hooks.RestoreAll();
    EXPECT_TRUE(scratch.Exists(L"Made"));
}

TEST_F(Registry, OpenOrCreateGivesNoneWhenBothAreRefused) {
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [](HKEY, LPCWSTR, DWORD, REGSAM, PHKEY) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    CORVI_HOOK(hooks, RegCreateKeyExW,
               [](HKEY, LPCWSTR, DWORD, LPWSTR, DWORD, REGSAM, LPSECURITY_ATTRIBUTES, PHKEY,
                  LPDWORD) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    EXPECT_FALSE(RegKey::OpenOrCreate(HKEY_LOCAL_MACHINE, kScratch));
    EXPECT_FALSE(WriteMachineString(kScratch, L"Text", L"text"));
}

TEST_F(Registry, AKeyMovesAndIsClosedOnce) {
    int closed = 0;
    CORVI_HOOK(hooks, RegCloseKey, [&](HKEY key) -> LSTATUS {
        ++closed;
        return CORVI_ORIGINAL(hooks, RegCloseKey)(key);
    });
    {
        RegKey first = OpenScratch();
        const HKEY handle = first.Get();
        RegKey second(std::move(first));
        EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): that it is empty then is the point
        EXPECT_EQ(second.Get(), handle);
        RegKey third = OpenScratch();
        third = std::move(second);
        EXPECT_EQ(closed, 1);
        EXPECT_EQ(third.Get(), handle);
        const RegKey none;
    }
    EXPECT_EQ(closed, 2);
    static_assert(!std::is_copy_constructible_v<RegKey> && !std::is_copy_assignable_v<RegKey>);
}

// Strings

TEST_F(Registry, StringIsReadByTwoCallsFirstForItsSize) {
    scratch.SetText(L"Sub", L"Text", L"abc");
    struct Call {
        std::wstring subkey;
        DWORD flags;
        bool hasBuffer;
        DWORD size;
        bool operator==(const Call&) const = default;
    };
    std::vector<Call> calls;
    CORVI_HOOK(hooks, RegGetValueW,
               [&](HKEY key, LPCWSTR subkey, LPCWSTR value, DWORD flags, LPDWORD type, PVOID data,
                   LPDWORD size) -> LSTATUS {
                   calls.push_back({subkey, flags, data != nullptr, *size});
                   return CORVI_ORIGINAL(hooks, RegGetValueW)(key, subkey, value, flags, type, data, size);
               });
    EXPECT_EQ(OpenScratch().GetString(L"Sub", L"Text", Unreadable::Throws), L"abc");
    EXPECT_THAT(calls, ElementsAre(Call{L"Sub", 2, false, 0}, Call{L"Sub", 2, true, 12}));
}

TEST_F(Registry, MissingStringIsEmptyOrAnErrorWithTheSizingCode) {
    const RegKey key = OpenScratch();
    EXPECT_EQ(key.GetString(L"", L"None", Unreadable::IsEmpty), L"");
    const auto error = ErrorOf([&] { (void)key.GetString(L"", L"None", Unreadable::Throws); });
    EXPECT_EQ(error.code().value(), 2);
    EXPECT_THAT(error.what(), StartsWith("Unable to get registry value"));
}

TEST_F(Registry, StringWhoseReadAloneFailsThrowsTheSizingCallsSuccess) {
    scratch.SetText(L"", L"Text", L"abc");
    CORVI_HOOK(hooks, RegGetValueW,
               [&](HKEY key, LPCWSTR subkey, LPCWSTR value, DWORD flags, LPDWORD type, PVOID data,
                   LPDWORD size) -> LSTATUS {
                   return data != nullptr ? ERROR_ACCESS_DENIED
                                          : CORVI_ORIGINAL(hooks, RegGetValueW)(key, subkey, value, flags,
                                                                                type, data, size);
               });
    const RegKey key = OpenScratch();
    EXPECT_EQ(ErrorOf([&] { (void)key.GetString(L"", L"Text", Unreadable::Throws); }).code().value(), 0);
    EXPECT_EQ(key.GetString(L"", L"Text", Unreadable::IsEmpty), L"");
}

TEST_F(Registry, StringThatGrowsBetweenSizingAndReadIsReadWhole) {
    scratch.SetText(L"", L"Text", L"abc");
    const std::wstring longer(5000, L'x');
    CORVI_HOOK(hooks, RegGetValueW,
               [&](HKEY key, LPCWSTR subkey, LPCWSTR value, DWORD flags, LPDWORD type, PVOID data,
                   LPDWORD size) -> LSTATUS {
                   if (data != nullptr) {
                       scratch.SetText(L"", L"Text", longer);
                   }
                   return CORVI_ORIGINAL(hooks, RegGetValueW)(key, subkey, value, flags, type, data, size);
               });
    EXPECT_EQ(OpenScratch().GetString(L"", L"Text", Unreadable::Throws), longer);
}

TEST_F(Registry, StringForWhichThePlatformWantsRoomThatItDidNotNameIsReadWhole) {
    // As Windows answers for a text that is stored without its terminator.
    DWORD wanted = 8;
    CORVI_HOOK(hooks, RegGetValueW,
               [&](HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID data, LPDWORD size) -> LSTATUS {
                   if (data == nullptr) {
                       *size = 6;
                       return ERROR_SUCCESS;
                   }
                   const DWORD room = std::exchange(*size, wanted);
                   if (room < wanted) {
                       return ERROR_MORE_DATA;
                   }
                   std::memcpy(data, L"abc\0\0\0\0", wanted);
                   return ERROR_SUCCESS;
               });
    EXPECT_EQ(OpenScratch().GetString(L"", L"Text", Unreadable::Throws), L"abc");
    EXPECT_THAT(OpenScratch().GetMultiString(L"Text"), ElementsAre(L"abc"));
    wanted = 16;
    EXPECT_EQ(OpenScratch().GetString(L"", L"Text", Unreadable::Throws), L"abc");
    EXPECT_THAT(OpenScratch().GetMultiString(L"Text"), ElementsAre(L"abc", L"", L"", L"", L""));
}

TEST_F(Registry, StringThatDoesNotFitAndAsksForNoMoreIsAFailedRead) {
    CORVI_HOOK(hooks, RegGetValueW,
               [](HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID data, LPDWORD size) -> LSTATUS {
                   if (data == nullptr) {
                       *size = 8;
                       return ERROR_SUCCESS;
                   }
                   return ERROR_MORE_DATA;
               });
    const RegKey key = OpenScratch();
    EXPECT_EQ(key.GetString(L"", L"Text", Unreadable::IsEmpty), L"");
    EXPECT_EQ(ErrorOf([&] { (void)key.GetString(L"", L"Text", Unreadable::Throws); }).code().value(), 0);
    EXPECT_EQ(ErrorOf([&] { (void)key.GetMultiString(L"Text"); }).code().value(), ERROR_MORE_DATA);
}

TEST_F(Registry, StringWithoutTerminatorIsReadToItsEnd) {
    scratch.SetValue(L"", L"Text", REG_SZ, L"abcdef", 6);
    ASSERT_EQ(scratch.Bytes(L"Text").size(), 6U);
    EXPECT_EQ(OpenScratch().GetString(L"", L"Text", Unreadable::Throws), L"abc");
}

TEST_F(Registry, StringOfAnOddByteCountGivesItsWholeCharacters) {
    scratch.SetValue(L"", L"Text", REG_SZ, L"abcdef", 5);
    ASSERT_EQ(scratch.Bytes(L"Text").size(), 5U);
    EXPECT_EQ(OpenScratch().GetString(L"", L"Text", Unreadable::Throws), L"ab");
}

TEST_F(Registry, StringOfNoBytesIsEmpty) {
    scratch.SetValue(L"", L"Text", REG_SZ, L"", 0);
    EXPECT_EQ(OpenScratch().GetString(L"", L"Text", Unreadable::Throws), L"");
}

TEST_F(Registry, StringEndsAtItsFirstTerminator) {
    scratch.SetText(L"", L"Text", L"ab\0cd"s);
    EXPECT_EQ(OpenScratch().GetString(L"", L"Text", Unreadable::Throws), L"ab");
}

TEST_F(Registry, StringOfAnotherTypeIsAnError) {
    scratch.SetNumber(L"", L"Number", 7);
    const RegKey key = OpenScratch();
    EXPECT_EQ(key.GetString(L"", L"Number", Unreadable::IsEmpty), L"");
    EXPECT_EQ(ErrorOf([&] { (void)key.GetString(L"", L"Number", Unreadable::Throws); }).code().value(),
              ERROR_UNSUPPORTED_TYPE);
}

TEST_F(Registry, ExpandableStringArrivesExpanded) {
    const std::wstring text = L"%SystemRoot%\\x";
    scratch.SetValue(L"", L"Text", REG_EXPAND_SZ, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
    wchar_t expanded[MAX_PATH] = {};
    ExpandEnvironmentStringsW(text.c_str(), expanded, MAX_PATH);
    EXPECT_EQ(OpenScratch().GetString(L"", L"Text", Unreadable::Throws), expanded);
}

TEST_F(Registry, LongStringIsReadWhole) {
    const std::wstring text(60000, L'\x00E4');
    scratch.SetText(L"", L"Text", text);
    EXPECT_EQ(OpenScratch().GetString(L"", L"Text", Unreadable::Throws), text);
}

TEST_F(Registry, SetStringWritesTheTerminatorToo) {
    EXPECT_EQ(OpenScratch().SetString(L"Text", L"true"), ERROR_SUCCESS);
    DWORD type = 0;
    EXPECT_EQ(scratch.Bytes(L"Text", &type).size(), 10U);
    EXPECT_EQ(type, static_cast<DWORD>(REG_SZ));
    EXPECT_EQ(OpenScratch(KEY_READ).SetString(L"Text", L"x"), ERROR_ACCESS_DENIED);
}

TEST_F(Registry, QueryTextTakesATextThatFitsItsCapacityAsItIsStored) {
    scratch.SetText(L"", L"Fits", std::wstring(259, L'x'));
    scratch.SetText(L"", L"Long", std::wstring(260, L'x'));
    scratch.SetValue(L"", L"Open", REG_SZ, L"abcdef", 6);
    scratch.SetValue(L"", L"Variable", REG_EXPAND_SZ, L"%TMP%", 12);
    scratch.SetValue(L"", L"Binary", REG_BINARY, L"abc", 8);
    scratch.SetValue(L"", L"List", REG_MULTI_SZ, L"abc\0", 10);
    scratch.SetNumber(L"", L"Number", 0x00410041);
    scratch.SetValue(L"", L"Odd", REG_SZ, L"abcdef", 5);
    const RegKey key = OpenScratch(KEY_READ);
    EXPECT_EQ(key.QueryText(L"Fits", 520), std::wstring(259, L'x'));
    EXPECT_EQ(key.QueryText(L"Long", 520), std::nullopt);
    EXPECT_EQ(key.QueryText(L"None", 520), std::nullopt);
    EXPECT_EQ(key.QueryText(L"Open", 6), L"abc");
    EXPECT_EQ(key.QueryText(L"Odd", 520), L"ab");
    EXPECT_EQ(key.QueryText(L"Variable", 520), L"%TMP%");
    for (const wchar_t* name : {L"Binary", L"List", L"Number"}) {
        EXPECT_EQ(key.QueryText(name, 520), std::nullopt);
    }
    EXPECT_EQ(RegKey().QueryText(L"Fits", 520), std::nullopt);
}

TEST_F(Registry, CanQueryTellsOfAnyTypeThatFitsItsCapacity) {
    scratch.SetText(L"", L"Fits", std::wstring(259, L'x'));
    scratch.SetText(L"", L"Long", std::wstring(260, L'x'));
    scratch.SetNumber(L"", L"Number", 1);
    const RegKey key = OpenScratch(KEY_READ);
    EXPECT_TRUE(key.CanQuery(L"Fits", 520));
    EXPECT_TRUE(key.CanQuery(L"Number", 520));
    EXPECT_FALSE(key.CanQuery(L"Long", 520));
    EXPECT_FALSE(key.CanQuery(L"None", 520));
}

// Numbers

TEST_F(Registry, NumberIsReadFromTheKeyItself) {
    scratch.SetNumber(L"", L"Number", 0xFFFFFFFEU);
    bool hasSubkey = true;
    DWORD bufferSize = 0;
    CORVI_HOOK(hooks, RegGetValueW,
               [&](HKEY key, LPCWSTR subkey, LPCWSTR value, DWORD flags, LPDWORD type, PVOID data,
                   LPDWORD size) -> LSTATUS {
                   hasSubkey = subkey != nullptr;
                   bufferSize = *size;
                   EXPECT_EQ(flags, 16U);
                   return CORVI_ORIGINAL(hooks, RegGetValueW)(key, subkey, value, flags, type, data, size);
               });
    EXPECT_EQ(OpenScratch().GetDword(L"Number"), 0xFFFFFFFEU);
    EXPECT_FALSE(hasSubkey);
    EXPECT_EQ(bufferSize, 4U);
}

TEST_F(Registry, MissingNumberOrOneOfAnotherTypeThrows) {
    scratch.SetText(L"", L"Text", L"7");
    const RegKey key = OpenScratch();
    const auto missing = ErrorOf([&] { (void)key.GetDword(L"None"); });
    EXPECT_EQ(missing.code().value(), 2);
    EXPECT_THAT(missing.what(), StartsWith("Unable to get registry value"));
    EXPECT_EQ(ErrorOf([&] { (void)key.GetDword(L"Text"); }).code().value(), ERROR_UNSUPPORTED_TYPE);
}

TEST_F(Registry, SetDwordWritesFourBytes) {
    EXPECT_EQ(OpenScratch().SetDword(L"Number", 0x01020304), ERROR_SUCCESS);
    DWORD type = 0;
    EXPECT_THAT(scratch.Bytes(L"Number", &type), ElementsAre(4, 3, 2, 1));
    EXPECT_EQ(type, static_cast<DWORD>(REG_DWORD));
}

// Multi-strings

TEST_F(Registry, MultiStringOfTwoIsWrittenAsTenBytes) {
    EXPECT_TRUE(OpenScratch().SetMultiString(L"List", {L"a", L"b"}));
    DWORD type = 0;
    EXPECT_THAT(scratch.Bytes(L"List", &type), ElementsAre('a', 0, 0, 0, 'b', 0, 0, 0, 0, 0));
    EXPECT_EQ(type, static_cast<DWORD>(REG_MULTI_SZ));
}

TEST_F(Registry, MultiStringOfNoneIsOneTerminator) {
    EXPECT_TRUE(OpenScratch().SetMultiString(L"List", {}));
    EXPECT_THAT(scratch.Bytes(L"List"), ElementsAre(0, 0));
}

TEST_F(Registry, MultiStringWriteWithReadAccessAnswersFalse) {
    EXPECT_FALSE(OpenScratch(KEY_READ).SetMultiString(L"List", {L"a"}));
}

TEST_F(Registry, MultiStringReadCountsTheEmptyPieceAtTheEnd) {
    scratch.SetValue(L"", L"Two", REG_MULTI_SZ, L"a\0b\0", 10);
    scratch.SetValue(L"", L"One", REG_MULTI_SZ, L"a\0", 6);
    const RegKey key = OpenScratch();
    EXPECT_THAT(key.GetMultiString(L"Two"), ElementsAre(L"a", L"b", L""));
    EXPECT_THAT(key.GetMultiString(L"One"), ElementsAre(L"a", L""));
}

TEST_F(Registry, MultiStringKeepsEmptyPiecesInTheMiddle) {
    scratch.SetValue(L"", L"List", REG_MULTI_SZ, L"a\0\0b\0", 12);
    EXPECT_THAT(OpenScratch().GetMultiString(L"List"), ElementsAre(L"a", L"", L"b", L""));
}

TEST_F(Registry, MultiStringDropsWhatThePlatformHandsOverBehindTheLastTerminator) {
    std::wstring data = L"a\0bc"s;
    CORVI_HOOK(hooks, RegGetValueW,
               [&](HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID buffer, LPDWORD size) -> LSTATUS {
                   *size = static_cast<DWORD>(data.size() * sizeof(wchar_t));
                   if (buffer != nullptr) {
                       std::memcpy(buffer, data.data(), *size);
                   }
                   return ERROR_SUCCESS;
               });
    EXPECT_THAT(OpenScratch().GetMultiString(L"List"), ElementsAre(L"a"));
    data = L"bc";
    EXPECT_THAT(OpenScratch().GetMultiString(L"List"), IsEmpty());
    data = L"a\0bc\0"s;
    EXPECT_THAT(OpenScratch().GetMultiString(L"List"), ElementsAre(L"a", L"bc"));
}

// The platform may end such a list itself; its last piece is whole only then.
TEST_F(Registry, MultiStringStoredWithoutItsTerminatorsGivesWhatThePlatformMakesOfIt) {
    scratch.SetValue(L"", L"List", REG_MULTI_SZ, L"a\0bcd", 8);
    scratch.SetValue(L"", L"Odd", REG_MULTI_SZ, L"a\0bcd", 7);
    const RegKey key = OpenScratch();
    EXPECT_THAT(key.GetMultiString(L"List"),
                AnyOf(ElementsAre(L"a"), ElementsAre(L"a", L"bc"), ElementsAre(L"a", L"bc", L"")));
    EXPECT_THAT(key.GetMultiString(L"Odd"),
                AnyOf(ElementsAre(L"a"), ElementsAre(L"a", L"b"), ElementsAre(L"a", L"b", L"")));
}

TEST_F(Registry, MultiStringOfNoBytesIsEmpty) {
    scratch.SetValue(L"", L"List", REG_MULTI_SZ, L"", 0);
    // The platform may make an empty list of it, or a list of one empty text.
    EXPECT_THAT(OpenScratch().GetMultiString(L"List"),
                AnyOf(IsEmpty(), ElementsAre(L""), ElementsAre(L"", L"")));
}

TEST_F(Registry, MissingMultiStringOrOneOfAnotherTypeThrows) {
    scratch.SetText(L"", L"Text", L"a");
    const RegKey key = OpenScratch();
    const auto missing = ErrorOf([&] { (void)key.GetMultiString(L"None"); });
    EXPECT_EQ(missing.code().value(), 2);
    EXPECT_THAT(missing.what(), StartsWith("Unable to get registry value"));
    EXPECT_EQ(ErrorOf([&] { (void)key.GetMultiString(L"Text"); }).code().value(), ERROR_UNSUPPORTED_TYPE);
}

TEST_F(Registry, MultiStringOfWhichBothCallsFailThrowsTheFirstOnesCodeOfWhichOneFailsThatOnes) {
    LSTATUS sizing = ERROR_ACCESS_DENIED;
    CORVI_HOOK(hooks, RegGetValueW,
               [&](HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID data, LPDWORD) -> LSTATUS {
                   return data != nullptr ? ERROR_KEY_DELETED : sizing;
               });
    const RegKey key = OpenScratch();
    EXPECT_EQ(ErrorOf([&] { (void)key.GetMultiString(L"List"); }).code().value(), ERROR_ACCESS_DENIED);
    sizing = ERROR_SUCCESS;
    EXPECT_EQ(ErrorOf([&] { (void)key.GetMultiString(L"List"); }).code().value(), ERROR_KEY_DELETED);
}

TEST_F(Registry, MultiStringThatGrowsBetweenSizingAndReadIsReadWhole) {
    scratch.SetValue(L"", L"List", REG_MULTI_SZ, L"a\0", 6);
    const std::wstring longer(5000, L'x');
    CORVI_HOOK(hooks, RegGetValueW,
               [&](HKEY key, LPCWSTR subkey, LPCWSTR value, DWORD flags, LPDWORD type, PVOID data,
                   LPDWORD size) -> LSTATUS {
                   EXPECT_EQ(subkey, L""s);
                   EXPECT_EQ(flags, 0x20U);
                   if (data != nullptr) {
                       scratch.SetValue(L"", L"List", REG_MULTI_SZ, (longer + L'\0').c_str(), 10004);
                   }
                   return CORVI_ORIGINAL(hooks, RegGetValueW)(key, subkey, value, flags, type, data, size);
               });
    EXPECT_THAT(OpenScratch().GetMultiString(L"List"), ElementsAre(longer, L""));
}

// Enumerators

TEST_F(Registry, SubkeysAndValuesComeInIndexOrder) {
    for (const wchar_t* name : {L"B", L"A", L"Longer name"}) {
        scratch.Add(name);
        scratch.SetNumber(L"", name, 1);
    }
    const RegKey key = OpenScratch(KEY_READ);
    std::vector<std::wstring> subkeys;
    std::vector<std::wstring> values;
    for (DWORD index = 0; index < 3; ++index) {
        wchar_t name[100];
        DWORD length = 100;
        RegEnumKeyExW(key.Get(), index, name, &length, nullptr, nullptr, nullptr, nullptr);
        subkeys.emplace_back(name);
        length = 100;
        RegEnumValueW(key.Get(), index, name, &length, nullptr, nullptr, nullptr, nullptr);
        values.emplace_back(name);
    }
    EXPECT_EQ(key.EnumSubkeys(), subkeys);
    EXPECT_EQ(key.EnumValues(), values);
    EXPECT_THAT(RegKey::Open(HKEY_LOCAL_MACHINE, kScratch + L"\\A"s, KEY_READ).EnumSubkeys(), IsEmpty());
}

TEST_F(Registry, NamesOfTheGreatestLengthAreEnumerated) {
    const std::wstring subkey(255, L'k');
    const std::wstring value(16383, L'v');
    scratch.Add(subkey);
    scratch.SetNumber(L"", value, 1);
    const RegKey key = OpenScratch(KEY_READ);
    EXPECT_THAT(key.EnumSubkeys(), ElementsAre(subkey));
    EXPECT_THAT(key.EnumValues(), ElementsAre(value));
}

TEST_F(Registry, AKeyThatCannotBeQueriedRaisesTheQueryMessage) {
    const RegKey none;
    EXPECT_THAT(ErrorOf([&] { (void)none.EnumValues(); }).what(),
                StartsWith("Unable to get query key information"));
    EXPECT_THAT(ErrorOf([&] { (void)none.EnumSubkeys(); }).what(),
                StartsWith("Unable to get query key information"));
}

TEST_F(Registry, AFailingEnumerationOfSubkeysOrValuesRaisesTheSubkeyMessage) {
    scratch.Add(L"A");
    scratch.SetNumber(L"", L"A", 1);
    CORVI_HOOK(hooks, RegEnumKeyExW,
               [](HKEY, DWORD, LPWSTR, LPDWORD, LPDWORD, LPWSTR, LPDWORD, PFILETIME) -> LSTATUS {
                   return ERROR_ACCESS_DENIED;
               });
    CORVI_HOOK(hooks, RegEnumValueW,
               [](HKEY, DWORD, LPWSTR, LPDWORD, LPDWORD, LPDWORD, LPBYTE, LPDWORD) -> LSTATUS {
                   return ERROR_ACCESS_DENIED;
               });
    const RegKey key = OpenScratch();
    for (const auto& error :
         {ErrorOf([&] { (void)key.EnumSubkeys(); }), ErrorOf([&] { (void)key.EnumValues(); })}) {
        EXPECT_EQ(error.code().value(), 5);
        EXPECT_THAT(error.what(), StartsWith("Unable to get enumerate subkeys"));
    }
}

// Plain operations

TEST_F(Registry, UninstallWriteErrorTextNamesValueAndData) {
    EXPECT_EQ(UninstallWriteErrorText(L"Path", L"C:\\x 100%s"),
              "Unable to write to uninstall registry for value = Path data = C:\\x 100%s.");
}

TEST_F(Registry, UninstallWriteErrorTextIsCutToItsBuffer) {
    const std::string text = UninstallWriteErrorText(L"Path", std::wstring(65536, L'x'));
    EXPECT_EQ(text.size(), 259U);
    EXPECT_THAT(text, HasSubstr("data = xxx"));
    EXPECT_EQ(UninstallWriteErrorText(std::wstring(65536, L'y'), L"").size(), 259U);
    EXPECT_THAT(UninstallWriteErrorText(L"", L"\x4E2D"), HasSubstr("value =  data = "));
}

TEST_F(Registry, WriteMachineStringMakesItsKey) {
    EXPECT_TRUE(WriteMachineString(kScratch + L"\\Made\\Deep\\"s, L"Text", L"0"));
    EXPECT_EQ(OpenScratch().GetString(L"Made\\Deep", L"Text", Unreadable::Throws), L"0");
}

TEST_F(Registry, DeleteRunValueDeletesOneValueOfTheRunKey) {
    const RegKey run =
        RegKey::OpenOrCreate(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run");
    run.SetString(L"Corvi test", L"x");
    EXPECT_EQ(DeleteRunValue(L"Corvi test"), ERROR_SUCCESS);
    EXPECT_EQ(run.GetString(L"", L"Corvi test", Unreadable::IsEmpty), L"");
    EXPECT_EQ(DeleteRunValue(L"Corvi test"), ERROR_FILE_NOT_FOUND);
}

TEST_F(Registry, DeleteRunValueGivesTheErrorOfARefusedOpen) {
    CORVI_HOOK(hooks, RegOpenKeyExW, [](HKEY, LPCWSTR, DWORD, REGSAM access, PHKEY) -> LSTATUS {
        EXPECT_EQ(access, 0xF003FU);
        return ERROR_ACCESS_DENIED;
    });
    EXPECT_EQ(DeleteRunValue(L"Corvi test"), ERROR_ACCESS_DENIED);
}

TEST_F(Registry, NothingLeaksInTwoHundredCallsOfEachWay) {
    scratch.SetText(L"", L"Text", L"abc");
    const unsigned long before = OpenHandleCount();
    for (int round = 0; round < 200; ++round) {
        EXPECT_EQ(OpenScratch().GetString(L"", L"Text", Unreadable::Throws), L"abc");
        EXPECT_EQ(OpenScratch().EnumValues().size(), 1U);
        ErrorOf([this] { (void)OpenScratch().GetString(L"", L"None", Unreadable::Throws); });
        ErrorOf([this] { (void)OpenScratch().GetMultiString(L"Text"); });
        ErrorOf([] { RegKey::Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\CorviTests\\None", KEY_READ); });
        EXPECT_TRUE(RegKey::OpenOrCreate(HKEY_LOCAL_MACHINE, kScratch + L"\\Made"s));
        EXPECT_TRUE(WriteMachineString(kScratch, L"Other", L"x"));
        EXPECT_EQ(OpenScratch().EnumSubkeys().size(), 1U);
        RegDeleteValueW(OpenScratch().Get(), L"Other");
        DeleteRunValue(L"Corvi test");
    }
    EXPECT_EQ(OpenHandleCount(), before);
}

}  // namespace
}  // namespace corvi::test
