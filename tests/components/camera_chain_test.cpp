#include "components/camera_chain.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/registry.h"
#include "tests/components/registry_values.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/platform.h"

namespace corvi::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::wstring kSuite = L"{55E09F33-D6B5-4A6D-99ED-87DC666C6710}";
const std::wstring kSuiteInLowerCase = L"{55e09f33-d6b5-4a6d-99ed-87dc666c6710}";
const std::wstring kOther = L"{11111111-2222-3333-4444-555555555555}";
const std::wstring kThird = L"{AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE}";

const std::wstring kClasses = L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\";
const std::wstring kCameraKey = kClasses + L"{e5323777-f976-4f5b-9b55-b94699c46e44}";
const std::wstring kCaptureKey = kClasses + L"{65e8773d-8f56-11d0-a3b9-00a0c9223196}";
const std::wstring kVideoKey = kClasses + L"{6994ad05-93ef-11d0-a3cc-00a0c9223196}";
constexpr wchar_t kChain[] = L"CameraDeviceMftClsidChain";

class CameraChain : public testing::Test {
protected:
    CameraChain() {
        for (const TemporaryKey* key : {&camera_, &capture_, &video_}) {
            key->Create();
        }
    }

    static void StoreChain(const std::wstring& key, const std::vector<std::wstring>& identifiers,
                           const wchar_t* name = kChain) {
        Store(key, name, REG_MULTI_SZ, MultiString(identifiers));
    }

    // The data of a chain of these identifiers with further terminators behind it; nothing when the value
    // is not there.
    static std::optional<StoredValue> Chain(const std::vector<std::wstring>& identifiers,
                                            size_t furtherTerminators) {
        return StoredValue{REG_MULTI_SZ, MultiString(identifiers) + std::wstring(furtherTerminators, L'\0')};
    }

    UINT Call() { return library_.Call("DeleteOPTXCameraGUID", session_.Handle()); }

    TemporaryKey camera_{kCameraKey};
    TemporaryKey capture_{kCaptureKey};
    TemporaryKey video_{kVideoKey};
    Library library_;
    InstallerSession session_;
    // Values below the last of the three keys are worked on once.
    const std::wstring once_ = kVideoKey + L"\\##?#USB#VID_0001\\#GLOBAL\\Device Parameters";
    const std::wstring twice_ = kCaptureKey + L"\\##?#USB#VID_0001\\#GLOBAL\\Device Parameters";
    const std::wstring thrice_ = kCameraKey + L"\\##?#USB#VID_0001\\#GLOBAL\\Device Parameters";
};

TEST_F(CameraChain, NothingToDoCountsAsSuccessAndSoGives1603) {
    EXPECT_EQ(Call(), 1603U);
    EXPECT_THAT(session_.Messages(), IsEmpty());
}

TEST_F(CameraChain, InterfaceKeysThatAreNotThereAreSkipped) {
    for (const std::wstring& key : {kCameraKey, kCaptureKey, kVideoKey}) {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str());
    }
    EXPECT_EQ(Call(), 1603U);
    StoreChain(once_, {kSuite});
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(once_, kChain), std::nullopt);
    EXPECT_FALSE(KeyExists(kCameraKey));
}

TEST_F(CameraChain, PassesOfAbsentInterfaceKeysStillWorkOnTheSharedList) {
    StoreChain(thrice_, {kSuite, kOther});
    for (const std::wstring& key : {kCaptureKey, kVideoKey}) {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str());
    }
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(thrice_, kChain), Chain({kOther}, 3));
}

TEST_F(CameraChain, ChainOfTheSuiteAloneIsDeletedAndSuccessGives1603) {
    StoreChain(once_, {kSuite});
    StoreText(once_, L"FriendlyName", L"Camera");
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(once_, kChain), std::nullopt);
    EXPECT_EQ(ReadStored(once_, L"FriendlyName"), (StoredValue{REG_SZ, std::wstring(L"Camera") + L'\0'}));
    EXPECT_THAT(session_.Messages(), IsEmpty());
}

TEST_F(CameraChain, ChainOfOneOtherIdentifierIsDeletedToo) {
    StoreChain(once_, {kOther});
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(once_, kChain), std::nullopt);
}

TEST_F(CameraChain, ChainOfTheSuiteAndOneOtherIsRewrittenWithTheOtherAlone) {
    StoreChain(once_, {kSuite, kOther});
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(once_, kChain), Chain({kOther}, 1));
}

TEST_F(CameraChain, OthersKeepTheirOrder) {
    StoreChain(once_, {kThird, kSuite, kOther});
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(once_, kChain), Chain({kThird, kOther}, 1));
}

TEST_F(CameraChain, ChainOfFiveLosesEveryOccurrenceOfTheSuite) {
    StoreChain(once_, {kSuite, kThird, kSuite, kOther, kSuite});
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(once_, kChain), Chain({kThird, kOther}, 1));
}

TEST_F(CameraChain, ChainWithoutTheSuiteIsRewrittenWithOneMoreTerminator) {
    StoreChain(once_, {kOther, kThird});
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(once_, kChain), Chain({kOther, kThird}, 1));
}

TEST_F(CameraChain, SuiteInAnotherCaseIsAnother) {
    StoreChain(once_, {kSuiteInLowerCase, kSuite, kOther});
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(once_, kChain), Chain({kSuiteInLowerCase, kOther}, 1));
}

TEST_F(CameraChain, LongerTextThatHoldsTheSuiteIsAnother) {
    StoreChain(once_, {kSuite + L"x", L" " + kSuite});
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(once_, kChain), Chain({kSuite + L"x", L" " + kSuite}, 1));
}

TEST_F(CameraChain, SuiteTwiceLeavesAnEmptyChain) {
    StoreChain(once_, {kSuite, kSuite});
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(once_, kChain), Chain({}, 1));
}

// Each terminator that the platform hands over ends an entry: none or two are deleted, one is rewritten.
TEST_F(CameraChain, ListsWithoutIdentifiersAreDeletedOrRewrittenByTheTerminatorsHandedOver) {
    for (const size_t terminators : {size_t{0}, size_t{1}, size_t{2}, size_t{3}}) {
        const std::wstring stored(terminators, L'\0');
        Store(once_, kChain, REG_MULTI_SZ, stored);
        const std::wstring handedOver = MultiStringHandedOver(stored);
        EXPECT_EQ(Call(), 1603U);
        EXPECT_EQ(ReadStored(once_, kChain),
                  handedOver.empty() || handedOver.size() == 2
                      ? std::nullopt
                      : std::optional<StoredValue>(StoredValue{REG_MULTI_SZ, handedOver + L'\0'}))
            << terminators << " stored, " << handedOver.size() << " handed over";
    }
}

TEST_F(CameraChain, ClassValueIsReadAndTheChainValueWritten) {
    StoreChain(once_, {kSuite, kOther}, L"CLSID");
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(once_, kChain), Chain({kOther}, 1));
    EXPECT_EQ(ReadStored(once_, L"CLSID"), Chain({kSuite, kOther}, 0));
}

TEST_F(CameraChain, ClassValueOfOneIdentifierIsDeletedItself) {
    StoreChain(once_, {kSuite}, L"CLSID");
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(once_, L"CLSID"), std::nullopt);
    EXPECT_EQ(ReadStored(once_, kChain), std::nullopt);
}

TEST_F(CameraChain, NamesAreFoundInAnyCase) {
    StoreChain(once_, {kSuite}, L"cameradevicemftclsidchain");
    StoreChain(once_ + L"2", {kSuite}, L"ClsId");
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(once_, kChain), std::nullopt);
    EXPECT_EQ(ReadStored(once_ + L"2", L"CLSID"), std::nullopt);
}

TEST_F(CameraChain, OtherNamesAreLeftAlone) {
    for (const wchar_t* name : {L"CLSID2", L"MyCLSID", L"CameraDeviceMftClsidChain2", L""}) {
        StoreChain(once_, {kSuite}, name);
    }
    EXPECT_EQ(Call(), 1603U);
    for (const wchar_t* name : {L"CLSID2", L"MyCLSID", L"CameraDeviceMftClsidChain2", L""}) {
        EXPECT_EQ(ReadStored(once_, name), Chain({kSuite}, 0));
    }
}

TEST_F(CameraChain, ValuesAreFoundAtAnyDepth) {
    std::vector<std::wstring> keys{kVideoKey};
    for (const wchar_t* name : {L"one", L"two", L"three", L"four", L"five"}) {
        keys.push_back(keys.back() + L"\\" + name);
    }
    for (const std::wstring& key : keys) {
        StoreChain(key, {kOther, kSuite, kThird});
    }
    EXPECT_EQ(Call(), 1603U);
    for (const std::wstring& key : keys) {
        EXPECT_EQ(ReadStored(key, kChain), Chain({kOther, kThird}, 1)) << std::string(key.begin(), key.end());
    }
}

TEST_F(CameraChain, KeysBesideTheThreeAreLeftAlone) {
    const std::wstring beside = kClasses + L"{6994ad05-93ef-11d0-a3cc-00a0c9223197}";
    const TemporaryKey key(beside);
    StoreChain(beside + L"\\one", {kSuite, kOther});
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(beside + L"\\one", kChain), Chain({kSuite, kOther}, 0));
}

TEST_F(CameraChain, ValuesAreWorkedOnAgainForEachLaterInterfaceKey) {
    StoreChain(thrice_, {kSuite, kOther});
    StoreChain(twice_, {kSuite, kOther});
    StoreChain(once_, {kSuite, kOther});
    EXPECT_EQ(Call(), 1603U);
    EXPECT_EQ(ReadStored(thrice_, kChain), Chain({kOther}, 3));
    EXPECT_EQ(ReadStored(twice_, kChain), Chain({kOther}, 2));
    EXPECT_EQ(ReadStored(once_, kChain), Chain({kOther}, 1));
}

// The error that leaves the action.
template <typename Work>
std::pair<int, std::string> RegistryErrorOf(Work work) {
    try {
        work();
    } catch (const RegKeyError& error) {
        return {error.code().value(), error.what()};
    }
    return {0, "nothing was thrown"};
}

TEST_F(CameraChain, ValueDeletedForAnEarlierKeyEndsTheActionAtTheNextOne) {
    StoreChain(thrice_, {kSuite});
    StoreChain(once_, {kSuite, kOther});
    const auto [code, text] = RegistryErrorOf([this] { Call(); });
    EXPECT_EQ(code, ERROR_FILE_NOT_FOUND);
    EXPECT_THAT(text, testing::StartsWith("Unable to get registry value"));
    EXPECT_EQ(ReadStored(thrice_, kChain), std::nullopt);
    EXPECT_EQ(ReadStored(once_, kChain), Chain({kSuite, kOther}, 0)) << "behind the error nothing is done";
}

TEST_F(CameraChain, ChainEmptiedForAnEarlierKeyIsDeletedForTheNextOneAndEndsTheActionAtTheThird) {
    // Three entries at first; what is written then reads as two.
    StoreChain(thrice_, {kSuite, kSuite});
    EXPECT_EQ(RegistryErrorOf([this] { Call(); }).first, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(ReadStored(thrice_, kChain), std::nullopt);
}

TEST_F(CameraChain, PlainTextInAClassValueEndsTheAction) {
    StoreText(once_, L"CLSID", kSuite);
    const auto [code, text] = RegistryErrorOf([this] { Call(); });
    EXPECT_EQ(code, ERROR_UNSUPPORTED_TYPE);
    EXPECT_THAT(text, testing::StartsWith("Unable to get registry value"));
    EXPECT_EQ(ReadStored(once_, L"CLSID"), (StoredValue{REG_SZ, kSuite + L'\0'}));
}

TEST_F(CameraChain, KeyThatCannotBeOpenedForTheEditEndsTheAction) {
    StoreChain(once_, {kSuite});
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR key, DWORD options, REGSAM access, PHKEY opened) -> LSTATUS {
                   return (access & KEY_SET_VALUE) != 0 ? ERROR_ACCESS_DENIED
                                                        : RegOpenKeyExW(root, key, options, access, opened);
               });
    const auto [code, text] = RegistryErrorOf([this] { Call(); });
    EXPECT_EQ(code, ERROR_ACCESS_DENIED);
    EXPECT_THAT(text, testing::StartsWith("Unable to open registry key"));
}

// Wine lets any handle write; Windows does not.
TEST_F(CameraChain, KeyOfAChainIsOpenedForReadingAndWritingAndTheInterfaceKeysForReading) {
    StoreChain(once_, {kSuite, kOther});
    std::vector<std::pair<std::wstring, REGSAM>> opened;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR key, DWORD options, REGSAM access, PHKEY result) -> LSTATUS {
                   const std::wstring path = key;
                   if (path == once_ && (access & KEY_SET_VALUE) != 0) {
                       opened.emplace_back(L"chain", access);
                   } else if (path == kCameraKey || path == kCaptureKey || path == kVideoKey) {
                       opened.emplace_back(L"interface", access);
                   }
                   return RegOpenKeyExW(root, key, options, access, result);
               });
    EXPECT_EQ(Call(), 1603U);
    EXPECT_THAT(opened, ElementsAre(std::make_pair(L"interface", REGSAM{KEY_READ}),
                                    std::make_pair(L"interface", REGSAM{KEY_READ}),
                                    std::make_pair(L"interface", REGSAM{KEY_READ}),
                                    std::make_pair(L"chain", REGSAM{0x2001F})));
}

TEST_F(CameraChain, FailedDeletionIsLoggedGivesZeroAndTheNextValueFollows) {
    StoreChain(once_, {kSuite});
    StoreChain(once_ + L"2", {kSuite, kOther});
    std::vector<std::wstring> deleted;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegDeleteKeyValueW, [&](HKEY root, LPCWSTR key, LPCWSTR name) -> LSTATUS {
        deleted.push_back(root == HKEY_LOCAL_MACHINE ? std::wstring(key) + L"|" + name : L"another root");
        return ERROR_ACCESS_DENIED;
    });
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(deleted, ElementsAre(once_ + L"|" + kChain));
    EXPECT_THAT(session_.LogLines(), ElementsAre(L"Failed to delete registry key"));
    EXPECT_EQ(ReadStored(once_ + L"2", kChain), Chain({kOther}, 1));
}

TEST_F(CameraChain, FailedWriteIsLoggedGivesZeroAndTheNextValueFollows) {
    StoreChain(once_, {kSuite, kOther});
    StoreChain(once_ + L"2", {kSuite});
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegSetValueExW, [](HKEY, LPCWSTR, DWORD, DWORD, const BYTE*, DWORD) -> LSTATUS {
        return ERROR_ACCESS_DENIED;
    });
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(session_.LogLines(), ElementsAre(L"Failed to set multistring value"));
    EXPECT_EQ(ReadStored(once_ + L"2", kChain), std::nullopt);
}

TEST_F(CameraChain, FailuresOfAnEarlierKeyAreMetAgainForEachLaterOne) {
    StoreChain(thrice_, {kSuite});
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, RegDeleteKeyValueW,
               [](HKEY, LPCWSTR, LPCWSTR) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(session_.LogLines(),
                ElementsAre(L"Failed to delete registry key", L"Failed to delete registry key",
                            L"Failed to delete registry key"));
}

TEST_F(CameraChain, WriteStatesTheWholeLengthInBytes) {
    StoreChain(once_, {kSuite, kOther});
    std::vector<DWORD> sizes;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(
        hooks, RegSetValueExW,
        [&](HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) -> LSTATUS {
            sizes.push_back(size);
            return RegSetValueExW(key, name, reserved, type, data, size);
        });
    EXPECT_EQ(Call(), 1603U);
    // The other identifier, the empty entry that ended the list, and the new end.
    EXPECT_THAT(sizes, ElementsAre((38 + 1 + 1 + 1) * sizeof(wchar_t)));
}

TEST_F(CameraChain, CleanupItselfReportsSuccessAsZero) {
    StoreChain(once_, {kSuite});
    EXPECT_EQ(RemoveDmftFromCameraChains(session_.Handle()), 0U);
    StoreChain(once_, {kSuite});
    ImportHooks hooks(GetModuleHandleW(nullptr));
    CORVI_HOOK(hooks, RegDeleteKeyValueW,
               [](HKEY, LPCWSTR, LPCWSTR) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    EXPECT_EQ(RemoveDmftFromCameraChains(session_.Handle()), 1603U);
}

}  // namespace
}  // namespace corvi::test
