#include <windows.h>

#include <msi.h>

#include <string>

#include "runtime/action_data.h"
#include "runtime/action_policy.h"
#include "runtime/installer_log.h"
#include "runtime/session.h"
#include "tasks/task_registration.h"
#include "tasks/task_templates.h"

namespace corvi {
namespace {

constexpr wchar_t kTaskNameKey[] = L"TaskName=";
constexpr wchar_t kCommandKey[] = L"CommandToLaunch=";
constexpr wchar_t kUserNameKey[] = L"Username=";

// What the action answers when its inputs cannot be taken apart: nothing was registered then.
constexpr UINT kNothingRegistered = 1;

UINT CreateTaskFromActionData(MSIHANDLE session) {
    const std::wstring actionData = ReadActionData(session);
    const std::wstring taskName = GetActionDataValue(actionData, kTaskNameKey);
    const std::wstring command = GetActionDataValue(actionData, kCommandKey);
    const std::wstring userName = GetActionDataValue(actionData, kUserNameKey);
    WriteInstallerLog(session, L"Task Name %s", taskName.c_str());
    WriteInstallerLog(session, L"Command to launch %s", command.c_str());
    WriteInstallerLog(session, L"Username %s", userName.c_str());
    return RegisterTaskDefinition(taskName, TriggerlessElevatedTaskXml(taskName, command), userName);
}

}  // namespace
}  // namespace corvi

extern "C" {

UINT __stdcall CreateTriggerlessElevatedScheduleTask(MSIHANDLE session) {
    corvi::currentSession = session;
    return corvi::BestEffort([&] { return corvi::CreateTaskFromActionData(session); },
                             corvi::kNothingRegistered);
}

}  // extern "C"
