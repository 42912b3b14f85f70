#include "tool/compound_file.h"

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <vector>

namespace corvi::tool {
namespace {

using Sectors = std::vector<std::uint32_t>;

constexpr unsigned char kMagic[] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
constexpr std::uint32_t kEndOfChain = 0xFFFFFFFE;
constexpr std::uint32_t kNoEntry = 0xFFFFFFFF;
constexpr std::size_t kHeaderBytes = 512;
constexpr std::size_t kEntryBytes = 128;

// Places in the header.
constexpr std::size_t kSectorShift = 0x1E;
constexpr std::size_t kFirstDirectorySector = 0x30;
constexpr std::size_t kSmallStreamLimit = 0x38;
constexpr std::size_t kFirstSmallTableSector = 0x3C;
constexpr std::size_t kFirstListSector = 0x44;
constexpr std::size_t kTableSectors = 0x4C;

// Places in an entry of the directory.
constexpr std::size_t kKind = 66;
constexpr std::size_t kLinks = 68;  // left, right, below
constexpr std::size_t kStart = 116;
constexpr std::size_t kSize = 120;
constexpr char kStream = 2;
constexpr char kRoot = 5;

std::uint32_t Number(const std::string& bytes, std::size_t at) {
    std::uint32_t number = 0;
    if (at + sizeof(number) <= bytes.size()) {
        std::memcpy(&number, bytes.data() + at, sizeof(number));
    }
    return number;
}

/// The sectors of a chain; nothing when it leaves the table or comes back to itself.
std::optional<Sectors> Chain(const Sectors& table, std::uint32_t start) {
    Sectors chain;
    for (std::uint32_t sector = start; sector != kEndOfChain; sector = table[sector]) {
        if (sector >= table.size() || chain.size() == table.size()) {
            return std::nullopt;
        }
        chain.push_back(sector);
    }
    return chain;
}

class CompoundFile {
public:
    explicit CompoundFile(const std::wstring& path)
        : file_(std::filesystem::path(path), std::ios::binary), header_(Bytes(0, kHeaderBytes)) {}

    bool IsOne() const {
        return header_.size() == kHeaderBytes && std::memcmp(header_.data(), kMagic, sizeof(kMagic)) == 0;
    }

    bool IsWhole() {
        const unsigned shift = Number(header_, kSectorShift) & 0xFFFFU;
        if (shift != 9 && shift != 12) {
            return false;
        }
        sectorBytes_ = std::size_t{1} << shift;
        return ReadTable() && ReadSmallTable() && ReadDirectory() && AreStreamsWhole() && IsTreeWhole();
    }

private:
    std::string Bytes(std::uint64_t at, std::size_t count) {
        std::string bytes(count, '\0');
        file_.clear();
        file_.seekg(static_cast<std::streamoff>(at));
        file_.read(bytes.data(), static_cast<std::streamsize>(count));
        bytes.resize(file_.gcount() > 0 ? static_cast<std::size_t>(file_.gcount()) : 0);
        return bytes;
    }

    std::string Sector(std::uint32_t sector) {
        return Bytes((std::uint64_t{sector} + 1) * sectorBytes_, sectorBytes_);
    }

    /// The numbers of a sector appended to a table; false where there is no such sector in the file.
    bool Append(std::uint32_t sector, Sectors& table) {
        const std::string bytes = Sector(sector);
        for (std::size_t at = 0; at + sizeof(std::uint32_t) <= bytes.size(); at += sizeof(std::uint32_t)) {
            table.push_back(Number(bytes, at));
        }
        return !bytes.empty();
    }

    /// The table of sectors: its own sectors are listed in the header and, for a large file, in a chain of
    /// lists whose last number is the next one.
    bool ReadTable() {
        Sectors places;
        for (std::size_t at = kTableSectors; at < kHeaderBytes; at += sizeof(std::uint32_t)) {
            places.push_back(Number(header_, at));
        }
        const std::size_t most = MostSectors();
        for (std::uint32_t list = Number(header_, kFirstListSector); list < most;) {
            if (places.size() > most || !Append(list, places)) {
                return false;
            }
            list = places.back();
            places.pop_back();
        }
        for (const std::uint32_t place : places) {
            if (place != kNoEntry && (place >= most || !Append(place, table_))) {
                return false;
            }
        }
        return !table_.empty();
    }

    std::size_t MostSectors() {
        file_.clear();
        file_.seekg(0, std::ios::end);
        return static_cast<std::size_t>(file_.tellg()) / sectorBytes_ + 1;
    }

    bool ReadChained(std::uint32_t start, const std::optional<Sectors>& chain, Sectors& table) {
        if (start == kEndOfChain) {
            return true;
        }
        if (!chain) {
            return false;
        }
        for (const std::uint32_t sector : *chain) {
            if (!Append(sector, table)) {
                return false;
            }
        }
        return true;
    }

    bool ReadSmallTable() {
        const std::uint32_t start = Number(header_, kFirstSmallTableSector);
        return ReadChained(start, Chain(table_, start), smallTable_);
    }

    bool ReadDirectory() {
        const auto chain = Chain(table_, Number(header_, kFirstDirectorySector));
        if (!chain) {
            return false;
        }
        for (const std::uint32_t sector : *chain) {
            directory_ += Sector(sector);
        }
        return directory_.size() >= kEntryBytes && directory_[kKind] == kRoot;
    }

    bool AreStreamsWhole() const {
        const std::uint32_t limit = Number(header_, kSmallStreamLimit);
        for (std::size_t entry = 0; entry + kEntryBytes <= directory_.size(); entry += kEntryBytes) {
            const char kind = directory_[entry + kKind];
            const std::uint32_t size = Number(directory_, entry + kSize);
            const bool small = kind == kStream && size < limit;
            if ((kind == kStream || kind == kRoot) && size != 0 &&
                !Chain(small ? smallTable_ : table_, Number(directory_, entry + kStart))) {
                return false;
            }
        }
        return true;
    }

    /// Every entry of the directory is reached at most once.
    bool IsTreeWhole() const {
        std::vector<bool> reached(directory_.size() / kEntryBytes);
        Sectors open = {0};
        while (!open.empty()) {
            const std::uint32_t entry = open.back();
            open.pop_back();
            if (entry >= reached.size() || reached[entry]) {
                return false;
            }
            reached[entry] = true;
            for (std::size_t link = 0; link < 3; ++link) {
                const std::uint32_t next =
                    Number(directory_, entry * kEntryBytes + kLinks + link * sizeof(std::uint32_t));
                if (next != kNoEntry) {
                    open.push_back(next);
                }
            }
        }
        return true;
    }

    std::ifstream file_;
    std::string header_;
    std::size_t sectorBytes_ = 0;
    Sectors table_;
    Sectors smallTable_;
    std::string directory_;
};

}  // namespace

Container LookAtContainer(const std::wstring& path) {
    CompoundFile file(path);
    return !file.IsOne() ? Container::None : file.IsWhole() ? Container::Whole : Container::Damaged;
}

}  // namespace corvi::tool
