#include "tool/plan_machine.h"

#include <cstdint>
#include <utility>

namespace corvi::tool::plan {
namespace {

EndHandler endHandler;

}  // namespace

ChangeJournal& Journal() {
    static ChangeJournal journal;
    return journal;
}

void SetEndHandler(EndHandler handler) { endHandler = std::move(handler); }

void EndPlan(End end, DWORD code, const std::wstring& reason) {
    if (endHandler) {
        endHandler(end, code, reason);
    }
    TerminateProcess(GetCurrentProcess(), 1);
    for (;;) {
        Sleep(INFINITE);
    }
}

std::wstring& StandardOutputText() {
    static std::wstring text;
    return text;
}

HANDLE NewStandInHandle() {
    // Far above every number that the platform gives out, and no null, no -1.
    static std::uintptr_t next = 0x40000000;
    next += 8;
    return reinterpret_cast<HANDLE>(next);
}

}  // namespace corvi::tool::plan
