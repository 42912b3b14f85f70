#pragma once

#include <windows.h>

#include <functional>
#include <string>

#include "tool/change_journal.h"

namespace corvi::tool::plan {

// What the stand-ins of a plan share: one plan runs in a process, on one thread.

/// Where the stand-ins note what they were asked to change.
ChangeJournal& Journal();

/// How a plan ends before its action returns.
enum class End {
    ProcessEnds,  ///< the action ends the process that it runs in
    NotTrusted,   ///< the action asks for something of which no plan can tell what it does
};

/// Called when the plan cannot go on; must not return.
using EndHandler = std::function<void(End end, DWORD code, const std::wstring& reason)>;
void SetEndHandler(EndHandler handler);

/// Ends the plan: nothing of the action runs any more.
[[noreturn]] void EndPlan(End end, DWORD code, const std::wstring& reason);

/// Text that the action writes to its standard output, which the installer does not show.
std::wstring& StandardOutputText();

/// Sets the last error and gives a value, as a refusing platform function does.
template <typename Result>
Result Refuse(DWORD error, Result result) {
    SetLastError(error);
    return result;
}

/// A handle that only the stand-ins know; never one of the platform's.
HANDLE NewStandInHandle();

}  // namespace corvi::tool::plan
