#include "tool/package_library.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>
#include <optional>

#include "tool/action_facts.h"

namespace corvi::tool {
namespace {

constexpr char kLibraryName[] = "corvi_ca";
// So many functions of this library make a DLL a copy of it, whatever its name.
constexpr std::size_t kTellingExports = 10;

// The bits of the Type column.
constexpr unsigned kBasicType = 0x3F;
constexpr unsigned kDllInBinaryTable = 0x01;
constexpr unsigned kDllInstalled = 0x11;
constexpr unsigned kContinue = 0x40;
constexpr unsigned kAsync = 0x80;
constexpr unsigned kRollback = 0x100;
constexpr unsigned kCommit = 0x200;
constexpr unsigned kInScript = 0x400;
constexpr unsigned kNoImpersonate = 0x800;

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool NamedAfterLibrary(const std::string& name) {
    return Lower(name).find(kLibraryName) != std::string::npos;
}

/// Bounded access to the bytes of a DLL image, by place in the file or by address in memory.
class Image {
public:
    explicit Image(const std::string& bytes) : bytes_(bytes) {}

    template <typename T>
    std::optional<T> At(std::size_t offset) const {
        if (offset > bytes_.size() || bytes_.size() - offset < sizeof(T)) {
            return std::nullopt;
        }
        T value = {};
        std::memcpy(&value, bytes_.data() + offset, sizeof(T));
        return value;
    }
    std::string TextAt(std::size_t offset) const {
        if (offset >= bytes_.size()) {
            return {};
        }
        return bytes_.substr(offset, bytes_.find('\0', offset) - offset);
    }

private:
    const std::string& bytes_;
};

std::vector<IMAGE_SECTION_HEADER> Sections(const Image& image, std::size_t headers,
                                           const IMAGE_FILE_HEADER& file) {
    std::vector<IMAGE_SECTION_HEADER> sections;
    const std::size_t first = headers + sizeof(DWORD) + sizeof(IMAGE_FILE_HEADER) + file.SizeOfOptionalHeader;
    for (std::size_t index = 0; index < file.NumberOfSections; ++index) {
        const auto section = image.At<IMAGE_SECTION_HEADER>(first + index * sizeof(IMAGE_SECTION_HEADER));
        if (!section) {
            break;
        }
        sections.push_back(*section);
    }
    return sections;
}

std::size_t FileOffset(const std::vector<IMAGE_SECTION_HEADER>& sections, DWORD address) {
    for (const IMAGE_SECTION_HEADER& section : sections) {
        if (address >= section.VirtualAddress && address - section.VirtualAddress < section.SizeOfRawData) {
            return std::size_t{section.PointerToRawData} + (address - section.VirtualAddress);
        }
    }
    return static_cast<std::size_t>(-1);
}

std::optional<DWORD> ExportTableAddress(const Image& image, std::size_t headers) {
    const std::size_t optional = headers + sizeof(DWORD) + sizeof(IMAGE_FILE_HEADER);
    const auto magic = image.At<WORD>(optional);
    if (!magic) {
        return std::nullopt;
    }
    const std::size_t directories = *magic == IMAGE_NT_OPTIONAL_HDR64_MAGIC
                                        ? offsetof(IMAGE_OPTIONAL_HEADER64, DataDirectory)
                                        : offsetof(IMAGE_OPTIONAL_HEADER32, DataDirectory);
    const auto exports = image.At<IMAGE_DATA_DIRECTORY>(optional + directories);
    return exports ? std::optional<DWORD>(exports->VirtualAddress) : std::nullopt;
}

LibraryAction MakeAction(const CustomActionRow& row, const DllExports& exports) {
    LibraryAction action;
    action.id = row.id;
    action.entry = row.target;
    action.type = row.type;
    const ActionFacts* meant =
        FindAction(row.target) != nullptr ? FindAction(row.target) : NearestAction(row.target);
    action.meant = meant != nullptr ? meant->name : std::string();
    // A copy whose export table cannot be read (an installed file) is taken for this version of the library.
    action.exported = exports.functions.empty() ? FindAction(row.target) != nullptr
                                                : exports.functions.count(row.target) != 0;
    return action;
}

/// What each Binary row is: nothing when it is not the library.
class BinaryRows {
public:
    explicit BinaryRows(const PackageDatabase& database) : database_(database) {}

    const std::optional<DllExports>& Library(const std::string& name) {
        const auto known = rows_.find(name);
        return known != rows_.end() ? known->second : rows_.emplace(name, Look(name)).first->second;
    }

private:
    std::optional<DllExports> Look(const std::string& name) const {
        DllExports exports = ReadDllExports(database_.BinaryData(name).value_or(""));
        const auto known =
            std::count_if(exports.functions.begin(), exports.functions.end(),
                          [](const std::string& function) { return FindAction(function) != nullptr; });
        const bool library = NamedAfterLibrary(name) || NamedAfterLibrary(exports.name) ||
                             static_cast<std::size_t>(known) >= kTellingExports;
        return library ? std::optional<DllExports>(std::move(exports)) : std::nullopt;
    }

    const PackageDatabase& database_;
    std::map<std::string, std::optional<DllExports>> rows_;
};

bool InstalledLibrary(const PackageTables& tables, const std::string& fileId) {
    const auto file = std::find_if(tables.files.begin(), tables.files.end(),
                                   [&](const FileRow& row) { return row.id == fileId; });
    return file != tables.files.end() && NamedAfterLibrary(file->name);
}

}  // namespace

DllExports ReadDllExports(const std::string& bytes) {
    const Image image(bytes);
    DllExports result;
    const auto dos = image.At<IMAGE_DOS_HEADER>(0);
    if (!dos || dos->e_magic != IMAGE_DOS_SIGNATURE || dos->e_lfanew < 0) {
        return result;
    }
    const auto headers = static_cast<std::size_t>(dos->e_lfanew);
    const auto file = image.At<IMAGE_FILE_HEADER>(headers + sizeof(DWORD));
    if (!file || image.At<DWORD>(headers) != DWORD{IMAGE_NT_SIGNATURE}) {
        return result;
    }
    const std::vector<IMAGE_SECTION_HEADER> sections = Sections(image, headers, *file);
    const auto address = ExportTableAddress(image, headers);
    const auto table = image.At<IMAGE_EXPORT_DIRECTORY>(FileOffset(sections, address.value_or(0)));
    if (!table) {
        return result;
    }
    result.name = image.TextAt(FileOffset(sections, table->Name));
    const std::size_t names = FileOffset(sections, table->AddressOfNames);
    for (std::size_t index = 0; index < table->NumberOfNames; ++index) {
        const auto name = image.At<DWORD>(names + index * sizeof(DWORD));
        if (!name) {
            break;
        }
        result.functions.insert(image.TextAt(FileOffset(sections, *name)));
    }
    return result;
}

bool LibraryAction::InScript() const { return (type & kInScript) != 0; }

bool LibraryAction::Rollback() const { return InScript() && (type & kRollback) != 0; }

bool LibraryAction::Commit() const { return InScript() && (type & kCommit) != 0; }

bool LibraryAction::Impersonated() const { return !InScript() || (type & kNoImpersonate) == 0; }

bool LibraryAction::IgnoresResult() const { return (type & kContinue) != 0; }

bool LibraryAction::Asynchronous() const { return (type & kAsync) != 0; }

std::string LibraryAction::Attributes() const {
    std::string words = Rollback() ? "rollback" : Commit() ? "commit" : InScript() ? "deferred" : "immediate";
    if (InScript()) {
        words += Impersonated() ? ", impersonated" : ", elevated";
    }
    words += IgnoresResult() ? ", ignore" : ", check";
    return Asynchronous() ? words + ", asynchronous" : words;
}

const LibraryAction* PackageLibrary::Find(const std::string& id) const {
    const auto found = std::find_if(actions.begin(), actions.end(),
                                    [&](const LibraryAction& action) { return action.id == id; });
    return found == actions.end() ? nullptr : &*found;
}

PackageLibrary FindLibrary(const PackageDatabase& database, const PackageTables& tables,
                           const std::optional<DllExports>& named) {
    PackageLibrary library;
    BinaryRows binaries(database);
    std::set<std::string> sources;
    for (const CustomActionRow& row : tables.customActions) {
        const unsigned basic = row.type & kBasicType;
        if (basic == kDllInBinaryTable && binaries.Library(row.source)) {
            library.actions.push_back(MakeAction(row, named ? *named : *binaries.Library(row.source)));
            sources.insert("Binary " + row.source);
        } else if (basic == kDllInstalled && InstalledLibrary(tables, row.source)) {
            library.actions.push_back(MakeAction(row, named.value_or(DllExports{})));
            sources.insert("File " + row.source);
        }
    }
    library.sources.assign(sources.begin(), sources.end());
    return library;
}

}  // namespace corvi::tool
