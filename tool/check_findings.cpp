#include "tool/check_findings.h"

#include <algorithm>
#include <climits>

namespace corvi::tool {
namespace {

int Place(const CheckedPackage& package, const Finding& finding) {
    return package.tables.Sequence(finding.action).value_or(finding.action == kPackageItself ? INT_MAX : 0);
}

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
