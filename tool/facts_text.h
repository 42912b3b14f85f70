#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tool/action_facts.h"

namespace corvi::tool {

// The facts in the words that every verb uses.

/// "done", "nothing to do", "skip", "refused", "failed".
std::string OutcomeWord(Outcome outcome);

/// A result as it is meant: 0xFFFFFFFF for a negative one, else a decimal number.
std::string ResultNumber(std::uint32_t code);

/// The number of a result; "any other" for the row of all others.
std::string CodeText(const Result& result);

/// "immediate", "deferred, as the system account" or "deferred, as the installing user".
std::string RunsAs(const ActionFacts& facts);

/// The action data as a package writes it ("TaskName=StartTUEP;Username="); empty when the action takes
/// none.
std::string DataExample(const ActionFacts& facts);

/// The action of that name. Throws UsageError, with the nearest name where there is one.
const ActionFacts& RequireAction(const std::string& name);

/// One sentence on the actions that the library at an absolute path does not export, and on its exports
/// that the table does not know; empty when there are none of either. Throws UsageError when the file is no
/// 64-bit library.
std::string LibraryDifferences(const std::wstring& path);

}  // namespace corvi::tool
