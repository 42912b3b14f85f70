#include "tests/tool/changed_package.h"

#include <windows.h>

#include <msi.h>
#include <msiquery.h>

#include <stdexcept>

namespace corvi::test {
namespace {

constexpr UINT kTemplateProperty = 7;

void Require(UINT result, const std::wstring& what) {
    if (result != ERROR_SUCCESS) {
        throw std::runtime_error(std::string(what.begin(), what.end()) + ": " + std::to_string(result));
    }
}

MSIHANDLE OpenForChange(const std::wstring& package) {
    MSIHANDLE database = 0;
    Require(MsiOpenDatabaseW(package.c_str(), MSIDBOPEN_TRANSACT, &database), L"open " + package);
    return database;
}

void RunStatement(MSIHANDLE database, const std::wstring& statement) {
    MSIHANDLE view = 0;
    Require(MsiDatabaseOpenViewW(database, statement.c_str(), &view), statement);
    Require(MsiViewExecute(view, 0), statement);
    MsiViewClose(view);
    MsiCloseHandle(view);
}

}  // namespace

void ChangePackage(const std::wstring& package, const std::wstring& copy,
                   const std::vector<std::wstring>& statements) {
    Require(CopyFileW(package.c_str(), copy.c_str(), FALSE) != FALSE ? ERROR_SUCCESS : GetLastError(),
            L"copy " + package);
    const MSIHANDLE database = OpenForChange(copy);
    for (const std::wstring& statement : statements) {
        RunStatement(database, statement);
    }
    Require(MsiDatabaseCommit(database), L"commit");
    MsiCloseHandle(database);
}

void SetTemplate(const std::wstring& package, const std::wstring& text) {
    const MSIHANDLE database = OpenForChange(package);
    MSIHANDLE summary = 0;
    Require(MsiGetSummaryInformationW(database, nullptr, 1, &summary), L"summary");
    Require(MsiSummaryInfoSetPropertyW(summary, kTemplateProperty, VT_LPSTR, 0, nullptr, text.c_str()),
            L"template");
    Require(MsiSummaryInfoPersist(summary), L"persist");
    MsiCloseHandle(summary);
    Require(MsiDatabaseCommit(database), L"commit");
    MsiCloseHandle(database);
}

}  // namespace corvi::test
