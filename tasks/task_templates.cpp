#include "tasks/task_templates.h"

#include <string_view>

namespace corvi {
namespace {

using namespace std::string_view_literals;

// The pieces of a template are joined with the task name and the command between them. Every line ends
// in a line feed.

// The six blanks before the end of the Task start tag mean nothing to XML. Kept: the head is 196 characters
// long.
constexpr std::wstring_view kElevatedHead =
    L"<Task version=\"1.2\" xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\"      >\n"
    L"<RegistrationInfo>\n"
    L"<Date>2015-08-24T18:27:49.0496979</Date>\n"
    L"<Author>Tavo Corporation</Author>\n"
    L"<Description>"sv;
constexpr std::wstring_view kElevatedMiddle =
    L"</Description>\n"
    L"<URI>"sv;
constexpr std::wstring_view kElevatedBody =
    L"</URI>\n"
    L"</RegistrationInfo>\n"
    L"<Principals>\n"
    L"<Principal id=\"Author\">\n"
    L"<RunLevel>HighestAvailable</RunLevel>\n"
    L"</Principal>\n"
    L"</Principals>\n"
    L"<Settings>\n"
    L"<DisallowStartIfOnBatteries>false</DisallowStartIfOnBatteries>\n"
    L"<StopIfGoingOnBatteries>false</StopIfGoingOnBatteries>\n"
    L"<AllowHardTerminate>true</AllowHardTerminate>\n"
    L"<StartWhenAvailable>false</StartWhenAvailable>\n"
    L"<RunOnlyIfNetworkAvailable>false</RunOnlyIfNetworkAvailable>\n"
    L"<AllowStartOnDemand>true</AllowStartOnDemand>\n"
    L"<Enabled>true</Enabled>\n"
    L"<Hidden>false</Hidden>\n"
    L"<RunOnlyIfIdle>false</RunOnlyIfIdle>\n"
    L"<ExecutionTimeLimit>PT0S</ExecutionTimeLimit>\n"
    L"<Priority>3</Priority>\n"
    L"</Settings>\n"
    L"<Actions Context=\"Author\">\n"
    L"<Exec>\n"
    L"<Command>"sv;
constexpr std::wstring_view kElevatedTail =
    L"</Command>\n"
    L"</Exec>\n"
    L"</Actions>\n"
    L"</Task>\n"sv;

static_assert(kElevatedHead.size() == 196);
static_assert(kElevatedHead.ends_with(L"<Description>"sv));

// The author is the account of the machine on which the template was made.
constexpr std::wstring_view kUploaderHead =
    L"<Task version=\"1.2\" xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\">\n"
    L"  <RegistrationInfo>\n"
    L"    <Date>2016-12-11T23:29:31</Date>\n"
    L"    <Author>WORKGROUP\\TASKTEMPLATE-PC$</Author>\n"
    L"    <URI>"sv;
constexpr std::wstring_view kUploaderBody =
    L"</URI>\n"
    L"  </RegistrationInfo>\n"
    L"  <Triggers>\n"
    L"    <LogonTrigger>\n"
    L"      <StartBoundary>2016-12-11T23:29:00</StartBoundary>\n"
    L"      <Enabled>true</Enabled>\n"
    L"    </LogonTrigger>\n"
    L"  </Triggers>\n"
    L"  <Principals>\n"
    L"    <Principal id=\"Author\">\n"
    L"      <GroupId>S-1-5-32-545</GroupId>\n"
    L"      <RunLevel>HighestAvailable</RunLevel>\n"
    L"    </Principal>\n"
    L"  </Principals>\n"
    L"  <Settings>\n"
    L"    <MultipleInstancesPolicy>IgnoreNew</MultipleInstancesPolicy>\n"
    L"    <DisallowStartIfOnBatteries>false</DisallowStartIfOnBatteries>\n"
    L"    <StopIfGoingOnBatteries>false</StopIfGoingOnBatteries>\n"
    L"    <AllowHardTerminate>true</AllowHardTerminate>\n"
    L"    <StartWhenAvailable>false</StartWhenAvailable>\n"
    L"    <RunOnlyIfNetworkAvailable>false</RunOnlyIfNetworkAvailable>\n"
    L"    <IdleSettings>\n"
    L"      <StopOnIdleEnd>true</StopOnIdleEnd>\n"
    L"      <RestartOnIdle>false</RestartOnIdle>\n"
    L"    </IdleSettings>\n"
    L"    <AllowStartOnDemand>true</AllowStartOnDemand>\n"
    L"    <Enabled>true</Enabled>\n"
    L"    <Hidden>false</Hidden>\n"
    L"    <RunOnlyIfIdle>false</RunOnlyIfIdle>\n"
    L"    <WakeToRun>false</WakeToRun>\n"
    L"    <ExecutionTimeLimit>PT0S</ExecutionTimeLimit>\n"
    L"    <Priority>3</Priority>\n"
    L"  </Settings>\n"
    L"  <Actions Context=\"Author\">\n"
    L"    <Exec>\n"
    L"      <Command>"sv;
constexpr std::wstring_view kUploaderTail =
    L"</Command>\n"
    L"    </Exec>\n"
    L"  </Actions>\n"
    L"</Task>\n"sv;

static_assert(kUploaderHead.size() == 198);
static_assert(kUploaderHead.ends_with(L"<URI>"sv));

}  // namespace

std::wstring TriggerlessElevatedTaskXml(const std::wstring& taskName, const std::wstring& command) {
    std::wstring xml(kElevatedHead);
    xml.append(taskName).append(kElevatedMiddle);
    xml.append(taskName).append(kElevatedBody);
    xml.append(command).append(kElevatedTail);
    return xml;
}

std::wstring DataUploaderLogonTaskXml(const std::wstring& taskName, const std::wstring& command) {
    std::wstring xml(kUploaderHead);
    xml.append(taskName).append(kUploaderBody);
    xml.append(command).append(kUploaderTail);
    return xml;
}

}  // namespace corvi
