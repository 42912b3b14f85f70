// Runs the test programs of the kit on this machine, one after the other, each with a time limit and in a new
// C:\corvi; writes a JUnit file for each and one table at the end.
// usage: kit_runner --this-machine-may-be-thrown-away [--limit SECONDS] [PROGRAM...]
// Ends with 0 when everything passed, 1 when something failed, 2 when it refused to start.

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/support/throwaway_machine.h"

namespace {

namespace fs = std::filesystem;

constexpr wchar_t kConsent[] = L"--this-machine-may-be-thrown-away";
constexpr wchar_t kStage[] = L"C:\\corvi";
constexpr DWORD kDefaultLimitSeconds = 900;
constexpr int kRefused = 2;

struct Options {
    bool consent = false;
    DWORD limitSeconds = kDefaultLimitSeconds;
    std::vector<std::wstring> programs;  // empty for all
};

struct Outcome {
    std::wstring program;
    int tests = 0;
    int failures = 0;
    DWORD exitCode = 0;
    bool timedOut = false;
    bool told = false;  // the program wrote its own JUnit file
    double seconds = 0;

    bool Passed() const { return exitCode == 0 && !timedOut && told && tests > 0 && failures == 0; }
};

Options ReadOptions(int count, wchar_t** arguments) {
    Options options;
    for (int index = 1; index < count; ++index) {
        const std::wstring argument = arguments[index];
        if (argument == kConsent) {
            options.consent = true;
        } else if (argument == L"--limit" && index + 1 < count) {
            options.limitSeconds = std::max(1UL, std::wcstoul(arguments[++index], nullptr, 10));
        } else {
            options.programs.push_back(argument);
        }
    }
    return options;
}

/// True with the rights of an administrator in force: the group is in the token of an unelevated start as
/// well, but only to deny. Stands on CheckTokenMembership.
bool IsElevated() {
    SID_IDENTIFIER_AUTHORITY authority = SECURITY_NT_AUTHORITY;
    PSID administrators = nullptr;
    if (!AllocateAndInitializeSid(&authority, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0, 0,
                                  0, 0, 0, 0, &administrators)) {
        return false;
    }
    BOOL isMember = FALSE;
    const bool known = CheckTokenMembership(nullptr, administrators, &isMember) != FALSE;
    FreeSid(administrators);
    return known && isMember != FALSE;
}

bool Is64BitWindows() {
    SYSTEM_INFO info = {};
    GetNativeSystemInfo(&info);
    return info.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_AMD64;
}

/// Why the kit does not start on this machine; null when it does.
const wchar_t* Refusal(const Options& options) {
    if (!options.consent) {
        return L"The tests delete folders, services, tasks and registry keys of this machine.\n"
               L"Run them on a machine that may be thrown away, and say so: run.cmd "
               L"--this-machine-may-be-thrown-away";
    }
    if (!Is64BitWindows()) {
        return L"The tests need a 64-bit Windows on an x64 processor.";
    }
    if (!IsElevated()) {
        return L"The tests need an elevated command prompt (Run as administrator).";
    }
    return nullptr;
}

/// C:\corvi as each test program expects it: the kit's stage and nothing that an earlier program left. What
/// is still in use stays, and is written over where that goes.
void RenewStage(const fs::path& kit) {
    std::error_code ignored;
    if (fs::exists(kStage, ignored)) {
        for (const auto& entry : fs::directory_iterator(kStage, ignored)) {
            std::error_code kept;
            fs::remove_all(entry.path(), kept);
        }
    }
    fs::create_directories(kStage, ignored);
    for (const auto& entry : fs::directory_iterator(kit / L"stage")) {
        std::error_code kept;
        fs::copy(entry.path(), fs::path(kStage) / entry.path().filename(),
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing, kept);
    }
}

HANDLE OpenOutput(const fs::path& file) {
    SECURITY_ATTRIBUTES inherited = {sizeof(inherited), nullptr, TRUE};
    return CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherited, CREATE_ALWAYS,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

/// Starts a command line in C:\corvi and waits for its end, at most for the limit; then it is ended with all
/// that it started.
void RunWithLimit(std::wstring commandLine, const fs::path& log, DWORD limitSeconds, Outcome& outcome) {
    const HANDLE output = OpenOutput(log);
    STARTUPINFOW start = {};
    start.cb = sizeof(start);
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdOutput = output;
    start.hStdError = output;
    PROCESS_INFORMATION process = {};
    const HANDLE job = CreateJobObjectW(nullptr, nullptr);
    if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr,
                        kStage, &start, &process)) {
        outcome.exitCode = GetLastError();
        CloseHandle(output);
        CloseHandle(job);
        return;
    }
    AssignProcessToJobObject(job, process.hProcess);
    ResumeThread(process.hThread);
    outcome.timedOut = WaitForSingleObject(process.hProcess, limitSeconds * 1000) == WAIT_TIMEOUT;
    if (outcome.timedOut) {
        TerminateJobObject(job, 1);
        TerminateProcess(process.hProcess, 1);
        WaitForSingleObject(process.hProcess, 10000);
    }
    GetExitCodeProcess(process.hProcess, &outcome.exitCode);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    CloseHandle(job);
    CloseHandle(output);
}

/// The number of an attribute of the report's root element; -1 when there is none.
int RootNumber(const std::string& report, const std::string& attribute) {
    const size_t root = report.find("<testsuites");
    const size_t place = report.find(" " + attribute + "=\"", root);
    return root == std::string::npos || place == std::string::npos
               ? -1
               : std::atoi(report.c_str() + place + attribute.size() + 3);
}

void ReadReport(const fs::path& file, Outcome& outcome) {
    std::ifstream stream(file, std::ios::binary);
    const std::string report((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    const int tests = RootNumber(report, "tests");
    if (tests >= 0) {
        outcome.told = true;
        outcome.tests = tests;
        outcome.failures = RootNumber(report, "failures") + std::max(0, RootNumber(report, "errors"));
    }
}

/// A program that crashed or ran out of time wrote no report: this one stands for it.
void WriteReportOfCrash(const fs::path& file, const Outcome& outcome) {
    const std::string name(outcome.program.begin(), outcome.program.end());
    const std::string why =
        outcome.timedOut ? "ran out of time" : "ended with " + std::to_string(outcome.exitCode);
    std::ofstream(file, std::ios::binary)
        << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites tests=\"1\" failures=\"0\" "
           "errors=\"1\">\n"
        << "  <testsuite name=\"" << name << "\" tests=\"1\" failures=\"0\" errors=\"1\">\n"
        << "    <testcase name=\"program\" classname=\"" << name << "\"><error message=\"" << why
        << "\"/></testcase>\n  </testsuite>\n</testsuites>\n";
}

Outcome RunProgram(const fs::path& kit, const fs::path& program, DWORD limitSeconds) {
    Outcome outcome;
    outcome.program = program.stem().wstring();
    const fs::path results = kit / L"results";
    const fs::path report = results / (outcome.program + L".xml");
    RenewStage(kit);
    const fs::path staged = fs::path(kStage) / program.filename();
    std::error_code ignored;
    fs::copy_file(program, staged, fs::copy_options::overwrite_existing, ignored);
    fs::remove(report, ignored);
    const ULONGLONG begin = GetTickCount64();
    RunWithLimit(L"\"" + staged.wstring() + L"\" \"--gtest_output=xml:" + report.wstring() + L"\"",
                 results / (outcome.program + L".txt"), limitSeconds, outcome);
    outcome.seconds = static_cast<double>(GetTickCount64() - begin) / 1000;
    ReadReport(report, outcome);
    if (!outcome.told) {
        WriteReportOfCrash(report, outcome);
    }
    return outcome;
}

std::vector<fs::path> Programs(const fs::path& kit, const std::vector<std::wstring>& wanted) {
    std::vector<fs::path> programs;
    for (const auto& entry : fs::directory_iterator(kit / L"tests")) {
        const std::wstring name = entry.path().stem().wstring();
        if (entry.path().extension() == L".exe" &&
            (wanted.empty() || std::find(wanted.begin(), wanted.end(), name) != wanted.end())) {
            programs.push_back(entry.path());
        }
    }
    std::sort(programs.begin(), programs.end());
    return programs;
}

const char* Verdict(const Outcome& outcome) {
    if (outcome.Passed()) {
        return "passed";
    }
    if (outcome.timedOut) {
        return "TIME OUT";
    }
    return outcome.told ? "FAILED" : "CRASHED";
}

void PrintRow(const Outcome& outcome) {
    std::printf("%-36ls %5d tests %4d failed %8.1f s  %s\n", outcome.program.c_str(), outcome.tests,
                outcome.failures, outcome.seconds, Verdict(outcome));
    std::fflush(stdout);
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
    const Options options = ReadOptions(count, arguments);
    const wchar_t* refusal = Refusal(options);
    if (refusal == nullptr && !corvi::test::MarkAsThrowawayMachine()) {
        refusal = L"The machine could not be marked in the registry.";
    }
    if (refusal != nullptr) {
        std::fprintf(stderr, "%ls\n", refusal);
        return kRefused;
    }
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    const fs::path kit = fs::path(self).parent_path();
    fs::create_directories(kit / L"results");
    const std::vector<fs::path> programs = Programs(kit, options.programs);
    if (programs.empty()) {
        std::fprintf(stderr, "No such test program in the kit.\n");
        return kRefused;
    }
    std::vector<Outcome> outcomes;
    for (const fs::path& program : programs) {
        outcomes.push_back(RunProgram(kit, program, options.limitSeconds));
        PrintRow(outcomes.back());
    }
    const auto passed = std::count_if(outcomes.begin(), outcomes.end(),
                                      [](const Outcome& outcome) { return outcome.Passed(); });
    int tests = 0;
    for (const Outcome& outcome : outcomes) {
        tests += outcome.tests;
    }
    std::printf("%d of %d programs passed, %d tests; reports in %ls\n", static_cast<int>(passed),
                static_cast<int>(outcomes.size()), tests, (kit / L"results").c_str());
    return passed == static_cast<std::ptrdiff_t>(outcomes.size()) ? 0 : 1;
}
