#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace corvi::tool {

/// One entry of a loaded module's import table.
struct Import {
    std::string library;   ///< as the module names it ("KERNEL32.dll")
    std::string function;  ///< the function's name, or "#7" for one that is imported by number
    void** entry;          ///< where the module finds the function's address
};

/// Every import of a loaded module, in the order of its table.
std::vector<Import> ListImports(HMODULE module);

/// Replaces entries of a loaded module's import table, and puts them back when it goes out of scope. The
/// module's own calls go to the replacement; calls from elsewhere (the replacement itself, when it
/// belongs to another module) still reach the platform.
class Interception {
public:
    /// module: a loaded DLL, or GetModuleHandleW(nullptr) for the running program.
    explicit Interception(HMODULE module);
    ~Interception() { RestoreAll(); }
    Interception(const Interception&) = delete;
    Interception& operator=(const Interception&) = delete;

    /// Puts the address of a function of the same type in the place of an imported one. Throws
    /// std::runtime_error when the module does not import it. Again: a new address in its place.
    void Replace(const std::string& function, void* replacement);

    /// What the entry held before it was replaced: the platform's function. Throws std::runtime_error when
    /// it was not replaced. For hooks of the running program, whose own calls are replaced too.
    void* Original(const std::string& function) const;

    /// True when the module imports a function of that name.
    bool Imports(const std::string& function) const { return Find(function) != nullptr; }

    void RestoreAll();

private:
    struct Patch {
        std::string function;
        void** entry;
        void* original;
    };

    const Import* Find(const std::string& function) const;

    std::vector<Import> imports_;
    std::vector<Patch> patches_;
};

}  // namespace corvi::tool
