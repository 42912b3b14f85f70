#include "tests/support/import_hooks.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>

namespace corvi::test {
namespace {

template <typename Type>
Type* At(HMODULE module, uint64_t offset) {
    return reinterpret_cast<Type*>(reinterpret_cast<std::byte*>(module) + offset);
}

void WriteEntry(void** entry, void* value) {
    DWORD protection = 0;
    VirtualProtect(entry, sizeof(*entry), PAGE_READWRITE, &protection);
    *entry = value;
    VirtualProtect(entry, sizeof(*entry), protection, &protection);
}

}  // namespace

void** ImportHooks::FindEntry(const char* function) const {
    const auto* dosHeader = At<IMAGE_DOS_HEADER>(module_, 0);
    const auto* headers = At<IMAGE_NT_HEADERS64>(module_, static_cast<uint64_t>(dosHeader->e_lfanew));
    const auto& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (directory.Size == 0) {
        return nullptr;
    }
    for (const auto* import = At<IMAGE_IMPORT_DESCRIPTOR>(module_, directory.VirtualAddress);
         import->Name != 0; ++import) {
        const auto* names = At<IMAGE_THUNK_DATA64>(module_, import->OriginalFirstThunk);
        auto* entries = At<IMAGE_THUNK_DATA64>(module_, import->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++entries) {
            if (IMAGE_SNAP_BY_ORDINAL64(names->u1.Ordinal)) {
                continue;
            }
            const auto* byName = At<IMAGE_IMPORT_BY_NAME>(module_, names->u1.AddressOfData);
            if (std::string(reinterpret_cast<const char*>(byName->Name)) == function) {
                return reinterpret_cast<void**>(&entries->u1.Function);
            }
        }
    }
    return nullptr;
}

bool ImportHooks::Imports(const char* function) const { return FindEntry(function) != nullptr; }

void ImportHooks::ReplaceEntry(const char* function, void* replacement) {
    void** entry = FindEntry(function);
    if (entry == nullptr) {
        throw std::runtime_error(std::string("not imported: ") + function);
    }
    const bool known = std::any_of(patches_.begin(), patches_.end(),
                                   [&](const Patch& patch) { return patch.entry == entry; });
    if (!known) {
        patches_.push_back({function, entry, *entry});
    }
    WriteEntry(entry, replacement);
}

void* ImportHooks::Original(const char* function) const {
    const auto patch = std::find_if(patches_.begin(), patches_.end(),
                                    [&](const Patch& candidate) { return candidate.function == function; });
    if (patch == patches_.end()) {
        throw std::runtime_error(std::string("not replaced: ") + function);
    }
    return patch->original;
}

void ImportHooks::RestoreAll() {
    for (const Patch& patch : patches_) {
        WriteEntry(patch.entry, patch.original);
    }
    patches_.clear();
}

}  // namespace corvi::test
