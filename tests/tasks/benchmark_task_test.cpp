#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
using testing::Not;

constexpr char kCreate[] = "CreateBenchMarkRunOnceSchTask";
constexpr char kRemove[] = "RemoveBenchMarkRunOnceSchedularTask";
constexpr wchar_t kSettingsKey[] = L"SOFTWARE\\TAVO\\HX";
constexpr wchar_t kDirectory[] = L"C:\\corvi\\install";
constexpr wchar_t kDefinition[] =
    L"<Task version=\"1.2\" xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\"><Triggers>"
    L"<TimeTrigger><StartBoundary>2020-01-01T00:00:00</StartBoundary></TimeTrigger></Triggers>"
    L"<Actions><Exec><Command>x.exe</Command></Exec></Actions></Task>";

std::wstring Copy() { return TemporaryDirectory() + L"StartHXBM.xml"; }

std::wstring CreateLine(const std::wstring& file) {
    return L"schtasks /Create /TN \"StartHXBM\" /XML \"" + file + L"\"";
}

// ---- Creation

class Benchmark : public testing::Test {
protected:
    Benchmark() {
        suite_.AddTaskFile(L"StartHXBM.xml", kDefinition);
        SetGate(L"0");
    }
    ~Benchmark() override {
        RegDeleteTreeW(HKEY_CURRENT_USER, kSettingsKey);
        std::filesystem::remove(Copy());
        RemoveTaskAtEnd(L"StartHXBM");
    }

    static void SetGate(const std::wstring& text) {
        RegSetKeyValueW(HKEY_CURRENT_USER, kSettingsKey, L"GiBenchmark", REG_SZ, text.c_str(),
                        static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    }
    UINT Call() {
        const UINT result = library_.Call(kCreate, session_.Handle());
        EXPECT_TRUE(session_.LogLines().empty()) << "nothing is logged";
        return result;
    }

    // The error that leaves the action: its code, and its text.
    LSTATUS Thrown(std::string& text) {
        try {
            Call();
        } catch (const std::system_error& error) {
            text = error.what();
            return error.code().value();
        }
        return ERROR_SUCCESS;
    }

    Library library_;
    InstallerSession session_;
    SuiteInstallation suite_;
};

class RecordedBenchmark : public Benchmark {
protected:
    RecordedBenchmark() { recorder_.StandInForSystemTool(L"schtasks.exe", 1); }

    size_t RunsOfCall() {
        recorder_.ClearRuns();
        EXPECT_EQ(Call(), 0U);
        return recorder_.Runs().size();
    }

    ToolRecorder recorder_;
};

TEST_F(RecordedBenchmark, TheTaskIsCreatedFromTheRewrittenCopyAndThenPointedAtTheProgram) {
    EXPECT_EQ(Call(), 0U);
    const auto runs = recorder_.WaitForRuns(2);
    ASSERT_EQ(runs.size(), 2U);
    EXPECT_EQ(runs[0].commandLine, CreateLine(Copy()));
    EXPECT_EQ(runs[0].currentDirectory, kDirectory);
    EXPECT_EQ(runs[1].commandLine,
              L"schtasks /change /TN \"StartHXBM\" /TR \"\\\"C:\\corvi\\install\\hxcmd.exe\\\" benchmark\"");
    EXPECT_EQ(runs[1].currentDirectory, kDirectory);
}

TEST_F(RecordedBenchmark, TheCopyStartsTomorrowAndStaysInTheTemporaryDirectory) {
    EXPECT_EQ(Call(), 0U);
    const std::wstring copy = ReadUtf16(Copy());
    EXPECT_THAT(copy, Not(HasSubstr(L"2020-01-01")));
    EXPECT_THAT(copy, HasSubstr(L"T0:0:0</StartBoundary>"));
    recorder_.WaitForRuns(2);
}

TEST_F(RecordedBenchmark, ALocationEndingInABackslashDoublesTheSeparatorBeforeTheProgramOnly) {
    suite_.SetLocation(std::wstring(kDirectory) + L'\\');
    EXPECT_EQ(Call(), 0U);
    const auto runs = recorder_.WaitForRuns(2);
    ASSERT_EQ(runs.size(), 2U);
    EXPECT_THAT(runs[1].commandLine, HasSubstr(L"C:\\corvi\\install\\\\hxcmd.exe"));
}

TEST_F(RecordedBenchmark, OnlyTheCreationIsAwaited) {
    ImportHooks hooks(library_.Module());
    int waits = 0;
    CORVI_HOOK(hooks, WaitForSingleObject, [&](HANDLE handle, DWORD milliseconds) -> DWORD {
        waits += milliseconds == INFINITE ? 1 : 0;
        return WaitForSingleObject(handle, milliseconds);
    });
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(waits, 1);
    recorder_.WaitForRuns(2);
}

TEST_F(RecordedBenchmark, AFailingRewriteIsNotNoticed) {
    suite_.AddTaskFile(L"StartHXBM.xml", L"<Task><StartBoundary>");
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(recorder_.WaitForRuns(2).size(), 2U);
}

TEST_F(RecordedBenchmark, WithoutATemporaryDirectoryTheCopyGoesToTheCurrentOne) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, GetTempPathW, [](DWORD, LPWSTR) -> DWORD { return 0; });
    EXPECT_EQ(Call(), 0U);
    const auto runs = recorder_.WaitForRuns(2);
    ASSERT_EQ(runs.size(), 2U);
    EXPECT_EQ(runs[0].commandLine, CreateLine(L"StartHXBM.xml"));
    EXPECT_TRUE(std::filesystem::remove(L"StartHXBM.xml"));
}

TEST_F(RecordedBenchmark, AGateOfOneWithoutAFileOfThatNameStillCreatesTheTask) {
    SetGate(L"1");
    ASSERT_FALSE(std::filesystem::exists(L"1"));
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(recorder_.WaitForRuns(2).size(), 2U);
}

TEST_F(RecordedBenchmark, AGateOfOneWithAFileOfThatNameCreatesNothing) {
    SetGate(L"1");
    WriteBytes(L"1", "");
    EXPECT_EQ(RunsOfCall(), 0U);
    EXPECT_FALSE(std::filesystem::exists(Copy()));
    std::filesystem::remove(L"1");
}

TEST_F(RecordedBenchmark, AGateThatNamesAnExistingFileOtherThanOneStillCreatesTheTask) {
    SetGate(kDirectory);
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(recorder_.WaitForRuns(2).size(), 2U);
}

TEST_F(RecordedBenchmark, ALocationThatDoesNotExistEndsItQuietly) {
    for (const wchar_t* location : {L"C:\\corvi\\gone", L""}) {
        suite_.SetLocation(location);
        EXPECT_EQ(RunsOfCall(), 0U);
    }
}

TEST_F(RecordedBenchmark, AMissingDefinitionEndsItQuietly) {
    std::filesystem::remove(std::wstring(kDirectory) + L"\\StartHXBM.xml");
    EXPECT_EQ(RunsOfCall(), 0U);
    EXPECT_FALSE(std::filesystem::exists(Copy()));
}

TEST_F(Benchmark, AMissingSettingsKeyLetsTheRegistryErrorOut) {
    RegDeleteTreeW(HKEY_CURRENT_USER, kSettingsKey);
    std::string text;
    EXPECT_EQ(Thrown(text), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(text, RegKeyError(ERROR_FILE_NOT_FOUND, "Unable to open registry key").what());
}

TEST_F(Benchmark, AMissingGateLetsTheRegistryErrorOut) {
    RegDeleteKeyValueW(HKEY_CURRENT_USER, kSettingsKey, L"GiBenchmark");
    std::string text;
    EXPECT_EQ(Thrown(text), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(text, RegKeyError(ERROR_FILE_NOT_FOUND, "Unable to get registry value").what());
}

TEST_F(Benchmark, AGateOfAnotherTypeLetsTheRegistryErrorOut) {
    const DWORD one = 1;
    RegSetKeyValueW(HKEY_CURRENT_USER, kSettingsKey, L"GiBenchmark", REG_DWORD, &one, sizeof(one));
    std::string text;
    EXPECT_EQ(Thrown(text), ERROR_UNSUPPORTED_TYPE);
}

TEST_F(Benchmark, AMissingInstallKeyLetsTheRegistryErrorOut) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, suite_.Key().Path().c_str());
    std::string text;
    EXPECT_EQ(Thrown(text), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(text, RegKeyError(ERROR_FILE_NOT_FOUND, "Unable to open registry key").what());
}

TEST_F(Benchmark, BothKeysAreOpenedForReadingAndWriting) {
    ImportHooks hooks(library_.Module());
    std::vector<REGSAM> masks;
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   masks.push_back(access);
                   return RegOpenKeyExW(root, path, options, access, key);
               });
    suite_.SetLocation(L"C:\\corvi\\gone");
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(masks, (std::vector<REGSAM>{0x2001F, 0x2001F}));
}

TEST_F(Benchmark, EachKeyIsClosedBeforeAnythingIsTested) {
    ImportHooks hooks(library_.Module());
    std::vector<std::string> steps;
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   steps.emplace_back("open");
                   return RegOpenKeyExW(root, path, options, access, key);
               });
    CORVI_HOOK(hooks, RegCloseKey, [&](HKEY key) -> LSTATUS {
        steps.emplace_back("close");
        return RegCloseKey(key);
    });
    CORVI_HOOK(hooks, GetFileAttributesW, [&](LPCWSTR path) -> DWORD {
        steps.emplace_back("test");
        return GetFileAttributesW(path);
    });
    suite_.SetLocation(L"C:\\corvi\\gone");
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(steps, (std::vector<std::string>{"open", "close", "test", "open", "close", "test"}));
}

TEST_F(RecordedBenchmark, AGateIsReadWholeWhateverItsLength) {
    SetGate(L"1" + std::wstring(600, L' '));
    EXPECT_EQ(Call(), 0U);
    EXPECT_EQ(recorder_.WaitForRuns(2).size(), 2U);
}

TEST_F(Benchmark, TheRealTaskExistsAfterwardsAndTheRemovalDeletesIt) {
    EXPECT_EQ(Call(), 0U);
    EXPECT_TRUE(TaskExists(L"StartHXBM"));
    EXPECT_EQ(library_.Call(kRemove, session_.Handle()), 1U);
    EXPECT_FALSE(TaskExists(L"StartHXBM"));
}

// ---- Removal

class BenchmarkRemoval : public testing::Test {
protected:
    BenchmarkRemoval() { recorder_.StandInForSystemTool(L"schtasks.exe", 1); }

    DWORD StatusOf(const std::wstring& client) const {
        const auto bytes = register_.Bytes(client + L"_TUEPStatus");
        DWORD status = 0;
        std::memcpy(&status, bytes.data(), std::min(bytes.size(), sizeof(status)));
        return status;
    }
    void Remove(UINT expected = 1) {
        EXPECT_EQ(library_.Call(kRemove, session_.Handle()), expected);
        EXPECT_TRUE(session_.LogLines().empty());
    }
    void ExpectOnlyTheDeletion() {
        const auto runs = recorder_.Runs();
        ASSERT_EQ(runs.size(), 1U) << "it has ended when the action returns";
        EXPECT_EQ(runs[0].commandLine, L"schtasks /delete /TN \"StartHXBM\" /F");
        EXPECT_EQ(runs[0].currentDirectory, std::filesystem::current_path().wstring());
    }

    Library library_;
    InstallerSession session_;
    ToolRecorder recorder_;
    ScratchKey analytics_{L"SOFTWARE\\TAVO\\TAVOAnalytics"};
    ScratchKey register_{L"SOFTWARE\\TUEP"};
};

TEST_F(BenchmarkRemoval, TheLastClaimantIsMarkedAsUninstalledAndItsNameDeleted) {
    analytics_.SetText(L"", L"TUEPClient", L"ClientA");
    Remove();
    EXPECT_EQ(StatusOf(L"ClientA"), 2U);
    EXPECT_TRUE(analytics_.Bytes(L"TUEPClient").empty());
    ExpectOnlyTheDeletion();
}

TEST_F(BenchmarkRemoval, WithoutAClaimantOnlyTheTaskIsDeleted) {
    Remove();
    ExpectOnlyTheDeletion();
}

TEST_F(BenchmarkRemoval, WithoutTheKeyOnlyTheTaskIsDeleted) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, analytics_.Path().c_str());
    Remove();
    EXPECT_FALSE(analytics_.Exists()) << "nothing is made";
    ExpectOnlyTheDeletion();
}

TEST_F(BenchmarkRemoval, AClaimantThatDoesNotFitIntoTheBufferIsDeletedUnread) {
    analytics_.SetText(L"", L"TUEPClient", std::wstring(260, L'c'));
    Remove();
    EXPECT_TRUE(analytics_.Bytes(L"TUEPClient").empty());
    EXPECT_EQ(StatusOf(std::wstring(260, L'c')), 0U);
    ExpectOnlyTheDeletion();
}

TEST_F(BenchmarkRemoval, AClaimantThatFillsTheBufferWithoutTerminatorIsReadWhole) {
    // Stored without its terminator, which the platform adds when a null follows in memory.
    const std::wstring name(261, L'c');
    analytics_.SetValue(L"", L"TUEPClient", REG_SZ, name.data(), 260 * sizeof(wchar_t));
    ASSERT_EQ(analytics_.Bytes(L"TUEPClient").size(), 520U);
    Remove();
    EXPECT_EQ(StatusOf(std::wstring(260, L'c')), 2U);
}

TEST_F(BenchmarkRemoval, TheKeyIsOpenedWithFullAccessAndTheValueReadInto520Bytes) {
    ImportHooks hooks(library_.Module());
    REGSAM mask = 0;
    DWORD offered = 0;
    CORVI_HOOK(hooks, RegOpenKeyExW,
               [&](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                   if (path == analytics_.Path()) {
                       mask = access;
                   }
                   return RegOpenKeyExW(root, path, options, access, key);
               });
    CORVI_HOOK(hooks, RegQueryValueExW,
               [&](HKEY, LPCWSTR, LPDWORD, LPDWORD, LPBYTE, LPDWORD size) -> LSTATUS {
                   offered = *size;
                   return ERROR_ACCESS_DENIED;
               });
    analytics_.SetText(L"", L"TUEPClient", L"ClientA");
    Remove();
    EXPECT_EQ(mask, static_cast<REGSAM>(KEY_ALL_ACCESS));
    EXPECT_EQ(offered, 520U);
    EXPECT_EQ(StatusOf(L"ClientA"), 0U);
    EXPECT_TRUE(analytics_.Bytes(L"TUEPClient").empty()) << "deleted whether or not it could be read";
}

TEST_F(BenchmarkRemoval, AToolThatCannotBeStartedGivesZero) {
    ImportHooks hooks(library_.Module());
    CORVI_HOOK(hooks, CreateProcessW,
               [&](LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID,
                   LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL {
                   SetLastError(ERROR_FILE_NOT_FOUND);
                   return FALSE;
               });
    Remove(0);
}

}  // namespace
}  // namespace corvi::test
