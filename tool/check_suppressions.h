#pragma once

#include <string>
#include <vector>

#include "tool/check_findings.h"

namespace corvi::tool {

/// A finding that a package's author knows of and keeps, with his reason.
struct Suppression {
    std::string id;
    std::string action;
    std::string reason;
    bool used = false;
};

/// Those that the package itself brings along: each property whose name begins with "CorviSuppress", its
/// value "identifier action reason". Throws UsageError on a value that is not of that form.
std::vector<Suppression> PackageSuppressions(const PackageTables& tables);

/// Those of a text file, one a line in the same form; empty lines and lines that begin with # are skipped.
/// Throws UsageError when the file cannot be read or a line is not of that form.
std::vector<Suppression> FileSuppressions(const std::wstring& path);

/// A finding with the reason why it is kept.
struct SuppressedFinding {
    Finding finding;
    std::string reason;
};

/// Takes the suppressed ones out of `findings`; marks each suppression that took one as used.
std::vector<SuppressedFinding> Suppress(Findings& findings, std::vector<Suppression>& suppressions);

}  // namespace corvi::tool
