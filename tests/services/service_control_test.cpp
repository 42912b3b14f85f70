#include "services/service_control.h"

#include <windows.h>

#include <msiquery.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cwchar>

#include "tests/services/hooked_clock.h"
#include "tests/services/scripted_manager.h"
#include "tests/services/service_handle_count.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/test_service.h"

namespace corvi::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using Lines = std::vector<std::wstring>;

constexpr wchar_t kName[] = L"CorviTestService";
constexpr wchar_t kUploader[] = L"TUEPLauncher";

/// Sees the debugger output and the installer messages of this program's product code.
class Channels {
public:
    Channels() : hooks(GetModuleHandleW(nullptr)) {
        CORVI_HOOK(hooks, OutputDebugStringW, [this](LPCWSTR text) { debugger.emplace_back(text); });
        CORVI_HOOK(hooks, MsiProcessMessage, [this](MSIHANDLE, INSTALLMESSAGE, MSIHANDLE) -> int {
            ++installerMessages;
            return IDOK;
        });
    }
    ~Channels() { EXPECT_EQ(installerMessages, 0) << "the wait helpers never write to the installer log"; }
    Channels(const Channels&) = delete;
    Channels& operator=(const Channels&) = delete;

    ImportHooks hooks;
    Lines debugger;
    int installerMessages = 0;
};

/// The same with a clock that moves only while the product sleeps.
struct TimedChannels : Channels {
    explicit TimedChannels(DWORD start = 1000) : clock(hooks, start) { clock.HookTickCount(hooks); }
    HookedClock clock;
};

/// And with a service manager that answers from a script.
struct Scripted : TimedChannels {
    explicit Scripted(std::deque<ScriptedStatus> statuses, DWORD start = 1000)
        : TimedChannels(start), manager(hooks) {
        manager.statuses = std::move(statuses);
    }
    ~Scripted() { EXPECT_TRUE(manager.AllClosed()); }
    ScriptedManager manager;
};

constexpr wchar_t kOpenManagerFailed[] = L"Error: Failed to open SCM.\n";
constexpr wchar_t kQueryFailed[] = L"Error: QueryServiceStatusEx failed.\n";
constexpr wchar_t kStopPending[] = L"Service stop pending...\n";
constexpr wchar_t kStopped[] = L"Service stopped successfully.\n";
constexpr wchar_t kStopTimedOut[] = L"Error: Timeout waiting for service to stop.\n";

ScriptedStatus Stopped() { return {SERVICE_STOPPED}; }
ScriptedStatus Running(DWORD waitHint = 0) { return {SERVICE_RUNNING, waitHint}; }
ScriptedStatus Stopping(DWORD waitHint, DWORD checkPoint = 0) {
    return {SERVICE_STOP_PENDING, waitHint, checkPoint};
}
ScriptedStatus Starting(DWORD waitHint, DWORD checkPoint = 0) {
    return {SERVICE_START_PENDING, waitHint, checkPoint};
}

// ---- StopServiceAndWait, real services

TEST(StopServiceAndWait, AnAlreadyStoppedServiceGivesOneWithoutAControl) {
    const TestService service(kName, L"plain");
    Channels channels;
    const HandleCount handles(channels.hooks);
    int controls = 0;
    CORVI_HOOK(channels.hooks, ControlService, [&](SC_HANDLE, DWORD, LPSERVICE_STATUS) -> BOOL {
        ++controls;
        return FALSE;
    });
    EXPECT_EQ(StopServiceAndWait(kName), 1);
    EXPECT_EQ(controls, 0);
    EXPECT_THAT(channels.debugger, ElementsAre(L"Service is already stopped.\n"));
}

TEST(StopServiceAndWait, ARunningServiceIsStopped) {
    const TestService service(kName, L"plain");
    service.Start();
    {
        Channels channels;
        const HandleCount handles(channels.hooks);
        EXPECT_EQ(StopServiceAndWait(kName), 1);
        EXPECT_THAT(channels.debugger, ElementsAre(kStopped));
    }
    EXPECT_EQ(service.State(), DWORD{SERVICE_STOPPED});
}

TEST(StopServiceAndWait, AServiceThatNeedsTimeIsWaitedForByItsOwnWaitHint) {
    const TestService service(kName, L"slowstop 20 150");
    service.Start();
    Channels channels;
    std::vector<DWORD> sleeps;
    CORVI_HOOK(channels.hooks, Sleep, [&](DWORD milliseconds) {
        sleeps.push_back(milliseconds);
        CORVI_ORIGINAL(channels.hooks, Sleep)(10);
    });
    EXPECT_EQ(StopServiceAndWait(kName), 1);
    EXPECT_THAT(channels.debugger, ElementsAre(kStopped));
    EXPECT_THAT(sleeps, testing::Contains(20U));
}

TEST(StopServiceAndWait, AServiceThatStaysInStopPendingIsGivenUpALittleAfter30000Milliseconds) {
    const TestService service(kName, L"pending 50000 1");
    service.Start();
    service.SendStop();
    TimedChannels channels;
    const HandleCount handles(channels.hooks);
    EXPECT_EQ(StopServiceAndWait(kName), 0);
    Lines expected(7, kStopPending);
    expected.emplace_back(L"Service stop timed out.\n");
    EXPECT_EQ(channels.debugger, expected);
    EXPECT_EQ(channels.clock.Passed(), 35000U);
}

TEST(StopServiceAndWait, AServiceThatIgnoresTheControlIsGivenUpAfter30000Milliseconds) {
    const TestService service(kName, L"deaf");
    service.Start();
    {
        TimedChannels channels;
        const HandleCount handles(channels.hooks);
        channels.clock.perLook = 7500;
        EXPECT_EQ(StopServiceAndWait(kName), 0);
        EXPECT_THAT(channels.debugger, ElementsAre(kStopTimedOut));
        EXPECT_THAT(channels.clock.sleeps, Each(0U));
    }
    EXPECT_EQ(service.State(), DWORD{SERVICE_RUNNING});
}

TEST(StopServiceAndWait, AMissingServiceGivesZeroWithoutAMessage) {
    Channels channels;
    const HandleCount handles(channels.hooks);
    EXPECT_EQ(StopServiceAndWait(L"CorviNoSuchService"), 0);
    EXPECT_THAT(channels.debugger, IsEmpty());
}

// ---- StopServiceAndWait, what the real manager cannot be made to do

TEST(StopServiceAndWait, AsksTheLocalManagerByTheNamedCallsOnly) {
    Scripted scripted({Running(), Stopped()});
    EXPECT_EQ(StopServiceAndWait(kName), 1);
    EXPECT_THAT(scripted.manager.calls,
                ElementsAre("OpenSCManager - F003F", "OpenService CorviTestService 2C",
                            "QueryServiceStatusEx 0 24", "ControlService 1", "QueryServiceStatusEx 0 24"));
}

TEST(StopServiceAndWait, DependentServicesAreNotEnumerated) {
    const ImportHooks hooks(GetModuleHandleW(nullptr));
    EXPECT_FALSE(hooks.Imports("EnumDependentServicesW"));
    EXPECT_FALSE(hooks.Imports("EnumDependentServicesA"));
}

TEST(StopServiceAndWait, AControlThatAlreadyReportsStoppedNeedsNoFurtherQuery) {
    Scripted scripted({Running()});
    scripted.manager.controlAnswer = Stopped();
    EXPECT_EQ(StopServiceAndWait(kName), 1);
    EXPECT_EQ(scripted.manager.Count("QueryServiceStatusEx"), 1U);
    EXPECT_THAT(scripted.clock.sleeps, IsEmpty());
    EXPECT_THAT(scripted.debugger, ElementsAre(kStopped));
}

TEST(StopServiceAndWait, WhileStopPendingSleepsATenthOfTheHintWithin1000And10000Milliseconds) {
    const std::pair<DWORD, DWORD> table[] = {{0, 1000},       {9999, 1000},    {10000, 1000},
                                             {10010, 1001},   {25000, 2500},   {99990, 9999},
                                             {100000, 10000}, {100010, 10000}, {0xFFFFFFFF, 10000}};
    for (const auto& [waitHint, expected] : table) {
        Scripted scripted({Stopping(waitHint), Stopped()});
        EXPECT_EQ(StopServiceAndWait(kName), 1);
        EXPECT_THAT(scripted.clock.sleeps, ElementsAre(expected)) << waitHint;
        EXPECT_THAT(scripted.debugger, ElementsAre(kStopPending, kStopped));
        EXPECT_EQ(scripted.manager.Count("ControlService"), 0U);
    }
}

TEST(StopServiceAndWait, TheDebuggerHearsOfAPendingStopBeforeThePause) {
    Scripted scripted({Stopping(5000), Stopped()});
    Lines beforeThePause;
    CORVI_HOOK(scripted.hooks, Sleep, [&](DWORD) { beforeThePause = scripted.debugger; });
    EXPECT_EQ(StopServiceAndWait(kName), 1);
    EXPECT_THAT(beforeThePause, ElementsAre(kStopPending));
}

TEST(StopServiceAndWait, AWaitHintOfZeroStillSleeps1000MillisecondsInEachPendingRound) {
    Scripted scripted({Stopping(0)});
    EXPECT_EQ(StopServiceAndWait(kName), 0);
    EXPECT_EQ(scripted.clock.sleeps, std::vector<DWORD>(31, 1000));
}

TEST(StopServiceAndWait, Exactly30000MillisecondsAreNotTooLong) {
    Scripted scripted({Stopping(100000), Stopping(100000), Stopping(100000), Stopping(100000), Stopped()});
    EXPECT_EQ(StopServiceAndWait(kName), 1);
    EXPECT_EQ(scripted.clock.Passed(), 40000U) << "stopped counts before the time limit";
    Scripted late({Stopping(100000)});
    EXPECT_EQ(StopServiceAndWait(kName), 0);
    EXPECT_EQ(late.clock.Passed(), 40000U) << "30000 passed the limit's test, 40000 did not";
}

TEST(StopServiceAndWait, TheTimeLimitHoldsAcrossTheWrapOfTheTickCount) {
    Scripted scripted({Stopping(0)}, 0xFFFFFFFFU - 4500);
    EXPECT_EQ(StopServiceAndWait(kName), 0);
    EXPECT_EQ(scripted.clock.Passed(), 31000U);
    EXPECT_EQ(scripted.debugger.back(), L"Service stop timed out.\n");
}

TEST(StopServiceAndWait, APendingStopThatEndsInAnotherStateIsFollowedByTheControl) {
    Scripted scripted({Stopping(0), Running(), Stopped()});
    EXPECT_EQ(StopServiceAndWait(kName), 1);
    EXPECT_EQ(scripted.manager.Count("ControlService"), 1U);
    EXPECT_THAT(scripted.debugger, ElementsAre(kStopPending, kStopped));
}

TEST(StopServiceAndWait, AfterTheControlTheHintLastReportedIsSleptAsItIs) {
    Scripted scripted({Running(99), Stopping(123), Stopping(25000), Stopped()});
    scripted.manager.controlAnswer = Stopping(7);
    EXPECT_EQ(StopServiceAndWait(kName), 1);
    EXPECT_THAT(scripted.clock.sleeps, ElementsAre(7U, 123U, 25000U));
}

TEST(StopServiceAndWait, AHintOfZeroAfterTheControlPollsWithoutPauseUntilTheTimeLimit) {
    Scripted scripted({Running(), Stopping(0)});
    scripted.clock.perLook = 10000;
    EXPECT_EQ(StopServiceAndWait(kName), 0);
    EXPECT_THAT(scripted.clock.sleeps, ElementsAre(0U, 0U, 0U, 0U));
    EXPECT_THAT(scripted.debugger, ElementsAre(kStopTimedOut));
}

TEST(StopServiceAndWait, TheLimitAfterTheControlIsMeasuredFromTheEntry) {
    Scripted scripted({Stopping(100000), Stopping(100000), Running(), Stopping(5000)});
    scripted.manager.controlAnswer = Stopping(5000);
    EXPECT_EQ(StopServiceAndWait(kName), 0);
    EXPECT_THAT(scripted.clock.sleeps, ElementsAre(10000U, 10000U, 5000U, 5000U, 5000U));
    EXPECT_THAT(scripted.debugger, ElementsAre(kStopPending, kStopPending, kStopTimedOut));
}

TEST(StopServiceAndWait, TheLimitIsMeasuredFromBeforeTheManagerIsOpened) {
    Scripted slow({Running(), Stopping(6000)});
    slow.manager.controlAnswer = Stopping(6000);
    slow.manager.onOpenManager = [&] { slow.clock.now += 20000; };
    EXPECT_EQ(StopServiceAndWait(kName), 0);
    EXPECT_THAT(slow.clock.sleeps, ElementsAre(6000U, 6000U)) << "20000 ms had passed before";
    EXPECT_THAT(slow.debugger, ElementsAre(kStopTimedOut));
}

TEST(StopServiceAndWait, AManagerThatDoesNotOpenGivesZero) {
    Scripted scripted({Running()});
    scripted.manager.managerError = ERROR_ACCESS_DENIED;
    EXPECT_EQ(StopServiceAndWait(kName), 0);
    EXPECT_THAT(scripted.debugger, ElementsAre(kOpenManagerFailed));
    EXPECT_EQ(scripted.manager.calls.size(), 1U);
}

TEST(StopServiceAndWait, AFailingQueryGivesZeroWhereverItHappens) {
    Scripted first({kFailingQuery});
    EXPECT_EQ(StopServiceAndWait(kName), 0);
    EXPECT_THAT(first.debugger, ElementsAre(kQueryFailed));

    Scripted whilePending({Stopping(0), kFailingQuery});
    EXPECT_EQ(StopServiceAndWait(kName), 0);
    EXPECT_THAT(whilePending.debugger, ElementsAre(kStopPending, kQueryFailed));

    Scripted afterControl({Running(), kFailingQuery});
    EXPECT_EQ(StopServiceAndWait(kName), 0);
    EXPECT_THAT(afterControl.debugger, ElementsAre(kQueryFailed));
}

TEST(StopServiceAndWait, AControlThatFailsGivesZero) {
    Scripted scripted({Running()});
    scripted.manager.controlError = ERROR_ACCESS_DENIED;
    EXPECT_EQ(StopServiceAndWait(kName), 0);
    EXPECT_THAT(scripted.debugger, ElementsAre(L"Error: ControlService failed.\n"));
}

// ---- StartServiceAndWait, real services

TEST(StartServiceAndWait, AStoppedServiceIsStarted) {
    const TestService service(kUploader, L"plain");
    {
        Channels channels;
        const HandleCount handles(channels.hooks);
        CORVI_HOOK(channels.hooks, Sleep, [&](DWORD) { CORVI_ORIGINAL(channels.hooks, Sleep)(10); });
        EXPECT_TRUE(StartServiceAndWait());
        EXPECT_THAT(channels.debugger, ElementsAre(L"Service started successfully.\n"));
    }
    EXPECT_EQ(service.State(), DWORD{SERVICE_RUNNING});
}

TEST(StartServiceAndWait, ASlowServiceIsWaitedFor) {
    const TestService service(kUploader, L"slowstart 20000 100");
    TimedChannels channels;
    CORVI_HOOK(channels.hooks, Sleep, [&](DWORD milliseconds) {
        EXPECT_EQ(milliseconds, 2000U);
        CORVI_ORIGINAL(channels.hooks, Sleep)(20);
    });
    EXPECT_TRUE(StartServiceAndWait());
    EXPECT_THAT(channels.debugger, ElementsAre(L"Service started successfully.\n"));
}

TEST(StartServiceAndWait, ARunningServiceGivesTrueWithoutStartingIt) {
    const TestService service(kUploader, L"plain");
    service.Start();
    Channels channels;
    const HandleCount handles(channels.hooks);
    int starts = 0;
    CORVI_HOOK(channels.hooks, StartServiceW, [&](SC_HANDLE, DWORD, LPCWSTR*) -> BOOL {
        ++starts;
        return FALSE;
    });
    EXPECT_TRUE(StartServiceAndWait());
    EXPECT_EQ(starts, 0);
    EXPECT_THAT(channels.debugger, IsEmpty());
}

TEST(StartServiceAndWait, AServiceThatCrashesWhileItStartsGivesFalse) {
    const TestService service(kUploader, L"crash");
    Channels channels;
    const HandleCount handles(channels.hooks);
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_EQ(channels.debugger.size(), 1U);
    EXPECT_TRUE(channels.debugger.at(0) == L"Warning: Service did not start successfully.\n" ||
                channels.debugger.at(0).rfind(L"Unable to start service and Error code is ", 0) == 0);
}

TEST(StartServiceAndWait, AServiceWhoseProgramIsMissingReportsTheErrorNumber) {
    const TestService service(kUploader, L"C:\\corvi\\no_such_program.exe", L"");
    Channels channels;
    const HandleCount handles(channels.hooks);
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_THAT(channels.debugger, ElementsAre(L"Unable to start service and Error code is 2"));
}

TEST(StartServiceAndWait, AMissingServiceGivesFalseWithoutAMessage) {
    Channels channels;
    const HandleCount handles(channels.hooks);
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_THAT(channels.debugger, IsEmpty());
}

TEST(StartServiceAndWait, AServiceStillStoppingWithAShortHintIsAbandonedAfterOneRound) {
    const TestService service(kUploader, L"pending 900 1");
    service.Start();
    service.SendStop();
    TimedChannels channels;
    const HandleCount handles(channels.hooks);
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_THAT(channels.clock.sleeps, ElementsAre(1000U));
    EXPECT_THAT(channels.debugger, ElementsAre(kStopTimedOut));
}

// ---- StartServiceAndWait, what the real manager cannot be made to do

TEST(StartServiceAndWait, AsksForTheUploaderByTheNamedCallsOnly) {
    Scripted scripted({Stopped(), Running()});
    EXPECT_TRUE(StartServiceAndWait());
    EXPECT_THAT(scripted.manager.calls,
                ElementsAre("OpenSCManager - F003F", "OpenService TUEPLauncher F01FF",
                            "QueryServiceStatusEx 0 24", "StartService", "QueryServiceStatusEx 0 24"));
}

TEST(StartServiceAndWait, EveryStateButStoppedAndStopPendingCountsAsRunning) {
    for (const DWORD state : {SERVICE_START_PENDING, SERVICE_RUNNING, SERVICE_CONTINUE_PENDING,
                              SERVICE_PAUSE_PENDING, SERVICE_PAUSED}) {
        Scripted scripted({ScriptedStatus{state}});
        EXPECT_TRUE(StartServiceAndWait());
        EXPECT_EQ(scripted.manager.Count("StartService"), 0U);
        EXPECT_THAT(scripted.debugger, IsEmpty());
    }
}

TEST(StartServiceAndWait, TheRoundTimerStartsAnewInEveryRound) {
    // 40 rounds of 1000 ms with a check point that stands still: none is longer than the hint.
    std::deque<ScriptedStatus> statuses(40, Stopping(1000, 5));
    statuses.push_back({SERVICE_STOPPED, 1000, 5});
    statuses.push_back(Running());
    Scripted scripted(statuses);
    EXPECT_TRUE(StartServiceAndWait());
    EXPECT_EQ(scripted.clock.sleeps, std::vector<DWORD>(40, 1000));
}

TEST(StartServiceAndWait, ARoundLongerThanTheHintEndsTheWaitUnlessTheCheckPointAdvanced) {
    Scripted standing({Stopping(999, 5)});
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_THAT(standing.clock.sleeps, ElementsAre(1000U));
    EXPECT_EQ(standing.manager.Count("StartService"), 0U);

    Scripted falling({Stopping(999, 5), Stopping(999, 4)});
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_THAT(falling.debugger, ElementsAre(kStopTimedOut));

    Scripted advancing({Stopping(0, 1), Stopping(0, 2), Stopping(0, 3), {SERVICE_STOPPED, 0, 4}, Running()});
    EXPECT_TRUE(StartServiceAndWait());
}

TEST(StartServiceAndWait, TheRoundsTimeLimitIsTestedBeforeTheState) {
    Scripted scripted({Stopping(0, 5), Stopped()});
    EXPECT_FALSE(StartServiceAndWait()) << "it has stopped, but its last round took too long";
    EXPECT_THAT(scripted.debugger, ElementsAre(kStopTimedOut));
    EXPECT_EQ(scripted.manager.Count("StartService"), 0U);
}

TEST(StartServiceAndWait, PendingRoundsSleepATenthOfTheHintWithin1000And10000Milliseconds) {
    Scripted scripted({Stopping(0, 1),
                       Stopping(25000, 2),
                       Stopping(500000, 3),
                       {SERVICE_STOPPED, 0, 4},
                       Starting(0, 1),
                       Starting(25000, 2),
                       Starting(500000, 3),
                       Running()});
    EXPECT_TRUE(StartServiceAndWait());
    EXPECT_THAT(scripted.clock.sleeps, ElementsAre(1000U, 2500U, 10000U, 1000U, 2500U, 10000U));
}

TEST(StartServiceAndWait, TheRoundTimerHoldsAcrossTheWrapOfTheTickCount) {
    Scripted scripted({Stopping(1000, 5), Stopping(1000, 5), {SERVICE_STOPPED, 1000, 5}, Starting(1500, 1)},
                      0xFFFFFFFFU - 1500);
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_THAT(scripted.clock.sleeps, ElementsAre(1000U, 1000U, 1000U, 1000U));
    EXPECT_THAT(scripted.debugger, ElementsAre(L"Warning: Service did not start successfully.\n"));
}

TEST(StartServiceAndWait, AStartThatMakesNoProgressWithinTheHintIsGivenUp) {
    Scripted scripted({Stopped(), Starting(3000, 1)});
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_EQ(scripted.clock.sleeps, std::vector<DWORD>(4, 1000)) << "3000 ms are not longer than the hint";
    EXPECT_THAT(scripted.debugger, ElementsAre(L"Warning: Service did not start successfully.\n"));
}

TEST(StartServiceAndWait, AStartThatMakesProgressIsWaitedForWithoutLimit) {
    std::deque<ScriptedStatus> statuses{Stopped()};
    for (DWORD checkPoint = 1; checkPoint <= 100; ++checkPoint) {
        statuses.push_back(Starting(500, checkPoint));
    }
    statuses.push_back(Running());
    Scripted scripted(statuses);
    EXPECT_TRUE(StartServiceAndWait());
    EXPECT_EQ(scripted.clock.Passed(), 100000U);
}

TEST(StartServiceAndWait, ProgressRestartsTheTimerOfTheStart) {
    // Without the restart the third query, 3000 ms after the start, would be beyond the hint of 2500.
    Scripted scripted(
        {Stopped(), Starting(2500, 1), Starting(2500, 1), Starting(2500, 2), Starting(2500, 2), Running()});
    EXPECT_TRUE(StartServiceAndWait());
}

TEST(StartServiceAndWait, ACheckPointThatStandsStillAfterSomeProgressIsGivenUp) {
    // The queries behind the last of these say that it runs: a wait that goes on would see it.
    Scripted scripted({Stopped(), Starting(2500, 1), Starting(2500, 2), Starting(2500, 2), Starting(2500, 2),
                       Starting(2500, 2), Running()});
    EXPECT_FALSE(StartServiceAndWait());
}

TEST(StartServiceAndWait, ACheckPointThatGoesBackIsNoProgress) {
    Scripted back({Stopped(), Starting(2500, 5), Starting(2500, 4)});
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_EQ(back.clock.sleeps, std::vector<DWORD>(3, 1000));

    // Nor is it remembered: to come back to where it was is none either.
    Scripted again({Stopped(), Starting(2500, 5), Starting(2500, 4), Starting(2500, 5)});
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_EQ(again.clock.sleeps, std::vector<DWORD>(3, 1000));
    EXPECT_THAT(again.debugger, ElementsAre(L"Warning: Service did not start successfully.\n"));
}

TEST(StartServiceAndWait, AFailingQueryIsReportedWhereverItHappens) {
    Scripted first({kFailingQuery});
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_THAT(first.debugger, ElementsAre(kQueryFailed));

    Scripted whilePending({Stopping(0, 1), kFailingQuery});
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_THAT(whilePending.debugger, ElementsAre(kQueryFailed));
    EXPECT_EQ(whilePending.manager.Count("StartService"), 0U);

    Scripted afterStart({Stopped(), kFailingQuery});
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_THAT(afterStart.debugger, ElementsAre(kQueryFailed));

    Scripted whileStarting({Stopped(), Starting(5000, 1), kFailingQuery});
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_THAT(whileStarting.debugger,
                ElementsAre(kQueryFailed, L"Warning: Service did not start successfully.\n"));
}

TEST(StartServiceAndWait, ARefusedStartReportsItsErrorNumber) {
    Scripted scripted({Stopped()});
    scripted.manager.startError = 1058;
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_THAT(scripted.debugger, ElementsAre(L"Unable to start service and Error code is 1058"));
}

TEST(StartServiceAndWait, AManagerThatDoesNotOpenGivesFalse) {
    Scripted scripted({Stopped()});
    scripted.manager.managerError = ERROR_ACCESS_DENIED;
    EXPECT_FALSE(StartServiceAndWait());
    EXPECT_THAT(scripted.debugger, ElementsAre(kOpenManagerFailed));
}

// ---- StopAndDeleteService

/// The system's text of an error as the log shows it: no line ends, one blank at the end.
std::wstring SystemText(DWORD error) {
    wchar_t text[512] = {};
    FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
                   nullptr, error, 0, text, ARRAYSIZE(text), nullptr);
    return text;
}

std::wstring Line(const std::wstring& start, DWORD error) {
    return start + std::to_wstring(error) + L" " + SystemText(error);
}

constexpr wchar_t kManagerLine[] = L"Opening SC Manager failed with error code: ";
constexpr wchar_t kServiceLine[] = L"Opening Windows Update Service failed with error code: ";
constexpr wchar_t kPauseLine[] = L"Unable to pause Windows Update Service. Error code: ";

TEST(StopAndDeleteService, ARunningServiceIsStoppedAndDeletedWithoutALine) {
    InstallerSession session;
    const TestService service(kName, L"plain");
    service.Start();
    ImportHooks hooks(GetModuleHandleW(nullptr));
    Lines debugger;
    CORVI_HOOK(hooks, OutputDebugStringW, [&](LPCWSTR text) { debugger.emplace_back(text); });
    {
        const HandleCount handles(hooks);
        StopAndDeleteService(session.Handle(), kName);
    }
    hooks.RestoreAll();
    for (int attempt = 0; attempt < 500 && service.Exists(); ++attempt) {
        Sleep(10);
    }
    EXPECT_FALSE(service.Exists());
    EXPECT_THAT(session.LogLines(), IsEmpty());
    EXPECT_THAT(debugger, IsEmpty());
}

TEST(StopAndDeleteService, AStoppedServiceLogsTheFailedStopAndIsDeletedNonetheless) {
    InstallerSession session;
    const TestService service(kName, L"plain");
    StopAndDeleteService(session.Handle(), kName);
    EXPECT_FALSE(service.Exists());
    EXPECT_THAT(session.LogLines(), ElementsAre(Line(kPauseLine, ERROR_SERVICE_NOT_ACTIVE)));
}

TEST(StopAndDeleteService, AMissingServiceLogsTheOpeningAndTheStop) {
    InstallerSession session;
    ImportHooks hooks(GetModuleHandleW(nullptr));
    const HandleCount handles(hooks);
    StopAndDeleteService(session.Handle(), L"CorviNoSuchService");
    EXPECT_THAT(session.LogLines(), ElementsAre(Line(kServiceLine, ERROR_SERVICE_DOES_NOT_EXIST),
                                                Line(kPauseLine, ERROR_INVALID_HANDLE)));
}

TEST(StopAndDeleteService, TheOpeningsErrorIsLoggedBeforeTheManagerIsClosed) {
    InstallerSession session;
    ImportHooks hooks(GetModuleHandleW(nullptr));
    ScriptedManager manager(hooks);
    manager.openError = ERROR_SERVICE_DOES_NOT_EXIST;
    manager.controlError = ERROR_INVALID_HANDLE;
    CORVI_HOOK(hooks, CloseServiceHandle, [](SC_HANDLE) -> BOOL {
        SetLastError(ERROR_BUSY);
        return TRUE;
    });
    StopAndDeleteService(session.Handle(), kName);
    EXPECT_THAT(session.LogLines(), ElementsAre(Line(kServiceLine, ERROR_SERVICE_DOES_NOT_EXIST),
                                                Line(kPauseLine, ERROR_INVALID_HANDLE)));
}

TEST(StopAndDeleteService, EveryFailureIsLoggedAndTheNextStepFollowsRegardless) {
    InstallerSession session;
    ImportHooks hooks(GetModuleHandleW(nullptr));
    ScriptedManager manager(hooks);
    manager.managerError = ERROR_DATABASE_DOES_NOT_EXIST;
    manager.openError = ERROR_INVALID_HANDLE;
    manager.controlError = 1061;
    manager.deleteError = ERROR_INVALID_HANDLE;
    StopAndDeleteService(session.Handle(), kName);
    EXPECT_THAT(manager.calls,
                ElementsAre("OpenSCManager ServicesActive F003F", "OpenService CorviTestService F003F",
                            "ControlService 1", "DeleteService"));
    EXPECT_TRUE(manager.AllClosed());
    EXPECT_THAT(session.LogLines(),
                ElementsAre(Line(kManagerLine, ERROR_DATABASE_DOES_NOT_EXIST),
                            Line(kServiceLine, ERROR_INVALID_HANDLE), Line(kPauseLine, 1061)));
}

TEST(StopAndDeleteService, ClosesTheManagerAndThenTheService) {
    ImportHooks hooks(GetModuleHandleW(nullptr));
    ScriptedManager manager(hooks);
    StopAndDeleteService(0, kName);
    EXPECT_THAT(manager.closed, ElementsAre("manager", "service"));
    EXPECT_EQ(manager.Count("QueryServiceStatus") + manager.Count("QueryServiceStatusEx"), 0U)
        << "nothing is waited for";
}

TEST(StopAndDeleteService, TheSystemsTextIsAskedForOnOneLineAndFreed) {
    InstallerSession session;
    ImportHooks hooks(GetModuleHandleW(nullptr));
    std::vector<HLOCAL> freed;
    wchar_t* given = nullptr;
    CORVI_HOOK(hooks, FormatMessageW,
               [&](DWORD flags, LPCVOID source, DWORD code, DWORD language, LPWSTR buffer, DWORD size,
                   va_list* arguments) -> DWORD {
                   EXPECT_EQ(flags, 0x13FFU);
                   EXPECT_EQ(language, 0U);
                   const DWORD length = CORVI_ORIGINAL(hooks, FormatMessageW)(flags, source, code, language,
                                                                              buffer, size, arguments);
                   given = *reinterpret_cast<wchar_t**>(buffer);
                   return length;
               });
    CORVI_HOOK(hooks, LocalFree, [&](HLOCAL memory) -> HLOCAL {
        freed.push_back(memory);
        return CORVI_ORIGINAL(hooks, LocalFree)(memory);
    });
    const TestService service(kName, L"plain");
    StopAndDeleteService(session.Handle(), kName);
    EXPECT_NE(given, nullptr);
    EXPECT_THAT(freed, ElementsAre(given));
}

TEST(StopAndDeleteService, AnErrorWithoutASystemTextLogsItsNumber) {
    InstallerSession session;
    ImportHooks hooks(GetModuleHandleW(nullptr));
    ScriptedManager manager(hooks);
    manager.controlError = 0x2FFFFFFF;
    StopAndDeleteService(session.Handle(), kName);
    EXPECT_THAT(session.LogLines(), ElementsAre(std::wstring(kPauseLine) + L"805306367 "));
}

// ---- DeleteServiceByName

TEST(DeleteServiceByName, AServiceIsDeletedWithNoMoreThanDeleteAccess) {
    const TestService service(kName, L"plain");
    DeleteServiceByName(kName);
    EXPECT_FALSE(service.Exists());

    ImportHooks hooks(GetModuleHandleW(nullptr));
    ScriptedManager manager(hooks);
    DeleteServiceByName(kName);
    EXPECT_THAT(manager.calls,
                ElementsAre("OpenSCManager - F003F", "OpenService CorviTestService 10000", "DeleteService"));
    EXPECT_TRUE(manager.AllClosed());
}

TEST(DeleteServiceByName, FailuresAreIgnoredAndHandlesClosed) {
    DeleteServiceByName(L"CorviNoSuchService");

    ImportHooks hooks(GetModuleHandleW(nullptr));
    ScriptedManager noManager(hooks);
    noManager.managerError = ERROR_ACCESS_DENIED;
    DeleteServiceByName(kName);
    EXPECT_EQ(noManager.Count("DeleteService"), 0U);
    EXPECT_TRUE(noManager.AllClosed());

    ScriptedManager noService(hooks);
    noService.openError = ERROR_SERVICE_DOES_NOT_EXIST;
    DeleteServiceByName(kName);
    EXPECT_EQ(noService.Count("DeleteService"), 0U);
    EXPECT_TRUE(noService.AllClosed());

    ScriptedManager marked(hooks);
    marked.deleteError = ERROR_SERVICE_MARKED_FOR_DELETE;
    DeleteServiceByName(kName);
    EXPECT_TRUE(marked.AllClosed());
}

}  // namespace
}  // namespace corvi::test
