#include "tool/interception.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace corvi::tool {
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

std::string ImportName(HMODULE module, const IMAGE_THUNK_DATA64& name) {
    if (IMAGE_SNAP_BY_ORDINAL64(name.u1.Ordinal)) {
        return std::string("#").append(std::to_string(IMAGE_ORDINAL64(name.u1.Ordinal)));
    }
    return reinterpret_cast<const char*>(At<IMAGE_IMPORT_BY_NAME>(module, name.u1.AddressOfData)->Name);
}

}  // namespace

std::vector<Import> ListImports(HMODULE module) {
    std::vector<Import> imports;
    const auto* dosHeader = At<IMAGE_DOS_HEADER>(module, 0);
    const auto* headers = At<IMAGE_NT_HEADERS64>(module, static_cast<uint64_t>(dosHeader->e_lfanew));
    const auto& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (directory.Size == 0) {
        return imports;
    }
    for (const auto* import = At<IMAGE_IMPORT_DESCRIPTOR>(module, directory.VirtualAddress);
         import->Name != 0; ++import) {
        const auto* names = At<IMAGE_THUNK_DATA64>(module, import->OriginalFirstThunk);
        auto* entries = At<IMAGE_THUNK_DATA64>(module, import->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++entries) {
            imports.push_back({At<char>(module, import->Name), ImportName(module, *names),
                               reinterpret_cast<void**>(&entries->u1.Function)});
        }
    }
    return imports;
}

Interception::Interception(HMODULE module) : imports_(ListImports(module)) {}

const Import* Interception::Find(const std::string& function) const {
    const auto found = std::find_if(imports_.begin(), imports_.end(),
                                    [&](const Import& import) { return import.function == function; });
    return found == imports_.end() ? nullptr : &*found;
}

void Interception::Replace(const std::string& function, void* replacement) {
    const Import* import = Find(function);
    if (import == nullptr) {
        throw std::runtime_error("not imported: " + function);
    }
    const bool known = std::any_of(patches_.begin(), patches_.end(),
                                   [&](const Patch& patch) { return patch.entry == import->entry; });
    if (!known) {
        patches_.push_back({function, import->entry, *import->entry});
    }
    WriteEntry(import->entry, replacement);
}

void* Interception::Original(const std::string& function) const {
    const auto patch = std::find_if(patches_.begin(), patches_.end(),
                                    [&](const Patch& candidate) { return candidate.function == function; });
    if (patch == patches_.end()) {
        throw std::runtime_error("not replaced: " + function);
    }
    return patch->original;
}

void Interception::RestoreAll() {
    for (const Patch& patch : patches_) {
        WriteEntry(patch.entry, patch.original);
    }
    patches_.clear();
}

}  // namespace corvi::tool
