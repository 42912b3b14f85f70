#include "tasks/task_registration.h"

#include <windows.h>

#include <msiquery.h>
#include <wrl/client.h>

#include <gtest/gtest.h>

#include "tasks/task_templates.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/scheduled_tasks.h"
#include "tests/support/test_thread.h"
#include "tests/tasks/scripted_scheduler.h"

namespace corvi::test {
namespace {

using Microsoft::WRL::ComPtr;
using Calls = std::vector<std::string>;

constexpr char kAction[] = "CreateTriggerlessElevatedScheduleTask";
constexpr wchar_t kTask[] = L"CorviTest";

// ---- The templates

constexpr wchar_t kElevatedXml[] =
    L"<Task version=\"1.2\" xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\"      >\n"
    L"<RegistrationInfo>\n<Date>2015-08-24T18:27:49.0496979</Date>\n<Author>Tavo Corporation</Author>\n"
    L"<Description>NAME</Description>\n<URI>NAME</URI>\n</RegistrationInfo>\n"
    L"<Principals>\n<Principal id=\"Author\">\n<RunLevel>HighestAvailable</RunLevel>\n</Principal>\n"
    L"</Principals>\n"
    L"<Settings>\n<DisallowStartIfOnBatteries>false</DisallowStartIfOnBatteries>\n"
    L"<StopIfGoingOnBatteries>false</StopIfGoingOnBatteries>\n<AllowHardTerminate>true</AllowHardTerminate>\n"
    L"<StartWhenAvailable>false</StartWhenAvailable>\n"
    L"<RunOnlyIfNetworkAvailable>false</RunOnlyIfNetworkAvailable>\n"
    L"<AllowStartOnDemand>true</AllowStartOnDemand>\n<Enabled>true</Enabled>\n<Hidden>false</Hidden>\n"
    L"<RunOnlyIfIdle>false</RunOnlyIfIdle>\n<ExecutionTimeLimit>PT0S</ExecutionTimeLimit>\n"
    L"<Priority>3</Priority>\n</Settings>\n"
    L"<Actions Context=\"Author\">\n<Exec>\n<Command>COMMAND</Command>\n</Exec>\n</Actions>\n</Task>\n";

constexpr wchar_t kUploaderXml[] =
    L"<Task version=\"1.2\" xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\">\n"
    L"  <RegistrationInfo>\n"
    L"    <Date>2016-12-11T23:29:31</Date>\n"
    L"    <Author>WORKGROUP\\TASKTEMPLATE-PC$</Author>\n"
    L"    <URI>NAME</URI>\n"
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
    L"      <Command>COMMAND</Command>\n"
    L"    </Exec>\n"
    L"  </Actions>\n"
    L"</Task>\n";

TEST(TriggerlessElevatedTaskXml, HoldsItsElementsInOrderWithoutIndentationEachLineEndedByALineFeed) {
    EXPECT_EQ(TriggerlessElevatedTaskXml(L"NAME", L"COMMAND"), kElevatedXml);
}

TEST(TriggerlessElevatedTaskXml, TheHeadIs196CharactersLongAndEndsWithTheDescriptionStartTag) {
    const std::wstring xml = TriggerlessElevatedTaskXml(L"NAME", L"COMMAND");
    EXPECT_EQ(xml.find(L"NAME"), 196U);
    EXPECT_EQ(xml.substr(196 - 13, 13), L"<Description>");
}

TEST(DataUploaderLogonTaskXml, HoldsItsElementsInOrderIndentedByTwoBlanksALevel) {
    EXPECT_EQ(DataUploaderLogonTaskXml(L"NAME", L"COMMAND"), kUploaderXml);
}

TEST(DataUploaderLogonTaskXml, TheHeadIs198CharactersLongAndEndsWithTheUriStartTag) {
    const std::wstring xml = DataUploaderLogonTaskXml(L"NAME", L"COMMAND");
    EXPECT_EQ(xml.find(L"NAME"), 198U);
    EXPECT_EQ(xml.substr(198 - 5, 5), L"<URI>");
    EXPECT_EQ(xml.find(L"Description"), std::wstring::npos);
}

TEST(TaskTemplates, TextsAreInsertedAsGivenWithoutEscaping) {
    EXPECT_NE(TriggerlessElevatedTaskXml(L"a&b", L"\"x\" <y>").find(L"<Command>\"x\" <y></Command>"),
              std::wstring::npos);
    EXPECT_NE(DataUploaderLogonTaskXml(L"a&b", L"x").find(L"<URI>a&b</URI>"), std::wstring::npos);
}

// ---- The registration, on a scripted task scheduler

// The lines that a module sends to the installer, with the handles to which they go.
class LineRecorder {
public:
    explicit LineRecorder(HMODULE module) : hooks_(module) {
        CORVI_HOOK(hooks_, MsiRecordSetStringW, [this](MSIHANDLE record, UINT field, LPCWSTR text) -> UINT {
            text_ = text;
            return MsiRecordSetStringW(record, field, text);
        });
        CORVI_HOOK(hooks_, MsiProcessMessage,
                   [this](MSIHANDLE session, INSTALLMESSAGE type, MSIHANDLE record) -> int {
                       lines.emplace_back(session, text_);
                       return MsiProcessMessage(session, type, record);
                   });
    }

    std::vector<std::pair<MSIHANDLE, std::wstring>> lines;

private:
    ImportHooks hooks_;
    std::wstring text_;
};

class ScriptedRegistration : public testing::Test {
protected:
    UINT Register() {
        session_.SetActionData(L"TaskName=NAME;CommandToLaunch=COMMAND;Username=PC\\User");
        return library_.Call(kAction, session_.Handle());
    }

    // The one line of the registration itself: it goes to handle 0.
    std::wstring RegistrationLine() const {
        const auto& last = recorder_.lines.back();
        EXPECT_EQ(last.first, 0U);
        EXPECT_EQ(recorder_.lines.size(), 5U);
        return last.second;
    }

    Library library_;
    InstallerSession session_;
    ScriptedScheduler scheduler_{library_.Module()};
    LineRecorder recorder_{library_.Module()};
};

TEST_F(ScriptedRegistration, ConnectsToTheLocalMachineAndRegistersTheXmlTextInTheRootFolder) {
    EXPECT_EQ(Register(), 0U);
    EXPECT_EQ(scheduler_.connectTypes, std::vector<VARTYPE>(4, VT_EMPTY));
    EXPECT_EQ(scheduler_.folderPath, L"\\");
    EXPECT_EQ(scheduler_.taskPath, L"NAME");
    EXPECT_EQ(scheduler_.xml, kElevatedXml);
    EXPECT_EQ(scheduler_.flags, 6);
    EXPECT_EQ(scheduler_.userType, VT_BSTR);
    EXPECT_EQ(scheduler_.user, L"PC\\User");
    EXPECT_EQ(scheduler_.passwordType, VT_EMPTY);
    EXPECT_EQ(static_cast<int>(scheduler_.logonType), 3);
    EXPECT_EQ(scheduler_.descriptorType, VT_BSTR);
    EXPECT_EQ(scheduler_.descriptor, L"");
}

TEST_F(ScriptedRegistration, ReleasesEveryObjectAndUninitializesComOnce) {
    EXPECT_EQ(Register(), 0U);
    EXPECT_EQ(scheduler_.calls,
              (Calls{"CoInitializeEx 0", "CoCreateInstance", "Connect", "GetFolder", "RegisterTask",
                     "release task", "release folder", "release service", "CoUninitialize"}));
    EXPECT_EQ(scheduler_.references, 0);
}

TEST_F(ScriptedRegistration, SuccessIsLoggedOnTheHandleThatNobodySets) {
    EXPECT_EQ(Register(), 0U);
    EXPECT_EQ(RegistrationLine(), L"Successfully added NAME Scheduled Event");
    EXPECT_EQ(session_.LogLines(),
              (std::vector<std::wstring>{
                  L"CustomActionData: TaskName=NAME;CommandToLaunch=COMMAND;Username=PC\\User",
                  L"Task Name NAME", L"Command to launch COMMAND", L"Username PC\\User"}));
}

TEST_F(ScriptedRegistration, EveryOutcomeIsLoggedBeforeAnythingIsReleased) {
    // What the scheduler was asked for when each line was sent.
    std::vector<Calls> callsAtLine;
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, MsiProcessMessage, [&](MSIHANDLE session, INSTALLMESSAGE, MSIHANDLE) -> int {
        if (session == 0) {
            callsAtLine.push_back(scheduler_.calls);
        }
        return 0;
    });
    EXPECT_EQ(Register(), 0U);
    scheduler_.calls.clear();
    scheduler_.Answer(SchedulerStep::Register, E_ACCESSDENIED);
    EXPECT_EQ(Register(), 1U);
    const Calls asked{"CoInitializeEx 0", "CoCreateInstance", "Connect", "GetFolder", "RegisterTask"};
    EXPECT_EQ(callsAtLine, (std::vector<Calls>{asked, asked}));
}

TEST_F(ScriptedRegistration, AnEmptyUserNameGivesAnEmptyTextVariant) {
    session_.SetActionData(L"TaskName=NAME;CommandToLaunch=COMMAND;Username=");
    EXPECT_EQ(library_.Call(kAction, session_.Handle()), 0U);
    EXPECT_EQ(scheduler_.userType, VT_BSTR);
    EXPECT_EQ(scheduler_.user, L"");
}

TEST_F(ScriptedRegistration, ComThatCannotBeInitializedEndsItWithoutUninitializing) {
    scheduler_.Answer(SchedulerStep::Initialize, E_OUTOFMEMORY);
    EXPECT_EQ(Register(), 1U);
    EXPECT_EQ(RegistrationLine(), L"Failed to call CoInitializeEx 0x8007000e");
    EXPECT_EQ(scheduler_.calls, (Calls{"CoInitializeEx 0"}));
}

TEST_F(ScriptedRegistration, AnotherApartmentOfTheThreadIsLoggedUsedAndLeftAlone) {
    scheduler_.Answer(SchedulerStep::Initialize, RPC_E_CHANGED_MODE);
    EXPECT_EQ(Register(), 0U);
    EXPECT_EQ(scheduler_.calls, (Calls{"CoInitializeEx 0", "CoCreateInstance", "Connect", "GetFolder",
                                       "RegisterTask", "release task", "release folder", "release service"}));
    ASSERT_EQ(recorder_.lines.size(), 6U);
    EXPECT_EQ(recorder_.lines[4].first, 0U);
    EXPECT_EQ(recorder_.lines[4].second, L"Failed to call CoInitializeEx 0x80010106");
    EXPECT_EQ(recorder_.lines[5].second, L"Successfully added NAME Scheduled Event");
}

TEST_F(ScriptedRegistration, ComThatWasInitializedAlreadyIsUninitializedOnceMore) {
    scheduler_.Answer(SchedulerStep::Initialize, S_FALSE);
    EXPECT_EQ(Register(), 0U);
    EXPECT_EQ(scheduler_.calls.back(), "CoUninitialize");
}

TEST_F(ScriptedRegistration, AServiceThatCannotBeCreated) {
    scheduler_.Answer(SchedulerStep::Create, REGDB_E_CLASSNOTREG);
    EXPECT_EQ(Register(), 1U);
    EXPECT_EQ(RegistrationLine(), L"Failed to create an instance of ITaskService: 0x80040154");
    EXPECT_EQ(scheduler_.calls, (Calls{"CoInitializeEx 0", "CoCreateInstance", "CoUninitialize"}));
}

TEST_F(ScriptedRegistration, AServiceThatCannotBeConnected) {
    scheduler_.Answer(SchedulerStep::Connect, E_ACCESSDENIED);
    EXPECT_EQ(Register(), 1U);
    EXPECT_EQ(RegistrationLine(), L"ITaskService::Connect failed: 0x80070005");
    EXPECT_EQ(scheduler_.calls, (Calls{"CoInitializeEx 0", "CoCreateInstance", "Connect", "release service",
                                       "CoUninitialize"}));
}

TEST_F(ScriptedRegistration, ARootFolderThatCannotBeHad) {
    scheduler_.Answer(SchedulerStep::GetFolder, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(Register(), 1U);
    EXPECT_EQ(RegistrationLine(), L"Cannot get Root Folder pointer: 0x80070002");
    EXPECT_EQ(scheduler_.calls, (Calls{"CoInitializeEx 0", "CoCreateInstance", "Connect", "GetFolder",
                                       "release service", "CoUninitialize"}));
}

TEST_F(ScriptedRegistration, ATaskThatCannotBeSaved) {
    scheduler_.Answer(SchedulerStep::Register, E_ACCESSDENIED);
    EXPECT_EQ(Register(), 1U);
    EXPECT_EQ(RegistrationLine(), L"Error saving the Task : 0x80070005");
    EXPECT_EQ(scheduler_.calls,
              (Calls{"CoInitializeEx 0", "CoCreateInstance", "Connect", "GetFolder", "RegisterTask",
                     "release folder", "release service", "CoUninitialize"}));
    EXPECT_EQ(scheduler_.references, 0);
}

TEST_F(ScriptedRegistration, ActionDataThatIsTooShortRegistersNothingAndAnswersOne) {
    session_.SetActionData(L"x");
    EXPECT_EQ(library_.Call(kAction, session_.Handle()), 1U);
    EXPECT_EQ(session_.LogLines(), std::vector<std::wstring>{L"CustomActionData: x"});
    EXPECT_TRUE(scheduler_.calls.empty());
}

TEST_F(ScriptedRegistration, AnAbsentKeyTakesTheTextFromOneCharacterBeforeItsLength) {
    session_.SetActionData(L"CommandToLaunch=abc;Username=");
    EXPECT_EQ(library_.Call(kAction, session_.Handle()), 0U);
    EXPECT_EQ(scheduler_.taskPath, L"oLaunch=abc") << "from index 8, the key being nine characters long";
}

TEST(BuildDataUploaderLogonTask, RegistersTheLogonTemplateForTheUser) {
    ScriptedScheduler scheduler(GetModuleHandleW(nullptr));
    EXPECT_EQ(BuildDataUploaderLogonTask(L"NAME", L"COMMAND", L"PC\\User"), 0U);
    EXPECT_EQ(scheduler.taskPath, L"NAME");
    EXPECT_EQ(scheduler.xml, kUploaderXml);
    EXPECT_EQ(scheduler.user, L"PC\\User");
    EXPECT_EQ(scheduler.flags, 6);
}

TEST(BuildDataUploaderLogonTask, PassesAFailureOn) {
    ScriptedScheduler scheduler(GetModuleHandleW(nullptr));
    scheduler.Answer(SchedulerStep::Register, E_FAIL);
    EXPECT_EQ(BuildDataUploaderLogonTask(L"NAME", L"COMMAND", L""), 1U);
}

// ---- The registration, on the real service

class RealRegistration : public testing::Test {
protected:
    ~RealRegistration() override { RemoveTaskAtEnd(kTask); }

    UINT Register(const std::wstring& command) {
        session_.SetActionData(std::wstring(L"TaskName=") + kTask + L";CommandToLaunch=" + command +
                               L";Username=");
        return library_.Call(kAction, session_.Handle());
    }

    Library library_;
    InstallerSession session_;
};

TEST_F(RealRegistration, TheTaskExistsAfterwards) {
    EXPECT_EQ(Register(L"C:\\corvi\\recorder.exe"), 0U);
    EXPECT_TRUE(TaskExists(kTask));
}

TEST_F(RealRegistration, TheSameNameAgainUpdatesTheTaskInsteadOfFailing) {
    EXPECT_EQ(Register(L"C:\\corvi\\recorder.exe"), 0U);
    EXPECT_EQ(Register(L"C:\\corvi\\child.exe"), 0U);
    EXPECT_TRUE(TaskExists(kTask));
}

TEST_F(RealRegistration, ALessThanSignInTheCommandIsMalformedAndRefused) {
    LineRecorder recorder(library_.Module());
    EXPECT_EQ(Register(L"a<b"), 1U);
    EXPECT_EQ(recorder.lines.back().second, L"Error saving the Task : 0x8004131a");
    EXPECT_FALSE(TaskExists(kTask));
}

// The platform refuses a bare ampersand too; Wine's service lets it through, so only what it is handed
// can be looked at.
TEST_F(ScriptedRegistration, AnAmpersandInTheCommandReachesTheServiceUnescaped) {
    session_.SetActionData(L"TaskName=NAME;CommandToLaunch=a & b;Username=");
    EXPECT_EQ(library_.Call(kAction, session_.Handle()), 0U);
    EXPECT_NE(scheduler_.xml.find(L"<Command>a & b</Command>"), std::wstring::npos);
}

TEST_F(RealRegistration, AThreadThatIsInASingleThreadedApartmentStaysInIt) {
    UINT result = 99;
    HRESULT again = E_FAIL;
    RunOnOwnThread([&] {
        const HRESULT entered = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        EXPECT_EQ(entered, S_OK);
        result = Register(L"C:\\corvi\\recorder.exe");
        again = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        CoUninitialize();
        CoUninitialize();
    });
    EXPECT_EQ(result, 0U);
    EXPECT_EQ(again, S_FALSE) << "the thread had left its apartment";
}

TEST_F(RealRegistration, AThreadWithoutApartmentHasNoneAfterwards) {
    HRESULT entered = E_FAIL;
    RunOnOwnThread([&] {
        Register(L"C:\\corvi\\recorder.exe");
        entered = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        CoUninitialize();
    });
    EXPECT_EQ(entered, S_OK);
}

}  // namespace
}  // namespace corvi::test
