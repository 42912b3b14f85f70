#pragma once

#include <string>
#include <vector>

namespace corvi::test {

/// A built package of the stage, by its name without folder and ending ("settings_app_1.0.0"), as it is read.
/// Each query is SQL of the installer; a row's fields come as texts.
std::vector<std::vector<std::wstring>> PackageRows(const std::wstring& package, const std::wstring& query);

/// Copies of built packages with something changed, in C:\corvi; each returns the copy's path. The product
/// code stays the package's.

/// One that fails when everything is done, deferred, where the property FAILLAST is set.
std::wstring FailingLast(const std::wstring& package);

/// One whose upgrade tells the older version that it is one. Windows passes UPGRADINGPRODUCTCODE to the
/// removal of the older version; Wine starts it with nothing but the features to remove, and so the copy's
/// upgrade table hands the property over with those.
std::wstring UpgradingAsOnWindows(const std::wstring& package);

}  // namespace corvi::test
