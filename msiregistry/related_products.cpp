#include "msiregistry/related_products.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "runtime/installer_log.h"

namespace corvi {
namespace {

/// In characters, terminator included.
constexpr DWORD kPropertyCapacity = 260;
constexpr size_t kProductCodeCapacity = 39;

constexpr wchar_t kVersionProperty[] = L"VersionString";
constexpr wchar_t kPackageProperty[] = L"LocalPackage";

constexpr std::wstring_view kQueryFailed = L"getMSIProductInfo::Failed with error ";
constexpr wchar_t kNoneFound[] = L"getRelatedMSIProducts::No Related Products found";
constexpr wchar_t kFound[] = L"getRelatedMSIProducts::Related Products found";
constexpr wchar_t kCollecting[] = L"GetRelatedMSIVersions";
// Kept as it stands: the placeholder stays unfilled, and no uninstaller is started.
constexpr wchar_t kReadFailed[] = L"Unable to obtain MSI infomation. %hs Attempt to uninstall using msiexec";

void LogText(MSIHANDLE session, const std::wstring& text) {
    SendInstallerMessage(session, INSTALLMESSAGE_INFO, 0, text.c_str());
}

/// Kept: the status shows only in how much of the message is missing at its front, one character for each
/// of its units. A status beyond the end of the message leaves nothing.
std::wstring QueryFailureText(UINT status) {
    return std::wstring(kQueryFailed.substr(std::min<size_t>(status, kQueryFailed.size())));
}

}  // namespace

std::wstring getMSIProductInfo(MSIHANDLE session, const std::wstring& productCode,
                               const std::wstring& property) {
    std::array<wchar_t, kPropertyCapacity> buffer = {};
    DWORD count = kPropertyCapacity;
    const UINT status = MsiGetProductInfoW(productCode.c_str(), property.c_str(), buffer.data(), &count);
    if (status != ERROR_SUCCESS) {
        LogText(session, QueryFailureText(status));
        return {};
    }
    buffer.back() = L'\0';
    return buffer.data();
}

std::vector<std::wstring> getRelatedMSIProducts(MSIHANDLE session, const std::wstring& upgradeCode) {
    std::vector<std::wstring> productCodes;
    std::array<wchar_t, kProductCodeCapacity> buffer = {};
    UINT status = ERROR_SUCCESS;
    for (DWORD index = 0; status == ERROR_SUCCESS; ++index) {
        status = MsiEnumRelatedProductsW(upgradeCode.c_str(), 0, index, buffer.data());
        if (status == ERROR_SUCCESS) {
            buffer.back() = L'\0';
            productCodes.emplace_back(buffer.data());
        }
    }
    if (status != ERROR_NO_MORE_ITEMS) {
        LogText(session, kNoneFound);
    }
    // Kept: this line follows the other one too, whatever was found.
    LogText(session, kFound);
    return productCodes;
}

RelatedVersionMap GetRelatedMSIVersions(MSIHANDLE session, const std::wstring& upgradeCode) {
    LogText(session, kCollecting);
    RelatedVersionMap versions;
    const std::vector<std::wstring> productCodes = getRelatedMSIProducts(session, upgradeCode);
    try {
        for (const std::wstring& productCode : productCodes) {
            const std::wstring version = getMSIProductInfo(session, productCode, kVersionProperty);
            const std::wstring package = getMSIProductInfo(session, productCode, kPackageProperty);
            LogText(session, version);
            versions.emplace(package, version);
        }
    } catch (...) {
        LogText(session, kReadFailed);
    }
    return versions;
}

}  // namespace corvi
