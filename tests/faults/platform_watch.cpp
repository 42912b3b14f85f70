#include "tests/faults/platform_watch.h"

#include <aclapi.h>
#include <msi.h>
#include <msiquery.h>
#include <objbase.h>
#include <oleauto.h>
#include <sddl.h>
#include <setupapi.h>
#include <shlobj.h>
#include <shlwapi.h>
#include <tlhelp32.h>
#include <winternl.h>
#include <xmllite.h>
#include <cerrno>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string_view>
#include <utility>

#include "tests/faults/object_watch.h"
#include "tests/faults/stand_ins.h"
#include "tests/support/import_hooks.h"

#if defined(__GNUC__)
// The compiler's marks of the formatting functions mean nothing for a gate.
#pragma GCC diagnostic ignored "-Wignored-attributes"
#endif

namespace corvi::test {

PlatformWatch* PlatformWatch::current = nullptr;

namespace {

// ---- One gate for each imported function

/// What the library calls in the place of one imported function.
template <FunctionName Name, typename Signature>
struct Gate;

template <FunctionName Name, typename Result, typename... Arguments>
struct Gate<Name, Result(Arguments...)> {
    static inline Result(WINAPI* platform)(Arguments...) = nullptr;
    static inline bool fallible = false;
    static inline Result failure = {};
    static inline DWORD error = 0;
    static inline std::function<std::wstring(Arguments...)> change;
    static inline std::function<void(Result, Arguments...)> account;

    static Result WINAPI Entry(Arguments... arguments) {
        PlatformWatch& watch = *PlatformWatch::current;
        if (!watch.Running()) {
            return platform(arguments...);
        }
        const DWORD before = GetLastError();
        if (change) {
            watch.NoteChange(change(arguments...));
        }
        if (fallible && watch.Fails(Name.text)) {
            SetLastError(error);
            return failure;
        }
        SetLastError(before);
        const Result result = platform(arguments...);
        if (account) {
            const DWORD after = GetLastError();
            account(result, arguments...);
            SetLastError(after);
        }
        return result;
    }
};

template <FunctionName Name, typename... Arguments>
struct Gate<Name, void(Arguments...)> {
    static inline void(WINAPI* platform)(Arguments...) = nullptr;
    static inline std::function<std::wstring(Arguments...)> change;
    static inline std::function<void(Arguments...)> account;

    static void WINAPI Entry(Arguments... arguments) {
        PlatformWatch& watch = *PlatformWatch::current;
        if (watch.Running()) {
            const DWORD before = GetLastError();
            if (change) {
                watch.NoteChange(change(arguments...));
            }
            if (account) {
                account(arguments...);
            }
            SetLastError(before);
        }
        platform(arguments...);
    }
};

/// Everything that the tables below say about the imports.
struct Registrations {
    std::vector<std::string> watched;
    std::vector<std::string> fallible;
    std::vector<std::function<void(tool::Interception&)>> install;
};

Registrations& All() {
    static Registrations registrations;
    return registrations;
}

template <typename G, FunctionName Name, typename Platform>
void Watch(Platform* platform) {
    G::platform = platform;
    All().watched.emplace_back(Name.text);
    All().install.push_back([](tool::Interception& hooks) {
        if (hooks.Imports(Name.text)) {
            hooks.Replace(Name.text, reinterpret_cast<void*>(&G::Entry));
        }
    });
}

template <typename G, FunctionName Name, typename Failure>
void LetFail(Failure failure, DWORD error) {
    All().fallible.emplace_back(Name.text);
    G::fallible = true;
    G::failure = failure;
    G::error = error;
}

#define GATE(function) Gate<#function, std::remove_pointer_t<decltype(&(function))>>
/// A function that goes through to the platform, or to a stand-in.
#define WATCH(function) Watch<GATE(function), #function>(&(function))
#define WATCH_AS(function, standIn) Watch<GATE(function), #function>(&(standIn))
/// Its natural failure: what it returns, and the error that it leaves.
#define FAILS(function, ...) LetFail<GATE(function), #function>(__VA_ARGS__)
/// What it asks to be changed, as a text.
#define CHANGES(function, ...) GATE(function)::change = __VA_ARGS__
/// What it opens or closes.
#define ACCOUNT(function, ...) GATE(function)::account = __VA_ARGS__

PlatformWatch& Now() { return *PlatformWatch::current; }

template <typename Handle>
const void* AsPointer(Handle handle) {
    if constexpr (std::is_pointer_v<Handle>) {
        return handle;
    } else {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the installer's handles are numbers
        return reinterpret_cast<const void*>(static_cast<UINT_PTR>(handle));
    }
}

// ---- Normalised texts

std::wstring Upper(std::wstring text) {
    std::transform(text.begin(), text.end(), text.begin(), towupper);
    return text;
}

std::wstring File(LPCWSTR path) {
    if (path == nullptr) {
        return {};
    }
    std::wstring text = path;
    std::replace(text.begin(), text.end(), L'/', L'\\');
    if (text.rfind(L"\\\\?\\", 0) == 0) {
        text.erase(0, 4);
    }
    // Separators in a row and at the end mean nothing.
    std::wstring clean;
    for (size_t index = 0; index < text.size(); ++index) {
        if (index < 2 || text[index] != L'\\' || clean.back() != L'\\') {
            clean += text[index];
        }
    }
    while (clean.size() > 3 && clean.back() == L'\\') {
        clean.pop_back();
    }
    return Upper(clean);
}

/// The machine's classes are seen under two names.
std::wstring OneName(const std::wstring& path) {
    constexpr std::wstring_view kClasses = L"HKLM\\SOFTWARE\\CLASSES\\";
    return path.rfind(kClasses, 0) == 0 ? L"HKCR\\" + path.substr(kClasses.size()) : path;
}

std::wstring Key(HKEY parent, LPCWSTR subkey, REGSAM access = 0) {
    std::wstring path = Now().KeyPath(parent);
    if (subkey != nullptr && *subkey != L'\0') {
        path += L'\\' + Upper(subkey);
    }
    while (path.back() == L'\\') {
        path.pop_back();
    }
    path = OneName(path);
    const std::wstring mark = L" (32-bit)";
    return (access & KEY_WOW64_32KEY) != 0 && path.find(mark) == std::wstring::npos ? path + mark : path;
}

std::wstring Text(LPCWSTR text) { return text != nullptr ? text : L""; }

bool IsGuid(const std::wstring& text) {
    return text.size() == 36 && text[8] == L'-' && text[13] == L'-' && text[18] == L'-' && text[23] == L'-';
}

std::wstring Data(DWORD type, const BYTE* data, DWORD size) {
    if (type == REG_DWORD && size == sizeof(DWORD)) {
        return std::to_wstring(*reinterpret_cast<const DWORD*>(data));
    }
    std::wstring text(reinterpret_cast<const wchar_t*>(data), size / sizeof(wchar_t));
    std::replace(text.begin(), text.end(), L'\0', L'|');
    return IsGuid(text.substr(0, text.find(L'|'))) ? L"(a new GUID)" : text;
}

std::string Narrow(const std::wstring& text) {
    std::string narrow;
    for (const wchar_t c : text) {
        narrow += c < 0x80 ? static_cast<char>(c) : '?';
    }
    return narrow;
}

// ---- The tables

constexpr DWORD kDenied = ERROR_ACCESS_DENIED;
constexpr char kNotOpen[] = " that is closed without being open";

void KeyOpened(LSTATUS status, HKEY key, const std::wstring& path) {
    if (status == ERROR_SUCCESS) {
        Now().KeyOpened(key, path);
        Now().Opened("key", key, Narrow(path));
    }
}

void RegisterRegistry() {
    WATCH(RegOpenKeyExW);
    FAILS(RegOpenKeyExW, kDenied, 0);
    ACCOUNT(RegOpenKeyExW, [](LSTATUS status, HKEY parent, LPCWSTR subkey, DWORD, REGSAM access, PHKEY key) {
        KeyOpened(status, *key, Key(parent, subkey, access));
    });
    WATCH(RegCreateKeyExW);
    FAILS(RegCreateKeyExW, kDenied, 0);
    CHANGES(RegCreateKeyExW,
            [](HKEY parent, LPCWSTR subkey, DWORD, LPWSTR, DWORD, REGSAM access, CONST LPSECURITY_ATTRIBUTES,
               PHKEY, LPDWORD) { return L"create key " + Key(parent, subkey, access); });
    ACCOUNT(RegCreateKeyExW, [](LSTATUS status, HKEY parent, LPCWSTR subkey, DWORD, LPWSTR, DWORD,
                                REGSAM access, CONST LPSECURITY_ATTRIBUTES, PHKEY key,
                                LPDWORD) { KeyOpened(status, *key, Key(parent, subkey, access)); });
    WATCH(RegCloseKey);
    ACCOUNT(RegCloseKey, [](LSTATUS, HKEY key) { Now().Closed("key", key); });
    WATCH(RegQueryValueExW);
    FAILS(RegQueryValueExW, kDenied, 0);
    WATCH(RegGetValueW);
    FAILS(RegGetValueW, kDenied, 0);
    WATCH(RegEnumKeyExW);
    FAILS(RegEnumKeyExW, kDenied, 0);
    WATCH(RegEnumValueW);
    FAILS(RegEnumValueW, kDenied, 0);
    WATCH(RegQueryInfoKeyW);
    FAILS(RegQueryInfoKeyW, kDenied, 0);
    WATCH(RegSetValueExW);
    FAILS(RegSetValueExW, kDenied, 0);
    CHANGES(RegSetValueExW, [](HKEY key, LPCWSTR name, DWORD, DWORD type, CONST BYTE* data, DWORD size) {
        return L"set " + Key(key, nullptr) + L'|' + Upper(Text(name)) + L'=' + Data(type, data, size) +
               L" of type " + std::to_wstring(type);
    });
    WATCH(RegDeleteValueW);
    FAILS(RegDeleteValueW, kDenied, 0);
    CHANGES(RegDeleteValueW, [](HKEY key, LPCWSTR name) {
        return L"delete value " + Key(key, nullptr) + L'|' + Upper(Text(name));
    });
    WATCH(RegDeleteKeyValueW);
    FAILS(RegDeleteKeyValueW, kDenied, 0);
    CHANGES(RegDeleteKeyValueW, [](HKEY key, LPCWSTR subkey, LPCWSTR name) {
        return L"delete value " + Key(key, subkey) + L'|' + Upper(Text(name));
    });
    WATCH(RegDeleteKeyW);
    FAILS(RegDeleteKeyW, kDenied, 0);
    CHANGES(RegDeleteKeyW, [](HKEY key, LPCWSTR subkey) { return L"delete key " + Key(key, subkey); });
    WATCH(RegDeleteKeyExW);
    FAILS(RegDeleteKeyExW, kDenied, 0);
    CHANGES(RegDeleteKeyExW, [](HKEY key, LPCWSTR subkey, REGSAM view, DWORD) {
        return L"delete key " + Key(key, subkey, view);
    });
    WATCH(RegDeleteTreeW);
    FAILS(RegDeleteTreeW, kDenied, 0);
    CHANGES(RegDeleteTreeW, [](HKEY key, LPCWSTR subkey) { return L"delete tree " + Key(key, subkey); });
}

bool Writes(DWORD access, DWORD creation) {
    constexpr DWORD kWriting = GENERIC_WRITE | GENERIC_ALL | FILE_WRITE_DATA | FILE_APPEND_DATA | DELETE |
                               WRITE_DAC | WRITE_OWNER | FILE_WRITE_ATTRIBUTES;
    return (access & kWriting) != 0 || creation != OPEN_EXISTING;
}

void HandleOpened(HANDLE handle, const char* function) {
    if (handle != nullptr && handle != INVALID_HANDLE_VALUE) {
        Now().Opened("handle", handle, function);
    }
}

void RegisterFiles() {
    WATCH(CreateFileW);
    FAILS(CreateFileW, INVALID_HANDLE_VALUE, kDenied);
    CHANGES(CreateFileW,
            [](LPCWSTR path, DWORD access, DWORD, LPSECURITY_ATTRIBUTES, DWORD creation, DWORD,
               HANDLE) -> std::wstring {
                // Without a name nothing can be opened.
                return *path != L'\0' && Writes(access, creation) ? L"write " + File(path) : L"";
            });
    ACCOUNT(CreateFileW,
            [](HANDLE file, LPCWSTR path, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
                HandleOpened(file, "CreateFileW");
                Now().NameHandle(file, File(path));
            });
    WATCH(CloseHandle);
    ACCOUNT(CloseHandle, [](BOOL, HANDLE handle) { Now().Closed("handle", handle); });
    WATCH(ReadFile);
    FAILS(ReadFile, FALSE, ERROR_READ_FAULT);
    WATCH(WriteFile);
    FAILS(WriteFile, FALSE, ERROR_DISK_FULL);
    WATCH(SetFilePointerEx);
    FAILS(SetFilePointerEx, FALSE, ERROR_INVALID_PARAMETER);
    WATCH(GetFileSizeEx);
    FAILS(GetFileSizeEx, FALSE, kDenied);
    WATCH(GetFileAttributesW);
    FAILS(GetFileAttributesW, INVALID_FILE_ATTRIBUTES, kDenied);
    WATCH(SetFileAttributesW);
    FAILS(SetFileAttributesW, FALSE, kDenied);
    CHANGES(SetFileAttributesW, [](LPCWSTR path, DWORD attributes) {
        return ((attributes & FILE_ATTRIBUTE_READONLY) != 0 ? L"make read-only " : L"attributes ") +
               File(path);
    });
    WATCH(GetFileInformationByHandle);
    FAILS(GetFileInformationByHandle, FALSE, kDenied);
    WATCH(GetFileInformationByHandleEx);
    FAILS(GetFileInformationByHandleEx, FALSE, ERROR_READ_FAULT);
    WATCH(GetFinalPathNameByHandleW);
    FAILS(GetFinalPathNameByHandleW, 0, kDenied);
    WATCH(GetFullPathNameW);
    FAILS(GetFullPathNameW, 0, ERROR_NOT_ENOUGH_MEMORY);
    WATCH(FindFirstFileW);
    FAILS(FindFirstFileW, INVALID_HANDLE_VALUE, kDenied);
    ACCOUNT(FindFirstFileW, [](HANDLE find, LPCWSTR, LPWIN32_FIND_DATAW) {
        if (find != INVALID_HANDLE_VALUE) {
            Now().Opened("find", find, "FindFirstFileW");
        }
    });
    WATCH(FindNextFileW);
    FAILS(FindNextFileW, FALSE, ERROR_READ_FAULT);
    WATCH(FindClose);
    ACCOUNT(FindClose, [](BOOL, HANDLE find) { Now().Closed("find", find); });
    WATCH(DeleteFileW);
    FAILS(DeleteFileW, FALSE, kDenied);
    CHANGES(DeleteFileW, [](LPCWSTR path) { return L"delete " + File(path); });
    WATCH(RemoveDirectoryW);
    FAILS(RemoveDirectoryW, FALSE, kDenied);
    CHANGES(RemoveDirectoryW, [](LPCWSTR path) { return L"delete " + File(path); });
    WATCH(_wremove);
    FAILS(_wremove, -1, kDenied);
    CHANGES(_wremove, [](const wchar_t* path) { return L"delete " + File(path); });
    WATCH(MoveFileExW);
    FAILS(MoveFileExW, FALSE, kDenied);
    CHANGES(MoveFileExW, [](LPCWSTR from, LPCWSTR to, DWORD flags) {
        return (flags & MOVEFILE_DELAY_UNTIL_REBOOT) != 0 ? L"delete at restart " + File(from)
                                                          : L"move " + File(from) + L" to " + File(to);
    });
    WATCH(SHCreateDirectoryExW);
    FAILS(SHCreateDirectoryExW, ERROR_ACCESS_DENIED, kDenied);
    CHANGES(SHCreateDirectoryExW,
            [](HWND, LPCWSTR path, const SECURITY_ATTRIBUTES*) { return L"make folder " + File(path); });
    WATCH(PathFileExistsW);
    FAILS(PathFileExistsW, FALSE, kDenied);
    WATCH(PathIsDirectoryW);
    FAILS(PathIsDirectoryW, FALSE, kDenied);
    WATCH(PathIsDirectoryEmptyW);
    FAILS(PathIsDirectoryEmptyW, FALSE, kDenied);
}

void LocalMemoryOpened(const void* block, const char* function) {
    if (block != nullptr) {
        Now().Opened("local memory", block, function);
    }
}

/// Each entry of an access list: type, flags, access mask and whose it is.
std::wstring Entries(PACL list) {
    std::wstring text;
    for (WORD index = 0; list != nullptr && index < list->AceCount; ++index) {
        void* found = nullptr;
        if (GetAce(list, index, &found) == FALSE) {
            return text + L" (unreadable)";
        }
        // Allowing and denying entries are laid out alike, and there are no others here.
        auto* const entry = static_cast<ACCESS_ALLOWED_ACE*>(found);
        LPWSTR owner = nullptr;
        ConvertSidToStringSidW(&entry->SidStart, &owner);
        text += L" (" + std::to_wstring(entry->Header.AceType) + L' ' +
                std::to_wstring(entry->Header.AceFlags) + L' ' + std::to_wstring(entry->Mask) + L' ' +
                Text(owner) + L')';
        LocalFree(owner);
    }
    return text;
}

void RegisterSecurity() {
    WATCH(GetSecurityInfo);
    FAILS(GetSecurityInfo, ERROR_ACCESS_DENIED, kDenied);
    ACCOUNT(GetSecurityInfo, [](DWORD status, HANDLE, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID*, PSID*,
                                PACL*, PACL*, PSECURITY_DESCRIPTOR* descriptor) {
        LocalMemoryOpened(status == ERROR_SUCCESS ? *descriptor : nullptr, "GetSecurityInfo");
    });
    WATCH(SetSecurityInfo);
    FAILS(SetSecurityInfo, ERROR_ACCESS_DENIED, kDenied);
    CHANGES(SetSecurityInfo,
            [](HANDLE handle, SE_OBJECT_TYPE, SECURITY_INFORMATION, PSID, PSID, PACL list, PACL) {
                return L"security of " + Now().NameOf(handle) + L":" + Entries(list);
            });
    WATCH(SetEntriesInAclW);
    FAILS(SetEntriesInAclW, ERROR_NOT_ENOUGH_MEMORY, ERROR_NOT_ENOUGH_MEMORY);
    ACCOUNT(SetEntriesInAclW, [](DWORD status, ULONG, PEXPLICIT_ACCESSW, PACL, PACL* list) {
        LocalMemoryOpened(status == ERROR_SUCCESS ? *list : nullptr, "SetEntriesInAclW");
    });
    WATCH(CreateWellKnownSid);
    FAILS(CreateWellKnownSid, FALSE, ERROR_NOT_ENOUGH_MEMORY);
    WATCH(LocalFree);
    ACCOUNT(LocalFree, [](HLOCAL, HLOCAL block) { Now().Closed("local memory", block); });
    WATCH(FormatMessageA);
    FAILS(FormatMessageA, 0, ERROR_MR_MID_NOT_FOUND);
    ACCOUNT(FormatMessageA,
            [](DWORD length, DWORD flags, LPCVOID, DWORD, DWORD, LPSTR text, DWORD, va_list*) {
                if (length != 0 && (flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0) {
                    LocalMemoryOpened(*reinterpret_cast<void**>(text), "FormatMessageA");
                }
            });
    WATCH(FormatMessageW);
    FAILS(FormatMessageW, 0, ERROR_MR_MID_NOT_FOUND);
    ACCOUNT(FormatMessageW,
            [](DWORD length, DWORD flags, LPCVOID, DWORD, DWORD, LPWSTR text, DWORD, va_list*) {
                if (length != 0 && (flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0) {
                    LocalMemoryOpened(*reinterpret_cast<void**>(text), "FormatMessageW");
                }
            });
}

void RegisterPrograms() {
    WATCH_AS(CreateProcessW, StartProgram);
    FAILS(CreateProcessW, FALSE, ERROR_FILE_NOT_FOUND);
    CHANGES(CreateProcessW,
            [](LPCWSTR, LPWSTR commandLine, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID,
               LPCWSTR directory, LPSTARTUPINFOW,
               LPPROCESS_INFORMATION) { return L"start " + Text(commandLine) + L" in " + File(directory); });
    ACCOUNT(CreateProcessW, [](BOOL, LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL,
                               DWORD, LPVOID, LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION process) {
        HandleOpened(process->hProcess, "CreateProcessW");
        HandleOpened(process->hThread, "CreateProcessW");
    });
    WATCH_AS(ShellExecuteExW, StartThroughShell);
    FAILS(ShellExecuteExW, FALSE, ERROR_FILE_NOT_FOUND);
    CHANGES(ShellExecuteExW, [](SHELLEXECUTEINFOW* information) {
        return L"start " + Text(information->lpFile) + L" " + Text(information->lpParameters) + L" in " +
               File(information->lpDirectory) + L' ' + Text(information->lpVerb);
    });
    ACCOUNT(ShellExecuteExW, [](BOOL, SHELLEXECUTEINFOW* information) {
        HandleOpened(information->hProcess, "ShellExecuteExW");
    });
    WATCH(CreatePipe);
    FAILS(CreatePipe, FALSE, ERROR_NO_SYSTEM_RESOURCES);
    ACCOUNT(CreatePipe, [](BOOL made, PHANDLE readEnd, PHANDLE writeEnd, LPSECURITY_ATTRIBUTES, DWORD) {
        if (made != FALSE) {
            HandleOpened(*readEnd, "CreatePipe");
            HandleOpened(*writeEnd, "CreatePipe");
        }
    });
    WATCH(PeekNamedPipe);
    FAILS(PeekNamedPipe, FALSE, ERROR_BROKEN_PIPE);
    WATCH(SetHandleInformation);
    FAILS(SetHandleInformation, FALSE, ERROR_INVALID_HANDLE);
    WATCH(WaitForSingleObject);
    FAILS(WaitForSingleObject, WAIT_FAILED, ERROR_INVALID_HANDLE);
    WATCH(GetExitCodeProcess);
    FAILS(GetExitCodeProcess, FALSE, ERROR_INVALID_HANDLE);
    WATCH(TerminateProcess);
    CHANGES(TerminateProcess, [](HANDLE, UINT) { return std::wstring(L"end this process"); });
    WATCH(CreateToolhelp32Snapshot);
    FAILS(CreateToolhelp32Snapshot, INVALID_HANDLE_VALUE, ERROR_BAD_LENGTH);
    ACCOUNT(CreateToolhelp32Snapshot,
            [](HANDLE snapshot, DWORD, DWORD) { HandleOpened(snapshot, "CreateToolhelp32Snapshot"); });
    WATCH(Process32FirstW);
    FAILS(Process32FirstW, FALSE, ERROR_NO_MORE_FILES);
    WATCH(Process32NextW);
    FAILS(Process32NextW, FALSE, ERROR_NO_MORE_FILES);
    WATCH(LoadLibraryW);
    FAILS(LoadLibraryW, nullptr, ERROR_MOD_NOT_FOUND);
    CHANGES(LoadLibraryW, [](LPCWSTR path) { return L"load " + File(path); });
    ACCOUNT(LoadLibraryW, [](HMODULE module, LPCWSTR) {
        if (module != nullptr) {
            Now().Opened("module", module, "LoadLibraryW");
        }
    });
    WATCH(FreeLibrary);
    ACCOUNT(FreeLibrary, [](BOOL, HMODULE module) { Now().Closed("module", module); });
    WATCH(GetProcAddress);
    FAILS(GetProcAddress, nullptr, ERROR_PROC_NOT_FOUND);
    WATCH(GetModuleHandleW);
    FAILS(GetModuleHandleW, nullptr, ERROR_MOD_NOT_FOUND);
}

void ServiceOpened(SC_HANDLE handle, const wchar_t* name) {
    if (handle != nullptr) {
        Now().Opened("service", handle, Narrow(name));
    }
}

void RegisterServices() {
    WATCH_AS(OpenSCManagerW, OpenManager);
    FAILS(OpenSCManagerW, nullptr, kDenied);
    ACCOUNT(OpenSCManagerW,
            [](SC_HANDLE manager, LPCWSTR, LPCWSTR, DWORD) { ServiceOpened(manager, L"the manager"); });
    WATCH_AS(OpenServiceW, OpenOneService);
    FAILS(OpenServiceW, nullptr, kDenied);
    ACCOUNT(OpenServiceW,
            [](SC_HANDLE service, SC_HANDLE, LPCWSTR name, DWORD) { ServiceOpened(service, name); });
    WATCH_AS(CreateServiceW, CreateOneService);
    FAILS(CreateServiceW, nullptr, kDenied);
    CHANGES(CreateServiceW, [](SC_HANDLE, LPCWSTR name, LPCWSTR, DWORD, DWORD type, DWORD start, DWORD,
                               LPCWSTR binary, LPCWSTR, LPDWORD, LPCWSTR, LPCWSTR account, LPCWSTR) {
        return L"create service " + Text(name) + L": " + Text(binary) + L" type " + std::to_wstring(type) +
               L" start " + std::to_wstring(start) + L" account " + Text(account);
    });
    ACCOUNT(CreateServiceW,
            [](SC_HANDLE service, SC_HANDLE, LPCWSTR name, LPCWSTR, DWORD, DWORD, DWORD, DWORD, LPCWSTR,
               LPCWSTR, LPDWORD, LPCWSTR, LPCWSTR, LPCWSTR) { ServiceOpened(service, name); });
    WATCH_AS(CloseServiceHandle, CloseService);
    ACCOUNT(CloseServiceHandle, [](BOOL, SC_HANDLE handle) { Now().Closed("service", handle); });
    WATCH_AS(QueryServiceStatus, QueryOneStatus);
    FAILS(QueryServiceStatus, FALSE, kDenied);
    WATCH_AS(QueryServiceStatusEx, QueryOneStatusEx);
    FAILS(QueryServiceStatusEx, FALSE, kDenied);
    WATCH_AS(QueryServiceConfigW, QueryOneConfig);
    FAILS(QueryServiceConfigW, FALSE, kDenied);
    WATCH_AS(ControlService, ControlOneService);
    FAILS(ControlService, FALSE, ERROR_SERVICE_CANNOT_ACCEPT_CTRL);
    CHANGES(ControlService, [](SC_HANDLE service, DWORD control, LPSERVICE_STATUS) {
        const std::wstring name = ServiceName(service);
        return name.empty() ? L"" : L"control " + name + L" " + std::to_wstring(control);
    });
    WATCH_AS(StartServiceW, StartOneService);
    FAILS(StartServiceW, FALSE, kDenied);
    CHANGES(StartServiceW,
            [](SC_HANDLE service, DWORD, LPCWSTR*) { return L"start service " + ServiceName(service); });
    WATCH_AS(DeleteService, DeleteOneService);
    FAILS(DeleteService, FALSE, kDenied);
    CHANGES(DeleteService, [](SC_HANDLE service) {
        // On no handle it does nothing.
        const std::wstring name = ServiceName(service);
        return name.empty() ? L"" : L"delete service " + name;
    });
    WATCH_AS(ChangeServiceConfig2W, ConfigureOneService);
    FAILS(ChangeServiceConfig2W, FALSE, kDenied);
    CHANGES(ChangeServiceConfig2W, [](SC_HANDLE service, DWORD level, LPVOID) {
        return L"configure service " + ServiceName(service) + L" " + std::to_wstring(level);
    });
    WATCH(RegisterEventSourceW);
    FAILS(RegisterEventSourceW, nullptr, RPC_S_SERVER_UNAVAILABLE);
    ACCOUNT(RegisterEventSourceW, [](HANDLE source, LPCWSTR, LPCWSTR) {
        if (source != nullptr) {
            Now().Opened("event source", source, "RegisterEventSourceW");
        }
    });
    WATCH(DeregisterEventSource);
    ACCOUNT(DeregisterEventSource, [](BOOL, HANDLE source) { Now().Closed("event source", source); });
}

// The platform's allocator with an eye on what is given back to it.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): its interface has none, and it is never deleted
class WatchedMalloc final : public IMalloc {
public:
    HRESULT WINAPI QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG WINAPI AddRef() override { return 2; }
    ULONG WINAPI Release() override { return 1; }
    void* WINAPI Alloc(SIZE_T size) override { return CoTaskMemAlloc(size); }
    void* WINAPI Realloc(void* block, SIZE_T size) override { return CoTaskMemRealloc(block, size); }
    void WINAPI Free(void* block) override {
        Now().Closed("item list", block);
        CoTaskMemFree(block);
    }
    SIZE_T WINAPI GetSize(void*) override { return 0; }
    int WINAPI DidAlloc(void*) override { return -1; }
    void WINAPI HeapMinimize() override {}
};

HRESULT WINAPI HandOutAllocator(LPMALLOC* allocator) {
    static WatchedMalloc watched;
    *allocator = &watched;
    return S_OK;
}

void ObjectMade(HRESULT result, IUnknown* object, const char* function) {
    if (SUCCEEDED(result)) {
        Now().ObjectMade(object, function);
    }
}

void RegisterShell() {
    WATCH(SHGetFolderLocation);
    FAILS(SHGetFolderLocation, E_FAIL, 0);
    ACCOUNT(SHGetFolderLocation, [](HRESULT, HWND, int, HANDLE, DWORD, PIDLIST_ABSOLUTE* list) {
        if (*list != nullptr) {
            Now().Opened("item list", *list, "SHGetFolderLocation");
        }
    });
    WATCH_AS(SHGetMalloc, HandOutAllocator);
    FAILS(SHGetMalloc, E_FAIL, 0);
    WATCH(SHGetPathFromIDListW);
    FAILS(SHGetPathFromIDListW, FALSE, 0);
    WATCH(SHChangeNotify);
    CHANGES(SHChangeNotify,
            [](LONG event, UINT, LPCVOID, LPCVOID) { return L"tell the shell " + std::to_wstring(event); });
    WATCH(SendMessageTimeoutW);
    FAILS(SendMessageTimeoutW, 0, ERROR_TIMEOUT);
    CHANGES(SendMessageTimeoutW, [](HWND, UINT message, WPARAM, LPARAM, UINT, UINT, PDWORD_PTR) {
        return L"tell all windows " + std::to_wstring(message);
    });
}

void RegisterObjects() {
    WATCH(CoInitializeEx);
    FAILS(CoInitializeEx, E_OUTOFMEMORY, 0);
    ACCOUNT(CoInitializeEx, [](HRESULT result, LPVOID, DWORD) {
        if (SUCCEEDED(result)) {
            Now().Opened("apartment", nullptr, "CoInitializeEx");
        }
    });
    WATCH(CoUninitialize);
    ACCOUNT(CoUninitialize, [] { Now().Closed("apartment", nullptr); });
    WATCH(CoCreateGuid);
    FAILS(CoCreateGuid, HRESULT_FROM_WIN32(RPC_S_UUID_NO_ADDRESS), 0);
    WATCH(CoCreateInstance);
    FAILS(CoCreateInstance, REGDB_E_CLASSNOTREG, 0);
    ACCOUNT(CoCreateInstance, [](HRESULT result, REFCLSID, LPUNKNOWN, DWORD, REFIID id, LPVOID* object) {
        ObjectMade(result, static_cast<IUnknown*>(*object), "CoCreateInstance");
        if (SUCCEEDED(result) && id == __uuidof(ITaskService)) {
            WatchMethods(*static_cast<ITaskService*>(*object));
        }
    });
    WATCH(SysAllocStringLen);
    FAILS(SysAllocStringLen, nullptr, 0);
    ACCOUNT(SysAllocStringLen,
            [](BSTR text, const OLECHAR*, UINT) { Now().Opened("BSTR", text, "SysAllocStringLen"); });
    WATCH(SysFreeString);
    ACCOUNT(SysFreeString, [](BSTR text) { Now().Closed("BSTR", text); });
}

void RegisterXml() {
    WATCH(CreateXmlReader);
    FAILS(CreateXmlReader, E_OUTOFMEMORY, 0);
    ACCOUNT(CreateXmlReader, [](HRESULT result, REFIID, void** object, IMalloc*) {
        ObjectMade(result, static_cast<IUnknown*>(*object), "CreateXmlReader");
        if (SUCCEEDED(result)) {
            WatchMethods(*static_cast<IXmlReader*>(*object));
        }
    });
    WATCH(CreateXmlWriter);
    FAILS(CreateXmlWriter, E_OUTOFMEMORY, 0);
    ACCOUNT(CreateXmlWriter, [](HRESULT result, REFIID, void** object, IMalloc*) {
        ObjectMade(result, static_cast<IUnknown*>(*object), "CreateXmlWriter");
        if (SUCCEEDED(result)) {
            WatchMethods(*static_cast<IXmlWriter*>(*object));
        }
    });
    WATCH(CreateXmlReaderInputWithEncodingName);
    FAILS(CreateXmlReaderInputWithEncodingName, E_OUTOFMEMORY, 0);
    ACCOUNT(CreateXmlReaderInputWithEncodingName,
            [](HRESULT result, IUnknown*, IMalloc*, LPCWSTR, BOOL, LPCWSTR, IXmlReaderInput** input) {
                ObjectMade(result, *input, "CreateXmlReaderInput");
            });
    WATCH(CreateXmlWriterOutputWithEncodingName);
    FAILS(CreateXmlWriterOutputWithEncodingName, E_OUTOFMEMORY, 0);
    ACCOUNT(CreateXmlWriterOutputWithEncodingName,
            [](HRESULT result, IUnknown*, IMalloc*, LPCWSTR, IXmlWriterOutput** output) {
                ObjectMade(result, *output, "CreateXmlWriterOutput");
            });
}

void RegisterDevices() {
    WATCH(SetupDiGetClassDevsW);
    FAILS(SetupDiGetClassDevsW, INVALID_HANDLE_VALUE, kDenied);
    ACCOUNT(SetupDiGetClassDevsW, [](HDEVINFO list, const GUID*, PCWSTR, HWND, DWORD) {
        if (list != INVALID_HANDLE_VALUE) {
            Now().Opened("device list", list, "SetupDiGetClassDevsW");
        }
    });
    WATCH(SetupDiEnumDeviceInfo);
    FAILS(SetupDiEnumDeviceInfo, FALSE, kDenied);
    WATCH(SetupDiGetDeviceRegistryPropertyW);
    FAILS(SetupDiGetDeviceRegistryPropertyW, FALSE, ERROR_INVALID_DATA);
    WATCH(SetupDiDestroyDeviceInfoList);
    ACCOUNT(SetupDiDestroyDeviceInfoList, [](BOOL, HDEVINFO list) { Now().Closed("device list", list); });
}

void RegisterInstaller() {
    WATCH(MsiCreateRecord);
    FAILS(MsiCreateRecord, 0, 0);
    ACCOUNT(MsiCreateRecord, [](MSIHANDLE record, UINT) {
        if (record != 0) {
            Now().Opened("record", AsPointer(record), "MsiCreateRecord");
        }
    });
    WATCH(MsiCloseHandle);
    ACCOUNT(MsiCloseHandle, [](UINT, MSIHANDLE record) { Now().Closed("record", AsPointer(record)); });
    WATCH(MsiRecordSetStringW);
    FAILS(MsiRecordSetStringW, ERROR_INVALID_HANDLE, 0);
    WATCH(MsiProcessMessage);
    FAILS(MsiProcessMessage, -1, 0);
    WATCH(MsiGetPropertyW);
    FAILS(MsiGetPropertyW, ERROR_INVALID_HANDLE, 0);
    WATCH(MsiGetTargetPathW);
    FAILS(MsiGetTargetPathW, ERROR_DIRECTORY, 0);
    WATCH(MsiGetProductInfoW);
    FAILS(MsiGetProductInfoW, ERROR_BAD_CONFIGURATION, 0);
    WATCH(MsiEnumRelatedProductsW);
    FAILS(MsiEnumRelatedProductsW, ERROR_BAD_CONFIGURATION, 0);
}

void* __cdecl Allocate(size_t size) {
    PlatformWatch& watch = *PlatformWatch::current;
    if (watch.Running() && watch.FailsAllocation()) {
        errno = ENOMEM;
        return nullptr;
    }
    return std::malloc(size);
}

void RegisterRest() {
    WATCH(GetWindowsDirectoryW);
    FAILS(GetWindowsDirectoryW, 0, ERROR_NOT_ENOUGH_MEMORY);
    WATCH(GetSystemDirectoryW);
    FAILS(GetSystemDirectoryW, 0, ERROR_NOT_ENOUGH_MEMORY);
    WATCH(GetTempPathW);
    FAILS(GetTempPathW, 0, ERROR_NOT_ENOUGH_MEMORY);
    WATCH(MultiByteToWideChar);
    FAILS(MultiByteToWideChar, 0, ERROR_NO_UNICODE_TRANSLATION);
    WATCH(WideCharToMultiByte);
    FAILS(WideCharToMultiByte, 0, ERROR_NO_UNICODE_TRANSLATION);
    WATCH(GetConsoleOutputCP);
    FAILS(GetConsoleOutputCP, 0, ERROR_INVALID_HANDLE);
    WATCH(_localtime64);
    FAILS(_localtime64, nullptr, 0);
    WATCH(_mktime64);
    FAILS(_mktime64, -1, 0);
    WATCH_AS(Sleep, PassTime);
    WATCH_AS(GetTickCount, TickCount);
    All().watched.emplace_back(kAllocator);
    All().fallible.emplace_back(kAllocator);
    All().install.push_back(
        [](tool::Interception& hooks) { hooks.Replace(kAllocator, reinterpret_cast<void*>(&Allocate)); });
}

void RegisterAll() {
    static const bool done = [] {
        RegisterRegistry();
        RegisterFiles();
        RegisterSecurity();
        RegisterPrograms();
        RegisterServices();
        RegisterShell();
        RegisterObjects();
        RegisterXml();
        RegisterDevices();
        RegisterInstaller();
        RegisterRest();
        return true;
    }();
    (void)done;
}

const std::map<HKEY, std::wstring> kRoots = {{HKEY_CLASSES_ROOT, L"HKCR"},
                                             {HKEY_CURRENT_USER, L"HKCU"},
                                             {HKEY_LOCAL_MACHINE, L"HKLM"},
                                             {HKEY_USERS, L"HKU"}};

/// What the process ends with when a run does not end by itself.
constexpr int kEndless = 77;

}  // namespace

std::string Fault::Text() const {
    return function + " #" + std::to_string(nth) + (lasting ? " and later" : ", once");
}

PlatformWatch::PlatformWatch(HMODULE library) : hooks_(library) {
    RegisterAll();
    current = this;
    for (const auto& install : All().install) {
        install(hooks_);
    }
}

PlatformWatch::~PlatformWatch() {
    hooks_.RestoreAll();
    ForgetMethods();
    current = nullptr;
}

void PlatformWatch::Begin(const std::optional<Fault>& fault, AtFault atFault) {
    fault_ = fault;
    atFault_ = std::move(atFault);
    recording_ = Recording();
    counts_.clear();
    open_.clear();
    names_.clear();
    objects_.clear();
    strayCloses_.clear();
    running_ = true;
}

Recording PlatformWatch::End() {
    // What an object does when its last reference goes belongs to the run: the XML writer writes its rest.
    ReleaseObjects();
    fault_.reset();
    running_ = false;
    return std::move(recording_);
}

std::vector<std::string> PlatformWatch::Open() const {
    std::vector<std::string> open;
    for (const auto& [resource, makers] : open_) {
        for (const std::string& maker : makers) {
            open.push_back(resource.first + " " + maker);
        }
    }
    open.insert(open.end(), strayCloses_.begin(), strayCloses_.end());
    return open;
}

bool PlatformWatch::Meets(const char* function, size_t index) {
    if (!fault_ || fault_->function != function ||
        !(fault_->lasting ? index >= fault_->nth : index == fault_->nth)) {
        return false;
    }
    if (!std::exchange(recording_.faultMet, true) && atFault_) {
        atFault_();
    }
    return true;
}

bool PlatformWatch::Fails(const char* function) {
    recording_.calls.emplace_back(function);
    if (recording_.calls.size() > callLimit) {
        std::_Exit(kEndless);
    }
    return Meets(function, counts_[function]++);
}

bool PlatformWatch::FailsAllocation() { return Meets(kAllocator, recording_.allocations++); }

void PlatformWatch::NoteChange(std::wstring change) {
    if (!change.empty()) {
        recording_.changes.push_back(std::move(change));
    }
}

void PlatformWatch::Opened(const char* kind, const void* handle, const std::string& what) {
    open_[{kind, handle}].push_back(what);
}

void PlatformWatch::Closed(const char* kind, const void* handle) {
    const auto found = open_.find({kind, handle});
    if (found != open_.end()) {
        found->second.pop_back();
        if (found->second.empty()) {
            open_.erase(found);
        }
    } else if (handle != nullptr && handle != INVALID_HANDLE_VALUE) {
        strayCloses_.push_back(std::string(kind) + kNotOpen);
    }
}

std::wstring PlatformWatch::KeyPath(HKEY key) const {
    const auto root = kRoots.find(key);
    return root != kRoots.end() ? root->second : NameOf(key);
}

void PlatformWatch::KeyOpened(HKEY key, const std::wstring& path) { names_[key] = path; }

std::wstring PlatformWatch::NameOf(const void* handle) const {
    const auto named = names_.find(handle);
    return named != names_.end() ? named->second : L"(unknown handle)";
}

void PlatformWatch::ObjectMade(IUnknown* object, const char* function) {
    object->AddRef();
    objects_.emplace_back(object, function);
}

// Objects hold others: those that nobody but this holds go first, until none is left that can.
void PlatformWatch::ReleaseObjects() {
    bool progress = true;
    while (progress) {
        progress = false;
        for (auto& [object, function] : objects_) {
            if (object == nullptr) {
                continue;
            }
            object->AddRef();
            if (object->Release() == 1) {
                object->Release();
                object = nullptr;
                progress = true;
            }
        }
    }
    for (const auto& [object, function] : objects_) {
        if (object != nullptr) {
            Opened("object", object, function);
        }
    }
}

const std::vector<std::string>& WatchedFunctions() {
    RegisterAll();
    return All().watched;
}

const std::vector<std::string>& FallibleFunctions() {
    RegisterAll();
    return All().fallible;
}

namespace {

constexpr char kText[] = "works on texts and memory of the process, and cannot fail";
constexpr char kRuntime[] = "belongs to the C++ runtime, below what an action asks the platform for";
constexpr char kAnswer[] = "answers out of the process and cannot fail";
constexpr char kOutput[] = "writes to the standard output or the debugger, whose failure nobody sees";

/// A reason and the functions that it holds for.
const std::vector<std::pair<const char*, std::vector<std::string>>> kLeftAlone = {
    {kText,
     {"_wcsicmp",
      "_wcsnicmp",
      "_wtof",
      "iswdigit",
      "memchr",
      "memcmp",
      "memcpy",
      "memmove",
      "memset",
      "strcmp",
      "strchr",
      "strlen",
      "strncmp",
      "strtoul",
      "towlower",
      "wcslen",
      "wcsncpy_s",
      "wsprintfW",
      "StringFromGUID2",
      "_vsnwprintf",
      "wvsprintfW",
      "strerror",
      "localeconv",
      "IsDBCSLeadByteEx",
      "___lc_codepage_func",
      "___mb_cur_max_func"}},
    {kRuntime,
     {"__iob_func",
      "_amsg_exit",
      "_errno",
      "_initterm",
      "_lock",
      "_unlock",
      "_read",
      "_close",
      "abort",
      "calloc",
      "realloc",
      "free",
      "vfprintf",
      "fwprintf",
      "fwrite",
      "fputwc",
      "CreateSemaphoreW",
      "ReleaseSemaphore",
      "DeleteCriticalSection",
      "EnterCriticalSection",
      "TryEnterCriticalSection",
      "GetThreadId",
      "getenv",
      "InitializeCriticalSection",
      "LeaveCriticalSection",
      "RaiseException",
      "RtlCaptureContext",
      "RtlLookupFunctionEntry",
      "RtlUnwindEx",
      "RtlVirtualUnwind",
      "TlsAlloc",
      "TlsFree",
      "TlsGetValue",
      "TlsSetValue",
      "VirtualProtect",
      "VirtualQuery"}},
    {kAnswer,
     {"GetCurrentProcess", "GetCurrentProcessId", "GetCurrentThreadId", "GetLastError", "SetLastError",
      "GetNativeSystemInfo", "GetSystemInfo", "GetOEMCP", "GetSystemTimeAsFileTime", "_time64",
      "QueryPerformanceCounter"}},
    {kOutput, {"OutputDebugStringW", "fflush", "fputs"}}};

}  // namespace

const std::map<std::string, std::string>& LeftAlone() {
    static const std::map<std::string, std::string> all = [] {
        std::map<std::string, std::string> reasons;
        for (const auto& [reason, functions] : kLeftAlone) {
            for (const std::string& function : functions) {
                reasons[function] = reason;
            }
        }
        return reasons;
    }();
    return all;
}

}  // namespace corvi::test
