#include "tests/services/scripted_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

namespace corvi::test {
namespace {

const auto kManager = reinterpret_cast<SC_HANDLE>(0x1001);
const auto kService = reinterpret_cast<SC_HANDLE>(0x2001);

std::string Narrow(const wchar_t* text) {
    return text == nullptr ? "-" : std::string(text, text + std::wcslen(text));
}

std::string Hexadecimal(DWORD number) {
    char text[16] = {};
    std::snprintf(text, sizeof(text), "%lX", number);
    return text;
}

BOOL Result(DWORD error) {
    SetLastError(error);
    return error == 0 ? TRUE : FALSE;
}

template <typename Record>
void Fill(Record& record, const ScriptedStatus& status) {
    record.dwCurrentState = status.state;
    record.dwWaitHint = status.waitHint;
    record.dwCheckPoint = status.checkPoint;
}

}  // namespace

ScriptedManager::ScriptedManager(ImportHooks& hooks) {
    HookOpening(hooks);
    HookQueries(hooks);
    HookChanges(hooks);
}

void ScriptedManager::HookOpening(ImportHooks& hooks) {
    CORVI_HOOK(hooks, OpenSCManagerW, [this](LPCWSTR machine, LPCWSTR database, DWORD access) -> SC_HANDLE {
        EXPECT_EQ(machine, nullptr);
        calls.push_back("OpenSCManager " + Narrow(database) + " " + Hexadecimal(access));
        opened_ += managerError == 0 ? 1 : 0;
        onOpenManager();
        return Result(managerError) != FALSE ? kManager : nullptr;
    });
    CORVI_HOOK(hooks, OpenServiceW, [this](SC_HANDLE manager, LPCWSTR name, DWORD access) -> SC_HANDLE {
        EXPECT_EQ(manager, managerError == 0 ? kManager : nullptr);
        calls.push_back("OpenService " + Narrow(name) + " " + Hexadecimal(access));
        opened_ += openError == 0 ? 1 : 0;
        return Result(openError) != FALSE ? kService : nullptr;
    });
    CORVI_HOOK(hooks, CloseServiceHandle, [this](SC_HANDLE handle) -> BOOL {
        closed.push_back(handle == kManager ? "manager" : handle == kService ? "service" : "neither");
        return TRUE;
    });
}

template <typename Record>
BOOL ScriptedManager::Answer(Record& record) {
    const ScriptedStatus status = statuses.at(0);
    if (statuses.size() > 1) {
        statuses.pop_front();
    }
    if (status.fails) {
        return Result(ERROR_INVALID_HANDLE);
    }
    Fill(record, status);
    return TRUE;
}

void ScriptedManager::HookQueries(ImportHooks& hooks) {
    if (hooks.Imports("QueryServiceStatusEx")) {
        CORVI_HOOK(
            hooks, QueryServiceStatusEx,
            [this](SC_HANDLE, SC_STATUS_TYPE level, LPBYTE buffer, DWORD size, LPDWORD) -> BOOL {
                calls.push_back("QueryServiceStatusEx " + Hexadecimal(level) + " " + Hexadecimal(size));
                return Answer(*reinterpret_cast<SERVICE_STATUS_PROCESS*>(buffer));
            });
    }
    CORVI_HOOK(hooks, QueryServiceStatus, [this](SC_HANDLE, LPSERVICE_STATUS status) -> BOOL {
        calls.push_back("QueryServiceStatus");
        return Answer(*status);
    });
}

void ScriptedManager::HookChanges(ImportHooks& hooks) {
    CORVI_HOOK(hooks, ControlService, [this](SC_HANDLE, DWORD control, LPSERVICE_STATUS status) -> BOOL {
        calls.push_back("ControlService " + Hexadecimal(control));
        if (controlError == 0) {
            Fill(*status, controlAnswer);
        }
        return Result(controlError);
    });
    CORVI_HOOK(hooks, DeleteService, [this](SC_HANDLE) -> BOOL {
        calls.emplace_back("DeleteService");
        return Result(deleteError);
    });
    if (hooks.Imports("StartServiceW")) {
        CORVI_HOOK(hooks, StartServiceW, [this](SC_HANDLE, DWORD count, LPCWSTR* arguments) -> BOOL {
            EXPECT_EQ(count, 0U);
            EXPECT_EQ(arguments, nullptr);
            calls.emplace_back("StartService");
            return Result(startError);
        });
    }
}

size_t ScriptedManager::Count(const std::string& name) const {
    return static_cast<size_t>(std::count_if(calls.begin(), calls.end(), [&](const std::string& call) {
        return call == name || call.rfind(name + " ", 0) == 0;
    }));
}

bool ScriptedManager::AllClosed() const {
    const auto times = [&](const char* handle) { return std::count(closed.begin(), closed.end(), handle); };
    return closed.size() == opened_ && times("neither") == 0 && times("manager") <= 1 &&
           times("service") <= 1;
}

}  // namespace corvi::test
