#include "tests/support/library.h"

#include <stdexcept>

namespace corvi::test {

Library::Library() : module_(LoadLibraryW(L"C:\\corvi\\Corvi_CA.dll")) {
    if (module_ == nullptr) {
        throw std::runtime_error("cannot load Corvi_CA.dll: " + std::to_string(GetLastError()));
    }
}

Library::~Library() { FreeLibrary(module_); }

UINT Library::Call(const char* action, MSIHANDLE session) const {
    using Action = UINT(__stdcall*)(MSIHANDLE);
    const auto entry = reinterpret_cast<Action>(reinterpret_cast<void*>(GetProcAddress(module_, action)));
    if (entry == nullptr) {
        throw std::runtime_error(std::string("no such export: ") + action);
    }
    return entry(session);
}

}  // namespace corvi::test
