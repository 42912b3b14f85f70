#include "tool/package_tables.h"

#include <msidefs.h>
#include <msiquery.h>

#include <algorithm>
#include <functional>

#include "tool/compound_file.h"
#include "tool/console.h"

namespace corvi::tool {
namespace {

constexpr int kComponent64Bit = 256;  // msidbComponentAttributes64bit
constexpr int kLocator64Bit = 16;     // msidbLocatorType64bit
constexpr UINT kTemplateProperty = 7;
constexpr DWORD kStreamPiece = 1 << 16;

/// Owns an installer handle: a view or a record.
class InstallerHandle {
public:
    explicit InstallerHandle(MSIHANDLE handle = 0) : handle_(handle) {}
    ~InstallerHandle() {
        if (handle_ != 0) {
            MsiCloseHandle(handle_);
        }
    }
    InstallerHandle(const InstallerHandle&) = delete;
    InstallerHandle& operator=(const InstallerHandle&) = delete;
    MSIHANDLE Get() const { return handle_; }
    MSIHANDLE* Out() { return &handle_; }

private:
    MSIHANDLE handle_;
};

std::string Text(MSIHANDLE record, UINT field) {
    wchar_t none[] = L"";
    DWORD length = 0;
    MsiRecordGetStringW(record, field, none, &length);
    std::wstring text(++length, L'\0');
    if (MsiRecordGetStringW(record, field, text.data(), &length) != ERROR_SUCCESS) {
        return {};
    }
    text.resize(length);
    return ToUtf8(text);
}

int Number(MSIHANDLE record, UINT field) {
    const int number = MsiRecordGetInteger(record, field);
    return number == static_cast<int>(MSI_NULL_INTEGER) ? 0 : number;
}

std::string Stream(MSIHANDLE record, UINT field) {
    std::string data;
    std::string piece(kStreamPiece, '\0');
    for (DWORD got = kStreamPiece; got == kStreamPiece; data.append(piece, 0, got)) {
        if (MsiRecordReadStream(record, field, piece.data(), &got) != ERROR_SUCCESS) {
            break;
        }
    }
    return data;
}

using TakeRow = std::function<void(MSIHANDLE record)>;

/// Hands each row of a query to `take`. A table that the package does not have has no rows.
void ForEachRow(MSIHANDLE database, const wchar_t* query, const TakeRow& take, MSIHANDLE parameters = 0) {
    InstallerHandle view;
    if (MsiDatabaseOpenViewW(database, query, view.Out()) != ERROR_SUCCESS ||
        MsiViewExecute(view.Get(), parameters) != ERROR_SUCCESS) {
        return;
    }
    for (;;) {
        InstallerHandle record;
        if (MsiViewFetch(view.Get(), record.Out()) != ERROR_SUCCESS) {
            break;
        }
        take(record.Get());
    }
    MsiViewClose(view.Get());
}

std::vector<SequenceRow> ReadSequence(MSIHANDLE database, const wchar_t* query) {
    std::vector<SequenceRow> rows;
    ForEachRow(database, query, [&](MSIHANDLE record) {
        // Rows without a positive number are not run in turn: status dialogs and what is switched off.
        if (Number(record, 3) > 0) {
            rows.push_back({Text(record, 1), Text(record, 2), Number(record, 3)});
        }
    });
    std::stable_sort(rows.begin(), rows.end(),
                     [](const SequenceRow& a, const SequenceRow& b) { return a.sequence < b.sequence; });
    return rows;
}

std::vector<std::string> ReadNames(MSIHANDLE database, const wchar_t* query) {
    std::vector<std::string> names;
    ForEachRow(database, query, [&](MSIHANDLE record) { names.push_back(Text(record, 1)); });
    return names;
}

std::vector<SearchRow> ReadSearches(MSIHANDLE database) {
    std::map<std::string, SearchRow> locators;
    ForEachRow(database, L"SELECT `Signature_`,`Root`,`Key`,`Name`,`Type` FROM `RegLocator`",
               [&](MSIHANDLE record) {
                   SearchRow row;
                   row.registry = true;
                   row.root = Number(record, 2);
                   row.key = Text(record, 3);
                   row.name = Text(record, 4);
                   row.view64 = (Number(record, 5) & kLocator64Bit) != 0;
                   locators[Text(record, 1)] = row;
               });
    std::vector<SearchRow> rows;
    ForEachRow(database, L"SELECT `Property`,`Signature_` FROM `AppSearch`", [&](MSIHANDLE record) {
        const auto found = locators.find(Text(record, 2));
        SearchRow row = found == locators.end() ? SearchRow{} : found->second;
        row.property = Text(record, 1);
        rows.push_back(row);
    });
    return rows;
}

std::vector<RegistryRow> ReadRegistry(MSIHANDLE database) {
    std::map<std::string, bool> is64Bit;
    ForEachRow(database, L"SELECT `Component`,`Attributes` FROM `Component`", [&](MSIHANDLE record) {
        is64Bit[Text(record, 1)] = (Number(record, 2) & kComponent64Bit) != 0;
    });
    std::vector<RegistryRow> rows;
    ForEachRow(database, L"SELECT `Root`,`Key`,`Name`,`Component_` FROM `Registry`", [&](MSIHANDLE record) {
        rows.push_back({Number(record, 1), Text(record, 2), Text(record, 3), is64Bit[Text(record, 4)]});
    });
    return rows;
}

std::vector<UpgradeRow> ReadUpgrades(MSIHANDLE database) {
    std::vector<UpgradeRow> rows;
    const auto take = [&](MSIHANDLE record) { rows.push_back({Number(record, 1), Text(record, 2)}); };
    ForEachRow(database, L"SELECT `Attributes`,`ActionProperty` FROM `Upgrade`", take);
    return rows;
}

/// In the order of the files that they hold.
std::vector<MediaRow> ReadMedia(MSIHANDLE database) {
    std::vector<MediaRow> rows;
    const auto take = [&](MSIHANDLE record) { rows.push_back({Number(record, 1), Text(record, 2)}); };
    ForEachRow(database, L"SELECT `LastSequence`,`Cabinet` FROM `Media`", take);
    std::sort(rows.begin(), rows.end(),
              [](const MediaRow& a, const MediaRow& b) { return a.lastSequence < b.lastSequence; });
    return rows;
}

std::vector<FeatureRow> ReadFeatures(MSIHANDLE database) {
    std::vector<FeatureRow> rows;
    const auto take = [&](MSIHANDLE record) { rows.push_back({Text(record, 1), Number(record, 2)}); };
    ForEachRow(database, L"SELECT `Feature`,`Level` FROM `Feature`", take);
    return rows;
}

// "SHORT|long name"
std::string LongName(const std::string& fileName) {
    const auto bar = fileName.find('|');
    return bar == std::string::npos ? fileName : fileName.substr(bar + 1);
}

std::string SummaryTemplate(MSIHANDLE database) {
    InstallerHandle summary;
    if (MsiGetSummaryInformationW(database, nullptr, 0, summary.Out()) != ERROR_SUCCESS) {
        return {};
    }
    UINT type = 0;
    INT number = 0;
    FILETIME time = {};
    std::wstring text(256, L'\0');
    DWORD length = static_cast<DWORD>(text.size());
    const UINT got = MsiSummaryInfoGetPropertyW(summary.Get(), kTemplateProperty, &type, &number, &time,
                                                text.data(), &length);
    text.resize(got == ERROR_SUCCESS ? length : 0);
    return ToUtf8(text);
}

std::wstring AbsolutePath(const std::wstring& path) {
    std::wstring absolute(GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
    absolute.resize(
        GetFullPathNameW(path.c_str(), static_cast<DWORD>(absolute.size()), absolute.data(), nullptr));
    return absolute;
}

std::optional<std::string> FirstStream(MSIHANDLE database, const wchar_t* query, const std::string& name) {
    const InstallerHandle parameters(MsiCreateRecord(1));
    MsiRecordSetStringW(parameters.Get(), 1, ToWide(name).c_str());
    std::optional<std::string> data;
    ForEachRow(
        database, query,
        [&](MSIHANDLE record) {
            if (!data) {
                data = Stream(record, 1);
            }
        },
        parameters.Get());
    return data;
}

}  // namespace

const CustomActionRow* PackageTables::FindCustomAction(const std::string& id) const {
    const auto found = std::find_if(customActions.begin(), customActions.end(),
                                    [&](const CustomActionRow& row) { return row.id == id; });
    return found == customActions.end() ? nullptr : &*found;
}

std::optional<int> PackageTables::Sequence(const std::string& action) const {
    const auto found = std::find_if(executeSequence.begin(), executeSequence.end(),
                                    [&](const SequenceRow& row) { return row.action == action; });
    return found == executeSequence.end() ? std::nullopt : std::optional<int>(found->sequence);
}

std::string PackageTables::Property(const std::string& name) const {
    const auto found = properties.find(name);
    return found == properties.end() ? std::string() : found->second;
}

PackageDatabase::PackageDatabase(const std::wstring& path) : path_(AbsolutePath(path)) {
    const DWORD attributes = GetFileAttributesW(path_.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        throw UsageError("there is no package '" + ToUtf8(path) + "'");
    }
    // The installer's own way through a damaged file may have no end.
    if (LookAtContainer(path_) == Container::Damaged) {
        throw UsageError("'" + ToUtf8(path) + "' is damaged: its table of contents leads nowhere");
    }
    if (MsiOpenDatabaseW(path_.c_str(), MSIDBOPEN_READONLY, &handle_) != ERROR_SUCCESS) {
        throw UsageError("'" + ToUtf8(path) + "' is not an installer package");
    }
}

PackageDatabase::~PackageDatabase() { MsiCloseHandle(handle_); }

PackageTables PackageDatabase::Read() const {
    PackageTables tables;
    tables.path = path_;
    tables.summaryTemplate = SummaryTemplate(handle_);
    ForEachRow(handle_, L"SELECT `Property`,`Value` FROM `Property`",
               [&](MSIHANDLE record) { tables.properties[Text(record, 1)] = Text(record, 2); });
    ForEachRow(handle_, L"SELECT `Action`,`Type`,`Source`,`Target` FROM `CustomAction`",
               [&](MSIHANDLE record) {
                   tables.customActions.push_back({Text(record, 1),
                                                   static_cast<unsigned>(Number(record, 2)) & 0xFFFFU,
                                                   Text(record, 3), Text(record, 4)});
               });
    tables.executeSequence =
        ReadSequence(handle_, L"SELECT `Action`,`Condition`,`Sequence` FROM `InstallExecuteSequence`");
    tables.uiSequence =
        ReadSequence(handle_, L"SELECT `Action`,`Condition`,`Sequence` FROM `InstallUISequence`");
    tables.searches = ReadSearches(handle_);
    tables.upgrades = ReadUpgrades(handle_);
    tables.registry = ReadRegistry(handle_);
    ForEachRow(handle_, L"SELECT `File`,`FileName`,`Sequence` FROM `File`", [&](MSIHANDLE record) {
        tables.files.push_back({Text(record, 1), LongName(Text(record, 2)), Number(record, 3)});
    });
    tables.media = ReadMedia(handle_);
    tables.features = ReadFeatures(handle_);
    tables.components = ReadNames(handle_, L"SELECT `Component` FROM `Component`");
    tables.directories = ReadNames(handle_, L"SELECT `Directory` FROM `Directory`");
    return tables;
}

std::optional<std::string> PackageDatabase::BinaryData(const std::string& name) const {
    return FirstStream(handle_, L"SELECT `Data` FROM `Binary` WHERE `Name`=?", name);
}

std::optional<std::string> PackageDatabase::StreamData(const std::string& name) const {
    return FirstStream(handle_, L"SELECT `Data` FROM `_Streams` WHERE `Name`=?", name);
}

}  // namespace corvi::tool
