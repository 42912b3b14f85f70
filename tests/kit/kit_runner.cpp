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
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "tests/support/throwaway_machine.h"

namespace {

namespace fs = std::filesystem;

constexpr wchar_t kConsent[] = L"--this-machine-may-be-thrown-away";
constexpr wchar_t kStage[] = L"C:\\corvi";
constexpr DWORD kDefaultLimitSeconds = 900;
constexpr DWORD kLongestLimitSeconds = 1000000;
constexpr DWORD kEndMilliseconds = 10000;  // what ended processes have for going
constexpr int kRefused = 2;

struct Options {
    bool consent = false;
    DWORD limitSeconds = kDefaultLimitSeconds;  // 0: what was given is no number of seconds
    std::vector<std::wstring> programs;         // empty for all
};

struct Outcome {
    std::wstring program;
    int tests = 0;
    int failures = 0;
    DWORD exitCode = 0;
    bool timedOut = false;
    bool told = false;    // the program wrote its own JUnit file
    std::string trouble;  // why the kit could not run it; empty when it could
    std::wstring left;    // what earlier programs left in the stage and still hold; empty when nothing
    double seconds = 0;

    bool Passed() const {
        return trouble.empty() && exitCode == 0 && !timedOut && told && tests > 0 && failures == 0;
    }
};

/// The seconds that a text gives; 0 for what is none, or too many.
DWORD ReadLimit(const std::wstring& text) {
    if (text.empty() || text.find_first_not_of(L"0123456789") != std::wstring::npos) {
        return 0;
    }
    const unsigned long seconds = std::wcstoul(text.c_str(), nullptr, 10);
    return seconds <= kLongestLimitSeconds ? seconds : 0;
}

Options ReadOptions(int count, wchar_t** arguments) {
    Options options;
    for (int index = 1; index < count; ++index) {
        const std::wstring argument = arguments[index];
        if (argument == kConsent) {
            options.consent = true;
        } else if (argument == L"--limit") {
            options.limitSeconds = ++index < count ? ReadLimit(arguments[index]) : 0;
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

/// The first program that was asked for and that the kit does not have; empty when it has them all.
std::wstring MissingProgram(const fs::path& kit, const std::vector<std::wstring>& wanted) {
    const auto missing = std::find_if(wanted.begin(), wanted.end(), [&](const std::wstring& name) {
        return !fs::exists(kit / L"tests" / (name + L".exe"));
    });
    return missing == wanted.end() ? L"" : *missing;
}

/// Why the kit does not start on this machine, or not as it was asked to; empty when it does.
std::wstring Refusal(const Options& options, const fs::path& kit) {
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
    if (options.limitSeconds == 0) {
        return L"--limit needs a number of seconds, from 1 to " + std::to_wstring(kLongestLimitSeconds) +
               L".";
    }
    if (const std::wstring missing = MissingProgram(kit, options.programs); !missing.empty()) {
        return L"No such test program in the kit: " + missing;
    }
    return L"";
}

/// Makes the folder for the reports and marks the machine. Why that did not go; empty when it did.
std::wstring Prepare(const fs::path& results) {
    std::error_code refused;
    fs::create_directories(results, refused);
    if (!fs::is_directory(results, refused)) {
        return L"The folder for the results could not be made: " + results.wstring();
    }
    if (!corvi::test::MarkAsThrowawayMachine()) {
        return L"The machine could not be marked in the registry.";
    }
    return L"";
}

/// Ends a step of the stage's renewal that failed.
void Check(const std::error_code& error, const fs::path& path) {
    if (error) {
        throw std::runtime_error("the stage could not be renewed: " + path.string() + ": " + error.message());
    }
}

/// Removes a file or a folder with all that is in it; a link goes itself, what it leads to stays. False when
/// something is held. path: absolute; handed to the platform as it is, however long.
bool Remove(const std::wstring& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        return GetLastError() == ERROR_FILE_NOT_FOUND;
    }
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        return DeleteFileW(path.c_str()) != FALSE;
    }
    WIN32_FIND_DATAW found = {};
    const HANDLE search = (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0
                              ? INVALID_HANDLE_VALUE
                              : FindFirstFileW((path + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = found.cFileName;
            if (name != L"." && name != L"..") {
                Remove(path + L"\\" + name);
            }
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }
    return RemoveDirectoryW(path.c_str()) != FALSE;
}

/// C:\corvi as each test program expects it: the kit's stage and nothing that an earlier program left. What
/// is still in use stays, and is written over where that goes. Gives the names of what stays; throws
/// std::runtime_error when a file of the stage cannot be put there.
std::wstring RenewStage(const fs::path& kit, const fs::path& program) {
    std::wstring left;
    std::error_code error;
    if (fs::exists(kStage, error)) {
        for (const auto& entry : fs::directory_iterator(kStage, error)) {
            if (!Remove(L"\\\\?\\" + entry.path().wstring())) {
                left += L" " + entry.path().filename().wstring();
            }
        }
    }
    fs::create_directories(kStage, error);
    Check(error, kStage);
    for (const auto& entry : fs::directory_iterator(kit / L"stage")) {
        const fs::path target = fs::path(kStage) / entry.path().filename();
        fs::copy(entry.path(), target, fs::copy_options::recursive | fs::copy_options::overwrite_existing,
                 error);
        Check(error, target);
    }
    const fs::path staged = fs::path(kStage) / program.filename();
    fs::copy_file(program, staged, fs::copy_options::overwrite_existing, error);
    Check(error, staged);
    return left;
}

HANDLE OpenOutput(const fs::path& file) {
    SECURITY_ATTRIBUTES inherited = {sizeof(inherited), nullptr, TRUE};
    return CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherited, CREATE_ALWAYS,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

/// Ends every process of a job and waits until they are gone, so that nothing of a program lives on beside
/// the next one.
void EndAll(HANDLE job) {
    TerminateJobObject(job, 1);
    JOBOBJECT_BASIC_ACCOUNTING_INFORMATION left = {};
    const ULONGLONG end = GetTickCount64() + kEndMilliseconds;
    while (
        QueryInformationJobObject(job, JobObjectBasicAccountingInformation, &left, sizeof(left), nullptr) &&
        left.ActiveProcesses > 0 && GetTickCount64() < end) {
        Sleep(10);
    }
}

/// Starts a command line in C:\corvi and waits for its end, at most for the limit. Whatever it has started
/// is ended with it.
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
        outcome.trouble = "could not be started: " + std::to_string(GetLastError());
    } else if (!AssignProcessToJobObject(job, process.hProcess)) {
        outcome.trouble = "could not be watched: " + std::to_string(GetLastError());
        TerminateProcess(process.hProcess, 1);
    } else {
        ResumeThread(process.hThread);
        outcome.timedOut = WaitForSingleObject(process.hProcess, limitSeconds * 1000) == WAIT_TIMEOUT;
        EndAll(job);
        GetExitCodeProcess(process.hProcess, &outcome.exitCode);
    }
    for (const HANDLE handle : {process.hThread, process.hProcess, job, output}) {
        if (handle != nullptr && handle != INVALID_HANDLE_VALUE) {
            CloseHandle(handle);
        }
    }
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

std::string AsXml(const std::string& text) {
    std::string escaped;
    for (const char character : text) {
        switch (character) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            default:
                // What is not ASCII would need the file's encoding.
                escaped += character >= ' ' && character <= '~' ? character : '?';
        }
    }
    return escaped;
}

/// A program that was not run, crashed or ran out of time wrote no report: this one stands for it.
void WriteReportOfCrash(const fs::path& file, const Outcome& outcome) {
    const std::string name(outcome.program.begin(), outcome.program.end());
    std::string why = "ended with " + std::to_string(outcome.exitCode);
    if (!outcome.trouble.empty()) {
        why = outcome.trouble;
    } else if (outcome.timedOut) {
        why = "ran out of time";
    }
    std::ofstream(file, std::ios::binary)
        << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites tests=\"1\" failures=\"0\" "
           "errors=\"1\">\n"
        << "  <testsuite name=\"" << name << "\" tests=\"1\" failures=\"0\" errors=\"1\">\n"
        << "    <testcase name=\"program\" classname=\"" << name << "\"><error message=\"" << AsXml(why)
        << "\"/></testcase>\n  </testsuite>\n</testsuites>\n";
}

Outcome RunProgram(const fs::path& kit, const fs::path& program, DWORD limitSeconds) {
    Outcome outcome;
    outcome.program = program.stem().wstring();
    const fs::path results = kit / L"results";
    const fs::path report = results / (outcome.program + L".xml");
    std::error_code ignored;
    fs::remove(report, ignored);
    const ULONGLONG begin = GetTickCount64();
    try {
        outcome.left = RenewStage(kit, program);
        const fs::path staged = fs::path(kStage) / program.filename();
        RunWithLimit(L"\"" + staged.wstring() + L"\" \"--gtest_output=xml:" + report.wstring() + L"\"",
                     results / (outcome.program + L".txt"), limitSeconds, outcome);
    } catch (const std::exception& failure) {
        outcome.trouble = failure.what();
    }
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
    if (!outcome.trouble.empty()) {
        return "NOT RUN";
    }
    if (outcome.timedOut) {
        return "TIME OUT";
    }
    return outcome.told ? "FAILED" : "CRASHED";
}

/// The folder that the kit was unpacked to.
fs::path Folder() {
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    return fs::path(self).parent_path();
}

void PrintRow(const Outcome& outcome) {
    std::printf("%-36ls %5d tests %4d failed %8.1f s  %s\n", outcome.program.c_str(), outcome.tests,
                outcome.failures, outcome.seconds, Verdict(outcome));
    if (!outcome.trouble.empty()) {
        std::printf("    %s\n", outcome.trouble.c_str());
    }
    if (!outcome.left.empty()) {
        std::printf("    earlier programs left and still hold:%ls\n", outcome.left.c_str());
    }
    std::fflush(stdout);
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
    // The test programs inherit it: nobody is there to answer a dialogue.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    const Options options = ReadOptions(count, arguments);
    const fs::path kit = Folder();
    std::wstring refusal = Refusal(options, kit);
    if (refusal.empty()) {
        refusal = Prepare(kit / L"results");
    }
    if (!refusal.empty()) {
        std::fprintf(stderr, "%ls\n", refusal.c_str());
        return kRefused;
    }
    const std::vector<fs::path> programs = Programs(kit, options.programs);
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
