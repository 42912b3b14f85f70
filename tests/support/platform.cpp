#include "tests/support/platform.h"

#include <stdexcept>
#include <vector>

#include "tests/support/folders.h"
#include "tests/support/installer_run.h"
#include "tests/support/running_program.h"
#include "tests/support/scratch_key.h"
#include "tests/support/throwaway_machine.h"

namespace corvi::test {
namespace {

constexpr wchar_t kProbeImage[] = L"CorviProbe.exe";

void RunTaskKill(const std::wstring& imageName) {
    std::wstring commandLine = L"taskkill.exe /IM " + imageName + L" /F";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION started = {};
    if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                       nullptr, &startup, &started) == FALSE) {
        throw std::runtime_error("cannot start taskkill: " + std::to_string(GetLastError()));
    }
    WaitForSingleObject(started.hProcess, INFINITE);
    CloseHandle(started.hThread);
    CloseHandle(started.hProcess);
}

bool AskTaskKill() {
    const RunningProgram first(kProbeImage);
    const RunningProgram second(kProbeImage);
    RunTaskKill(kProbeImage);
    // The tool has told them to end; on a loaded machine that takes its time.
    for (int attempt = 0; attempt < 100 && (first.Runs() || second.Runs()); ++attempt) {
        Sleep(50);
    }
    return !first.Runs() && !second.Runs();
}

bool AskConsoleHost() {
    constexpr wchar_t kFolder[] = L"C:\\corvi\\started here";
    CreateDirectoryW(kFolder, nullptr);
    bool holds = false;
    {
        const RunningProgram program(kProbeImage, kFolder);
        holds = RemoveDirectoryW(kFolder) == FALSE;
    }
    for (int attempt = 0; holds && attempt < 100 && RemoveDirectoryW(kFolder) == FALSE; ++attempt) {
        Sleep(50);
    }
    return holds;
}

bool AskInstaller() {
    RunInstaller(L"/i C:\\corvi\\skip_rest.msi");
    const LSTATUS installed = RegGetValueW(HKEY_LOCAL_MACHINE, kThrowawayKey, L"NotSkipped", RRF_RT_REG_SZ,
                                           nullptr, nullptr, nullptr);
    RunInstaller(L"/x C:\\corvi\\skip_rest.msi");
    return installed != ERROR_SUCCESS;
}

bool AskLinks() {
    constexpr wchar_t kLink[] = L"C:\\corvi\\link of our own";
    if (CreateSymbolicLinkW(kLink, L"C:\\corvi", SYMBOLIC_LINK_FLAG_DIRECTORY) == 0) {
        return false;
    }
    const DWORD attributes = GetFileAttributesW(kLink);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
           DeleteOnClose(kLink) && GetFileAttributesW(kLink) == INVALID_FILE_ATTRIBUTES;
}

}  // namespace

std::wstring MultiStringHandedOver(const std::wstring& stored) {
    const ScratchKey key(L"SOFTWARE\\CorviProbe");
    key.SetValue(L"", L"List", REG_MULTI_SZ, stored.data(), stored.size() * sizeof(wchar_t));
    // Room for all that the platform may add.
    std::vector<wchar_t> data(stored.size() + 4, L'\0');
    auto size = static_cast<DWORD>(data.size() * sizeof(wchar_t));
    const LSTATUS status = RegGetValueW(HKEY_LOCAL_MACHINE, key.Path().c_str(), L"List", RRF_RT_REG_MULTI_SZ,
                                        nullptr, data.data(), &size);
    if (status != ERROR_SUCCESS) {
        throw std::runtime_error("cannot read a multi-string: " + std::to_string(status));
    }
    return {data.data(), size / sizeof(wchar_t)};
}

bool TaskKillEndsEveryProcess() {
    static const bool answer = AskTaskKill();
    return answer;
}

bool InstallerSkipsTheRest() {
    static const bool answer = AskInstaller();
    return answer;
}

bool MakesLinks() {
    static const bool answer = AskLinks();
    return answer;
}

bool ConsoleHostHoldsFolder() {
    static const bool answer = AskConsoleHost();
    return answer;
}

}  // namespace corvi::test
