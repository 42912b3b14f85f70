#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <memory>

#include "tool/check_findings.h"
#include "tool/check_report.h"
#include "tool/check_suppressions.h"
#include "tool/console.h"
#include "tool/verbs.h"

namespace corvi::tool {
namespace {

struct CheckOptions {
    std::string package;
    std::string suppressions;
    bool json = false;
};

CheckReport CheckOnePackage(const PackageDatabase& database, std::vector<Suppression> suppressions) {
    CheckReport report;
    CheckedPackage& package = report.package;
    package.database = &database;
    package.tables = database.Read();
    package.library = FindLibrary(database, package.tables);
    if (package.library.actions.empty()) {
        return report;
    }
    package.schedule = PlaySchedule(database, package.tables);
    report.findings = CheckPackage(package);
    const std::vector<Suppression> own = PackageSuppressions(package.tables);
    suppressions.insert(suppressions.end(), own.begin(), own.end());
    report.suppressed = Suppress(report.findings, suppressions);
    std::copy_if(suppressions.begin(), suppressions.end(), std::back_inserter(report.unused),
                 [](const Suppression& suppression) { return !suppression.used; });
    return report;
}

int Check(const CheckOptions& options) {
    std::vector<Suppression> suppressions;
    if (!options.suppressions.empty()) {
        suppressions = FileSuppressions(ToWide(options.suppressions));
    }
    const PackageDatabase database(ToWide(options.package));
    const CheckReport report = CheckOnePackage(database, std::move(suppressions));
    Print(options.json ? CheckReportJson(report) : CheckReportText(report));
    return report.findings.empty() ? kFine : kFindings;
}

}  // namespace

void AddCheckVerb(CLI::App& program, Work& work) {
    const auto options = std::make_shared<CheckOptions>();
    CLI::App* verb = AddVerb(
        program, "check", "How a package uses the library: which action runs when, and the mistakes in it.",
        {"corvi check settings_app.msi", "corvi check settings_app.msi --json"});
    verb->add_option("PACKAGE", options->package, "an installer package (.msi)")->required();
    verb->add_flag("--json", options->json, "the whole answer as one JSON object");
    verb->add_option("--suppress", options->suppressions,
                     "findings to keep: lines of the form \"identifier action reason\"")
        ->type_name("FILE");
    verb->callback([options, &work] { work = [options] { return Check(*options); }; });
}

}  // namespace corvi::tool
