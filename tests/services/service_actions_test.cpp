#include "services/service_actions.h"

#include <windows.h>

#include <msiquery.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <system_error>

#include "runtime/filesystem.h"
#include "tests/services/hooked_clock.h"
#include "tests/services/scripted_manager.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/standard_output.h"
#include "tests/support/test_service.h"

namespace corvi::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Lines = std::vector<std::wstring>;

constexpr char kAction[] = "DeleteServiceIfBinaryIsInDirectory";
constexpr wchar_t kName[] = L"CorviDeletedService";
constexpr wchar_t kDirectory[] = L"C:\\corvi\\vendor service";
constexpr wchar_t kProgram[] = L"C:\\corvi\\vendor service\\service.exe";

/// The installed service program, in a directory of its own.
class InstalledProgram {
public:
    InstalledProgram() {
        std::filesystem::create_directories(kDirectory);
        CopyFileW(TestService::kProgram, kProgram, FALSE);
    }
    ~InstalledProgram() {
        std::error_code ignored;
        std::filesystem::remove_all(kDirectory, ignored);
    }
    InstalledProgram(const InstalledProgram&) = delete;
    InstalledProgram& operator=(const InstalledProgram&) = delete;
};

/// The action, called through the library; the lines that the directory-checked delete logs where nobody
/// reads them are seen on their way there.
class DeleteServiceAction : public testing::Test {
protected:
    DeleteServiceAction() : hooks(library.Module()) {
        CORVI_HOOK(hooks, MsiRecordSetStringW, [this](MSIHANDLE record, UINT field, LPCWSTR text) -> UINT {
            lastText = text;
            return ::MsiRecordSetStringW(record, field, text);
        });
        CORVI_HOOK(hooks, MsiProcessMessage,
                   [this](MSIHANDLE handle, INSTALLMESSAGE type, MSIHANDLE record) -> int {
                       EXPECT_EQ(type, INSTALLMESSAGE_INFO);
                       if (handle != session.Handle()) {
                           EXPECT_EQ(handle, 0U);
                           silentLines.push_back(lastText);
                       }
                       return ::MsiProcessMessage(handle, type, record);
                   });
        CORVI_HOOK(hooks, OutputDebugStringW, [this](LPCWSTR text) { debugger.emplace_back(text); });
    }
    ~DeleteServiceAction() override { EXPECT_THAT(debugger, IsEmpty()); }

    UINT Call(const std::wstring& actionData) {
        session.SetActionData(actionData);
        return library.Call(kAction, session.Handle());
    }
    UINT Call(const std::wstring& name, const std::wstring& directory) {
        return Call(L"ServiceName=" + name + L";DirectoryOfBinary=" + directory);
    }

    Library library;
    InstallerSession session;
    ImportHooks hooks;
    std::wstring lastText;
    Lines silentLines;
    Lines debugger;
};

void WaitUntilGone(const TestService& service) {
    for (int attempt = 0; attempt < 500 && service.Exists(); ++attempt) {
        Sleep(10);
    }
}

std::wstring ParentLine(const std::wstring& binaryPath, const std::wstring& parent) {
    return L"Parent path of " + binaryPath + L" is " + parent;
}

// ---- Real services

TEST_F(DeleteServiceAction, AServiceWhoseBinaryIsInTheDirectoryIsStoppedAndDeleted) {
    const InstalledProgram program;
    const TestService service(kName, kProgram, L"");
    service.Start();
    EXPECT_EQ(Call(kName, kDirectory), 0U);
    WaitUntilGone(service);
    EXPECT_FALSE(service.Exists());
    ASSERT_GE(silentLines.size(), 2U);
    EXPECT_EQ(silentLines.front(), ParentLine(kProgram, kDirectory));
    EXPECT_EQ(silentLines.back(), L"Successfully deleted CorviDeletedService");
}

TEST_F(DeleteServiceAction, OnlyTheActionsOwnLineReachesTheInstallerLog) {
    const InstalledProgram program;
    const TestService service(kName, kProgram, L"");
    EXPECT_EQ(Call(kName, kDirectory), 0U);
    EXPECT_THAT(session.LogLines(),
                ElementsAre(L"CustomActionData: ServiceName=CorviDeletedService;DirectoryOfBinary="
                            L"C:\\corvi\\vendor service"));
    EXPECT_THAT(silentLines,
                ElementsAre(ParentLine(kProgram, kDirectory), L"Successfully deleted CorviDeletedService"));
}

TEST_F(DeleteServiceAction, TheBinaryPathGoesToStandardOutput) {
    const InstalledProgram program;
    const TestService service(kName, kProgram, L"");
    StandardOutput output;
    Call(kName, kDirectory);
    EXPECT_EQ(output.Text(), "binary path = C:\\corvi\\vendor service\\service.exe\n");
}

TEST_F(DeleteServiceAction, ForeignCharactersDoNotCutTheBinaryPathOnStandardOutput) {
    const TestService service(kName, L"C:\\corvi\\\u65E5\u672C \u00E9\\service.exe", L"");
    StandardOutput output;
    Call(kName, L"C:\\windows");
    EXPECT_THAT(output.Text(), testing::EndsWith("\\service.exe\n"));
}

TEST_F(DeleteServiceAction, TheDirectoryIsComparedAsAnObjectAndNotAsText) {
    const InstalledProgram program;
    for (const wchar_t* spelling : {L"C:\\corvi\\vendor service\\", L"c:/CORVI/Vendor Service",
                                    L"C:\\corvi\\..\\corvi\\vendor service"}) {
        const TestService service(kName, kProgram, L"");
        EXPECT_EQ(Call(kName, spelling), 0U);
        EXPECT_FALSE(service.Exists()) << std::wstring(spelling).size();
    }
}

TEST_F(DeleteServiceAction, AServiceElsewhereIsNeitherStoppedNorDeleted) {
    const InstalledProgram program;
    const TestService service(kName, kProgram, L"");
    service.Start();
    EXPECT_EQ(Call(kName, L"C:\\windows"), 0U);
    EXPECT_EQ(service.State(), DWORD{SERVICE_RUNNING});
    EXPECT_FALSE(silentLines.empty());
    EXPECT_EQ(silentLines.back(), std::wstring(kProgram) + L" is not in directory C:\\windows");
}

TEST_F(DeleteServiceAction, AnAsteriskDeletesTheServiceWhereverItsBinaryLies) {
    const TestService service(kName, L"D:\\nowhere\\gone.exe", L"");
    EXPECT_EQ(Call(kName, L"*"), 0U);
    EXPECT_FALSE(service.Exists());
    EXPECT_THAT(silentLines, ElementsAre(ParentLine(L"D:\\nowhere\\gone.exe", L"D:\\nowhere"),
                                         L"Successfully deleted CorviDeletedService"));
}

TEST_F(DeleteServiceAction, AnAsteriskWithSomethingElseIsADirectoryName) {
    const InstalledProgram program;
    const TestService service(kName, kProgram, L"");
    EXPECT_EQ(Call(kName, L"**"), 0U);
    EXPECT_TRUE(service.Exists());
}

TEST_F(DeleteServiceAction, AQuotedBinaryPathHasNoDirectoryAndNothingIsDeleted) {
    const InstalledProgram program;
    const std::wstring quoted = L"\"" + std::wstring(kProgram) + L"\"";
    const TestService service(kName, quoted, L"");
    EXPECT_EQ(Call(kName, kDirectory), 0U);
    EXPECT_TRUE(service.Exists());
    EXPECT_THAT(silentLines, ElementsAre(ParentLine(quoted, L"\"C:\\corvi\\vendor service")));
}

TEST_F(DeleteServiceAction, ArgumentsAreNotTakenOffTheBinaryPath) {
    const InstalledProgram program;
    const std::wstring path = std::wstring(kProgram) + L" -c C:\\corvi\\x.ini";
    const TestService service(kName, path, L"");
    EXPECT_EQ(Call(kName, kDirectory), 0U);
    EXPECT_TRUE(service.Exists()) << "the last backslash stands in the arguments";
    EXPECT_THAT(silentLines, ElementsAre(ParentLine(path, std::wstring(kProgram) + L" -c C:\\corvi")));
}

TEST_F(DeleteServiceAction, AForwardSlashSeparatesToo) {
    const InstalledProgram program;
    const TestService service(kName, L"C:/corvi/vendor service/service.exe", L"");
    EXPECT_EQ(Call(kName, kDirectory), 0U);
    EXPECT_FALSE(service.Exists());
}

TEST_F(DeleteServiceAction, ADirectoryThatCannotBeExaminedDeletesNothing) {
    const InstalledProgram program;
    const TestService service(kName, kProgram, L"");
    EXPECT_EQ(Call(kName, L"C:\\corvi\\no such directory"), 0U);
    EXPECT_EQ(Call(kName, L""), 0U);
    EXPECT_TRUE(service.Exists());
    EXPECT_THAT(silentLines, ElementsAre(ParentLine(kProgram, kDirectory), ParentLine(kProgram, kDirectory)));
}

TEST_F(DeleteServiceAction, AServiceThatIgnoresTheControlIsDeletedAfter30PollsOf101Milliseconds) {
    const TestService service(kName, L"deaf");
    service.Start();
    HookedClock clock(hooks);
    EXPECT_EQ(Call(kName, L"C:\\corvi"), 0U);
    EXPECT_EQ(clock.sleeps, std::vector<DWORD>(30, 101));
    Lines expected{ParentLine(L"C:\\corvi\\service.exe deaf", L"C:\\corvi")};
    expected.insert(expected.end(), 30, L"Waiting for service to stop.");
    expected.emplace_back(L"Successfully deleted CorviDeletedService");
    EXPECT_EQ(silentLines, expected);
    EXPECT_TRUE(service.IsMarkedForDeletion());
}

TEST_F(DeleteServiceAction, AMissingServiceIsLoggedWithItsErrorNumber) {
    EXPECT_EQ(Call(L"CorviNoSuchService", L"*"), 0U);
    EXPECT_THAT(silentLines, ElementsAre(L"Unable to open service CorviNoSuchService. Error code: 1060"));
}

TEST_F(DeleteServiceAction, AnEmptyServiceNameIsReportedAndNothingElseHappens) {
    ScriptedManager manager(hooks);
    EXPECT_EQ(Call(L"", L"*"), 0U);
    EXPECT_THAT(silentLines, ElementsAre(L"Empty service name provided"));
    EXPECT_THAT(manager.calls, IsEmpty());
}

// ---- Action data

TEST_F(DeleteServiceAction, ActionDataThatLacksTheKeysGivesZero) {
    ScriptedManager manager(hooks);
    EXPECT_EQ(Call(L""), 0U) << "too short for the first key";
    EXPECT_EQ(Call(L"ServiceName=X"), 0U) << "too short for the second key";
    EXPECT_THAT(manager.calls, IsEmpty());
    EXPECT_THAT(session.LogLines(), ElementsAre(L"CustomActionData: ", L"CustomActionData: ServiceName=X"));
}

TEST_F(DeleteServiceAction, TheKeysMayStandInAnyOrder) {
    const TestService service(kName, L"plain");
    EXPECT_EQ(Call(L"DirectoryOfBinary=C:\\corvi;Other=1;ServiceName=" + std::wstring(kName)), 0U);
    EXPECT_FALSE(service.Exists());
}

TEST_F(DeleteServiceAction, PercentSignsAndQuotesInTheNameAreOnlyText) {
    EXPECT_EQ(Call(L"%s%n\"%d", L"*"), 0U);
    EXPECT_THAT(silentLines, ElementsAre(L"Unable to open service %s%n\"%d. Error code: 1060"));
}

TEST_F(DeleteServiceAction, ANameOf64ThousandCharactersOpensNothing) {
    EXPECT_EQ(Call(std::wstring(65536, L'n'), L"*"), 0U);
    ASSERT_EQ(silentLines.size(), 1U);
    EXPECT_EQ(silentLines.front().size(), 519U) << "a log line is cut there";
}

TEST_F(DeleteServiceAction, AHandleThatIsNoSessionGivesZero) {
    hooks.RestoreAll();
    EXPECT_EQ(library.Call(kAction, 0), 0U);
    EXPECT_EQ(library.Call(kAction, 0x7FFFFFFF), 0U);
}

// ---- What the real manager cannot be made to do

/// Gives a binary path in the library's own directory.
void ScriptBinaryPath(ImportHooks& hooks) {
    CORVI_HOOK(hooks, QueryServiceConfigW,
               [](SC_HANDLE, LPQUERY_SERVICE_CONFIGW config, DWORD, LPDWORD) -> BOOL {
                   static wchar_t path[] = L"C:\\corvi\\x.exe";
                   config->lpBinaryPathName = path;
                   return TRUE;
               });
}

TEST_F(DeleteServiceAction, AsksTheManagerByTheNamedCallsOnly) {
    ScriptedManager manager(hooks);
    HookedClock clock(hooks);
    ScriptBinaryPath(hooks);
    manager.statuses = {{SERVICE_STOP_PENDING}, {SERVICE_STOPPED}};
    EXPECT_EQ(Call(kName, L"C:\\corvi"), 0U);
    EXPECT_THAT(manager.calls,
                ElementsAre("OpenSCManager ServicesActive F003F", "OpenService CorviDeletedService F003F",
                            "ControlService 1", "QueryServiceStatus", "QueryServiceStatus", "DeleteService"));
    EXPECT_THAT(clock.sleeps, ElementsAre(101U, 101U));
    EXPECT_TRUE(manager.AllClosed());
}

TEST_F(DeleteServiceAction, EachPollIsLoggedThenPausesAndThenAsks) {
    ScriptedManager manager(hooks);
    ScriptBinaryPath(hooks);
    Lines steps;
    CORVI_HOOK(hooks, Sleep,
               [&](DWORD) { steps.push_back(silentLines.empty() ? L"" : silentLines.back() + L" Pause."); });
    CORVI_HOOK(hooks, QueryServiceStatus, [&](SC_HANDLE, LPSERVICE_STATUS status) -> BOOL {
        steps.emplace_back(L"Asked.");
        silentLines.clear();
        status->dwCurrentState = steps.size() < 4 ? SERVICE_STOP_PENDING : SERVICE_STOPPED;
        return TRUE;
    });
    EXPECT_EQ(Call(kName, L"C:\\corvi"), 0U);
    EXPECT_THAT(steps, ElementsAre(L"Waiting for service to stop. Pause.", L"Asked.",
                                   L"Waiting for service to stop. Pause.", L"Asked."));
}

TEST_F(DeleteServiceAction, AControlThatReportsStoppedIsNotPolled) {
    ScriptedManager manager(hooks);
    HookedClock clock(hooks);
    ScriptBinaryPath(hooks);
    manager.controlAnswer = {SERVICE_STOPPED};
    EXPECT_EQ(Call(kName, L"C:\\corvi"), 0U);
    EXPECT_THAT(clock.sleeps, IsEmpty());
    EXPECT_EQ(manager.Count("DeleteService"), 1U);
}

TEST_F(DeleteServiceAction, AControlThatFailsLeadsStraightToTheDeletion) {
    ScriptedManager manager(hooks);
    HookedClock clock(hooks);
    ScriptBinaryPath(hooks);
    manager.controlError = ERROR_SERVICE_NOT_ACTIVE;
    EXPECT_EQ(Call(kName, L"C:\\corvi"), 0U);
    EXPECT_THAT(clock.sleeps, IsEmpty());
    EXPECT_EQ(silentLines.back(), L"Successfully deleted CorviDeletedService");
}

TEST_F(DeleteServiceAction, AFailedDeletionIsLoggedWithItsErrorNumber) {
    ScriptedManager manager(hooks);
    ScriptBinaryPath(hooks);
    manager.controlError = ERROR_SERVICE_NOT_ACTIVE;
    manager.deleteError = ERROR_SERVICE_MARKED_FOR_DELETE;
    EXPECT_EQ(Call(kName, L"C:\\corvi"), 0U);
    EXPECT_EQ(silentLines.back(), L"Unable to delete CorviDeletedService. Error code: 1072");
    EXPECT_TRUE(manager.AllClosed());
}

TEST_F(DeleteServiceAction, AManagerThatDoesNotOpenIsLoggedInItsOwnWords) {
    ScriptedManager manager(hooks);
    manager.managerError = ERROR_DATABASE_DOES_NOT_EXIST;
    EXPECT_EQ(Call(kName, L"*"), 0U);
    EXPECT_THAT(silentLines, ElementsAre(L"Unable call  OpenSCManager. Error code: 1065"));
    EXPECT_TRUE(manager.AllClosed());
}

TEST_F(DeleteServiceAction, HandlesAreClosedWhenTheServiceDoesNotOpenOrIsElsewhere) {
    {
        ScriptedManager manager(hooks);
        manager.openError = ERROR_ACCESS_DENIED;
        Call(kName, L"*");
        EXPECT_THAT(manager.closed, ElementsAre("manager"));
    }
    ScriptedManager manager(hooks);
    ScriptBinaryPath(hooks);
    Call(kName, L"C:\\windows");
    EXPECT_TRUE(manager.AllClosed());
    EXPECT_EQ(manager.Count("ControlService") + manager.Count("DeleteService"), 0U);
    Call(kName, L"C:\\corvi\\no such directory");
    EXPECT_EQ(manager.Count("DeleteService"), 0U);
    EXPECT_EQ(manager.closed.size(), 4U) << "an error closes both as well";
}

TEST_F(DeleteServiceAction, AFailingConfigurationQueryClosesBothHandlesAndGivesZero) {
    ScriptedManager manager(hooks);
    CORVI_HOOK(hooks, QueryServiceConfigW, [](SC_HANDLE, LPQUERY_SERVICE_CONFIGW, DWORD, LPDWORD) -> BOOL {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
    EXPECT_EQ(Call(kName, L"*"), 0U);
    EXPECT_THAT(manager.closed, ElementsAre("service", "manager"));
    EXPECT_EQ(manager.Count("DeleteService"), 0U);
    EXPECT_THAT(silentLines, IsEmpty());
}

TEST(DeleteServiceInDirectory, ThrowsWhatKeepsItFromDeciding) {
    const TestService service(kName, L"plain");
    EXPECT_THROW(DeleteServiceInDirectory(kName, L"C:\\corvi\\no such directory"), FileSystemError);
    EXPECT_TRUE(service.Exists());

    ImportHooks hooks(GetModuleHandleW(nullptr));
    CORVI_HOOK(hooks, QueryServiceConfigW, [](SC_HANDLE, LPQUERY_SERVICE_CONFIGW, DWORD, LPDWORD) -> BOOL {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
    EXPECT_THROW(DeleteServiceInDirectory(kName, L"*"), std::system_error);
}

}  // namespace
}  // namespace corvi::test
