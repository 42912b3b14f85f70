#include "tests/actions/suite_journal.h"

#include <objbase.h>
#include <shellapi.h>

#include <algorithm>
#include <cwchar>

namespace corvi::test {
namespace {

const auto kManager = reinterpret_cast<SC_HANDLE>(0x10);
const auto kService = reinterpret_cast<SC_HANDLE>(0x20);

std::wstring Hex(DWORD number) {
    wchar_t text[16];
    std::swprintf(text, ARRAYSIZE(text), L"0x%lx", number);
    return text;
}

BOOL Fail(DWORD error) {
    SetLastError(error);
    return FALSE;
}

}  // namespace

SuiteJournal::SuiteJournal(HMODULE library) : hooks_(library) {
    WatchPrograms();
    WatchServices();
    WatchFiles();
    WatchRegistry();
}

std::vector<std::wstring> SuiteJournal::EntriesOf(const std::vector<std::wstring>& words) const {
    std::vector<std::wstring> chosen;
    std::copy_if(entries_.begin(), entries_.end(), std::back_inserter(chosen), [&](const auto& entry) {
        return std::any_of(words.begin(), words.end(), [&](const std::wstring& word) {
            return entry == word || entry.rfind(word + L' ', 0) == 0;
        });
    });
    return chosen;
}

void SuiteJournal::WatchPrograms() {
    CORVI_HOOK(
        hooks_, CreateProcessW,
        [this](LPCWSTR, LPWSTR commandLine, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID,
               LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION) -> BOOL {
            const std::wstring text = commandLine;
            const std::wstring tool = L"TaskKill.exe\" /IM ";
            const size_t found = text.find(tool);
            Add(found == std::wstring::npos ? L"run " + text : L"kill " + text.substr(found + tool.size()));
            return Fail(ERROR_FILE_NOT_FOUND);
        });
    CORVI_HOOK(hooks_, ShellExecuteExW, [this](SHELLEXECUTEINFOW* information) -> BOOL {
        Add(std::wstring(L"shell ") + information->lpFile + L'|' + information->lpParameters);
        information->hProcess = nullptr;
        return TRUE;
    });
    CORVI_HOOK(hooks_, CoCreateInstance, [this](REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID*) -> HRESULT {
        Add(L"task");
        return E_FAIL;
    });
}

void SuiteJournal::WatchServices() {
    CORVI_HOOK(hooks_, OpenSCManagerW, [](LPCWSTR, LPCWSTR, DWORD) -> SC_HANDLE { return kManager; });
    CORVI_HOOK(hooks_, CloseServiceHandle, [](SC_HANDLE) -> BOOL { return TRUE; });
    CORVI_HOOK(hooks_, OpenServiceW, [this](SC_HANDLE, LPCWSTR name, DWORD access) -> SC_HANDLE {
        Add(std::wstring(L"open ") + name + L' ' + Hex(access));
        return kService;
    });
    CORVI_HOOK(hooks_, QueryServiceStatusEx,
               [](SC_HANDLE, SC_STATUS_TYPE, LPBYTE buffer, DWORD, LPDWORD needed) -> BOOL {
                   SERVICE_STATUS_PROCESS status = {};
                   status.dwCurrentState = SERVICE_STOPPED;
                   *reinterpret_cast<SERVICE_STATUS_PROCESS*>(buffer) = status;
                   *needed = sizeof(status);
                   return TRUE;
               });
    CORVI_HOOK(hooks_, ControlService, [this](SC_HANDLE, DWORD control, LPSERVICE_STATUS) -> BOOL {
        Add(L"control " + std::to_wstring(control));
        return TRUE;
    });
    CORVI_HOOK(hooks_, DeleteService, [this](SC_HANDLE) -> BOOL {
        Add(L"delete");
        return TRUE;
    });
    CORVI_HOOK(hooks_, StartServiceW, [this](SC_HANDLE, DWORD, LPCWSTR*) -> BOOL {
        Add(L"start");
        return Fail(ERROR_FILE_NOT_FOUND);
    });
    CORVI_HOOK(hooks_, CreateServiceW,
               [this](SC_HANDLE, LPCWSTR name, LPCWSTR, DWORD, DWORD, DWORD, DWORD, LPCWSTR, LPCWSTR, LPDWORD,
                      LPCWSTR, LPCWSTR, LPCWSTR) -> SC_HANDLE {
                   Add(std::wstring(L"create ") + name);
                   SetLastError(ERROR_SERVICE_EXISTS);
                   return nullptr;
               });
}

void SuiteJournal::WatchFiles() {
    CORVI_HOOK(hooks_, DeleteFileW, [this](LPCWSTR path) -> BOOL {
        Add(std::wstring(L"file ") + path);
        return CORVI_ORIGINAL(hooks_, DeleteFileW)(path);
    });
    CORVI_HOOK(hooks_, MoveFileExW, [this](LPCWSTR from, LPCWSTR to, DWORD flags) -> BOOL {
        Add(std::wstring(L"move ") + from + L'|' + (to != nullptr ? to : L"") + L'|' +
            std::to_wstring(flags));
        return GetFileAttributesW(from) == INVALID_FILE_ATTRIBUTES
                   ? Fail(ERROR_FILE_NOT_FOUND)
                   : CORVI_ORIGINAL(hooks_, MoveFileExW)(from, to, flags);
    });
}

void SuiteJournal::WatchRegistry() {
    CORVI_HOOK(hooks_, RegDeleteTreeW, [this](HKEY root, LPCWSTR key) -> LSTATUS {
        Add(std::wstring(L"tree ") + key);
        return CORVI_ORIGINAL(hooks_, RegDeleteTreeW)(root, key);
    });
    CORVI_HOOK(hooks_, RegDeleteKeyExW,
               [this](HKEY root, LPCWSTR key, REGSAM view, DWORD reserved) -> LSTATUS {
                   Add((view == KEY_WOW64_32KEY ? L"key32 " : L"key ") + std::wstring(key));
                   return CORVI_ORIGINAL(hooks_, RegDeleteKeyExW)(root, key, view, reserved);
               });
}

}  // namespace corvi::test
