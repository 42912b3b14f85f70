#include "tests/package/package_copy.h"

#include <windows.h>

#include <msi.h>
#include <msiquery.h>

#include <stdexcept>

namespace corvi::test {
namespace {

std::wstring PathOf(const std::wstring& package) { return L"C:\\corvi\\" + package + L".msi"; }

class Record {
public:
    Record() = default;
    ~Record() { MsiCloseHandle(handle_); }
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;

    MSIHANDLE* Put() {
        MsiCloseHandle(handle_);
        handle_ = 0;
        return &handle_;
    }
    MSIHANDLE Get() const { return handle_; }

private:
    MSIHANDLE handle_ = 0;
};

void Check(UINT status, const std::wstring& what) {
    if (status != ERROR_SUCCESS) {
        throw std::runtime_error(std::string(what.begin(), what.end()) + ": " + std::to_string(status));
    }
}

std::wstring Field(MSIHANDLE record, UINT field) {
    wchar_t text[2048] = {};
    DWORD size = ARRAYSIZE(text);
    MsiRecordGetStringW(record, field, text, &size);
    return text;
}

void Execute(MSIHANDLE database, const std::wstring& query) {
    Record view;
    Check(MsiDatabaseOpenViewW(database, query.c_str(), view.Put()), query);
    Check(MsiViewExecute(view.Get(), 0), query);
    MsiViewClose(view.Get());
}

std::wstring Copy(const std::wstring& package, const std::wstring& suffix,
                  const std::vector<std::wstring>& queries) {
    const std::wstring copy = PathOf(package + suffix);
    if (CopyFileW(PathOf(package).c_str(), copy.c_str(), FALSE) == FALSE) {
        Check(GetLastError(), copy);
    }
    Record database;
    Check(MsiOpenDatabaseW(copy.c_str(), MSIDBOPEN_TRANSACT, database.Put()), copy);
    for (const std::wstring& query : queries) {
        Execute(database.Get(), query);
    }
    Check(MsiDatabaseCommit(database.Get()), copy);
    return copy;
}

}  // namespace

std::vector<std::vector<std::wstring>> PackageRows(const std::wstring& package, const std::wstring& query) {
    Record database;
    Check(MsiOpenDatabaseW(PathOf(package).c_str(), MSIDBOPEN_READONLY, database.Put()), package);
    Record view;
    if (MsiDatabaseOpenViewW(database.Get(), query.c_str(), view.Put()) != ERROR_SUCCESS) {
        return {};  // no such table
    }
    Check(MsiViewExecute(view.Get(), 0), query);
    std::vector<std::vector<std::wstring>> rows;
    Record record;
    while (MsiViewFetch(view.Get(), record.Put()) == ERROR_SUCCESS) {
        rows.emplace_back();
        for (UINT field = 1; field <= MsiRecordGetFieldCount(record.Get()); ++field) {
            rows.back().push_back(Field(record.Get(), field));
        }
    }
    return rows;
}

std::wstring FailingLast(const std::wstring& package) {
    // Deferred, the guard finds no property and refuses.
    return Copy(
        package, L"_failing",
        {L"INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('FailLast', 3073, "
         L"'Corvi_CA', 'BlockLaunch')",
         L"INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES "
         L"('FailLast', 'FAILLAST', 6590)"});
}

std::wstring UpgradingAsOnWindows(const std::wstring& package) {
    return Copy(package, L"_upgrading",
                {L"UPDATE `Upgrade` SET `Remove` = 'ALL UPGRADINGPRODUCTCODE=[ProductCode]' WHERE "
                 L"`ActionProperty` = 'WIX_UPGRADE_DETECTED'"});
}

}  // namespace corvi::test
