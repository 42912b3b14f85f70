#pragma once

#include <string>
#include <vector>

#include "tool/check_findings.h"
#include "tool/check_suppressions.h"

namespace corvi::tool {

/// What `corvi check` found out about a package.
struct CheckReport {
    CheckedPackage package;
    Findings findings;
    std::vector<SuppressedFinding> suppressed;
    std::vector<Suppression> unused;  ///< suppressions that no finding needed
};

/// "2 findings, 1 suppressed"; "No findings".
std::string CountInWords(const CheckReport& report);

/// The matrix and the findings within the output's columns.
std::string CheckReportText(const CheckReport& report);

/// The same, and every action's type and condition, as one JSON object.
std::string CheckReportJson(const CheckReport& report);

}  // namespace corvi::tool
