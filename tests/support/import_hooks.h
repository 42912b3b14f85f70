#pragma once

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <utility>

#include "tool/interception.h"

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

/// Imports of a loaded module (tool/interception.h) replaced by callables of the test.
class ImportHooks : public tool::Interception {
public:
    using tool::Interception::Interception;

    /// Replaces one imported function by a callable; throws std::runtime_error when the module does not
    /// import it. Use the macro CORVI_HOOK. Replacing it again puts a new callable in place.
    template <FunctionName Name, typename Signature, typename Body>
    void Replace(Body&& body) {
        HookTarget<Name, Signature>::body = std::forward<Body>(body);
        Interception::Replace(Name.text, reinterpret_cast<void*>(&HookTarget<Name, Signature>::Entry));
    }
};

/// CORVI_HOOK(hooks, CreateProcessW, [&](LPCWSTR application, ...) -> BOOL { ... });
#define CORVI_HOOK(hooks, function, ...) (hooks).Replace<#function, decltype(function)>(__VA_ARGS__)

/// The platform's function behind a replaced entry, callable.
#define CORVI_ORIGINAL(hooks, function) reinterpret_cast<decltype(&(function))>((hooks).Original(#function))

}  // namespace corvi::test
