#include <windows.h>

#include <string>
#include <vector>

#include "bench/rows.h"
#include "tests/tool/changed_package.h"

namespace corvi::bench {
namespace {

constexpr wchar_t kPackage[] = L"C:\\corvi\\check_clean.msi";
constexpr wchar_t kLarge[] = L"C:\\corvi\\check_large.msi";
constexpr int kPairs = 250;  // each an action and the property action that sets its data
constexpr int kFirstSequence = 5000;
constexpr DWORD kLimitMilliseconds = 1000;

// A deletion with action data and a condition of its own, so that no answer serves for two.
std::vector<std::wstring> OnePair(int number) {
    const std::wstring id = L"Delete" + std::to_wstring(number);
    const std::wstring condition = L"REMOVE=\"ALL\" AND NOT UPGRADINGPRODUCTCODE AND ProductVersion<>\"" +
                                   std::to_wstring(number) + L"\"";
    const auto schedule = [&](const std::wstring& action, int sequence) {
        return L"INSERT INTO `InstallExecuteSequence` (`Action`,`Condition`,`Sequence`) VALUES ('" + action +
               L"','" + condition + L"'," + std::to_wstring(sequence) + L")";
    };
    return {L"INSERT INTO `CustomAction` (`Action`,`Type`,`Source`,`Target`) VALUES ('" + id +
                L"',3137,'Corvi_CA','DeleteServiceIfBinaryIsInDirectory')",
            L"INSERT INTO `CustomAction` (`Action`,`Type`,`Source`,`Target`) VALUES ('" + id +
                L".Data',51,'" + id + L"','ServiceName=Service" + std::to_wstring(number) +
                L";DirectoryOfBinary=[INSTALLFOLDER]')",
            schedule(id + L".Data", kFirstSequence + 2 * number),
            schedule(id, kFirstSequence + 2 * number + 1)};
}

void HaveLargePackage() {
    if (GetFileAttributesW(kLarge) != INVALID_FILE_ATTRIBUTES) {
        return;
    }
    std::vector<std::wstring> statements;
    for (int number = 0; number < kPairs; ++number) {
        const std::vector<std::wstring> pair = OnePair(number);
        statements.insert(statements.end(), pair.begin(), pair.end());
    }
    test::ChangePackage(kPackage, kLarge, statements);
}

// Runs the program to its end, its output to nowhere; it finds nothing.
void CheckLargePackage() {
    wchar_t commandLine[] = L"C:\\corvi\\corvi.exe check C:\\corvi\\check_large.msi --json";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = startup.hStdOutput = startup.hStdError = INVALID_HANDLE_VALUE;
    PROCESS_INFORMATION process = {};
    Require(CreateProcessW(nullptr, commandLine, nullptr, nullptr, FALSE, 0, nullptr, L"C:\\corvi", &startup,
                           &process) != FALSE,
            "starting corvi.exe");
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD exitCode = 1;
    GetExitCodeProcess(process.hProcess, &exitCode);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    Require(exitCode == 0, "checking the package: it has no findings");
}

}  // namespace

// The aim is a second of processor time. The clock shows no less than that for a program with one thread, and
// Wine tells the caller's own times for those of another process.
Row PackageCheckRow() {
    return {"corvi check of a package with 500 more actions",
            {"corvi check, as a process", HaveLargePackage, CheckLargePackage},
            {{{"one second of the clock", nullptr, [] { Sleep(kLimitMilliseconds); }}, 1.0}}};
}

}  // namespace corvi::bench
