#include "tool/image.h"

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace corvi::tool {
namespace {

/// Larger files are no library of anybody's.
constexpr LONGLONG kLargest = LONGLONG{1} << 30;

std::optional<std::vector<char>> ReadFileWhole(const std::wstring& path) {
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return std::nullopt;
    }
    LARGE_INTEGER size = {};
    std::vector<char> bytes;
    DWORD read = 0;
    if (GetFileSizeEx(file, &size) != FALSE && size.QuadPart <= kLargest) {
        bytes.resize(static_cast<std::size_t>(size.QuadPart));
        ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
    }
    CloseHandle(file);
    bytes.resize(read);
    return bytes;
}

/// The file's bytes by the addresses that they have once the library is loaded. Every access is checked:
/// the file may say anything.
class Bytes {
public:
    explicit Bytes(std::vector<char> bytes) : bytes_(std::move(bytes)) {}

    bool ReadHeaders() {
        IMAGE_DOS_HEADER dosHeader = {};
        if (!ReadAt(0, dosHeader) || dosHeader.e_magic != IMAGE_DOS_SIGNATURE ||
            !ReadAt(static_cast<std::size_t>(dosHeader.e_lfanew), headers_) ||
            headers_.Signature != IMAGE_NT_SIGNATURE ||
            headers_.OptionalHeader.Magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC) {
            return false;
        }
        std::size_t offset = static_cast<std::size_t>(dosHeader.e_lfanew) +
                             offsetof(IMAGE_NT_HEADERS64, OptionalHeader) +
                             headers_.FileHeader.SizeOfOptionalHeader;
        for (WORD index = 0; index < headers_.FileHeader.NumberOfSections; ++index) {
            IMAGE_SECTION_HEADER section = {};
            if (!ReadAt(offset, section)) {
                return false;
            }
            sections_.push_back(section);
            offset += sizeof(section);
        }
        return true;
    }

    IMAGE_DATA_DIRECTORY Directory(unsigned which) const {
        return which < headers_.OptionalHeader.NumberOfRvaAndSizes
                   ? headers_.OptionalHeader.DataDirectory[which]
                   : IMAGE_DATA_DIRECTORY{};
    }

    template <typename Type>
    bool Read(uint64_t address, Type& value) const {
        const auto offset = OffsetOf(address);
        return offset && ReadAt(*offset, value);
    }

    std::string Text(uint64_t address) const {
        const auto offset = OffsetOf(address);
        if (!offset || *offset >= bytes_.size()) {
            return {};
        }
        const auto start = bytes_.begin() + static_cast<std::ptrdiff_t>(*offset);
        return {start, std::find(start, bytes_.end(), '\0')};
    }

private:
    template <typename Type>
    bool ReadAt(std::size_t offset, Type& value) const {
        if (offset > bytes_.size() || bytes_.size() - offset < sizeof(value)) {
            return false;
        }
        std::memcpy(&value, bytes_.data() + offset, sizeof(value));
        return true;
    }

    std::optional<std::size_t> OffsetOf(uint64_t address) const {
        const auto section = std::find_if(sections_.begin(), sections_.end(), [&](const auto& candidate) {
            return address >= candidate.VirtualAddress &&
                   address - candidate.VirtualAddress <
                       std::max(candidate.SizeOfRawData, candidate.Misc.VirtualSize);
        });
        if (section == sections_.end()) {
            return std::nullopt;
        }
        return static_cast<std::size_t>(address - section->VirtualAddress + section->PointerToRawData);
    }

    std::vector<char> bytes_;
    IMAGE_NT_HEADERS64 headers_ = {};
    std::vector<IMAGE_SECTION_HEADER> sections_;
};

void ReadNames(const Bytes& bytes, uint64_t names, std::vector<std::string>& imports) {
    IMAGE_THUNK_DATA64 name = {};
    for (; bytes.Read(names, name) && name.u1.AddressOfData != 0; names += sizeof(name)) {
        imports.push_back(IMAGE_SNAP_BY_ORDINAL64(name.u1.Ordinal)
                              ? std::string("#").append(std::to_string(IMAGE_ORDINAL64(name.u1.Ordinal)))
                              : bytes.Text(name.u1.AddressOfData + offsetof(IMAGE_IMPORT_BY_NAME, Name)));
    }
}

std::vector<std::string> ReadImports(const Bytes& bytes) {
    std::vector<std::string> imports;
    uint64_t entry = bytes.Directory(IMAGE_DIRECTORY_ENTRY_IMPORT).VirtualAddress;
    IMAGE_IMPORT_DESCRIPTOR import = {};
    for (; entry != 0 && bytes.Read(entry, import) && import.Name != 0; entry += sizeof(import)) {
        ReadNames(bytes, import.OriginalFirstThunk != 0 ? import.OriginalFirstThunk : import.FirstThunk,
                  imports);
    }
    entry = bytes.Directory(IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT).VirtualAddress;
    IMAGE_DELAYLOAD_DESCRIPTOR delayed = {};
    for (; entry != 0 && bytes.Read(entry, delayed) && delayed.DllNameRVA != 0; entry += sizeof(delayed)) {
        ReadNames(bytes, delayed.ImportNameTableRVA, imports);
    }
    return imports;
}

std::vector<std::string> ReadExports(const Bytes& bytes) {
    std::vector<std::string> exports;
    const IMAGE_DATA_DIRECTORY directory = bytes.Directory(IMAGE_DIRECTORY_ENTRY_EXPORT);
    IMAGE_EXPORT_DIRECTORY table = {};
    if (directory.Size == 0 || !bytes.Read(directory.VirtualAddress, table)) {
        return exports;
    }
    for (uint64_t index = 0; index < table.NumberOfNames; ++index) {
        DWORD name = 0;
        if (!bytes.Read(table.AddressOfNames + index * sizeof(name), name)) {
            break;
        }
        exports.push_back(bytes.Text(name));
    }
    return exports;
}

}  // namespace

std::optional<Image> ReadImage(const std::wstring& path) {
    auto contents = ReadFileWhole(path);
    if (!contents) {
        return std::nullopt;
    }
    Bytes bytes(std::move(*contents));
    if (!bytes.ReadHeaders()) {
        return std::nullopt;
    }
    return Image{ReadImports(bytes), ReadExports(bytes)};
}

}  // namespace corvi::tool
