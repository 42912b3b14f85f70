#include <windows.h>

#include <psapi.h>

#include <string>

#include "bench/platform.h"
#include "bench/rows.h"
#include "runtime/kernel_handle.h"

namespace corvi::bench {
namespace {

constexpr wchar_t kLargeLog[] = L"C:\\corvi\\large.log";
constexpr wchar_t kSmallLog[] = L"C:\\corvi\\small.log";
constexpr int kLargeMegabytes = 100;
constexpr int kSmallMegabytes = 10;
// The program's own pages, its buffers and what it keeps of a log: far from the log's size.
constexpr SIZE_T kMostMemory = SIZE_T{96} << 20U;

SIZE_T peakMemory = 0;

/// About a megabyte of a log: one action of the library after another, each among lines of the installer.
std::string LogPiece() {
    std::string piece;
    while (piece.size() < (1U << 20U)) {
        piece +=
            "MSI (s) (A4:B0) [10:00:01:000]: Executing op: CustomActionSchedule(Action=PreInstallKMSDK,"
            "ActionType=3137,Source=BinaryData,Target=PreInstallKMSDK,)\r\n"
            "PreInstallKMSDK() Service location - system32\\TavoKyrnMasterDriver.sys\r\n"
            "Unable to pause Windows Update Service. Error code: 1062 The service has not been started.\r\n";
        for (int line = 0; line < 40; ++line) {
            piece +=
                "MSI (s) (A4:B0) [10:00:01:100]: Executing op: "
                "FileCopy(SourceName=file.dll,DestName=file.dll,"
                "Attributes=512,FileSize=48128,PerTick=65536,,VerifyMedia=1,,,,,CheckCRC=0,Version=1.0.0)"
                "\r\n";
        }
    }
    return piece;
}

void MakeLog(const wchar_t* path, int megabytes) {
    const std::string piece = LogPiece();
    const KernelHandle file(
        CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    for (int count = 0; count < megabytes; ++count) {
        DWORD written = 0;
        Require(
            WriteFile(file.Get(), piece.data(), static_cast<DWORD>(piece.size()), &written, nullptr) != FALSE,
            "writing a log");
    }
}

/// Runs corvi explain on a log, its output into a file, and notes how much memory it had at most.
void Explain(const wchar_t* log) {
    SECURITY_ATTRIBUTES inheritable = {sizeof(inheritable), nullptr, TRUE};
    const KernelHandle output(CreateFileW(L"C:\\corvi\\story.txt", GENERIC_WRITE, FILE_SHARE_READ,
                                          &inheritable, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    std::wstring command = std::wstring(L"C:\\corvi\\corvi.exe explain ") + log;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output.Get();
    startup.hStdError = output.Get();
    PROCESS_INFORMATION started = {};
    Require(CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                           &started) != FALSE,
            "starting corvi.exe");
    const KernelHandle process(started.hProcess);
    const KernelHandle thread(started.hThread);
    // What a process had at most cannot be asked behind its end everywhere: it is asked while it runs.
    while (WaitForSingleObject(process.Get(), 20) == WAIT_TIMEOUT) {
        PROCESS_MEMORY_COUNTERS counters = {};
        if (K32GetProcessMemoryInfo(process.Get(), &counters, sizeof(counters)) != FALSE &&
            counters.PeakWorkingSetSize > peakMemory) {
            peakMemory = counters.PeakWorkingSetSize;
        }
    }
    DWORD code = 1;
    GetExitCodeProcess(process.Get(), &code);
    Require(code == 0, "explaining a log");
}

}  // namespace

Row ExplainLogRow() {
    return {
        "explain a log of 100 MB (one process), in bounded memory",
        {"corvi explain", [] { MakeLog(kLargeLog, kLargeMegabytes); }, [] { Explain(kLargeLog); },
         [] { Require(peakMemory > 0 && peakMemory < kMostMemory, "explaining a log in bounded memory"); }},
        {{{"ten logs of 10 MB, one after the other", [] { MakeLog(kSmallLog, kSmallMegabytes); },
           [] {
               for (int count = 0; count < kLargeMegabytes / kSmallMegabytes; ++count) {
                   Explain(kSmallLog);
               }
           }},
          1.2}},
    };
}

}  // namespace corvi::bench
