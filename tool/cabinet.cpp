#include "tool/cabinet.h"

#include <windows.h>

#include <fcntl.h>
#include <fdi.h>
#include <io.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace corvi::tool {
namespace {

// The decompressor takes callbacks in the manner of C's file functions. They work on memory: one text that
// is read (the cabinet, opened more than once) and one for each file that is written.
struct MemoryFile {
    const std::string* source = nullptr;
    std::string* target = nullptr;
    std::size_t position = 0;
};

// The open callback gets a name and nothing else: this is the cabinet that it means. Cabinets are taken one
// at a time, on one thread.
const std::string* currentCabinet = nullptr;

struct Extraction {
    const std::set<std::string>* wanted = nullptr;
    std::map<std::string, std::string> files;
};

MemoryFile* AsFile(INT_PTR handle) { return reinterpret_cast<MemoryFile*>(handle); }

void* DIAMONDAPI Allocate(ULONG bytes) { return std::malloc(bytes); }

void DIAMONDAPI Free(void* memory) { std::free(memory); }

INT_PTR DIAMONDAPI Open(char*, int, int) {
    auto file = std::make_unique<MemoryFile>();
    file->source = currentCabinet;
    return reinterpret_cast<INT_PTR>(file.release());
}

UINT DIAMONDAPI Read(INT_PTR handle, void* buffer, UINT bytes) {
    MemoryFile* file = AsFile(handle);
    const std::size_t size = file->source->size();
    const std::size_t taken = std::min<std::size_t>(bytes, size - std::min(size, file->position));
    std::memcpy(buffer, file->source->data() + std::min(size, file->position), taken);
    file->position += taken;
    return static_cast<UINT>(taken);
}

UINT DIAMONDAPI Write(INT_PTR handle, void* buffer, UINT bytes) {
    AsFile(handle)->target->append(static_cast<const char*>(buffer), bytes);
    return bytes;
}

int DIAMONDAPI Close(INT_PTR handle) {
    const std::unique_ptr<MemoryFile> file(AsFile(handle));
    return 0;
}

LONG DIAMONDAPI Seek(INT_PTR handle, LONG distance, int origin) {
    MemoryFile* file = AsFile(handle);
    const std::size_t size = file->source != nullptr ? file->source->size() : 0;
    const std::size_t base = origin == SEEK_SET ? 0 : origin == SEEK_CUR ? file->position : size;
    file->position = base + static_cast<std::size_t>(static_cast<std::ptrdiff_t>(distance));
    return static_cast<LONG>(file->position);
}

INT_PTR DIAMONDAPI Notify(FDINOTIFICATIONTYPE type, PFDINOTIFICATION notification) {
    auto* extraction = static_cast<Extraction*>(notification->pv);
    if (type == fdintCOPY_FILE) {
        const std::string name = notification->psz1;
        if (extraction->wanted->count(name) == 0) {
            return 0;
        }
        auto file = std::make_unique<MemoryFile>();
        file->target = &extraction->files[name];
        return reinterpret_cast<INT_PTR>(file.release());
    }
    if (type == fdintCLOSE_FILE_INFO) {
        Close(notification->hf);
        return TRUE;
    }
    // A cabinet that goes on in another one is not followed.
    return type == fdintNEXT_CABINET ? -1 : 0;
}

}  // namespace

std::map<std::string, std::string> ExtractFromCabinet(const std::string& cabinet,
                                                      const std::set<std::string>& names) {
    ERF error = {};
    Extraction extraction;
    extraction.wanted = &names;
    const HFDI context = FDICreate(Allocate, Free, Open, Read, Write, Close, Seek, cpuUNKNOWN, &error);
    if (context == nullptr) {
        return {};
    }
    currentCabinet = &cabinet;
    char name[] = "cabinet";
    char folder[] = "";
    FDICopy(context, name, folder, 0, Notify, nullptr, &extraction);
    FDIDestroy(context);
    currentCabinet = nullptr;
    return extraction.files;
}

}  // namespace corvi::tool
