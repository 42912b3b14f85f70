#include "runtime/process.h"

#include <windows.h>

#include <msiquery.h>
#include <shellapi.h>
#include <shlobj.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <optional>

#include "runtime/kernel_handle.h"
#include "runtime/text.h"
#include "tests/support/handle_count.h"
#include "tests/support/import_hooks.h"
#include "tests/support/installer_session.h"
#include "tests/support/tool_recorder.h"

namespace corvi::test {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;

constexpr wchar_t kChild[] = L"C:\\corvi\\child.exe";
constexpr wchar_t kReleaseEvent[] = L"CorviTestRelease";
constexpr wchar_t kDeafEvent[] = L"CorviTestDeaf";
constexpr DWORD kPatience = 20000;

std::wstring Child(const std::wstring& arguments) { return std::wstring(kChild) + L" " + arguments; }

struct RunningProcess {
    KernelHandle process;
    KernelHandle thread;
};

RunningProcess StartProcess(std::wstring commandLine) {
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION started{};
    EXPECT_NE(CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                             nullptr, &startup, &started),
              FALSE)
        << GetLastError();
    return {KernelHandle(started.hProcess), KernelHandle(started.hThread)};
}

// A process that has ended with a code. Its handle stands in for children whose start is not the point.
RunningProcess EndedProcess(DWORD exitCode) {
    RunningProcess result = StartProcess(Child(L"exit " + std::to_wstring(exitCode)));
    WaitForSingleObject(result.process.Get(), kPatience);
    return result;
}

HANDLE Duplicate(const KernelHandle& handle) {
    HANDLE copy = nullptr;
    DuplicateHandle(GetCurrentProcess(), handle.Get(), GetCurrentProcess(), &copy, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
    return copy;
}

KernelHandle Event(const wchar_t* name) { return KernelHandle(CreateEventW(nullptr, TRUE, FALSE, name)); }

bool HasEnded(HANDLE process) { return WaitForSingleObject(process, 0) == WAIT_OBJECT_0; }

void ExpectNoHandleLeaks(const std::function<void()>& operation) {
    operation();
    const unsigned long before = OpenHandleCount();
    for (int call = 0; call < 200; ++call) {
        operation();
    }
    EXPECT_EQ(OpenHandleCount(), before);
}

struct ProcessStart {
    bool hasApplication;
    std::wstring commandLine;
    bool inheritHandles;
    DWORD flags;
    bool hasEnvironment;
    std::optional<std::wstring> directory;
    STARTUPINFOW startup;
};

struct ShellStart {
    DWORD size;
    ULONG mask;
    HWND window;
    std::wstring verb;
    std::wstring file;
    std::wstring parameters;
    bool hasDirectory;
    int show;
};

struct SentLine {
    MSIHANDLE session;
    std::wstring text;
};

class ProcessTest : public testing::Test {
protected:
    // Notes every process start and answers it with the handles of an ended process.
    void AnswerStartsWith(DWORD exitCode) {
        ended_ = EndedProcess(exitCode);
        NoteStarts([this](LPPROCESS_INFORMATION started) {
            started->hProcess = Duplicate(ended_.process);
            started->hThread = Duplicate(ended_.thread);
            return TRUE;
        });
    }

    void RefuseStarts(DWORD error) {
        NoteStarts([error](LPPROCESS_INFORMATION) {
            SetLastError(error);
            return FALSE;
        });
    }

    void NoteShellStarts(std::function<BOOL(SHELLEXECUTEINFOW&)> answer) {
        CORVI_HOOK(hooks_, ShellExecuteExW, [this, answer](SHELLEXECUTEINFOW* info) -> BOOL {
            shellStarts_.push_back({info->cbSize, info->fMask, info->hwnd, info->lpVerb, info->lpFile,
                                    info->lpParameters, info->lpDirectory != nullptr, info->nShow});
            return answer(*info);
        });
    }

    void AnswerShellStartsWith(DWORD exitCode) {
        ended_ = EndedProcess(exitCode);
        NoteShellStarts([this](SHELLEXECUTEINFOW& info) {
            info.hProcess = Duplicate(ended_.process);
            return TRUE;
        });
    }

    // Notes the lines that are sent to the installer, with the handle that they are sent to.
    void NoteLines() {
        CORVI_HOOK(hooks_, MsiRecordSetStringW, [this](MSIHANDLE, UINT, LPCWSTR text) -> UINT {
            lastText_ = text;
            return ERROR_SUCCESS;
        });
        CORVI_HOOK(hooks_, MsiProcessMessage, [this](MSIHANDLE session, INSTALLMESSAGE, MSIHANDLE) -> int {
            lines_.push_back({session, lastText_});
            return 0;
        });
    }

    // Calls body before each question for waiting bytes; its result false makes the question fail.
    void BeforeEachPeek(std::function<bool()> body) {
        CORVI_HOOK(hooks_, PeekNamedPipe,
                   [this, body](HANDLE pipe, LPVOID buffer, DWORD size, PDWORD read, PDWORD waiting,
                                PDWORD left) -> BOOL {
                       if (!body()) {
                           SetLastError(ERROR_BROKEN_PIPE);
                           return FALSE;
                       }
                       return CORVI_ORIGINAL(hooks_, PeekNamedPipe)(pipe, buffer, size, read, waiting, left);
                   });
    }

    // Keeps the handle of the process whose exit code is asked for.
    void NoteAskedProcess() {
        CORVI_HOOK(hooks_, GetExitCodeProcess, [this](HANDLE process, LPDWORD exitCode) -> BOOL {
            askedProcess_ = process;
            return CORVI_ORIGINAL(hooks_, GetExitCodeProcess)(process, exitCode);
        });
    }

    ImportHooks hooks_{GetModuleHandleW(nullptr)};
    std::vector<ProcessStart> starts_;
    std::vector<ShellStart> shellStarts_;
    std::vector<SentLine> lines_;
    HANDLE askedProcess_ = nullptr;

private:
    void NoteStarts(std::function<BOOL(LPPROCESS_INFORMATION)> answer) {
        CORVI_HOOK(
            hooks_, CreateProcessW,
            [this, answer](LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES,
                           LPSECURITY_ATTRIBUTES, BOOL inherit, DWORD flags, LPVOID environment,
                           LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION started) -> BOOL {
                starts_.push_back(
                    {application != nullptr, commandLine, inherit != FALSE, flags, environment != nullptr,
                     directory == nullptr ? std::optional<std::wstring>() : directory, *startup});
                return answer(started);
            });
    }

    RunningProcess ended_;
    std::wstring lastText_;
};

class RunCommandlineTest : public ProcessTest {
protected:
    int Run(const std::wstring& command, const wchar_t* directory = nullptr) {
        return RunCommandline(command, directory, session_.Handle());
    }
    std::vector<std::wstring> Log() const { return session_.LogLines(); }

    // Makes the pipe hold these pieces, one a round; the child has ended when the last one is read.
    void ServeOutput(const std::vector<std::string>& pieces) {
        AnswerStartsWith(0);
        pieces_ = pieces;
        CORVI_HOOK(hooks_, GetExitCodeProcess, [this](HANDLE, LPDWORD exitCode) -> BOOL {
            *exitCode = next_ + 1 < pieces_.size() ? STILL_ACTIVE : 0;
            return TRUE;
        });
        CORVI_HOOK(hooks_, PeekNamedPipe,
                   [this](HANDLE, LPVOID, DWORD, PDWORD, PDWORD waiting, PDWORD) -> BOOL {
                       *waiting = static_cast<DWORD>(pieces_[next_].size());
                       return TRUE;
                   });
        CORVI_HOOK(hooks_, ReadFile,
                   [this](HANDLE, LPVOID buffer, DWORD size, LPDWORD read, LPOVERLAPPED) -> BOOL {
                       const std::string piece = pieces_[next_++];
                       EXPECT_EQ(size, piece.size() * 2);
                       std::copy(piece.begin(), piece.end(), static_cast<char*>(buffer));
                       *read = static_cast<DWORD>(piece.size());
                       return TRUE;
                   });
    }

    InstallerSession session_;

private:
    std::vector<std::string> pieces_;
    size_t next_ = 0;
};

TEST_F(RunCommandlineTest, ACommandThatPrintsNothingAndExits3LogsAnEmptyOutputAndReturns3) {
    EXPECT_EQ(Run(Child(L"exit 3")), 3);
    EXPECT_THAT(Log(), ElementsAre(L"RunCommandline: C:\\corvi\\child.exe exit 3 - \n"));
}

TEST_F(RunCommandlineTest, ExitCode0AndOutputAreReported) {
    EXPECT_EQ(Run(Child(L"say hello")), 0);
    EXPECT_THAT(Log(), ElementsAre(L"RunCommandline: C:\\corvi\\child.exe say hello - hello\n"));
}

TEST_F(RunCommandlineTest, TheExitCodeOfACrashComesThroughAsItIs) {
    EXPECT_EQ(Run(Child(L"exit 0xC0000005")), static_cast<int>(0xC0000005));
    EXPECT_THAT(Log(), SizeIs(1));
}

TEST_F(RunCommandlineTest, AChildThatEndedWith259IsTakenForARunningOneUntilThePipeCannotBeAsked) {
    AnswerStartsWith(259);
    int rounds = 0;
    BeforeEachPeek([&] { return ++rounds < 50; });
    EXPECT_EQ(Run(L"x"), 259);
    EXPECT_EQ(rounds, 50);
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RunCommandlineTest, StandardErrorIsCollectedToo) {
    EXPECT_EQ(Run(Child(L"complain oops")), 0);
    EXPECT_THAT(Log(), ElementsAre(EndsWith(L" - oops\n")));
}

TEST_F(RunCommandlineTest, AMegabyteOfOutputIsReadToItsEndAndTheLineIsCutAt519Characters) {
    size_t total = 0;
    CORVI_HOOK(hooks_, ReadFile,
               [&](HANDLE file, LPVOID buffer, DWORD size, LPDWORD read, LPOVERLAPPED overlapped) -> BOOL {
                   const BOOL result = CORVI_ORIGINAL(hooks_, ReadFile)(file, buffer, size, read, overlapped);
                   total += *read;
                   return result;
               });
    EXPECT_EQ(Run(Child(L"print 1048576")), 0);
    EXPECT_EQ(total, 1048576U);
    const std::wstring start = L"RunCommandline: C:\\corvi\\child.exe print 1048576 - ";
    EXPECT_THAT(Log(), ElementsAre(start + std::wstring(519 - start.size(), L'x')));
}

TEST_F(RunCommandlineTest, AChildThatClosesItsOutputEarlyAndLivesOnIsWaitedFor) {
    const KernelHandle deaf = Event(kDeafEvent);
    const KernelHandle release = Event(kReleaseEvent);
    NoteAskedProcess();
    int roundsAfterItClosed = 0;
    BeforeEachPeek([&] {
        if (HasEnded(deaf.Get()) && ++roundsAfterItClosed == 100) {
            EXPECT_FALSE(HasEnded(askedProcess_));
            SetEvent(release.Get());
        }
        return true;
    });
    EXPECT_EQ(Run(Child(L"deaf CorviTestDeaf CorviTestRelease")), 0);
    EXPECT_GE(roundsAfterItClosed, 100);
    EXPECT_THAT(Log(), SizeIs(1));
}

TEST_F(RunCommandlineTest, AGrandchildThatHoldsThePipeIsNotWaitedFor) {
    const KernelHandle release = Event(kReleaseEvent);
    EXPECT_EQ(Run(Child(L"parent CorviTestRelease")), 0);
    EXPECT_THAT(Log(), SizeIs(1));
    SetEvent(release.Get());
}

TEST_F(RunCommandlineTest, AStartThatFailsOverAMissingWorkingDirectoryReturns267AndLogsNothing) {
    EXPECT_EQ(Run(Child(L"exit 0"), L"C:\\no such folder"), 267);
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RunCommandlineTest, AnyOtherErrorOfTheStartIsReturnedAndNothingLogged) {
    RefuseStarts(ERROR_ACCESS_DENIED);
    EXPECT_EQ(Run(L"x"), 5);
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RunCommandlineTest, AFailedStartThatSetsNoErrorIsNoSuccessEither) {
    RefuseStarts(ERROR_SUCCESS);
    EXPECT_NE(Run(L"x"), 0);
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RunCommandlineTest, AnExitCodeThatCannotBeReadEndsTheWaitWithThePlatformErrorAndLogsNothing) {
    AnswerStartsWith(0);
    DWORD error = ERROR_ACCESS_DENIED;
    int reads = 0;
    CORVI_HOOK(hooks_, GetExitCodeProcess, [&](HANDLE, LPDWORD) -> BOOL {
        ++reads;
        SetLastError(error);
        return FALSE;
    });
    EXPECT_EQ(Run(L"x"), ERROR_ACCESS_DENIED);
    EXPECT_EQ(reads, 1);
    error = ERROR_SUCCESS;
    EXPECT_NE(Run(L"x"), 0) << "success is told by an exit code alone";
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RunCommandlineTest, AnExitCodeThatCannotBeReadAnyMoreEndsTheWaitWhileTheChildRuns) {
    const KernelHandle release = Event(kReleaseEvent);
    int reads = 0;
    CORVI_HOOK(hooks_, GetExitCodeProcess, [&](HANDLE process, LPDWORD exitCode) -> BOOL {
        if (++reads > 2) {
            SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        }
        return CORVI_ORIGINAL(hooks_, GetExitCodeProcess)(process, exitCode);
    });
    EXPECT_EQ(Run(Child(L"wait CorviTestRelease")), ERROR_INVALID_HANDLE);
    SetEvent(release.Get());
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RunCommandlineTest, AVeryLongCommandIsPassedWhole) {
    RefuseStarts(ERROR_FILENAME_EXCED_RANGE);
    const std::wstring command(40000, L'x');
    EXPECT_EQ(Run(command), ERROR_FILENAME_EXCED_RANGE);
    ASSERT_THAT(starts_, SizeIs(1));
    EXPECT_EQ(starts_[0].commandLine, L"cmd.exe /C \"" + command + L"\"");
}

TEST_F(RunCommandlineTest, RunsInTheGivenDirectoryAndTheCurrentOneOtherwise) {
    wchar_t current[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, current);
    Run(L"cd", L"C:\\corvi");
    Run(L"cd", nullptr);
    Run(L"cd", L"");
    const std::wstring here = L"RunCommandline: cd - " + std::wstring(current) + L"\r\n\n";
    EXPECT_THAT(Log(), ElementsAre(L"RunCommandline: cd - C:\\corvi\r\n\n", here, here));
}

TEST_F(RunCommandlineTest, AnEmptyWorkingDirectoryIsPassedAsNoneAndAnotherAsGiven) {
    AnswerStartsWith(0);
    Run(L"x", L"");
    Run(L"x", nullptr);
    Run(L"x", L"C:\\no such folder");
    ASSERT_THAT(starts_, SizeIs(3));
    EXPECT_EQ(starts_[0].directory, std::nullopt);
    EXPECT_EQ(starts_[1].directory, std::nullopt);
    EXPECT_EQ(starts_[2].directory, L"C:\\no such folder");
}

TEST_F(RunCommandlineTest, TheInterpreterReceivesTheCommandBetweenQuotesWithItsInnerQuotesUntouched) {
    ToolRecorder tools;
    tools.StandInForSystemTool(L"cmd.exe", 4);
    EXPECT_EQ(Run(L"\"C:\\a b\\t.exe\" \"x y\" %PATH% z\\"), 4);
    const auto runs = tools.Runs();
    ASSERT_THAT(runs, SizeIs(1));
    EXPECT_EQ(runs[0].commandLine, L"cmd.exe /C \"\"C:\\a b\\t.exe\" \"x y\" %PATH% z\\\"");
}

TEST_F(RunCommandlineTest, AProgramBehindTheInterpreterReceivesItsOwnQuotes) {
    ToolRecorder tools;
    tools.StandInFor(L"C:\\corvi\\a b\\tool.exe", 5);
    EXPECT_EQ(Run(L"\"C:\\corvi\\a b\\tool.exe\" \"x y\" z"), 5);
    const auto runs = tools.Runs();
    ASSERT_THAT(runs, SizeIs(1));
    EXPECT_EQ(runs[0].commandLine, L"\"C:\\corvi\\a b\\tool.exe\" \"x y\" z");
}

TEST_F(RunCommandlineTest, PercentSignsInCommandAndOutputAreNoFormat) {
    EXPECT_EQ(Run(Child(L"say %s%n%d")), 0);
    EXPECT_THAT(Log(), ElementsAre(L"RunCommandline: C:\\corvi\\child.exe say %s%n%d - %s%n%d\n"));
}

TEST_F(RunCommandlineTest, StartsTheInterpreterHiddenWithItsOutputOnThePipe) {
    struct MadePipe {
        HANDLE readEnd;
        HANDLE writeEnd;
    };
    std::vector<MadePipe> pipes;
    std::vector<HANDLE> notInherited;
    CORVI_HOOK(hooks_, CreatePipe,
               [&](PHANDLE readEnd, PHANDLE writeEnd, LPSECURITY_ATTRIBUTES security, DWORD size) -> BOOL {
                   EXPECT_EQ(size, 4096U);
                   EXPECT_EQ(security->nLength, 24U);
                   EXPECT_EQ(security->bInheritHandle, TRUE);
                   EXPECT_EQ(security->lpSecurityDescriptor, nullptr);
                   const BOOL made = CORVI_ORIGINAL(hooks_, CreatePipe)(readEnd, writeEnd, security, size);
                   pipes.push_back({*readEnd, *writeEnd});
                   return made;
               });
    CORVI_HOOK(hooks_, SetHandleInformation, [&](HANDLE handle, DWORD mask, DWORD flags) -> BOOL {
        EXPECT_EQ(mask, DWORD{HANDLE_FLAG_INHERIT});
        EXPECT_EQ(flags, 0U);
        notInherited.push_back(handle);
        return TRUE;
    });
    AnswerStartsWith(0);
    Run(L"x");
    ASSERT_THAT(pipes, SizeIs(2));
    EXPECT_THAT(notInherited, ElementsAre(pipes[0].readEnd, pipes[1].writeEnd));
    ASSERT_THAT(starts_, SizeIs(1));
    const ProcessStart& start = starts_[0];
    EXPECT_FALSE(start.hasApplication);
    EXPECT_EQ(start.commandLine, L"cmd.exe /C \"x\"");
    EXPECT_TRUE(start.inheritHandles);
    EXPECT_EQ(start.flags, 0x08000000U);
    EXPECT_FALSE(start.hasEnvironment);
    EXPECT_EQ(start.startup.cb, 104U);
    EXPECT_EQ(start.startup.dwFlags, DWORD{STARTF_USESTDHANDLES});
    EXPECT_EQ(start.startup.hStdInput, nullptr);
    EXPECT_EQ(start.startup.hStdOutput, pipes[0].writeEnd);
    EXPECT_EQ(start.startup.hStdError, pipes[0].writeEnd);
}

TEST_F(RunCommandlineTest, TheCommandRunsEvenWhenNoPipeCanBeMade) {
    int asked = 0;
    CORVI_HOOK(hooks_, CreatePipe, [&](PHANDLE, PHANDLE, LPSECURITY_ATTRIBUTES, DWORD) -> BOOL {
        ++asked;
        SetLastError(ERROR_TOO_MANY_OPEN_FILES);
        return FALSE;
    });
    AnswerStartsWith(7);
    // Without a pipe there is nothing to ask: the loop ends in its first round, and nothing is logged.
    EXPECT_EQ(Run(L"x"), 7);
    EXPECT_EQ(asked, 2);
    EXPECT_THAT(starts_, SizeIs(1));
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RunCommandlineTest, AFailureOfTheSecondPipeChangesNothing) {
    int asked = 0;
    CORVI_HOOK(hooks_, CreatePipe,
               [&](PHANDLE readEnd, PHANDLE writeEnd, LPSECURITY_ATTRIBUTES security, DWORD size) -> BOOL {
                   return ++asked == 2
                              ? FALSE
                              : CORVI_ORIGINAL(hooks_, CreatePipe)(readEnd, writeEnd, security, size);
               });
    EXPECT_EQ(Run(Child(L"say hello")), 0);
    EXPECT_THAT(Log(), ElementsAre(EndsWith(L" - hello\n")));
}

TEST_F(RunCommandlineTest, FailuresToStopTheInheritanceAreIgnored) {
    CORVI_HOOK(hooks_, SetHandleInformation, [](HANDLE, DWORD, DWORD) -> BOOL { return FALSE; });
    EXPECT_EQ(Run(Child(L"say hello")), 0);
    EXPECT_THAT(Log(), ElementsAre(EndsWith(L" - hello\n")));
}

TEST_F(RunCommandlineTest, APipeThatCannotBeAskedMidRunGives259AndLogsNothing) {
    const KernelHandle release = Event(kReleaseEvent);
    int rounds = 0;
    BeforeEachPeek([&] { return ++rounds < 20; });
    EXPECT_EQ(Run(Child(L"wait CorviTestRelease")), 259);
    EXPECT_EQ(rounds, 20);
    EXPECT_THAT(Log(), IsEmpty());
    SetEvent(release.Get());
}

TEST_F(RunCommandlineTest, APipeThatCannotBeAskedAfterTheEndGivesTheExitCodeAndLogsNothing) {
    AnswerStartsWith(3);
    BeforeEachPeek([] { return false; });
    EXPECT_EQ(Run(L"x"), 3);
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RunCommandlineTest, TheLineShowsTheOutputUpToThePaddingOfTheFirstRead) {
    ServeOutput({"first", "second"});
    EXPECT_EQ(Run(L"x"), 0);
    EXPECT_THAT(Log(), ElementsAre(L"RunCommandline: x - first\n"));
}

TEST_F(RunCommandlineTest, AReadThatFailsOrGivesNothingAddsNothing) {
    ServeOutput({"lost", "empty", "kept"});
    auto& serve = HookTarget<"ReadFile", decltype(ReadFile)>::body;
    int round = 0;
    CORVI_HOOK(hooks_, ReadFile,
               [&, serve = serve](HANDLE file, LPVOID buffer, DWORD size, LPDWORD read,
                                  LPOVERLAPPED overlapped) -> BOOL {
                   const BOOL result = serve(file, buffer, size, read, overlapped);
                   ++round;
                   if (round == 2) {
                       *read = 0;
                   }
                   return round == 1 ? FALSE : result;
               });
    EXPECT_EQ(Run(L"x"), 0);
    EXPECT_THAT(Log(), ElementsAre(L"RunCommandline: x - kept\n"));
}

TEST_F(RunCommandlineTest, OutputIsWidenedFromTheConsolesCodePage) {
    ServeOutput({"\x82"});
    CORVI_HOOK(hooks_, GetConsoleOutputCP, []() -> UINT { return 1252; });
    Run(L"x");
    EXPECT_THAT(Log(), ElementsAre(L"RunCommandline: x - \x201A\n"));
}

TEST_F(RunCommandlineTest, WithoutAConsoleOutputIsWidenedFromTheOemCodePage) {
    ServeOutput({"\x82"});
    CORVI_HOOK(hooks_, GetConsoleOutputCP, []() -> UINT { return 0; });
    CORVI_HOOK(hooks_, GetOEMCP, []() -> UINT { return 437; });
    Run(L"x");
    EXPECT_THAT(Log(), ElementsAre(L"RunCommandline: x - \x00E9\n"));
}

TEST_F(RunCommandlineTest, OutputThatCannotBeWidenedIsLoggedAsEmpty) {
    ServeOutput({"text"});
    CORVI_HOOK(hooks_, GetConsoleOutputCP, []() -> UINT { return 54321; });
    EXPECT_EQ(Run(L"x"), 0);
    EXPECT_THAT(Log(), ElementsAre(L"RunCommandline: x - \n"));
}

TEST_F(RunCommandlineTest, LeaksNoHandleOver200CallsOnAnyPath) {
    const auto run = [] { RunCommandline(L"x", nullptr, 0); };
    AnswerStartsWith(0);
    ExpectNoHandleLeaks(run);
    BeforeEachPeek([] { return false; });
    ExpectNoHandleLeaks(run);
    RefuseStarts(ERROR_FILE_NOT_FOUND);
    ExpectNoHandleLeaks(run);
}

using RunProcessAndWaitTest = ProcessTest;

bool RunAndWait(std::wstring commandLine, const std::wstring& directory = L"", bool wait = true) {
    return RunProcessAndWait(commandLine.data(), directory, wait);
}

TEST_F(RunProcessAndWaitTest, StartsTheCommandLineHiddenWithoutInheritedHandles) {
    AnswerStartsWith(0);
    EXPECT_TRUE(RunAndWait(L"\"a b\" c", L"C:\\corvi"));
    ASSERT_THAT(starts_, SizeIs(1));
    const ProcessStart& start = starts_[0];
    EXPECT_FALSE(start.hasApplication);
    EXPECT_EQ(start.commandLine, L"\"a b\" c");
    EXPECT_FALSE(start.inheritHandles);
    EXPECT_EQ(start.flags, 0x08000000U);
    EXPECT_FALSE(start.hasEnvironment);
    EXPECT_EQ(start.directory, L"C:\\corvi");
    STARTUPINFOW expected{};
    expected.cb = 104;
    EXPECT_EQ(std::memcmp(&start.startup, &expected, sizeof(expected)), 0);
}

TEST_F(RunProcessAndWaitTest, AnEmptyWorkingDirectoryIsPassedAsNone) {
    AnswerStartsWith(0);
    RunAndWait(L"x", L"");
    ASSERT_THAT(starts_, SizeIs(1));
    EXPECT_EQ(starts_[0].directory, std::nullopt);
}

TEST_F(RunProcessAndWaitTest, TheProgramReceivesCommandLineAndDirectory) {
    ToolRecorder tools;
    tools.StandInFor(L"C:\\corvi\\a b\\tool.exe", 9);
    EXPECT_TRUE(RunAndWait(L"\"C:\\corvi\\a b\\tool.exe\"  \"x y\"", L"C:\\corvi\\a b"));
    const auto runs = tools.Runs();
    ASSERT_THAT(runs, SizeIs(1));
    EXPECT_EQ(runs[0].commandLine, L"\"C:\\corvi\\a b\\tool.exe\"  \"x y\"");
    EXPECT_EQ(runs[0].currentDirectory, L"C:\\corvi\\a b");
}

TEST_F(RunProcessAndWaitTest, WaitsWithoutLimitWhenAskedToAndNeverReadsTheExitCode) {
    std::vector<DWORD> waits;
    int exitCodesRead = 0;
    AnswerStartsWith(1);
    CORVI_HOOK(hooks_, WaitForSingleObject, [&](HANDLE, DWORD milliseconds) -> DWORD {
        waits.push_back(milliseconds);
        return WAIT_OBJECT_0;
    });
    CORVI_HOOK(hooks_, GetExitCodeProcess, [&](HANDLE, LPDWORD) -> BOOL {
        ++exitCodesRead;
        return FALSE;
    });
    EXPECT_TRUE(RunAndWait(L"x", L"", true));
    EXPECT_THAT(waits, ElementsAre(INFINITE));
    EXPECT_TRUE(RunAndWait(L"x", L"", false));
    EXPECT_THAT(waits, SizeIs(1));
    EXPECT_EQ(exitCodesRead, 0);
}

TEST_F(RunProcessAndWaitTest, WithoutTheFlagReturnsWhileTheProgramRuns) {
    const KernelHandle release = Event(kReleaseEvent);
    // The child would hold a waiting call for 120 s.
    const ULONGLONG start = GetTickCount64();
    EXPECT_TRUE(RunAndWait(Child(L"wait CorviTestRelease"), L"", false));
    EXPECT_LT(GetTickCount64() - start, 100000U);
    SetEvent(release.Get());
}

TEST_F(RunProcessAndWaitTest, IsFalseWhenTheProgramCannotBeStarted) {
    EXPECT_FALSE(RunAndWait(L"C:\\no such program.exe"));
    EXPECT_FALSE(RunAndWait(kChild, L"C:\\no such folder"));
    EXPECT_FALSE(RunAndWait(L""));
}

TEST_F(RunProcessAndWaitTest, IsFalseEvenWhenAFailedStartSetsNoError) {
    RefuseStarts(ERROR_SUCCESS);
    EXPECT_FALSE(RunAndWait(L"x"));
}

TEST_F(RunProcessAndWaitTest, AFailedStartIsNeitherLoggedNorPrinted) {
    NoteLines();
    RefuseStarts(ERROR_FILE_NOT_FOUND);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_FALSE(RunAndWait(L"x"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(RunProcessAndWaitTest, ComposesTheFailureTextFromCommandLineAndErrorNumber) {
    EXPECT_EQ(LaunchFailureText(L"a %s b", 2), L"\nFailed to lauch >a %s b<\n Last error return: 2\n");
    EXPECT_EQ(LaunchFailureText(L"", 0xFFFFFFFF), L"\nFailed to lauch ><\n Last error return: 4294967295\n");
}

TEST_F(RunProcessAndWaitTest, LeaksNoHandleOver200CallsOnAnyPath) {
    AnswerStartsWith(0);
    ExpectNoHandleLeaks([] { RunAndWait(L"x", L"", true); });
    ExpectNoHandleLeaks([] { RunAndWait(L"x", L"", false); });
    RefuseStarts(ERROR_FILE_NOT_FOUND);
    ExpectNoHandleLeaks([] { RunAndWait(L"x"); });
}

using ShellExecuteAndWaitTest = ProcessTest;

TEST_F(ShellExecuteAndWaitTest, AsksTheShellForAHiddenStartWithoutAnyWindow) {
    AnswerShellStartsWith(0);
    EXPECT_EQ(ShellExecuteAndWait(L"file", L"a \"b\"", 5000), 0);
    ASSERT_THAT(shellStarts_, SizeIs(1));
    const ShellStart& start = shellStarts_[0];
    EXPECT_EQ(start.size, 112U);
    EXPECT_EQ(start.mask, 0x00800540U);
    EXPECT_EQ(start.window, nullptr);
    EXPECT_EQ(start.verb, L"open");
    EXPECT_EQ(start.file, L"file");
    EXPECT_EQ(start.parameters, L"a \"b\"");
    EXPECT_FALSE(start.hasDirectory);
    EXPECT_EQ(start.show, 0);
}

TEST_F(ShellExecuteAndWaitTest, ReturnsTheExitCodeOfARealProgram) {
    EXPECT_EQ(ShellExecuteAndWait(kChild, L"exit 3", kPatience), 3);
    EXPECT_EQ(ShellExecuteAndWait(kChild, L"exit 0", INFINITE), 0);
    EXPECT_EQ(ShellExecuteAndWait(kChild, L"exit 0xC0000005", kPatience), static_cast<int>(0xC0000005));
}

TEST_F(ShellExecuteAndWaitTest, ATimeOutOf0OnALongRunningProgramReturns259AndLeavesItRunning) {
    const KernelHandle release = Event(kReleaseEvent);
    KernelHandle process;
    CORVI_HOOK(hooks_, ShellExecuteExW, [&](SHELLEXECUTEINFOW* info) -> BOOL {
        const BOOL result = CORVI_ORIGINAL(hooks_, ShellExecuteExW)(info);
        process.Reset(Duplicate(KernelHandle(info->hProcess)));
        info->hProcess = Duplicate(process);
        return result;
    });
    EXPECT_EQ(ShellExecuteAndWait(kChild, L"wait CorviTestRelease", 0), 259);
    EXPECT_FALSE(HasEnded(process.Get()));
    SetEvent(release.Get());
    EXPECT_EQ(WaitForSingleObject(process.Get(), kPatience), WAIT_OBJECT_0);
}

TEST_F(ShellExecuteAndWaitTest, WaitsAsLongAsItIsTold) {
    AnswerShellStartsWith(0);
    std::vector<DWORD> waits;
    CORVI_HOOK(hooks_, WaitForSingleObject, [&](HANDLE, DWORD milliseconds) -> DWORD {
        waits.push_back(milliseconds);
        return WAIT_TIMEOUT;
    });
    ShellExecuteAndWait(L"x", L"", 0);
    ShellExecuteAndWait(L"x", L"", 120000);
    ShellExecuteAndWait(L"x", L"", INFINITE);
    EXPECT_THAT(waits, ElementsAre(0U, 120000U, INFINITE));
}

TEST_F(ShellExecuteAndWaitTest, AFailedStartReturnsThePlatformError) {
    EXPECT_EQ(ShellExecuteAndWait(L"C:\\no such program.exe", L"", 0), ERROR_FILE_NOT_FOUND);
    NoteShellStarts([](SHELLEXECUTEINFOW&) {
        SetLastError(ERROR_CANCELLED);
        return FALSE;
    });
    EXPECT_EQ(ShellExecuteAndWait(L"x", L"", 0), ERROR_CANCELLED);
    NoteShellStarts([](SHELLEXECUTEINFOW&) {
        SetLastError(ERROR_SUCCESS);
        return FALSE;
    });
    EXPECT_NE(ShellExecuteAndWait(L"x", L"", 0), 0) << "a refusal without a code is a refusal all the same";
}

TEST_F(ShellExecuteAndWaitTest, AnExitCodeThatCannotBeReadGivesThePlatformError) {
    AnswerShellStartsWith(0);
    CORVI_HOOK(hooks_, GetExitCodeProcess, [](HANDLE, LPDWORD) -> BOOL {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
    EXPECT_EQ(ShellExecuteAndWait(L"x", L"", 0), ERROR_ACCESS_DENIED);
    CORVI_HOOK(hooks_, GetExitCodeProcess, [](HANDLE, LPDWORD) -> BOOL {
        SetLastError(ERROR_SUCCESS);
        return FALSE;
    });
    EXPECT_NE(ShellExecuteAndWait(L"x", L"", 0), 0) << "success is told by an exit code alone";
}

TEST_F(ShellExecuteAndWaitTest, AStartWithoutAProcessGivesTheErrorOfTheMissingHandle) {
    NoteShellStarts([](SHELLEXECUTEINFOW& info) {
        info.hProcess = nullptr;
        return TRUE;
    });
    EXPECT_EQ(ShellExecuteAndWait(L"x", L"", 0), ERROR_INVALID_HANDLE);
}

TEST_F(ShellExecuteAndWaitTest, LeaksNoHandleOver200CallsOnAnyPath) {
    AnswerShellStartsWith(0);
    ExpectNoHandleLeaks([] { ShellExecuteAndWait(L"x", L"", 0); });
    CORVI_HOOK(hooks_, GetExitCodeProcess, [](HANDLE, LPDWORD) -> BOOL { return FALSE; });
    ExpectNoHandleLeaks([] { ShellExecuteAndWait(L"x", L"", 0); });
    NoteShellStarts([](SHELLEXECUTEINFOW&) { return FALSE; });
    ExpectNoHandleLeaks([] { ShellExecuteAndWait(L"x", L"", 0); });
}

class LaunchApplicationTest : public ProcessTest {
protected:
    // The line that a start logs which the shell refuses with this instance value.
    std::wstring FailureLine(INT_PTR value) {
        NoteShellStarts([value](SHELLEXECUTEINFOW& info) {
            // NOLINTNEXTLINE(performance-no-int-to-ptr): the shell gives a number in a handle's place
            info.hInstApp = reinterpret_cast<HINSTANCE>(value);
            return FALSE;
        });
        lines_.clear();
        EXPECT_FALSE(LaunchApplication(L"/run"));
        EXPECT_THAT(lines_, SizeIs(1)) << value;
        return lines_.empty() ? L"" : lines_[0].text;
    }
};

TEST_F(LaunchApplicationTest, AsksTheShellForAHiddenStartOfTheTaskTool) {
    AnswerShellStartsWith(0);
    EXPECT_TRUE(LaunchApplication(L"/run /TN \"StartTUEP\""));
    ASSERT_THAT(shellStarts_, SizeIs(1));
    const ShellStart& start = shellStarts_[0];
    EXPECT_EQ(start.size, 112U);
    EXPECT_EQ(start.mask, 0x40U);
    EXPECT_EQ(start.verb, L"open");
    EXPECT_EQ(start.file, L"schtasks");
    EXPECT_EQ(start.parameters, L"/run /TN \"StartTUEP\"");
    EXPECT_FALSE(start.hasDirectory);
    EXPECT_EQ(start.show, 0);
}

TEST_F(LaunchApplicationTest, TheTaskToolReceivesTheParameters) {
    ToolRecorder tools;
    tools.StandInForSystemTool(L"schtasks.exe");
    EXPECT_TRUE(LaunchApplication(L"/run /TN \"Start X\""));
    const auto runs = tools.WaitForRuns(1);
    ASSERT_THAT(runs, SizeIs(1));
    EXPECT_THAT(runs[0].commandLine, EndsWith(L" /run /TN \"Start X\""));
}

TEST_F(LaunchApplicationTest, DoesNotWaitForTheTool) {
    AnswerShellStartsWith(0);
    int waits = 0;
    CORVI_HOOK(hooks_, WaitForSingleObject, [&](HANDLE, DWORD) -> DWORD {
        ++waits;
        return WAIT_OBJECT_0;
    });
    EXPECT_TRUE(LaunchApplication(L"/run"));
    EXPECT_EQ(waits, 0);
}

TEST_F(LaunchApplicationTest, SuccessIsLoggedOnTheHandleThatNothingSets) {
    AnswerShellStartsWith(0);
    NoteLines();
    EXPECT_TRUE(LaunchApplication(L"/run"));
    ASSERT_THAT(lines_, SizeIs(1));
    EXPECT_EQ(lines_[0].session, 0U);
    EXPECT_EQ(lines_[0].text, L"Sable_CA launched the following successfully: schtasks");
}

TEST_F(LaunchApplicationTest, AShellValueOf2LogsFileNotFoundOnTheHandleThatNothingSetsAndIsFalse) {
    NoteLines();
    EXPECT_EQ(FailureLine(2), L"Sable_CA failed to launch the following: File not found.");
    EXPECT_EQ(lines_[0].session, 0U);
}

TEST_F(LaunchApplicationTest, EveryShellValueHasItsText) {
    const std::map<INT_PTR, std::wstring> known{
        {0, L"The operating system is out of memory or resources"},
        {2, L"File not found."},
        {3, L"Path not found."},
        {5, L"Access denied."},
        {8, L"Out of memory."},
        {26, L"Cannot share an open file."},
        {27, L"File association information not complete."},
        {28, L" The DDE transaction could not be completed because the request timed out"},
        {29, L"DDE operation failed."},
        {30, L"DDE operation is busy."},
        {31, L"File association not available."},
        {32, L"Dynamic-link library not found."}};
    NoteLines();
    for (INT_PTR value = -1; value <= 33; ++value) {
        const auto text = known.find(value);
        EXPECT_EQ(
            FailureLine(value),
            L"Sable_CA failed to launch the following: " +
                (text != known.end() ? text->second : L"Unknown error, could be SE_ERR_FNF, or SE_ERR_PNF"))
            << value;
    }
}

TEST_F(LaunchApplicationTest, LeaksNoHandleOver200CallsOnAnyPath) {
    AnswerShellStartsWith(0);
    ExpectNoHandleLeaks([] { LaunchApplication(L"/run"); });
    NoteShellStarts([](SHELLEXECUTEINFOW&) { return FALSE; });
    ExpectNoHandleLeaks([] { LaunchApplication(L"/run"); });
}

class KillProcessByNameTest : public ProcessTest {
protected:
    static std::wstring SystemDirectory() {
        wchar_t directory[MAX_PATH] = {};
        GetSystemDirectoryW(directory, MAX_PATH);
        return directory;
    }
    // The command line without the image text.
    static std::wstring ToolText() { return L"\"" + SystemDirectory() + L"\\TaskKill.exe\" /IM "; }
};

TEST_F(KillProcessByNameTest, BuildsTheQuotedToolPathAndTheTextAndRunsItHiddenInTheSystemDirectory) {
    AnswerStartsWith(0);
    EXPECT_TRUE(KillProcessByName(L"X.exe /F"));
    ASSERT_THAT(starts_, SizeIs(1));
    EXPECT_EQ(starts_[0].commandLine, ToolText() + L"X.exe /F");
    EXPECT_EQ(starts_[0].flags, 0x08000000U);
    ASSERT_TRUE(starts_[0].directory);
    EXPECT_TRUE(EqualsIgnoringCase(*starts_[0].directory, SystemDirectory()));
}

TEST_F(KillProcessByNameTest, EndsARealProgramAndWaitsForTheTool) {
    const std::wstring victim = L"C:\\corvi\\CorviVictim.exe";
    ASSERT_NE(CopyFileW(kChild, victim.c_str(), FALSE), FALSE);
    const KernelHandle release = Event(kReleaseEvent);
    const RunningProcess run = StartProcess(victim + L" wait CorviTestRelease");
    EXPECT_TRUE(KillProcessByName(L"corvivictim.exe /F"));
    EXPECT_TRUE(HasEnded(run.process.Get()));
    DeleteFileW(victim.c_str());
}

TEST_F(KillProcessByNameTest, IsTrueEvenWhenThereIsNoSuchProgram) {
    EXPECT_TRUE(KillProcessByName(L"NoSuchProgram.exe"));
}

TEST_F(KillProcessByNameTest, IsFalseWhenTheToolCannotBeStarted) {
    RefuseStarts(ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(KillProcessByName(L"X.exe"));
}

TEST_F(KillProcessByNameTest, WithoutASystemDirectoryTheToolIsLookedForInTheRoot) {
    CORVI_HOOK(hooks_, SHGetFolderLocation,
               [](HWND, int, HANDLE, DWORD, PIDLIST_ABSOLUTE*) -> HRESULT { return E_FAIL; });
    AnswerStartsWith(0);
    EXPECT_TRUE(KillProcessByName(L"X.exe"));
    ASSERT_THAT(starts_, SizeIs(1));
    EXPECT_EQ(starts_[0].commandLine, L"\"\\TaskKill.exe\" /IM X.exe");
    EXPECT_EQ(starts_[0].directory, std::nullopt);
}

class RunFromCommandBufferTest : public ProcessTest {};

TEST_F(RunFromCommandBufferTest, ACommandOf518CharactersIsRunWholeInItsWorkingDirectory) {
    AnswerStartsWith(0);
    const std::wstring command(518, L'x');
    EXPECT_TRUE(RunFromCommandBuffer(command, L"C:\\corvi", false));
    ASSERT_THAT(starts_, SizeIs(1));
    EXPECT_EQ(starts_[0].commandLine, command);
    EXPECT_EQ(starts_[0].directory, L"C:\\corvi");
}

TEST_F(RunFromCommandBufferTest, ACommandOf519CharactersEndsTheProcessAndRunsNothing) {
    AnswerStartsWith(0);
    UINT endedWith = 0;
    CORVI_HOOK(hooks_, TerminateProcess, [&](HANDLE, UINT exitCode) -> BOOL {
        endedWith = exitCode;
        return TRUE;
    });
    EXPECT_FALSE(RunFromCommandBuffer(std::wstring(519, L'x'), L"", true));
    EXPECT_EQ(endedWith, 0xC0000417U);
    EXPECT_THAT(starts_, IsEmpty());
}

TEST_F(KillProcessByNameTest, ACommandLineOf518CharactersIsRunWhole) {
    AnswerStartsWith(0);
    const std::wstring text(518 - ToolText().size(), L'x');
    EXPECT_TRUE(KillProcessByName(text));
    ASSERT_THAT(starts_, SizeIs(1));
    EXPECT_EQ(starts_[0].commandLine, ToolText() + text);
}

TEST_F(KillProcessByNameTest, ACommandLineOf519CharactersEndsTheProcessAndRunsNothing) {
    AnswerStartsWith(0);
    UINT endedWith = 0;
    CORVI_HOOK(hooks_, TerminateProcess, [&](HANDLE process, UINT exitCode) -> BOOL {
        EXPECT_EQ(process, GetCurrentProcess());
        endedWith = exitCode;
        return TRUE;
    });
    KillProcessByName(std::wstring(519 - ToolText().size(), L'x'));
    EXPECT_EQ(endedWith, 0xC0000417U);
    EXPECT_THAT(starts_, IsEmpty());
}

TEST(KillProcessByNameDeathTest, AnOverlongTextEndsARealProcessAsAnInvalidRuntimeParameter) {
    EXPECT_EXIT(KillProcessByName(std::wstring(100000, L'x')),
                testing::ExitedWithCode(static_cast<int>(0xC0000417)), "");
}

class GrantUsersFullControlTest : public ProcessTest {};

TEST_F(GrantUsersFullControlTest, SetsTheOwnerThenGrantsTheUsersThroughTheInterpreter) {
    AnswerStartsWith(5);
    NoteLines();
    GrantUsersFullControl(L"C:\\a b", L"DOMAIN\\some one", L"C:\\corvi");
    ASSERT_THAT(starts_, SizeIs(2));
    EXPECT_EQ(starts_[0].commandLine, L"cmd.exe /C \"icacls \"C:\\a b\" /setowner DOMAIN\\some one\"");
    EXPECT_EQ(starts_[1].commandLine, L"cmd.exe /C \"icacls \"C:\\a b\" /grant Users:F\"");
    EXPECT_EQ(starts_[0].directory, L"C:\\corvi");
    EXPECT_EQ(starts_[1].directory, L"C:\\corvi");
    // Whatever is logged goes to no session.
    for (const SentLine& line : lines_) {
        EXPECT_EQ(line.session, 0U);
    }
}

TEST_F(GrantUsersFullControlTest, TheToolReceivesBothCommandLines) {
    ToolRecorder tools;
    tools.StandInForSystemTool(L"icacls.exe", 5);
    GrantUsersFullControl(L"C:\\a b", L"Someone", L"C:\\corvi");
    const auto runs = tools.Runs();
    ASSERT_THAT(runs, SizeIs(2));
    EXPECT_THAT(runs[0].commandLine, EndsWith(L" \"C:\\a b\" /setowner Someone"));
    EXPECT_THAT(runs[1].commandLine, EndsWith(L" \"C:\\a b\" /grant Users:F"));
    EXPECT_EQ(runs[0].currentDirectory, L"C:\\corvi");
}

TEST_F(GrantUsersFullControlTest, AFailedStartDoesNotKeepTheSecondCommandBack) {
    RefuseStarts(ERROR_FILE_NOT_FOUND);
    GrantUsersFullControl(L"C:\\x", L"Someone", nullptr);
    EXPECT_THAT(starts_, SizeIs(2));
}

}  // namespace
}  // namespace corvi::test
