#include <windows.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include "tool/cabinet.h"
#include "tool/check_findings.h"
#include "tool/condition_text.h"
#include "tool/console.h"

// What is wrong with the package as a whole: properties that do not reach the installer's elevated side, the
// processor it is for, the encoding of the task files that it carries.

namespace corvi::tool {
namespace {

constexpr unsigned kBasicType = 0x3F;
constexpr unsigned kSetProperty = 0x33;

// The task files that the library reads, and the action that reads each.
struct TaskFile {
    const char* name;
    const char* action;
};
constexpr TaskFile kTaskFiles[] = {{"starthx.xml", "CreateLogonSchTask"},
                                   {"startdvr.xml", "CreateDVRLogonSchTask"},
                                   {"starthxbm.xml", "CreateBenchMarkRunOnceSchTask"}};
constexpr char kTaskNamespace[] = "schemas.microsoft.com/windows/2004/02/mit/task";

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

void CheckTemplate(const CheckedPackage& package, Findings& findings) {
    const std::string platforms =
        package.tables.summaryTemplate.substr(0, package.tables.summaryTemplate.find(';'));
    std::istringstream list(platforms);
    for (std::string platform; std::getline(list, platform, ',');) {
        if (Lower(platform) == "x64" || Lower(platform) == "amd64") {
            return;
        }
    }
    const std::string first = package.library.actions.front().id;
    findings.push_back(
        {"template-not-x64", kPackageItself,
         "The package's template is \"" + package.tables.summaryTemplate + "\", not x64: \"" + first +
             "\" and every other action of this 64-bit library works on the 64-bit machine, the "
             "package installs into the 32-bit folders and registry.",
         "Build it for x64 (wixl -a x64, candle -arch x64)."});
}

// Names in brackets in a formatted text.
std::vector<std::string> References(const std::string& text) {
    std::vector<std::string> names;
    for (auto open = text.find('['); open != std::string::npos; open = text.find('[', open + 1)) {
        const auto close = text.find(']', open);
        if (close == std::string::npos) {
            break;
        }
        names.push_back(text.substr(open + 1, close - open - 1));
    }
    return names;
}

/// Where the value of a property comes from on the elevated side of a full-interface install.
class PropertyOrigins {
public:
    explicit PropertyOrigins(const PackageTables& tables) : tables_(tables) {
        std::istringstream list(tables.Property("SecureCustomProperties"));
        for (std::string name; std::getline(list, name, ';');) {
            secure_.insert(name);
        }
        allPass_ = tables.Property("EnableUserControl") == "1";
        for (const CustomActionRow& row : tables.customActions) {
            if ((row.type & kBasicType) == kSetProperty && tables.Sequence(row.id)) {
                set_.insert(row.source);
            }
        }
    }

    bool Searched(const std::string& name) const {
        return std::any_of(tables_.searches.begin(), tables_.searches.end(),
                           [&](const SearchRow& row) { return row.property == name; });
    }

    // The value is found or given on the user's side and does not cross.
    bool Dropped(const std::string& name) const {
        if (allPass_ || secure_.count(name) != 0 || set_.count(name) != 0 || IsStandardProperty(name) ||
            Directory(name) || (IsCompilersProperty(name) && !Upgrade(name))) {
            return false;
        }
        return Searched(name) ? SearchesOnUserSide() : IsPublicProperty(name);
    }

private:
    bool Upgrade(const std::string& name) const {
        return std::any_of(tables_.upgrades.begin(), tables_.upgrades.end(),
                           [&](const UpgradeRow& row) { return row.actionProperty == name; });
    }
    bool Directory(const std::string& name) const {
        return std::find(tables_.directories.begin(), tables_.directories.end(), name) !=
               tables_.directories.end();
    }
    // A search that ran in the dialogs' sequence does not run again.
    bool SearchesOnUserSide() const {
        return std::any_of(tables_.uiSequence.begin(), tables_.uiSequence.end(),
                           [](const SequenceRow& row) { return row.action == "AppSearch"; });
    }

    const PackageTables& tables_;
    std::set<std::string> secure_;
    std::set<std::string> set_;
    bool allPass_ = false;
};

bool IsPropertyName(const std::string& name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), IsPropertyNamePart);
}

std::vector<std::string> PropertiesOf(const CheckedPackage& package, const CheckedAction& checked) {
    std::vector<std::string> names = checked.facts->properties;
    const auto add = [&](const std::vector<std::string>& more) {
        names.insert(names.end(), more.begin(), more.end());
    };
    add(PropertiesInCondition(checked.condition));
    for (const CustomActionRow& row : package.tables.customActions) {
        if ((row.type & kBasicType) == kSetProperty && row.source == checked.Id() &&
            package.tables.Sequence(row.id)) {
            add(References(row.target));
        }
    }
    names.erase(std::remove_if(names.begin(), names.end(),
                               [](const std::string& name) {
                                   return !IsPropertyName(name) || name == "CustomActionData";
                               }),
                names.end());
    return names;
}

void CheckProperties(const CheckedPackage& package, Findings& findings) {
    const PropertyOrigins origins(package.tables);
    std::set<std::string> reported;
    for (const CheckedAction& checked : package.actions) {
        for (const std::string& name : PropertiesOf(package, checked)) {
            if (!origins.Dropped(name) || !reported.insert(name).second) {
                continue;
            }
            const bool isPublic = IsPublicProperty(name);
            findings.push_back(
                {"property-not-secure", checked.Id(),
                 "\"" + checked.Id() + "\" depends on the property " + name +
                     (origins.Searched(name) ? ", which a search sets" : "") +
                     ". An install with full user interface that starts unelevated drops it on the "
                     "way to the elevated side: it is not in SecureCustomProperties" +
                     (isPublic ? "." : ", and a name with lower-case letters cannot be."),
                 (isPublic ? "Add " + name : "Give it an upper-case name and add that") +
                     " to SecureCustomProperties."});
        }
    }
}

std::string ReadBytes(const std::wstring& path) {
    std::string bytes;
    const HANDLE file =
        CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return bytes;
    }
    std::string piece(1 << 16, '\0');
    DWORD got = 0;
    while (ReadFile(file, piece.data(), static_cast<DWORD>(piece.size()), &got, nullptr) != FALSE &&
           got != 0) {
        bytes.append(piece, 0, got);
    }
    CloseHandle(file);
    return bytes;
}

std::string CabinetBytes(const CheckedPackage& package, const std::string& cabinet) {
    if (cabinet[0] == '#') {
        return package.database->StreamData(cabinet.substr(1)).value_or("");
    }
    const std::wstring& path = package.tables.path;
    return ReadBytes(path.substr(0, path.find_last_of(L'\\') + 1) + ToWide(cabinet));
}

bool IsXml(const FileRow& file) {
    const std::string name = Lower(file.name);
    return name.size() > 4 && name.compare(name.size() - 4, 4, ".xml") == 0;
}

// The XML files that the package carries, by the File table's name. A file that is not in a cabinet, or whose
// cabinet is not at hand, is left out.
std::map<std::string, std::string> CarriedXml(const CheckedPackage& package) {
    std::map<std::string, std::set<std::string>> wanted;
    for (const FileRow& file : package.tables.files) {
        const auto media =
            std::find_if(package.tables.media.begin(), package.tables.media.end(),
                         [&](const MediaRow& row) { return row.lastSequence >= file.sequence; });
        if (IsXml(file) && media != package.tables.media.end() && !media->cabinet.empty()) {
            wanted[media->cabinet].insert(file.id);
        }
    }
    std::map<std::string, std::string> contents;
    for (const auto& [cabinet, names] : wanted) {
        contents.merge(ExtractFromCabinet(CabinetBytes(package, cabinet), names));
    }
    return contents;
}

bool IsLittleEndianUtf16(const std::string& bytes) { return bytes.compare(0, 2, "\xFF\xFE") == 0; }

std::string Utf16AsUtf8(const std::string& bytes) {
    std::wstring text;
    for (std::size_t at = 2; at + 1 < bytes.size(); at += 2) {
        text += static_cast<wchar_t>(static_cast<unsigned char>(bytes[at]) |
                                     (static_cast<unsigned char>(bytes[at + 1]) << 8));
    }
    return ToUtf8(text);
}

// What the XML declaration calls the encoding, in lower case; empty when it says nothing.
std::string DeclaredEncoding(const std::string& text) {
    const auto end = text.find("?>");
    const std::string declaration = text.compare(0, 5, "<?xml") == 0 ? text.substr(0, end) : std::string();
    const auto at = declaration.find("encoding");
    const auto open = at == std::string::npos ? at : declaration.find_first_of("\"'", at);
    if (open == std::string::npos) {
        return {};
    }
    return Lower(declaration.substr(open + 1, declaration.find(declaration[open], open + 1) - open - 1));
}

// Why the task scheduler would not take the file; nothing when it does.
std::optional<std::string> TaskFileProblem(const std::string& bytes) {
    if (!IsLittleEndianUtf16(bytes)) {
        return "is not UTF-16 with a byte-order mark";
    }
    const std::string encoding = DeclaredEncoding(Utf16AsUtf8(bytes));
    if (!encoding.empty() && encoding.compare(0, 6, "utf-16") != 0) {
        return "is UTF-16, but its declaration says \"" + encoding + "\"";
    }
    return std::nullopt;
}

void CheckTaskFiles(const CheckedPackage& package, Findings& findings) {
    const auto contents = CarriedXml(package);
    for (const FileRow& file : package.tables.files) {
        const auto content = contents.find(file.id);
        if (content == contents.end()) {
            continue;
        }
        const auto known = std::find_if(std::begin(kTaskFiles), std::end(kTaskFiles),
                                        [&](const TaskFile& task) { return task.name == Lower(file.name); });
        const std::string& bytes = content->second;
        const std::string text = IsLittleEndianUtf16(bytes) ? Utf16AsUtf8(bytes) : bytes;
        const auto problem = TaskFileProblem(bytes);
        if ((known == std::end(kTaskFiles) && text.find(kTaskNamespace) == std::string::npos) || !problem) {
            continue;
        }
        const std::string action = known == std::end(kTaskFiles) ? kPackageItself : known->action;
        findings.push_back(
            {"task-file-not-utf16", action,
             "The task file " + file.name + " " + *problem +
                 (known == std::end(kTaskFiles) ? std::string() : ", and \"" + action + "\" reads it") +
                 ": the task scheduler refuses it.",
             "Save it as UTF-16 (little endian) with a byte-order mark, and let the declaration say "
             "encoding=\"UTF-16\"."});
    }
}

}  // namespace

void CheckPackageItself(const CheckedPackage& package, Findings& findings) {
    CheckTemplate(package, findings);
    CheckProperties(package, findings);
    CheckTaskFiles(package, findings);
}

}  // namespace corvi::tool
