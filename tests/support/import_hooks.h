#pragma once

#include <windows.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace corvi::test {

/// A function's name as a template argument.
template <size_t Size>
struct FunctionName {
    char text[Size] = {};
    // NOLINTNEXTLINE(google-explicit-constructor): a string literal becomes the name
    constexpr FunctionName(const char (&literal)[Size]) { std::copy_n(literal, Size, text); }
};

/// What the replaced entry of one imported function calls.
template <FunctionName Name, typename Signature>
struct HookTarget;

template <FunctionName Name, typename Result, typename... Arguments>
struct HookTarget<Name, Result(Arguments...)> {
    static inline std::function<Result(Arguments...)> body;
    static Result WINAPI Entry(Arguments... arguments) { return body(arguments...); }
};

/// Replaces entries of a loaded module's import table, and puts them back when it goes out of scope.
/// The module's own calls go to the replacement; calls from elsewhere (the replacement itself, when the
/// module is a DLL) still reach the platform.
class ImportHooks {
public:
    /// module: a loaded DLL, or GetModuleHandleW(nullptr) for the running test program.
    explicit ImportHooks(HMODULE module) : module_(module) {}
    ~ImportHooks() { RestoreAll(); }
    ImportHooks(const ImportHooks&) = delete;
    ImportHooks& operator=(const ImportHooks&) = delete;

    /// Replaces one imported function by a callable; throws std::runtime_error when the module does not
    /// import it. Use the macro CORVI_HOOK. Replacing it again puts a new callable in place.
    template <FunctionName Name, typename Signature, typename Body>
    void Replace(Body&& body) {
        HookTarget<Name, Signature>::body = std::forward<Body>(body);
        ReplaceEntry(Name.text, reinterpret_cast<void*>(&HookTarget<Name, Signature>::Entry));
    }

    /// What the entry held before it was replaced: the platform's function. For hooks of the test
    /// program itself, whose own calls are replaced too.
    void* Original(const char* function) const;

    /// True when the module imports a function of that name.
    bool Imports(const char* function) const;

    void RestoreAll();

private:
    void ReplaceEntry(const char* function, void* replacement);
    void** FindEntry(const char* function) const;

    struct Patch {
        std::string function;
        void** entry;
        void* original;
    };

    HMODULE module_;
    std::vector<Patch> patches_;
};

/// CORVI_HOOK(hooks, CreateProcessW, [&](LPCWSTR application, ...) -> BOOL { ... });
#define CORVI_HOOK(hooks, function, ...) (hooks).Replace<#function, decltype(function)>(__VA_ARGS__)

/// The platform's function behind a replaced entry, callable.
#define CORVI_ORIGINAL(hooks, function) reinterpret_cast<decltype(&(function))>((hooks).Original(#function))

}  // namespace corvi::test
