#pragma once

#include <windows.h>

#include <msi.h>

#include <map>
#include <string>
#include <vector>

namespace corvi {

/// Installed products that share an upgrade code: the path of the cached package ("LocalPackage") and the
/// version ("VersionString") of each, in ordinal order of the paths.
using RelatedVersionMap = std::map<std::wstring, std::wstring>;

/// One property of an installed product, up to 259 characters. productCode: the braced GUID; property: an
/// installer property ("VersionString"). An empty text when the installer does not give it; then a piece
/// of the failure message is sent to the log, never the number of the error. Stands on MsiGetProductInfoW.
std::wstring getMSIProductInfo(MSIHANDLE session, const std::wstring& productCode,
                               const std::wstring& property);

/// The product codes (braced GUIDs) of the installed products with the given upgrade code, in the
/// installer's order. An enumeration that ends with an error gives what was found by then and logs one
/// line more. Stands on MsiEnumRelatedProductsW.
std::vector<std::wstring> getRelatedMSIProducts(MSIHANDLE session, const std::wstring& upgradeCode);

/// Package path and version of every installed product with the given upgrade code; of two products
/// with one path the first stays. An error while a product is read ends the collection with one log line;
/// what was collected by then is returned.
RelatedVersionMap GetRelatedMSIVersions(MSIHANDLE session, const std::wstring& upgradeCode);

}  // namespace corvi
