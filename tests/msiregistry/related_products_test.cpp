#include "msiregistry/related_products.h"

#include <windows.h>

#include <msiquery.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/msiregistry/installer_products.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"

namespace corvi::test {
namespace {

using Lines = std::vector<std::wstring>;

constexpr wchar_t kUpgradeCode[] = L"{14FF974F-1802-43D4-B8FE-78AF51D911D6}";
constexpr wchar_t kFirstCode[] = L"{00000000-0000-4000-8000-000000000001}";
constexpr wchar_t kSecondCode[] = L"{00000000-0000-4000-8000-000000000002}";

class RelatedProducts : public testing::Test {
protected:
    RelatedProducts() : hooks_(GetModuleHandleW(nullptr)) {}

    void AnswerQueries(UINT status) {
        CORVI_HOOK(hooks_, MsiGetProductInfoW,
                   [=](LPCWSTR, LPCWSTR, LPWSTR, LPDWORD) -> UINT { return status; });
    }

    /// The installer knows the given codes and then answers lastStatus.
    void Enumerate(const Lines& codes, UINT lastStatus = ERROR_NO_MORE_ITEMS) {
        CORVI_HOOK(hooks_, MsiEnumRelatedProductsW,
                   [=](LPCWSTR upgradeCode, DWORD reserved, DWORD index, LPWSTR code) -> UINT {
                       EXPECT_STREQ(upgradeCode, kUpgradeCode);
                       EXPECT_EQ(reserved, 0U);
                       if (index >= codes.size()) {
                           EXPECT_EQ(index, codes.size());
                           return lastStatus;
                       }
                       lstrcpyW(code, codes[index].c_str());
                       return ERROR_SUCCESS;
                   });
    }

    InstallerSession session_;
    ImportHooks hooks_;
};

TEST_F(RelatedProducts, AQueryAsksForTheProductsPropertyWithRoomFor260Characters) {
    CORVI_HOOK(hooks_, MsiGetProductInfoW,
               [&](LPCWSTR product, LPCWSTR property, LPWSTR buffer, LPDWORD count) -> UINT {
                   EXPECT_STREQ(product, kFirstCode);
                   EXPECT_STREQ(property, L"VersionString");
                   EXPECT_EQ(*count, 260U);
                   lstrcpyW(buffer, L"1.2.3");
                   *count = 5;
                   return ERROR_SUCCESS;
               });
    EXPECT_EQ(getMSIProductInfo(session_.Handle(), kFirstCode, L"VersionString"), L"1.2.3");
    EXPECT_TRUE(session_.LogLines().empty());
}

TEST_F(RelatedProducts, AnAnswerWithoutTerminatorEndsWithItsRoom) {
    CORVI_HOOK(hooks_, MsiGetProductInfoW, [](LPCWSTR, LPCWSTR, LPWSTR buffer, LPDWORD count) -> UINT {
        std::fill_n(buffer, *count, L'x');
        return ERROR_SUCCESS;
    });
    CORVI_HOOK(hooks_, MsiEnumRelatedProductsW, [](LPCWSTR, DWORD, DWORD index, LPWSTR code) -> UINT {
        std::fill_n(code, 39, L'x');
        return index == 0 ? ERROR_SUCCESS : ERROR_NO_MORE_ITEMS;
    });
    EXPECT_EQ(getMSIProductInfo(session_.Handle(), kFirstCode, L"VersionString"), std::wstring(259, L'x'));
    EXPECT_EQ(getRelatedMSIProducts(session_.Handle(), kUpgradeCode), Lines{std::wstring(38, L'x')});
}

TEST_F(RelatedProducts, AFailedQueryGivesAnEmptyTextAndLogsTheMessageWithoutAsManyCharactersAsTheStatus) {
    for (const auto& [status, line] : std::vector<std::pair<UINT, std::wstring>>{
             {1, L"etMSIProductInfo::Failed with error "},
             {5, L"IProductInfo::Failed with error "},
             {13, L"Info::Failed with error "},
             {36, L" "},
         }) {
        session_.ClearMessages();
        AnswerQueries(status);
        EXPECT_EQ(getMSIProductInfo(session_.Handle(), kFirstCode, L"VersionString"), L"");
        EXPECT_EQ(session_.LogLines(), Lines{line});
    }
}

TEST_F(RelatedProducts, AStatusBeyondTheEndOfTheMessageLogsAnEmptyLine) {
    for (const UINT status : {37U, 38U, 234U, 1605U, 1608U, 0xFFFFFFFFU}) {
        session_.ClearMessages();
        AnswerQueries(status);
        EXPECT_EQ(getMSIProductInfo(session_.Handle(), kFirstCode, L"VersionString"), L"");
        EXPECT_EQ(session_.LogLines(), Lines{L""});
    }
}

TEST_F(RelatedProducts, TheInstallerItselfAnswersWithItsUsualStatuses) {
    const InstalledProduct product(L"tuep_1", L"01");
    EXPECT_EQ(getMSIProductInfo(session_.Handle(), product.Code(), L"VersionString"), L"1.0.0");
    EXPECT_TRUE(session_.LogLines().empty());
    EXPECT_EQ(getMSIProductInfo(session_.Handle(), product.Code(), L"NoSuchProperty"), L"");
    EXPECT_EQ(getMSIProductInfo(session_.Handle(), kFirstCode, L"VersionString"), L"");
    EXPECT_EQ(session_.LogLines(), (Lines{L"", L""}));
}

TEST_F(RelatedProducts, AnEnumerationToItsEndLogsOneLineEvenWhenNothingIsThere) {
    Enumerate({});
    EXPECT_TRUE(getRelatedMSIProducts(session_.Handle(), kUpgradeCode).empty());
    EXPECT_EQ(session_.LogLines(), Lines{L"getRelatedMSIProducts::Related Products found"});
}

TEST_F(RelatedProducts, ProductCodesComeInTheOrderOfTheEnumeration) {
    Enumerate({kSecondCode, kFirstCode});
    EXPECT_EQ(getRelatedMSIProducts(session_.Handle(), kUpgradeCode), (Lines{kSecondCode, kFirstCode}));
}

TEST_F(RelatedProducts, AFailedEnumerationLogsBothLinesAndKeepsWhatWasFound) {
    Enumerate({kFirstCode}, ERROR_INVALID_PARAMETER);
    EXPECT_EQ(getRelatedMSIProducts(session_.Handle(), kUpgradeCode), Lines{kFirstCode});
    EXPECT_EQ(session_.LogLines(), (Lines{L"getRelatedMSIProducts::No Related Products found",
                                          L"getRelatedMSIProducts::Related Products found"}));
}

TEST_F(RelatedProducts, VersionAndPackageAreAskedInThisOrderAndTheVersionIsLogged) {
    Enumerate({kFirstCode, kSecondCode});
    Lines queries;
    CORVI_HOOK(hooks_, MsiGetProductInfoW,
               [&](LPCWSTR product, LPCWSTR property, LPWSTR buffer, LPDWORD) -> UINT {
                   queries.push_back(std::wstring(product) + L" " + property);
                   const bool first = std::wstring(product) == kFirstCode;
                   lstrcpyW(buffer, std::wstring(property) == L"VersionString" ? (first ? L"1.0" : L"2.0")
                                                                               : (first ? L"b" : L"B"));
                   return ERROR_SUCCESS;
               });
    const RelatedVersionMap versions = GetRelatedMSIVersions(session_.Handle(), kUpgradeCode);
    // In ordinal order a capital letter comes first.
    const RelatedVersionMap expected = {{L"B", L"2.0"}, {L"b", L"1.0"}};
    EXPECT_EQ(versions, expected);
    EXPECT_EQ(versions.begin()->first, L"B");
    const std::wstring first = kFirstCode;
    const std::wstring second = kSecondCode;
    EXPECT_EQ(queries, (Lines{first + L" VersionString", first + L" LocalPackage", second + L" VersionString",
                              second + L" LocalPackage"}));
    EXPECT_EQ(session_.LogLines(), (Lines{L"GetRelatedMSIVersions",
                                          L"getRelatedMSIProducts::Related Products found", L"1.0", L"2.0"}));
}

TEST_F(RelatedProducts, TheVersionIsLoggedOnceBothQueriesAreDone) {
    Enumerate({kFirstCode});
    CORVI_HOOK(hooks_, MsiGetProductInfoW, [&](LPCWSTR, LPCWSTR property, LPWSTR buffer, LPDWORD) -> UINT {
        if (property == std::wstring(L"LocalPackage")) {
            return ERROR_ACCESS_DENIED;
        }
        lstrcpyW(buffer, L"1.0");
        return ERROR_SUCCESS;
    });
    GetRelatedMSIVersions(session_.Handle(), kUpgradeCode);
    // The failed query's line comes first.
    EXPECT_EQ(session_.LogLines(),
              (Lines{L"GetRelatedMSIVersions", L"getRelatedMSIProducts::Related Products found",
                     L"IProductInfo::Failed with error ", L"1.0"}));
}

TEST_F(RelatedProducts, OfTwoProductsWithOnePackagePathTheFirstStays) {
    Enumerate({kFirstCode, kSecondCode});
    CORVI_HOOK(
        hooks_, MsiGetProductInfoW, [&](LPCWSTR product, LPCWSTR property, LPWSTR buffer, LPDWORD) -> UINT {
            const bool isVersion = std::wstring(property) == L"VersionString";
            lstrcpyW(buffer, !isVersion ? L"same" : (product == std::wstring(kFirstCode) ? L"1" : L"2"));
            return ERROR_SUCCESS;
        });
    const RelatedVersionMap expected = {{L"same", L"1"}};
    EXPECT_EQ(GetRelatedMSIVersions(session_.Handle(), kUpgradeCode), expected);
}

TEST_F(RelatedProducts, FailedQueriesGiveEmptyTexts) {
    Enumerate({kFirstCode});
    AnswerQueries(ERROR_UNKNOWN_PRODUCT);
    const RelatedVersionMap expected = {{L"", L""}};
    EXPECT_EQ(GetRelatedMSIVersions(session_.Handle(), kUpgradeCode), expected);
    EXPECT_EQ(session_.LogLines(), (Lines{L"GetRelatedMSIVersions",
                                          L"getRelatedMSIProducts::Related Products found", L"", L"", L""}));
}

TEST_F(RelatedProducts, AnErrorWhileAProductIsReadIsLoggedWithItsPlaceholderAndKeepsTheOnesBefore) {
    Enumerate({kFirstCode, kSecondCode});
    CORVI_HOOK(hooks_, MsiGetProductInfoW,
               [&](LPCWSTR product, LPCWSTR property, LPWSTR buffer, LPDWORD) -> UINT {
                   if (product == std::wstring(kSecondCode)) {
                       throw std::length_error("too long");
                   }
                   lstrcpyW(buffer, property == std::wstring(L"VersionString") ? L"1.0" : L"a");
                   return ERROR_SUCCESS;
               });
    const RelatedVersionMap expected = {{L"a", L"1.0"}};
    EXPECT_EQ(GetRelatedMSIVersions(session_.Handle(), kUpgradeCode), expected);
    ASSERT_FALSE(session_.LogLines().empty());
    EXPECT_EQ(session_.LogLines().back(),
              L"Unable to obtain MSI infomation. %hs Attempt to uninstall using msiexec");
}

TEST_F(RelatedProducts, AProductWhoseVersionCannotBeLoggedIsNotListed) {
    Enumerate({kFirstCode});
    CORVI_HOOK(hooks_, MsiGetProductInfoW, [](LPCWSTR, LPCWSTR property, LPWSTR buffer, LPDWORD) -> UINT {
        lstrcpyW(buffer, property == std::wstring(L"VersionString") ? L"1.0" : L"a");
        return ERROR_SUCCESS;
    });
    CORVI_HOOK(hooks_, MsiRecordSetStringW, [this](MSIHANDLE record, UINT field, LPCWSTR text) -> UINT {
        if (text == std::wstring(L"1.0")) {
            throw std::length_error("too long");
        }
        return CORVI_ORIGINAL(hooks_, MsiRecordSetStringW)(record, field, text);
    });
    EXPECT_TRUE(GetRelatedMSIVersions(session_.Handle(), kUpgradeCode).empty());
}

TEST_F(RelatedProducts, RealProductsUnderOneUpgradeCodeAreFoundWithVersionAndPackage) {
    const InstalledProduct older(L"tuep_1", L"01");
    const InstalledProduct newer(L"tuep_2", L"02");
    const RelatedVersionMap expected = {{older.CachedPackage(), L"1.0.0"}, {newer.CachedPackage(), L"2.0.0"}};
    EXPECT_EQ(GetRelatedMSIVersions(session_.Handle(), kUpgradeCode), expected);
    EXPECT_EQ(expected.size(), 2U);
}

}  // namespace
}  // namespace corvi::test
