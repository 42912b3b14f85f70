#include "tool/facts_text.h"

#include <windows.h>

#include <algorithm>
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

std::string CodeText(const Result& result) {
    return result.code ? std::to_string(*result.code) : "any other";
}

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

std::vector<std::string> LibraryDifferences(const std::wstring& path) {
    const std::vector<std::string> exports = ExportedNames(path);
    std::vector<std::string> differences;
    for (const ActionFacts& facts : AllActions()) {
        if (std::find(exports.begin(), exports.end(), facts.name) == exports.end()) {
            differences.push_back(ToUtf8(path) + " does not export " + facts.name);
        }
    }
    for (const std::string& name : exports) {
        if (FindAction(name) == nullptr) {
            differences.push_back(ToUtf8(path) + " exports " + name + ", which is no known action");
        }
    }
    return differences;
}

}  // namespace corvi::tool
