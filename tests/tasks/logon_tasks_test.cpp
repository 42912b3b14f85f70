#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <shlobj.h>

#include <cstring>
#include <filesystem>

#include "runtime/registry.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"
#include "tests/support/scheduled_tasks.h"
#include "tests/support/tool_recorder.h"
#include "tests/tasks/suite_installation.h"

namespace corvi::test {
namespace {

using testing::HasSubstr;
using Lines = std::vector<std::wstring>;

constexpr wchar_t kRunKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr wchar_t kDirectory[] = L"C:\\corvi\\install";

bool RunValueExists(const wchar_t* name) {
    return RegGetValueW(HKEY_LOCAL_MACHINE, kRunKey, name, RRF_RT_ANY, nullptr, nullptr, nullptr) ==
           ERROR_SUCCESS;
}

void AddRunValue(const wchar_t* name) {
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, kRunKey, name, REG_SZ, L"x.exe", 12);
}

// ---- What both create actions do

struct CreateAction {
    const char* action;
    const wchar_t* task;
    const wchar_t* program;
    const wchar_t* arguments;
    Lines successLines;
    Lines failureLines;
};

std::ostream& operator<<(std::ostream& stream, const CreateAction& action) { return stream << action.action; }

const CreateAction kCreateLogon{"CreateLogonSchTask",
                                L"StartHX",
                                L"hxcmd.exe",
                                L"startwithdelay",
                                {L"StartHX Scheduled task creation is successful", L"Win 11 only code"},
                                {L"StartHX Scheduled task creation failed", L"Win 11 only code"}};
const CreateAction kCreateRecording{"CreateDVRLogonSchTask", L"StartDVR", L"LSServCmd.exe", L"", {}, {}};

class CreateLogonTaskTest : public testing::TestWithParam<CreateAction> {
protected:
    CreateLogonTaskTest() { suite_.AddTaskFile(TaskFile()); }
    ~CreateLogonTaskTest() override { std::filesystem::remove(Copy()); }

    static std::wstring TaskFile() { return std::wstring(GetParam().task) + L".xml"; }
    static std::wstring Copy() { return TemporaryDirectory() + TaskFile(); }
    UINT Call() { return library_.Call(GetParam().action, session_.Handle()); }

    std::wstring CreateLine(const std::wstring& taskFile) const {
        return std::wstring(L"schtasks /Create /TN \"") + GetParam().task + L"\" /XML \"" + taskFile + L"\"";
    }
    std::wstring ChangeLine(const std::wstring& program) const {
        return std::wstring(L"schtasks /change /TN \"") + GetParam().task + L"\" /TR \"\\\"" + program +
               L"\\\" " + GetParam().arguments + L"\"";
    }

    Library library_;
    InstallerSession session_;
    SuiteInstallation suite_;
};

INSTANTIATE_TEST_SUITE_P(Actions, CreateLogonTaskTest, testing::Values(kCreateLogon, kCreateRecording),
                         [](const auto& parameter) { return std::string(parameter.param.action); });

class RecordedCreateTask : public CreateLogonTaskTest {
protected:
    RecordedCreateTask() { recorder_.StandInForSystemTool(L"schtasks.exe", exitCode_); }

    static constexpr unsigned exitCode_ = 1;
    ToolRecorder recorder_;
};

INSTANTIATE_TEST_SUITE_P(Actions, RecordedCreateTask, testing::Values(kCreateLogon, kCreateRecording),
                         [](const auto& parameter) { return std::string(parameter.param.action); });

TEST_P(RecordedCreateTask, CreatesTheTaskFromTheInstalledFileAndThenChangesItsProgram) {
    EXPECT_EQ(Call(), 0U) << "the tool's exit code is not read";
    const auto runs = recorder_.WaitForRuns(2);
    ASSERT_EQ(runs.size(), 2U);
    EXPECT_EQ(runs[0].program, L"schtasks.exe");
    EXPECT_EQ(runs[0].commandLine, CreateLine(kDirectory + (L'\\' + TaskFile())));
    EXPECT_EQ(runs[0].currentDirectory, kDirectory);
    EXPECT_EQ(runs[1].commandLine, ChangeLine(std::wstring(kDirectory) + L'\\' + GetParam().program));
    EXPECT_EQ(runs[1].currentDirectory, kDirectory);
    EXPECT_EQ(session_.LogLines(), GetParam().successLines);
}

TEST_P(RecordedCreateTask, ALocationEndingInABackslashDoublesTheSeparatorBeforeTheProgramOnly) {
    suite_.SetLocation(std::wstring(kDirectory) + L'\\');
    EXPECT_EQ(Call(), 0U);
    const auto runs = recorder_.WaitForRuns(2);
    ASSERT_EQ(runs.size(), 2U);
    EXPECT_EQ(runs[0].commandLine, CreateLine(kDirectory + (L'\\' + TaskFile())));
    EXPECT_EQ(runs[1].commandLine, ChangeLine(std::wstring(kDirectory) + L"\\\\" + GetParam().program));
}

TEST_P(RecordedCreateTask, ALocationEndingInASlashGetsNoBackslashBeforeTheTaskFile) {
    suite_.SetLocation(L"C:/corvi/install/");
    EXPECT_EQ(Call(), 0U);
    const auto runs = recorder_.WaitForRuns(2);
    ASSERT_EQ(runs.size(), 2U);
    EXPECT_EQ(runs[0].commandLine, CreateLine(L"C:/corvi/install/" + TaskFile()));
    EXPECT_EQ(runs[1].commandLine, ChangeLine(std::wstring(L"C:/corvi/install/\\") + GetParam().program));
}

TEST_P(RecordedCreateTask, ALocationWithBlanksAndOtherAlphabetsIsPassedAsItIs) {
    const std::wstring location = std::wstring(kDirectory) + L"\\\x00FC\x65E5 %TEMP% & b";
    std::filesystem::create_directories(location);
    suite_.SetLocation(location);
    EXPECT_EQ(Call(), 0U);
    const auto runs = recorder_.WaitForRuns(2);
    ASSERT_EQ(runs.size(), 2U);
    EXPECT_EQ(runs[0].commandLine, CreateLine(location + L'\\' + TaskFile()));
    EXPECT_EQ(runs[0].currentDirectory, location);
}

TEST_P(RecordedCreateTask, ALongLocationIsCutWithTheCommandLineAt259Characters) {
    std::wstring location = kDirectory;
    while (location.size() < 250) {
        location += L"\\" + std::wstring(std::min<size_t>(40, 249 - location.size()), L'd');
    }
    std::error_code ignored;
    std::filesystem::create_directories(location, ignored);
    suite_.SetLocation(location);
    ImportHooks hooks(library_.Module());
    Lines lines;
    CORVI_HOOK(hooks, CreateProcessW,
               [&](LPCWSTR, LPWSTR commandLine, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD,
                   LPVOID, LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL {
                   lines.emplace_back(commandLine);
                   SetLastError(ERROR_FILE_NOT_FOUND);
                   return FALSE;
               });
    ASSERT_TRUE(std::filesystem::exists(location));
    EXPECT_EQ(Call(), 0U);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0], CreateLine(location + L'\\' + TaskFile()).substr(0, 259));
    EXPECT_EQ(lines[1], ChangeLine(location + L'\\' + GetParam().program).substr(0, 259));
}

TEST_P(RecordedCreateTask, TheProcessesGetNoWindowAndOnlyTheFirstIsAwaited) {
    ImportHooks hooks(library_.Module());
    std::vector<DWORD> flags;
    std::vector<HANDLE> waits;
    CORVI_HOOK(
        hooks, CreateProcessW,
        [&](LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES processSecurity,
            LPSECURITY_ATTRIBUTES threadSecurity, BOOL inherit, DWORD creationFlags, LPVOID environment,
            LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION process) -> BOOL {
            flags.push_back(creationFlags);
            return CreateProcessW(application, commandLine, processSecurity, threadSecurity, inherit,
                                  creationFlags, environment, directory, startup, process);
        });
    CORVI_HOOK(hooks, WaitForSingleObject, [&](HANDLE handle, DWORD milliseconds) -> DWORD {
        if (milliseconds == INFINITE) {
            waits.push_back(handle);
        }
        return WaitForSingleObject(handle, milliseconds);
    });
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(flags, (std::vector<DWORD>{CREATE_NO_WINDOW, CREATE_NO_WINDOW}));
    EXPECT_EQ(waits.size(), 1U);
    recorder_.WaitForRuns(2);
}

TEST_P(RecordedCreateTask, TheRewrittenCopyIsLeftInTheTemporaryDirectoryAndNotUsed) {
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(ReadUtf16(Copy()), HasSubstr(L">C:\\corvi\\install</WorkingDirectory>"));
    EXPECT_THAT(ReadUtf16(kDirectory + (L'\\' + TaskFile())), HasSubstr(L"<WorkingDirectory>old"));
    recorder_.WaitForRuns(2);
}

TEST_P(RecordedCreateTask, TheCopyIsCompleteBeforeTheFirstCommandRuns) {
    ImportHooks hooks(library_.Module());
    Lines copies;
    CORVI_HOOK(hooks, CreateProcessW,
               [&](LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID,
                   LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL {
                   copies.push_back(ReadUtf16(Copy()));
                   return FALSE;
               });
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(copies, testing::ElementsAre(HasSubstr(L"</Task>"), HasSubstr(L"</Task>")));
}

TEST_P(RecordedCreateTask, TheCopyHoldsTheLocationAsItIsRegistered) {
    suite_.SetLocation(std::wstring(kDirectory) + L'\\');
    EXPECT_EQ(Call(), 0U);
    EXPECT_THAT(ReadUtf16(Copy()), HasSubstr(L">C:\\corvi\\install\\</WorkingDirectory>"));
    recorder_.WaitForRuns(2);
}

TEST_P(RecordedCreateTask, WithoutATemporaryDirectoryTheCommandsRunAllTheSame) {
    ImportHooks hooks(library_.Module());
    Lines written;
    CORVI_HOOK(hooks, GetTempPathW, [](DWORD, LPWSTR) -> DWORD { return 0; });
    CORVI_HOOK(hooks, CreateFileW,
               [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD creation,
                   DWORD attributes, HANDLE templateFile) -> HANDLE {
                   if (access == GENERIC_WRITE) {
                       written.emplace_back(path);
                   }
                   return CreateFileW(path, access, share, security, creation, attributes, templateFile);
               });
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(written, Lines{L""}) << "the path of the copy stays empty as a whole";
    EXPECT_EQ(recorder_.WaitForRuns(2).size(), 2U);
}

TEST_P(RecordedCreateTask, AMissingTaskFileIsNotNoticed) {
    std::filesystem::remove(kDirectory + (L'\\' + TaskFile()));
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(recorder_.WaitForRuns(2).size(), 2U);
    EXPECT_EQ(session_.LogLines(), GetParam().successLines);
}

TEST_P(RecordedCreateTask, ALocationThatIsAFileExistsButNoToolCanBeStartedInIt) {
    WriteBytes(L"C:\\corvi\\location.txt", "");
    suite_.SetLocation(L"C:\\corvi\\location.txt");
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(session_.LogLines(), GetParam().successLines);
    EXPECT_TRUE(recorder_.Runs().empty());
    std::filesystem::remove(L"C:\\corvi\\location.txt");
}

TEST_P(RecordedCreateTask, ALocationThatDoesNotExistFailsTheInstall) {
    for (const wchar_t* location : {L"C:\\corvi\\gone", L"", L"C:\\corvi\\\"install\""}) {
        session_.ClearMessages();
        suite_.SetLocation(location);
        EXPECT_EQ(Call(), 1603U);
        EXPECT_EQ(session_.LogLines(), GetParam().failureLines);
    }
    EXPECT_TRUE(recorder_.Runs().empty());
    EXPECT_FALSE(std::filesystem::exists(Copy()));
}

TEST_P(RecordedCreateTask, TheOldAutostartEntryIsDeletedFirst) {
    AddRunValue(GetParam().task);
    AddRunValue(L"SomethingElse");
    suite_.SetLocation(L"C:\\corvi\\gone");
    EXPECT_EQ(Call(), 1603U);
    EXPECT_FALSE(RunValueExists(GetParam().task));
    EXPECT_TRUE(RunValueExists(L"SomethingElse"));
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kRunKey, L"SomethingElse");
}

TEST_P(CreateLogonTaskTest, AToolThatCannotBeStartedIsNotNoticed) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, CreateProcessW,
               [&](LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID,
                   LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL {
                   SetLastError(ERROR_FILE_NOT_FOUND);
                   return FALSE;
               });
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(session_.LogLines(), GetParam().successLines);
}

// ---- The registry errors that leave the create actions

LSTATUS CodeOfRegistryError(const std::function<void()>& call, std::string& text) {
    try {
        call();
    } catch (const std::system_error& error) {
        text = error.what();
        return error.code().value();
    }
    return ERROR_SUCCESS;
}

TEST_P(CreateLogonTaskTest, AMissingInstallKeyLetsTheRegistryErrorOut) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, suite_.Key().Path().c_str());
    AddRunValue(GetParam().task);
    std::string text;
    EXPECT_EQ(CodeOfRegistryError([&] { Call(); }, text), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(text, RegKeyError(ERROR_FILE_NOT_FOUND, "Unable to open registry key").what());
    EXPECT_FALSE(RunValueExists(GetParam().task)) << "deleted before the key is opened";
    EXPECT_TRUE(session_.LogLines().empty());
}

TEST_P(CreateLogonTaskTest, TheInstallKeyIsOpenedForReadingAndWriting) {
    ImportHooks hooks(library_.Module());
    std::vector<REGSAM> masks;
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   if (root == HKEY_LOCAL_MACHINE && path == suite_.Key().Path()) {
                       masks.push_back(access);
                       return ERROR_ACCESS_DENIED;
                   }
                   return RegOpenKeyExW(root, path, options, access, key);
               });
    std::string text;
    EXPECT_EQ(CodeOfRegistryError([&] { Call(); }, text), ERROR_ACCESS_DENIED);
    EXPECT_EQ(masks, std::vector<REGSAM>{0x2001F});
}

TEST_P(CreateLogonTaskTest, AMissingLocationLetsTheRegistryErrorOut) {
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, suite_.Key().Path().c_str(), L"Location");
    std::string text;
    EXPECT_EQ(CodeOfRegistryError([&] { Call(); }, text), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(text, RegKeyError(ERROR_FILE_NOT_FOUND, "Unable to get registry value").what());
}

TEST_P(CreateLogonTaskTest, ALocationOfAnotherTypeLetsTheRegistryErrorOut) {
    suite_.Key().SetNumber(L"", L"Location", 1);
    std::string text;
    EXPECT_EQ(CodeOfRegistryError([&] { Call(); }, text), ERROR_UNSUPPORTED_TYPE);
    EXPECT_EQ(text, RegKeyError(ERROR_UNSUPPORTED_TYPE, "Unable to get registry value").what());
}

// ---- On the platform's own tool

TEST_P(CreateLogonTaskTest, TheTaskExistsAfterwardsAndTheRemovalDeletesIt) {
    EXPECT_EQ(Call(), 0U);
    EXPECT_TRUE(TaskExists(GetParam().task));
    const bool isRecording = std::wstring(GetParam().task) == L"StartDVR";
    EXPECT_EQ(
        library_.Call(isRecording ? "RemoveDVRSchedularTask" : "RemoveHXSchedularTask", session_.Handle()),
        1U);
    EXPECT_FALSE(TaskExists(GetParam().task));
}

TEST_P(CreateLogonTaskTest, AnExistingTaskIsNoError) {
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(Call(), 0U);
    EXPECT_TRUE(TaskExists(GetParam().task));
    RemoveTask(GetParam().task);
}

// ---- The shell's notification

class ShellNotification : public testing::Test {
protected:
    ShellNotification() {
        CORVI_HOOK(hooks_, SHChangeNotify, [this](LONG event, UINT flags, LPCVOID first, LPCVOID second) {
            events_.push_back(event);
            logLinesBefore_ = session_.LogLines().size();
            EXPECT_EQ(flags, 0U);
            EXPECT_EQ(first, nullptr);
            EXPECT_EQ(second, nullptr);
        });
    }

    Library library_;
    InstallerSession session_;
    SuiteInstallation suite_;
    ImportHooks hooks_{library_.Module()};
    std::vector<LONG> events_;
    size_t logLinesBefore_ = 0;
};

TEST_F(ShellNotification, IsSentAfterTheLastLineOnSuccessAndOnFailure) {
    ToolRecorder recorder;
    recorder.StandInForSystemTool(L"schtasks.exe");
    library_.Call("CreateLogonSchTask", session_.Handle());
    EXPECT_EQ(events_, std::vector<LONG>{0x08000000});
    EXPECT_EQ(logLinesBefore_, 2U);
    suite_.SetLocation(L"C:\\corvi\\gone");
    library_.Call("CreateLogonSchTask", session_.Handle());
    EXPECT_EQ(events_, (std::vector<LONG>{0x08000000, 0x08000000}));
    recorder.WaitForRuns(2);
}

TEST_F(ShellNotification, IsNotSentForTheRecordingServer) {
    suite_.SetLocation(L"C:\\corvi\\gone");
    library_.Call("CreateDVRLogonSchTask", session_.Handle());
    EXPECT_TRUE(events_.empty());
}

// ---- The actions of one command

struct CommandAction {
    const char* action;
    const wchar_t* commandLine;
    UINT started;
    UINT notStarted;
};

std::ostream& operator<<(std::ostream& stream, const CommandAction& action) {
    return stream << action.action;
}

class CommandActionTest : public testing::TestWithParam<CommandAction> {
protected:
    UINT Call() { return library_.Call(GetParam().action, session_.Handle()); }

    Library library_;
    InstallerSession session_;
};

INSTANTIATE_TEST_SUITE_P(
    Actions, CommandActionTest,
    testing::Values(CommandAction{"RemoveHXSchedularTask", L"schtasks /delete /TN \"StartHX\" /F", 1, 0},
                    CommandAction{"RemoveDVRSchedularTask", L"schtasks /delete /TN \"StartDVR\" /F", 1, 0},
                    CommandAction{"LaunchHX", L"schtasks /run /TN \"StartHX\"", 1, 1}),
    [](const auto& parameter) { return std::string(parameter.param.action); });

TEST_P(CommandActionTest, RunsItsCommandInTheCurrentDirectoryAndWaits) {
    ToolRecorder recorder;
    recorder.StandInForSystemTool(L"schtasks.exe", 1);
    EXPECT_EQ(Call(), GetParam().started) << "the tool's exit code is not read";
    const auto runs = recorder.Runs();
    ASSERT_EQ(runs.size(), 1U) << "it has ended when the action returns";
    EXPECT_EQ(runs[0].commandLine, GetParam().commandLine);
    EXPECT_EQ(runs[0].currentDirectory, std::filesystem::current_path().wstring());
    EXPECT_TRUE(session_.LogLines().empty());
}

TEST_P(CommandActionTest, AnswersForAToolThatCannotBeStarted) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, CreateProcessW,
               [&](LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID,
                   LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL {
                   SetLastError(ERROR_FILE_NOT_FOUND);
                   return FALSE;
               });
    EXPECT_EQ(Call(), GetParam().notStarted);
    EXPECT_TRUE(session_.LogLines().empty());
}

TEST_P(CommandActionTest, AMissingTaskMakesNoDifference) { EXPECT_EQ(Call(), GetParam().started); }

// ---- DeleteSchedTaskonBranding

class Branding : public testing::Test {
protected:
    Branding() { recorder_.StandInForSystemTool(L"schtasks.exe"); }

    Lines Commands() {
        EXPECT_EQ(library_.Call("DeleteSchedTaskonBranding", session_.Handle()), 0U);
        EXPECT_TRUE(session_.LogLines().empty());
        Lines commands;
        for (const RecordedRun& run : recorder_.Runs()) {
            commands.push_back(run.commandLine);
        }
        return commands;
    }

    Library library_;
    InstallerSession session_;
    ToolRecorder recorder_;
};

TEST_F(Branding, ALazeStartOfOneDeletesTheTask) {
    ScratchKey key(L"SOFTWARE\\TAVO\\HX");
    key.SetNumber(L"", L"LazeStart", 1);
    EXPECT_EQ(Commands(), Lines{L"schtasks /delete /TN \"StartHX\" /F"});
}

TEST_F(Branding, AnythingButTheThirtyTwoBitOneLeavesTheTask) {
    ScratchKey key(L"SOFTWARE\\TAVO\\HX");
    EXPECT_TRUE(Commands().empty()) << "missing";
    for (const DWORD number : {0U, 2U, 0x10001U, 0xFFFFFFFFU}) {
        key.SetNumber(L"", L"LazeStart", number);
        EXPECT_TRUE(Commands().empty()) << number;
    }
    key.SetText(L"", L"LazeStart", L"1");
    EXPECT_TRUE(Commands().empty()) << "a text";
    const ULONGLONG wide = 1;
    key.SetValue(L"", L"LazeStart", REG_QWORD, &wide, sizeof(wide));
    EXPECT_TRUE(Commands().empty()) << "64 bits";
    key.SetValue(L"", L"LazeStart", REG_BINARY, &wide, 1);
    EXPECT_TRUE(Commands().empty()) << "8 bits";
}

TEST_F(Branding, AMissingKeyLeavesTheTask) { EXPECT_TRUE(Commands().empty()); }

TEST_F(Branding, TheKeyIsOpenedForReadingAndAValueThatCannotBeReadLeavesTheTask) {
    ScratchKey key(L"SOFTWARE\\TAVO\\HX");
    key.SetNumber(L"", L"LazeStart", 1);
    ImportHooks hooks(library_.Module());
    REGSAM mask = 0;
    DWORD offered = 0;
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY opened) -> LSTATUS {
                   mask = access;
                   return RegOpenKeyExW(root, path, options, access, opened);
               });
    CORVI_HOOK(hooks, RegQueryValueExW,
               [&](HKEY, LPCWSTR, LPDWORD, LPDWORD, LPBYTE data, LPDWORD size) -> LSTATUS {
                   offered = *size;
                   const DWORD one = 1;
                   std::memcpy(data, &one, sizeof(one));
                   return ERROR_ACCESS_DENIED;
               });
    EXPECT_TRUE(Commands().empty());
    EXPECT_EQ(mask, static_cast<REGSAM>(KEY_READ));
    EXPECT_EQ(offered, 4U);
}

TEST(LaunchAndBranding, WorkOnTheRealTask) {
    Library library;
    InstallerSession session;
    SuiteInstallation suite;
    suite.AddTaskFile(L"StartHX.xml");
    ScratchKey key(L"SOFTWARE\\TAVO\\HX");
    key.SetNumber(L"", L"LazeStart", 1);
    EXPECT_EQ(library.Call("CreateLogonSchTask", session.Handle()), 0U);
    EXPECT_EQ(library.Call("LaunchHX", session.Handle()), 1U);
    EXPECT_TRUE(TaskExists(L"StartHX"));
    EXPECT_EQ(library.Call("DeleteSchedTaskonBranding", session.Handle()), 0U);
    EXPECT_FALSE(TaskExists(L"StartHX"));
}

}  // namespace
}  // namespace corvi::test
