#pragma once

#include <windows.h>

#include <oleauto.h>
#include <taskschd.h>

#include <string>
#include <vector>

#include "tests/support/import_hooks.h"

namespace corvi::test {

/// The steps of a registration that can be made to fail.
enum class SchedulerStep { None, Initialize, Create, Connect, GetFolder, Register };

/// A task scheduler that does what it is told instead of the platform's: replaces the COM calls of one
/// module and keeps the arguments of every call and the order of the releases.
class ScriptedScheduler {
public:
    explicit ScriptedScheduler(HMODULE module);
    ScriptedScheduler(const ScriptedScheduler&) = delete;
    ScriptedScheduler& operator=(const ScriptedScheduler&) = delete;

    /// Makes one step answer with a result that is not S_OK.
    void Answer(SchedulerStep step, HRESULT result);

    /// "CoInitializeEx 0", "release folder", "CoUninitialize", ... in the order of the calls.
    std::vector<std::string> calls;
    /// Balance of the references of all objects handed out.
    long references = 0;

    std::vector<VARTYPE> connectTypes;
    std::wstring folderPath;
    std::wstring taskPath;
    std::wstring xml;
    LONG flags = 0;
    VARTYPE userType = VT_ERROR;
    std::wstring user;
    VARTYPE passwordType = VT_ERROR;
    TASK_LOGON_TYPE logonType = TASK_LOGON_NONE;
    VARTYPE descriptorType = VT_ERROR;
    std::wstring descriptor = L"none given";

    /// The result that the step has to give.
    HRESULT ResultOf(SchedulerStep step) const { return step == step_ ? result_ : S_OK; }

private:
    ImportHooks hooks_;
    SchedulerStep step_ = SchedulerStep::None;
    HRESULT result_ = S_OK;
};

}  // namespace corvi::test
