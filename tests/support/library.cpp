#include "tests/support/library.h"

#include <stdexcept>
#include <string>

namespace corvi::test {
namespace {

HMODULE LoadBuiltLibrary() {
    const HMODULE module = LoadLibraryW(L"C:\\corvi\\Corvi_CA.dll");
    if (module == nullptr) {
        throw std::runtime_error("cannot load Corvi_CA.dll: " + std::to_string(GetLastError()));
    }
    return module;
}

}  // namespace

Library::Library() : module_(LoadBuiltLibrary()), starts_(Module()) {}

UINT Library::Call(const char* action, MSIHANDLE session) const {
    using Action = UINT(__stdcall*)(MSIHANDLE);
    const auto entry = reinterpret_cast<Action>(reinterpret_cast<void*>(GetProcAddress(Module(), action)));
    if (entry == nullptr) {
        throw std::runtime_error(std::string("no such export: ") + action);
    }
    return entry(session);
}

}  // namespace corvi::test
