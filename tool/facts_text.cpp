#include "tool/facts_text.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>

#include "tool/console.h"

namespace corvi::tool {
namespace {

struct FreeModule {
    using pointer = HMODULE;
    void operator()(HMODULE module) const noexcept { FreeLibrary(module); }
};
using Module = std::unique_ptr<HMODULE, FreeModule>;

/// The names that a library exports. Its code is not run, and nothing that it imports is loaded.
std::vector<std::string> ExportedNames(const std::wstring& path) {
    const Module module(LoadLibraryExW(path.c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES));
    if (!module) {
        throw UsageError("no 64-bit library: " + ToUtf8(path) + " (error " + std::to_string(GetLastError()) +
                         ")");
    }
    const auto* base = reinterpret_cast<const unsigned char*>(module.get());
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* headers = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& place = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    std::vector<std::string> names;
    if (place.VirtualAddress != 0) {
        const auto* exports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + place.VirtualAddress);
        const auto* offsets = reinterpret_cast<const DWORD*>(base + exports->AddressOfNames);
        for (DWORD index = 0; index < exports->NumberOfNames; ++index) {
            names.emplace_back(reinterpret_cast<const char*>(base + offsets[index]));
        }
    }
    return names;
}

/// "A, B, C and 44 more".
std::string FirstOf(const std::vector<std::string>& names) {
    constexpr std::size_t kNamed = 3;
    std::string text;
    for (std::size_t index = 0; index < std::min(names.size(), kNamed); ++index) {
        text += (index == 0 ? "" : ", ") + names[index];
    }
    return names.size() > kNamed ? text + " and " + std::to_string(names.size() - kNamed) + " more" : text;
}

}  // namespace

std::string OutcomeWord(Outcome outcome) {
    switch (outcome) {
        case Outcome::Done:
            return "done";
        case Outcome::Nothing:
            return "nothing to do";
        case Outcome::Skip:
            return "skip";
        case Outcome::Refused:
            return "refused";
        case Outcome::Failed:
            break;
    }
    return "failed";
}

std::string ResultNumber(std::uint32_t code) {
    if (code <= 0x7FFFFFFF) {
        return std::to_string(code);
    }
    char text[16] = {};
    std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(code));
    return text;
}

std::string CodeText(const Result& result) { return result.code ? ResultNumber(*result.code) : "any other"; }

std::string RunsAs(const ActionFacts& facts) {
    if (facts.execution == Execution::Immediate) {
        return "immediate";
    }
    return facts.impersonated ? "deferred, as the installing user" : "deferred, as the system account";
}

std::string DataExample(const ActionFacts& facts) {
    if (!facts.data.whole.empty()) {
        return facts.data.wholeExample;
    }
    std::string text;
    for (const DataKey& key : facts.data.keys) {
        text += (text.empty() ? "" : ";") + key.name + key.example;
    }
    return text;
}

const ActionFacts& RequireAction(const std::string& name) {
    if (const ActionFacts* facts = FindAction(name)) {
        return *facts;
    }
    const ActionFacts* nearest = NearestAction(name);
    throw UsageError("there is no action \"" + name + "\"" +
                     (nearest != nullptr ? "; is " + nearest->name + " meant?" : "; corvi list names all"));
}

std::string LibraryDifferences(const std::wstring& path) {
    const std::vector<std::string> exports = ExportedNames(path);
    std::vector<std::string> missing;
    for (const ActionFacts& facts : AllActions()) {
        if (std::find(exports.begin(), exports.end(), facts.name) == exports.end()) {
            missing.push_back(facts.name);
        }
    }
    std::vector<std::string> unknown;
    std::copy_if(exports.begin(), exports.end(), std::back_inserter(unknown),
                 [](const std::string& name) { return FindAction(name) == nullptr; });
    if (missing.empty() && unknown.empty()) {
        return {};
    }
    std::string text = ToUtf8(path);
    text += missing.empty() ? "" : " does not export " + FirstOf(missing);
    text += missing.empty() || unknown.empty() ? "" : ", and";
    text += unknown.empty() ? "" : " exports " + FirstOf(unknown) + ", no known actions";
    return text;
}

}  // namespace corvi::tool
