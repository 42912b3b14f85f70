#include "tool/check_findings.h"

#include <algorithm>
#include <cctype>
#include <climits>

namespace corvi::tool {
namespace {

int Place(const CheckedPackage& package, const Finding& finding) {
    return package.tables.Sequence(finding.action).value_or(finding.action == kPackageItself ? INT_MAX : 0);
}

char Lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

}  // namespace

std::string ScenarioList(const std::vector<Scenario>& scenarios) {
    std::string text;
    for (std::size_t index = 0; index < scenarios.size(); ++index) {
        if (index > 0) {
            text += index + 1 == scenarios.size() ? " and " : "; ";
        }
        text += ScenarioWords(scenarios[index]);
    }
    return text;
}

std::size_t Distance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t column = 0; column < row.size(); ++column) {
        row[column] = column;
    }
    for (std::size_t line = 1; line <= a.size(); ++line) {
        std::size_t corner = row[0];
        row[0] = line;
        for (std::size_t column = 1; column <= b.size(); ++column) {
            const std::size_t changed = corner + (Lower(a[line - 1]) == Lower(b[column - 1]) ? 0 : 1);
            corner = row[column];
            row[column] = std::min({changed, row[column] + 1, row[column - 1] + 1});
        }
    }
    return row.back();
}

Findings CheckPackage(CheckedPackage& package) {
    Findings findings;
    CheckDeclarations(package, findings);
    CheckSchedule(package, findings);
    CheckActionData(package, findings);
    CheckPackageItself(package, findings);
    std::stable_sort(findings.begin(), findings.end(), [&](const Finding& a, const Finding& b) {
        return Place(package, a) < Place(package, b);
    });
    return findings;
}

}  // namespace corvi::tool
