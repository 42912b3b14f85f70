#pragma once

#include <windows.h>

#include <msi.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace corvi::tool {

// A package's tables as its author wrote them, read through the installer. All texts are UTF-8.

struct CustomActionRow {
    std::string id;
    unsigned type = 0;
    std::string source;
    std::string target;
};

struct SequenceRow {
    std::string action;
    std::string condition;
    int sequence = 0;
};

/// One registry search of AppSearch and RegLocator together; `registry` is false for every other search.
struct SearchRow {
    std::string property;
    bool registry = false;
    int root = 0;  ///< as the tables number them: 0 classes, 1 user, 2 machine
    std::string key;
    std::string name;
    bool view64 = false;
};

struct UpgradeRow {
    int attributes = 0;
    std::string actionProperty;
};

struct RegistryRow {
    int root = 0;
    std::string key;
    std::string name;
    bool view64 = false;  ///< its component is a 64-bit one
};

struct FileRow {
    std::string id;
    std::string name;  ///< the long name
    int sequence = 0;
};

struct MediaRow {
    int lastSequence = 0;
    std::string cabinet;
};

struct FeatureRow {
    std::string id;
    int level = 0;
};

/// Everything that the checks ask a package for.
struct PackageTables {
    std::wstring path;  ///< absolute
    std::string summaryTemplate;
    std::map<std::string, std::string> properties;
    std::vector<CustomActionRow> customActions;
    std::vector<SequenceRow> executeSequence;  ///< in the order in which the installer goes
    std::vector<SequenceRow> uiSequence;
    std::vector<SearchRow> searches;
    std::vector<UpgradeRow> upgrades;
    std::vector<RegistryRow> registry;
    std::vector<FileRow> files;
    std::vector<MediaRow> media;  ///< by last sequence
    std::vector<FeatureRow> features;
    std::vector<std::string> components;
    std::vector<std::string> directories;

    const CustomActionRow* FindCustomAction(const std::string& id) const;
    /// The place of an action in the execute sequence; nothing when it is not there or has no number.
    std::optional<int> Sequence(const std::string& action) const;
    std::string Property(const std::string& name) const;
};

/// An installer database, opened for reading.
class PackageDatabase {
public:
    /// Throws UsageError with one line when the file is missing or no installer package.
    explicit PackageDatabase(const std::wstring& path);
    ~PackageDatabase();
    PackageDatabase(const PackageDatabase&) = delete;
    PackageDatabase& operator=(const PackageDatabase&) = delete;

    const std::wstring& Path() const { return path_; }
    MSIHANDLE Handle() const { return handle_; }
    PackageTables Read() const;
    /// The bytes of a row of the Binary table, or of a stream of the package (an embedded cabinet);
    /// nothing when there is none of that name.
    std::optional<std::string> BinaryData(const std::string& name) const;
    std::optional<std::string> StreamData(const std::string& name) const;

private:
    std::wstring path_;
    MSIHANDLE handle_ = 0;
};

}  // namespace corvi::tool
