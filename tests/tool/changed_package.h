#pragma once

#include <string>
#include <vector>

namespace corvi::test {

/// Copies a package and runs statements of the installer's own query language on the copy. Throws
/// std::runtime_error, with the statement, when one fails.
void ChangePackage(const std::wstring& package, const std::wstring& copy,
                   const std::vector<std::wstring>& statements);

/// Writes the template ("x64;1033") of a package's summary information.
void SetTemplate(const std::wstring& package, const std::wstring& text);

}  // namespace corvi::test
