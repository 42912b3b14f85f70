#include <windows.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>

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
    std::string dll;
    bool json = false;
};

/// The package that is being read, for the one line that is left to say when the installer dies of it.
std::string packageInReading;

LONG WINAPI EndOnDamage(EXCEPTION_POINTERS* /*exception*/) {
    PrintError("'" + packageInReading + "' is damaged: the installer cannot read it");
    TerminateProcess(GetCurrentProcess(), kWrongUse);
    return EXCEPTION_EXECUTE_HANDLER;
}

/// What the library that --dll names exports; nothing without that option: then the package's own copy
/// counts.
std::optional<DllExports> NamedLibrary(const std::string& dll) {
    if (dll.empty()) {
        return std::nullopt;
    }
    const std::wstring path = LibraryPath(dll);
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    const std::string image((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    DllExports exports = ReadDllExports(image);
    if (exports.functions.empty()) {
        throw UsageError(ToUtf8(path) + " is no library that exports anything");
    }
    return exports;
}

CheckReport CheckOnePackage(const PackageDatabase& database, std::vector<Suppression> suppressions,
                            const std::optional<DllExports>& library) {
    CheckReport report;
    CheckedPackage& package = report.package;
    package.database = &database;
    package.tables = database.Read();
    package.library = FindLibrary(database, package.tables, library);
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
    const std::optional<DllExports> library = NamedLibrary(options.dll);
    packageInReading = options.package;
    SetUnhandledExceptionFilter(&EndOnDamage);
    const PackageDatabase database(ToWide(options.package));
    const CheckReport report = CheckOnePackage(database, std::move(suppressions), library);
    SetUnhandledExceptionFilter(nullptr);
    Print(options.json ? CheckReportJson(report) : CheckReportText(report));
    if (report.findings.empty()) {
        return kFine;
    }
    PrintError("'" + options.package + "': " + CountInWords(report));
    return kFindings;
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
    verb->add_option("--dll", options->dll,
                     "the library that the entry points are looked up in (default: the package's own copy)")
        ->type_name("PATH")
        ->allow_extra_args(false);
    verb->callback([options, &work] { work = [options] { return Check(*options); }; });
}

}  // namespace corvi::tool
