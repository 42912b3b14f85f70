// What plan and run say, how they refuse, and how they tell the ways apart in which an action can end.

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "tests/components/registry_values.h"
#include "tests/tool/machine_state.h"
#include "tests/tool/scenarios.h"
#include "tests/tool/tool_run.h"
#include "tool/image.h"
#include "tool/import_rules.h"

namespace corvi::test {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr wchar_t kOdd[] = L" --dll C:\\corvi\\odd_actions.dll";
constexpr wchar_t kFolder[] = L"C:\\Program Files\\TAVO\\HX";
constexpr wchar_t kHXNext[] = L"SOFTWARE\\QEL Technologies\\Install\\HXNext";

/// The user's two tokens, with the administrators' rights and without. A platform may start a program with
/// either.
class Tokens {
public:
    Tokens() {
        HANDLE own = nullptr;
        OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, &own);
        TOKEN_LINKED_TOKEN linked = {};
        DWORD size = sizeof(linked);
        GetTokenInformation(own, TokenLinkedToken, &linked, size, &size);
        HANDLE other = nullptr;
        DuplicateTokenEx(linked.LinkedToken, TOKEN_ALL_ACCESS, nullptr, SecurityImpersonation, TokenPrimary,
                         &other);
        CloseHandle(linked.LinkedToken);
        full_ = IsElevated(own) ? own : other;
        limited_ = IsElevated(own) ? other : own;
    }
    ~Tokens() {
        CloseHandle(full_);
        CloseHandle(limited_);
    }
    Tokens(const Tokens&) = delete;
    Tokens& operator=(const Tokens&) = delete;

    HANDLE Full() const { return full_; }
    HANDLE Limited() const { return limited_; }

private:
    static bool IsElevated(HANDLE token) {
        TOKEN_ELEVATION elevation = {};
        DWORD size = sizeof(elevation);
        return GetTokenInformation(token, TokenElevation, &elevation, size, &size) != FALSE &&
               elevation.TokenIsElevated != 0;
    }

    HANDLE full_ = nullptr;
    HANDLE limited_ = nullptr;
};

/// The tool's answer to a user with the administrators' rights.
ToolRun RunElevated(const std::wstring& arguments) { return RunToolAs(Tokens().Full(), arguments); }

Json Parsed(const ToolRun& run) {
    const Json json = Json::parse(run.output, nullptr, false);
    EXPECT_FALSE(json.is_discarded()) << run.output << run.error;
    return json.is_discarded() ? Json::object() : json;
}

Json Planned(const std::wstring& call) { return Parsed(RunTool(L"plan " + call + L" --json")); }

std::vector<std::string> Lines(const Json& plan) {
    std::vector<std::string> lines;
    for (const Json& change : plan["changes"]) {
        lines.push_back(change["text"]);
    }
    return lines;
}

void PutFile(const std::wstring& path) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(fs::path(path)) << "x";
}

class PlanVerb : public testing::Test {
protected:
    PlanVerb() { ClearMachine(); }
    ~PlanVerb() override { ClearMachine(); }

    static void InstallSettingsApplication() { StoreText(kHXNext, L"Location", kFolder); }
};

// What a plan is compared with

TEST(MachineStates, LeaveOutTheFilesOfPipesAndNoOthers) {
    const fs::path folder = fs::temp_directory_path();
    const auto differences = [&](std::initializer_list<const wchar_t*> names) {
        const MachineState before = ReadMachine();
        for (const wchar_t* name : names) {
            PutFile((folder / name).wstring());
        }
        const auto found = Differences(before, ReadMachine());
        for (const wchar_t* name : names) {
            fs::remove(folder / name);
        }
        return found;
    };
    const auto pipes = differences({L"CMD7.tmp", L"CMD57d.tmp", L"CMD1c0f.tmp"});
    EXPECT_THAT(pipes, IsEmpty()) << Describe(pipes);
    EXPECT_EQ(differences({L"CMD.tmp", L"CMD12345.tmp", L"CMDxyz.tmp", L"CMD57d.txt"}).size(), 4U);
}

// The table of imports

TEST(ImportRules, KnowEveryFunctionThatTheLibraryImports) {
    const auto library = tool::ReadImage(L"C:\\corvi\\Corvi_CA.dll");
    ASSERT_TRUE(library);
    EXPECT_GT(library->imports.size(), 150U);
    for (const std::string& function : library->imports) {
        EXPECT_NE(tool::plan::FindImportRule(function), nullptr) << function;
    }
}

TEST(ImportRules, LetNothingThroughThatChangesSomething) {
    std::set<std::string> seen;
    for (const auto& rule : tool::plan::ImportRules()) {
        EXPECT_TRUE(seen.insert(rule.function).second) << rule.function << " twice";
        EXPECT_TRUE(rule.treatment == tool::plan::Treatment::Reads || rule.standIn != nullptr)
            << rule.function;
    }
}

TEST(Images, TellExportsAndRefuseWhatIsNoLibrary) {
    const auto library = tool::ReadImage(L"C:\\corvi\\Corvi_CA.dll");
    ASSERT_TRUE(library);
    EXPECT_EQ(library->exports.size(), 47U);
    EXPECT_FALSE(tool::ReadImage(L"C:\\corvi\\no such.dll"));
    PutFile(L"C:\\corvi\\not a.dll");
    EXPECT_FALSE(tool::ReadImage(L"C:\\corvi\\not a.dll"));
    fs::resize_file(L"C:\\corvi\\not a.dll", 100000);
    EXPECT_FALSE(tool::ReadImage(L"C:\\corvi\\not a.dll"));
}

TEST_F(PlanVerb, RefusesALibraryWithAnImportThatItDoesNotKnow) {
    const ToolRun run = RunTool(L"plan BlockLaunch --dll C:\\corvi\\unknown_import.dll");
    EXPECT_EQ(run.exitCode, 2U);
    EXPECT_EQ(run.output, "");
    EXPECT_THAT(run.error, HasSubstr("WritePrivateProfileStringW"));
    EXPECT_FALSE(fs::exists(L"C:\\corvi\\written.ini"));
}

TEST_F(PlanVerb, EndsWhereTheActionLooksUpAFunctionThatItDoesNotKnow) {
    PutFile(L"C:\\corvi\\precious.txt");
    const ToolRun run = RunTool(std::wstring(L"plan DeleteHXFolder") + kOdd);
    EXPECT_EQ(run.exitCode, 2U);
    EXPECT_THAT(run.error, HasSubstr("DeleteFileW"));
    EXPECT_TRUE(fs::exists(L"C:\\corvi\\precious.txt"));
}

// The words

TEST_F(PlanVerb, SaysOneLineForEachChangeInTheOrderOfTheDeed) {
    InstallSettingsApplication();
    PutFile(std::wstring(kFolder) + L"\\a.txt");
    PutFile(std::wstring(kFolder) + L"\\sub\\b.txt");
    const ToolRun run = RunTool(L"plan DeleteHXFolder");
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_EQ(run.error, "");
    EXPECT_THAT(
        run.output,
        HasSubstr("plan of DeleteHXFolder: 1 change, none of them made\n"
                  "  delete folder C:\\Program Files\\TAVO\\HX, 2 files in it and in 1 folder below it\n"
                  "result 0: "));
    EXPECT_TRUE(fs::exists(std::wstring(kFolder) + L"\\sub\\b.txt"));
}

TEST_F(PlanVerb, FitsTheConsole) {
    InstallSettingsApplication();
    PutFile(std::wstring(kFolder) + L"\\a file with a long name.txt");
    for (const wchar_t* call : {L"plan DeleteHXINSTALLDIRFolder", L"run BlockLaunch", L"plan BlockLaunch"}) {
        EXPECT_GE(80U, LongestLine(RunTool(call).output));
    }
}

TEST_F(PlanVerb, SaysSoWhenNothingWouldChange) {
    EXPECT_THAT(RunElevated(L"plan DeleteQELKey").output,
                StartsWith("plan of DeleteQELKey: nothing would change\n"));
    EXPECT_THAT(Lines(Planned(L"DeleteQELKey")), IsEmpty());
}

TEST_F(PlanVerb, ShowsTheMessageToTheUserAndTheLog) {
    const ToolRun run = RunTool(L"plan BlockLaunch");
    EXPECT_EQ(run.exitCode, 1U);
    EXPECT_THAT(run.output, AllOf(HasSubstr("SABLE_CA Not Launched from PIM"),
                                  HasSubstr("This application will now abort."), HasSubstr("result 1603: ")));
}

TEST_F(PlanVerb, TakesForeignCharactersInDataAndProperties) {
    const std::wstring folder = L"C:\\Program Files\\TAVO\\\u00dcb\u65e5";
    PutFile(folder + L"\\\u00e4.txt");
    const Json plan = Planned(L"DeleteDMFTDirectory --data \"InstallDir=" + folder + L"\"");
    EXPECT_THAT(Lines(plan), ElementsAre("delete folder C:\\Program Files\\TAVO\\\xc3\x9c"
                                         "b\xe6\x97\xa5, 1 file"));
    const Json refused = Planned(L"BlockLaunch --set LAUNCHED_FROM_PIM=\u65e5 --set OTHER=x=y");
    EXPECT_EQ(refused["result"], 1603);
    EXPECT_TRUE(fs::exists(folder));
}

// What a plan sees of its own changes

TEST_F(PlanVerb, FindsAFileInUseAndSchedulesItForTheRestart) {
    InstallSettingsApplication();
    PutFile(std::wstring(kFolder) + L"\\a.txt");
    fs::create_directories(kFolder);
    fs::copy_file(L"C:\\corvi\\com_server.dll", std::wstring(kFolder) + L"\\loaded.dll");
    const HMODULE loaded = LoadLibraryW((std::wstring(kFolder) + L"\\loaded.dll").c_str());
    const auto lines = Lines(Planned(L"DeleteHXFolder"));
    FreeLibrary(loaded);
    EXPECT_THAT(lines, Contains("delete file C:\\Program Files\\TAVO\\HX\\a.txt"));
    EXPECT_THAT(lines, Contains("delete at the next restart C:\\Program Files\\TAVO\\HX\\loaded.dll"));
    EXPECT_THAT(lines, Not(Contains(StartsWith("delete folder"))));
}

TEST_F(PlanVerb, StopsAtAFileThatSomebodyHoldsOpenAsTheActionDoes) {
    InstallSettingsApplication();
    PutFile(std::wstring(kFolder) + L"\\held.txt");
    const HANDLE held = CreateFileW((std::wstring(kFolder) + L"\\held.txt").c_str(), GENERIC_READ, 0, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
    const auto lines = Lines(Planned(L"DeleteHXFolder"));
    CloseHandle(held);
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(PlanVerb, TellsALargeFolderInOneLine) {
    InstallSettingsApplication();
    for (int number = 0; number < 1001; ++number) {
        PutFile(std::wstring(kFolder) + L"\\f" + std::to_wstring(number) + L".txt");
    }
    EXPECT_THAT(Lines(Planned(L"DeleteHXFolder")),
                ElementsAre("delete folder C:\\Program Files\\TAVO\\HX, 1,001 files"));
}

TEST_F(PlanVerb, ClearsAFolderAndSeesThatItIsEmpty) {
    StoreText(L"SOFTWARE\\QEL Technologies\\Install\\WVR64", L"InstallDir",
              L"C:\\Program Files\\TAVO\\Recording\\");
    PutFile(L"C:\\Program Files\\TAVO\\Recording\\WVR\\a.txt");
    EXPECT_THAT(
        Lines(Planned(L"DeleteWVRFolder")),
        ElementsAre(
            "delete folder C:\\Program Files\\TAVO\\Recording, 1 file in it and in 1 folder below it"));
}

TEST_F(PlanVerb, WritesIntoAKeyThatItHasCreated) {
    EXPECT_THAT(
        Lines(Planned(L"EnableAnalyticsKey")),
        ElementsAre("create key HKLM\\SOFTWARE\\TAVO\\Install", "set HKLM\\SOFTWARE\\TAVO\\Install\\TUEP = 0",
                    "create key HKLM\\SOFTWARE\\TAVO\\TAVOAnalytics",
                    "set HKLM\\SOFTWARE\\TAVO\\TAVOAnalytics\\AnalyticsAccepted = \"true\""));
}

TEST_F(PlanVerb, NamesAKeyOfThe32BitViewByWhereItIsStored) {
    StoreText(L"SOFTWARE\\Wow6432Node\\TAVO\\PPC\\one", L"a", L"b");
    StoreText(L"SOFTWARE\\Wow6432Node\\TAVO\\PPC\\two", L"a", L"b");
    EXPECT_THAT(Lines(Planned(L"UnInstallPPC")),
                AllOf(Contains("delete key HKLM\\SOFTWARE\\Wow6432Node\\TAVO\\PPC\\one"),
                      Contains("delete key HKLM\\SOFTWARE\\Wow6432Node\\TAVO\\PPC\\two"),
                      Contains("delete key HKLM\\SOFTWARE\\Wow6432Node\\TAVO\\PPC")));
}

TEST_F(PlanVerb, DoesNotStartWhatCouldNotBeStarted) {
    InstallSettingsApplication();
    fs::create_directories(kFolder);
    EXPECT_THAT(Lines(Planned(L"TerminateHXNextApp")), IsEmpty());
    PutFile(std::wstring(kFolder) + L"\\hxcmd.exe");
    EXPECT_THAT(Lines(Planned(L"ShutDownPQRNext")), IsEmpty());
}

// Ways to end

struct Way {
    const wchar_t* action;
    const char* outcome;
    const char* words;
};

const Way kWays[] = {
    {L"BlockLaunch", "crash", "0xC0000005, access violation"},
    {L"BlockKITELaunch", "error", "Unable to open registry key"},
    {L"LaunchHX", "error", "of no known type"},
    {L"DeleteQELKey", "ended process", "0xC0000417, invalid argument to the C runtime"},
    {L"TerminateHXNextApp", "ended process", "with 5"},
};

TEST_F(PlanVerb, AndRunTellAnErrorACrashAndAnEndedProcessApart) {
    for (const wchar_t* verb : {L"plan ", L"run "}) {
        for (const Way& way : kWays) {
            const std::wstring call = verb + std::wstring(way.action) + kOdd;
            const ToolRun run = RunTool(call + L" --json");
            const Json json = Parsed(run);
            EXPECT_EQ(run.exitCode, 1U) << run.output;
            EXPECT_EQ(json["outcome"], way.outcome) << run.output;
            EXPECT_THAT(json["meaning"].get<std::string>(), HasSubstr(way.words));
            EXPECT_EQ(json["class"], "failed");
        }
    }
}

TEST_F(PlanVerb, TellsWhatWasPlannedBeforeTheProcessEnds) {
    StoreText(L"SOFTWARE\\QEL\\a", L"b", L"c");
    const Json plan = Planned(std::wstring(L"DeleteQELKey") + kOdd);
    EXPECT_THAT(Lines(plan), ElementsAre("delete key HKLM\\SOFTWARE\\QEL with 1 key below it"));
    EXPECT_TRUE(KeyExists(L"SOFTWARE\\QEL\\a"));
}

TEST_F(PlanVerb, AndRunLeaveNoTemporaryFileHoweverTheActionEnds) {
    const auto list = [] {
        std::set<std::wstring> names;
        for (const auto& entry : fs::directory_iterator(fs::temp_directory_path())) {
            names.insert(entry.path().wstring());
        }
        names.insert(fs::exists(L"C:\\windows\\Installer") ? L"Installer" : L"");
        return names;
    };
    const auto before = list();
    for (const Way& way : kWays) {
        RunTool(std::wstring(L"plan ") + way.action + kOdd);
        RunTool(std::wstring(L"run ") + way.action + kOdd);
    }
    RunTool(std::wstring(L"plan DeleteHXFolder") + kOdd);
    EXPECT_EQ(list(), before);
}

// run

TEST_F(PlanVerb, RunDoesItAndExplainsAResultThatIsNoFailure) {
    StoreText(L"SOFTWARE\\Wow6432Node\\QEL\\ACE\\Settings\\MOM\\Install", L"a", L"b");
    const ToolRun run = RunElevated(L"run DelInstallProxyKey");
    EXPECT_EQ(run.exitCode, 0U) << run.output;
    EXPECT_THAT(run.output, AllOf(StartsWith("run of DelInstallProxyKey\n"),
                                  HasSubstr("DelInstallProxyKey successfully"), HasSubstr("result 1: ")));
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Wow6432Node\\QEL\\ACE\\Settings\\MOM\\Install"));
}

std::string FromSystemCodePage(const std::string& bytes) {
    wchar_t wide[64] = {};
    char utf8[64] = {};
    MultiByteToWideChar(CP_ACP, 0, bytes.c_str(), -1, wide, 64);
    WideCharToMultiByte(CP_UTF8, 0, wide, -1, utf8, 64, nullptr, nullptr);
    return utf8;
}

TEST_F(PlanVerb, RunShowsWhatTheActionWritesToStandardOutput) {
    const std::string spoken = "spoken to nobody, " + FromSystemCodePage("J\xF6rg") + "\n";
    const Json run = Parsed(RunTool(std::wstring(L"run TerminateHXNextApp --json") + kOdd));
    EXPECT_EQ(run["output"], spoken);
    EXPECT_THAT(RunTool(std::wstring(L"run TerminateHXNextApp") + kOdd).output, HasSubstr("  " + spoken));
    const Json plan = Planned(std::wstring(L"TerminateHXNextApp") + kOdd);
    EXPECT_EQ(plan["output"], spoken);
}

TEST_F(PlanVerb, RunSaysWhatItWaitsForAfterTenSeconds) {
    const ToolRun run = RunTool(std::wstring(L"run TerminateDVRApp") + kOdd);
    EXPECT_THAT(run.output, AllOf(HasSubstr("still waiting after 10 s for the program"),
                                  HasSubstr("sleeper.exe soundly")));
    EXPECT_EQ(run.exitCode, 0U) << run.output;
}

TEST_F(PlanVerb, WaitsForNothing) {
    const ULONGLONG start = GetTickCount64();
    const Json plan = Planned(std::wstring(L"TerminateDVRApp") + kOdd);
    EXPECT_LT(GetTickCount64() - start, 10000U);
    EXPECT_THAT(Lines(plan), Contains("run C:\\corvi\\sleeper.exe soundly"));
}

// Elevation

TEST_F(PlanVerb, SaysThatItIsNotElevatedWhereTheActionNeedsIt) {
    const Tokens tokens;
    ASSERT_NE(tokens.Limited(), nullptr);
    ASSERT_NE(tokens.Full(), nullptr);
    for (const wchar_t* verb : {L"plan", L"run"}) {
        const std::wstring arguments = std::wstring(verb) + L" DeleteQELKey";
        EXPECT_THAT(RunToolAs(tokens.Limited(), arguments).output,
                    StartsWith("note: not elevated, and this action needs it"));
        EXPECT_THAT(RunToolAs(tokens.Full(), arguments).output, Not(HasSubstr("elevated")));
    }
}

// Usage

void ExpectUsageError(const std::wstring& arguments, const std::string& word) {
    const ToolRun run = RunTool(arguments);
    EXPECT_EQ(run.exitCode, 2U) << run.output;
    EXPECT_EQ(run.output, "");
    EXPECT_THAT(run.error, AllOf(StartsWith("corvi: "), HasSubstr(word), EndsWith("\n")));
    EXPECT_EQ(LineCount(run.error), 1U) << run.error;
}

TEST_F(PlanVerb, AndRunSayInOneLineThatAnActionFails) {
    for (const std::wstring& verb : {std::wstring(L"plan"), std::wstring(L"run")}) {
        for (const wchar_t* json : {L"", L" --json"}) {
            const ToolRun run = RunTool(verb + L" BlockLaunch" + json);
            EXPECT_EQ(run.exitCode, 1U);
            EXPECT_EQ(run.error, "corvi: BlockLaunch: refused, result 1603\n");
        }
    }
}

TEST_F(PlanVerb, TakesActionDataThatIsSetAsAPropertyForGiven) {
    EXPECT_THAT(RunElevated(L"plan DeleteDMFTDirectory").output, StartsWith("note: no action data given"));
    EXPECT_THAT(RunElevated(L"plan DeleteDMFTDirectory --set CustomActionData=InstallDir=C:\\none\\").output,
                StartsWith("plan of DeleteDMFTDirectory"));
}

TEST_F(PlanVerb, AndRunRefuseWrongUsageInOneLine) {
    for (const std::wstring& verb : {std::wstring(L"plan"), std::wstring(L"run")}) {
        ExpectUsageError(verb, "ACTION");
        ExpectUsageError(verb + L" NoSuchAction", "\"NoSuchAction\"");
        ExpectUsageError(verb + L" blocklaunch", "BlockLaunch");
        ExpectUsageError(verb + L" BlockLaunch --set NOEQUALS", "NAME=VALUE");
        ExpectUsageError(verb + L" BlockLaunch --set =x", "NAME=VALUE");
        ExpectUsageError(verb + L" BlockLaunch --dll C:\\no\\such.dll", "C:\\no\\such.dll");
        ExpectUsageError(verb + L" BlockLaunch --dll C:\\corvi\\Corvi_CA.def", "no 64-bit Windows library");
        ExpectUsageError(verb + L" DeleteHXNoUpgrade" + kOdd, "DeleteHXNoUpgrade");
        ExpectUsageError(verb + L" BlockLaunch --colour", "--colour");
    }
}

}  // namespace
}  // namespace corvi::test
