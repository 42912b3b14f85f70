#include "tool/import_rules.h"

#include <algorithm>
#include <cstring>

#include "tool/plan_files.h"
#include "tool/plan_process_state.h"
#include "tool/plan_processes.h"
#include "tool/plan_registry.h"
#include "tool/plan_services.h"
#include "tool/plan_tasks.h"

namespace corvi::tool::plan {
namespace {

ImportRule Through(const char* function) { return {function, Treatment::Reads, nullptr}; }

template <typename Function>
ImportRule Told(const char* function, Function* standIn) {
    return {function, Treatment::Reads, reinterpret_cast<void*>(standIn)};
}

template <typename Function>
ImportRule Noted(const char* function, Function* standIn) {
    return {function, Treatment::Changes, reinterpret_cast<void*>(standIn)};
}

// NOLINTNEXTLINE(readability-function-size): a table, one row for each function
std::vector<ImportRule> MakeRules() {
    return {
        // The registry
        Told("RegOpenKeyExW", &OpenKey),
        Told("RegCloseKey", &CloseKey),
        Told("RegQueryValueExW", &QueryValue),
        Told("RegGetValueW", &GetValue),
        Told("RegEnumKeyExW", &EnumKey),
        Told("RegEnumValueW", &EnumValue),
        Told("RegQueryInfoKeyW", &QueryInfoKey),
        Noted("RegCreateKeyExW", &CreateKey),
        Noted("RegSetValueExW", &SetValue),
        Noted("RegDeleteValueW", &DeleteValue),
        Noted("RegDeleteKeyValueW", &DeleteKeyValue),
        Noted("RegDeleteKeyW", &DeleteKey),
        Noted("RegDeleteKeyExW", &DeleteKeyOfView),
        Noted("RegDeleteTreeW", &DeleteTree),

        // Files and folders
        Told("GetFileAttributesW", &FileAttributes),
        Told("ReadFile", &ReadFromFile),
        Told("SetFilePointerEx", &MoveFilePointer),
        Told("GetFileSizeEx", &FileSize),
        Told("GetFileInformationByHandle", &FileInformation),
        Told("GetFileInformationByHandleEx", &FileInformationOfClass),
        Told("GetFinalPathNameByHandleW", &FinalPath),
        Told("FindFirstFileW", &FindFirst),
        Told("FindNextFileW", &FindNext),
        Told("FindClose", &CloseFind),
        Told("PathFileExistsW", &PathExists),
        Told("PathIsDirectoryW", &PathIsFolder),
        Told("PathIsDirectoryEmptyW", &PathIsEmptyFolder),
        Noted("CreateFileW", &OpenFile),
        Noted("WriteFile", &WriteToFile),
        Noted("SetFileAttributesW", &SetAttributes),
        Noted("DeleteFileW", &DeleteOneFile),
        Noted("_wremove", &RemoveByRuntime),
        Noted("RemoveDirectoryW", &RemoveFolder),
        Noted("MoveFileExW", &MoveOne),
        Noted("SHCreateDirectoryExW", &CreateFolders),
        Noted("SetSecurityInfo", &SetSecurity),
        Through("GetSecurityInfo"),
        Through("SetEntriesInAclW"),
        Through("CreateWellKnownSid"),
        Through("GetFullPathNameW"),
        Through("GetTempPathW"),
        Through("GetSystemDirectoryW"),
        Through("GetWindowsDirectoryW"),
        Through("SHGetFolderLocation"),
        Through("SHGetPathFromIDListW"),
        Through("SHGetMalloc"),

        // Programs
        Noted("CreateProcessW", &StartProcess),
        Noted("ShellExecuteExW", &StartThroughShell),
        Noted("TerminateProcess", &EndProcess),
        Told("WaitForSingleObject", &WaitForOne),
        Told("WaitForMultipleObjects", &WaitForSeveral),
        Told("GetExitCodeProcess", &ExitCode),
        Told("Process32FirstW", &FirstProcess),
        Told("Process32NextW", &NextProcess),
        Told("CloseHandle", &CloseAny),
        Through("CreateToolhelp32Snapshot"),
        Through("OpenProcess"),
        // A pipe of the process's own: nobody else is at its other end.
        Through("CreatePipe"),
        Through("PeekNamedPipe"),
        Through("SetHandleInformation"),
        Through("GetHandleInformation"),
        Through("DuplicateHandle"),

        // Services
        Told("OpenSCManagerW", &OpenManager),
        Told("OpenServiceW", &OpenOneService),
        Told("CloseServiceHandle", &CloseService),
        Told("QueryServiceStatus", &ServiceStatus),
        Told("QueryServiceStatusEx", &ServiceStatusOfClass),
        Told("QueryServiceConfigW", &ServiceConfiguration),
        Noted("CreateServiceW", &CreateOneService),
        Noted("ControlService", &ControlOneService),
        Noted("StartServiceW", &StartOneService),
        Noted("DeleteService", &DeleteOneService),
        Noted("ChangeServiceConfig2W", &ConfigureService),

        // Tasks, and what COM needs for itself
        Noted("CoCreateInstance", &CreateComObject),
        Through("CoInitializeEx"),
        Through("CoUninitialize"),
        Through("CoCreateGuid"),
        Through("StringFromGUID2"),
        Through("SysAllocStringLen"),
        Through("SysFreeString"),
        // The reader and the writer work on the library's own streams.
        Through("CreateXmlReader"),
        Through("CreateXmlReaderInputWithEncodingName"),
        Through("CreateXmlWriter"),
        Through("CreateXmlWriterOutputWithEncodingName"),

        // Other libraries
        Noted("LoadLibraryW", &LoadOneLibrary),
        Told("FreeLibrary", &UnloadLibrary),
        Told("GetProcAddress", &FindFunction),
        Through("GetModuleHandleW"),

        // The session: one of the plan's own, which installs nothing
        Through("MsiCloseHandle"),
        Through("MsiCreateRecord"),
        Through("MsiEnumRelatedProductsW"),
        Through("MsiGetProductInfoW"),
        Through("MsiGetPropertyW"),
        Through("MsiGetTargetPathW"),
        Through("MsiProcessMessage"),
        Through("MsiRecordSetStringW"),

        // Windows, the event log, devices
        Noted("SendMessageTimeoutW", &TellWindows),
        Noted("SHChangeNotify", &TellShell),
        Through("RegisterEventSourceW"),
        Through("DeregisterEventSource"),
        Through("SetupDiDestroyDeviceInfoList"),
        Through("SetupDiEnumDeviceInfo"),
        Through("SetupDiGetClassDevsW"),
        Through("SetupDiGetDeviceRegistryPropertyW"),

        // The clock
        Told("Sleep", &PassTime),
        Told("GetTickCount", &TickCount),
        Told("GetTickCount64", &LongTickCount),
        Through("GetSystemTimeAsFileTime"),
        Through("QueryPerformanceCounter"),
        Through("_time64"),
        Through("_localtime64"),
        Through("_mktime64"),

        // What is written to the process's standard output
        Told("fputs", &PutText),
        Told("fputws", &PutWideText),
        Through("fflush"),
        Through("OutputDebugStringA"),
        Through("OutputDebugStringW"),

        // Ways to end the process
        Noted("exit", &ExitByRuntime),
        Noted("abort", &AbortByRuntime),
        Noted("_amsg_exit", &ExitWithRuntimeError),

        // The process itself: its memory, threads, texts and exceptions
        Through("AddVectoredExceptionHandler"),
        Through("CreateEventA"),
        Through("CreateSemaphoreA"),
        Through("CreateSemaphoreW"),
        Through("DeleteCriticalSection"),
        Through("EnterCriticalSection"),
        Through("FormatMessageA"),
        Through("FormatMessageW"),
        Through("GetConsoleOutputCP"),
        Through("GetCurrentProcess"),
        Through("GetCurrentProcessId"),
        Through("GetCurrentThread"),
        Through("GetCurrentThreadId"),
        Through("GetThreadId"),
        Through("GetLastError"),
        Through("GetNativeSystemInfo"),
        Through("GetOEMCP"),
        Through("GetProcessAffinityMask"),
        Through("GetSystemInfo"),
        Through("GetThreadContext"),
        Through("GetThreadPriority"),
        Through("InitializeCriticalSection"),
        Through("IsDBCSLeadByteEx"),
        Through("IsDebuggerPresent"),
        Through("LeaveCriticalSection"),
        Through("LocalFree"),
        Through("MultiByteToWideChar"),
        Through("RaiseException"),
        Through("ReleaseSemaphore"),
        Through("RemoveVectoredExceptionHandler"),
        Through("ResetEvent"),
        Through("ResumeThread"),
        Through("RtlCaptureContext"),
        Through("RtlLookupFunctionEntry"),
        Through("RtlUnwindEx"),
        Through("RtlVirtualUnwind"),
        Through("SetEvent"),
        Through("SetLastError"),
        Through("SetProcessAffinityMask"),
        Through("SetThreadContext"),
        Through("SetThreadPriority"),
        Through("SuspendThread"),
        Through("TlsAlloc"),
        Through("TlsFree"),
        Through("TlsGetValue"),
        Through("TlsSetValue"),
        Through("TryEnterCriticalSection"),
        Through("VirtualProtect"),
        Through("VirtualQuery"),
        Through("WideCharToMultiByte"),
        Through("__C_specific_handler"),
        Through("___lc_codepage_func"),
        Through("___mb_cur_max_func"),
        Through("__iob_func"),
        Through("_beginthreadex"),
        Through("_endthreadex"),
        Through("_errno"),
        Through("_initterm"),
        Through("_close"),
        Through("_lock"),
        Through("_read"),
        Through("_setjmp"),
        Through("_strdup"),
        Through("_ultoa"),
        Through("_unlock"),
        Through("_vsnwprintf"),
        Through("_wcsicmp"),
        Through("_wcsnicmp"),
        Through("_wtof"),
        Through("_wtoi"),
        Through("calloc"),
        Through("free"),
        Through("iswdigit"),
        Through("localeconv"),
        Through("getenv"),
        Through("longjmp"),
        Through("malloc"),
        Through("memchr"),
        Through("memcmp"),
        Through("memcpy"),
        Through("memmove"),
        Through("memset"),
        Through("realloc"),
        Through("signal"),
        Through("strcmp"),
        Through("strerror"),
        Through("strchr"),
        Through("strlen"),
        Through("strncmp"),
        Through("strtoul"),
        Through("towlower"),
        Through("towupper"),
        Through("wcschr"),
        Through("wcscmp"),
        Through("wcslen"),
        Through("wcsncmp"),
        Through("wcsncpy_s"),
        Through("wcsrchr"),
        Through("wcsstr"),
        Through("wcstod"),
        Through("wcstol"),
        Through("wcstoul"),
        Through("wsprintfW"),
        Through("wvsprintfW"),
        // The runtime's last words before it ends a process.
        Through("fprintf"),
        Through("fputc"),
        Through("fputwc"),
        Through("fwprintf"),
        Through("fwrite"),
        Through("printf"),
        Through("vfprintf"),
    };
}

}  // namespace

const std::vector<ImportRule>& ImportRules() {
    static const std::vector<ImportRule> rules = MakeRules();
    return rules;
}

const ImportRule* FindImportRule(const std::string& function) {
    const auto& rules = ImportRules();
    const auto found = std::find_if(rules.begin(), rules.end(),
                                    [&](const ImportRule& rule) { return function == rule.function; });
    return found == rules.end() ? nullptr : &*found;
}

}  // namespace corvi::tool::plan
