#pragma once

#include <string>
#include <vector>

namespace corvi::tool::plan {

/// What a plan does with a function that the library imports.
enum class Treatment {
    Reads,    ///< changes nothing outside the process: goes through, or tells what the notes know
    Changes,  ///< is noted and answered, never done
};

struct ImportRule {
    const char* function;
    Treatment treatment;
    /// What stands in for the platform's function; null: it goes through. Never null for what changes.
    void* standIn;
};

/// The one table of every function that the library imports, and of a few of their kind that only compute.
const std::vector<ImportRule>& ImportRules();

/// The rule for a function, or null: then no plan can be trusted.
const ImportRule* FindImportRule(const std::string& function);

}  // namespace corvi::tool::plan
