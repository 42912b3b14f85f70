#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tool/package_tables.h"

namespace corvi::tool {

/// The names that a DLL image exports and the name that it carries in its export table. Empty for anything
/// that is no such image; never reads outside the bytes.
struct DllExports {
    std::string name;
    std::set<std::string> functions;
};
DllExports ReadDllExports(const std::string& image);

/// One custom action of the package whose code is this library.
struct LibraryAction {
    std::string id;     ///< as the package names it
    std::string entry;  ///< the function of the library that it calls
    /// The library's function that `entry` is or, misspelt, is meant to be; empty when nothing is near.
    std::string meant;
    unsigned type = 0;      ///< the Type column
    bool exported = false;  ///< the package's own copy of the library has this function

    bool InScript() const;  ///< deferred, rollback or commit: written into the script
    bool Rollback() const;
    bool Commit() const;
    bool Deferred() const { return InScript() && !Rollback() && !Commit(); }
    bool Impersonated() const;
    bool IgnoresResult() const;  ///< a result that is not 0 changes nothing
    bool Asynchronous() const;
    /// The Type column in words: "deferred, elevated, ignore".
    std::string Attributes() const;
};

/// The package's copy of the library and the custom actions that come from it.
struct PackageLibrary {
    std::vector<std::string> sources;  ///< where the actions' code is: "Binary Corvi_CA", "File CorviFile"
    std::vector<LibraryAction> actions;

    const LibraryAction* Find(const std::string& id) const;
};

/// Tells the library by what it is, not only by its name: a Binary row that exports its functions, or is
/// named after it; an installed file that is named after it. Entry points are looked up in `named`, else
/// in the package's own copy.
PackageLibrary FindLibrary(const PackageDatabase& database, const PackageTables& tables,
                           const std::optional<DllExports>& named);

}  // namespace corvi::tool
