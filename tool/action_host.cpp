#include "tool/action_host.h"

#include <windows.h>

#include <msi.h>
#include <shellapi.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

#include "tool/action_call.h"
#include "tool/console.h"
#include "tool/image.h"
#include "tool/installer_session.h"
#include "tool/interception.h"

namespace corvi::tool {
namespace {

using Json = nlohmann::json;

HANDLE reports = nullptr;

void Report(const Json& event) {
    const std::string line = event.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
    DWORD written = 0;
    WriteFile(reports, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
}

std::string ReadLine(HANDLE pipe) {
    std::string line;
    char buffer[4096];
    DWORD read = 0;
    while (line.find('\n') == std::string::npos &&
           ReadFile(pipe, buffer, sizeof(buffer), &read, nullptr) != FALSE && read > 0) {
        line.append(buffer, read);
    }
    return line.substr(0, line.find('\n'));
}

// What the action starts and whom it waits for: told to the report, and done.

std::map<SC_HANDLE, std::wstring> serviceNames;

BOOL WINAPI StartAndTell(LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES processSecurity,
                         LPSECURITY_ATTRIBUTES threadSecurity, BOOL inherit, DWORD flags, LPVOID environment,
                         LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION started) {
    const std::wstring line = commandLine != nullptr   ? commandLine
                              : application != nullptr ? application
                                                       : L"";
    const BOOL done = CreateProcessW(application, commandLine, processSecurity, threadSecurity, inherit,
                                     flags, environment, directory, startup, started);
    const DWORD error = GetLastError();
    if (done != FALSE) {
        Report({{"started", ToUtf8(line)}, {"process", started->dwProcessId}});
    }
    SetLastError(error);
    return done;
}

BOOL WINAPI StartThroughShellAndTell(SHELLEXECUTEINFOW* information) {
    const BOOL done = ShellExecuteExW(information);
    const DWORD error = GetLastError();
    if (done != FALSE && information->hProcess != nullptr) {
        const std::wstring file = information->lpFile != nullptr ? information->lpFile : L"";
        const std::wstring parameters =
            information->lpParameters != nullptr ? information->lpParameters : L"";
        const bool joined = parameters.empty() || parameters.front() == L' ';
        const std::wstring line = (file.find(L' ') == std::wstring::npos ? file : L'"' + file + L'"') +
                                  (joined ? L"" : L" ") + parameters;
        Report({{"started", ToUtf8(line)}, {"process", GetProcessId(information->hProcess)}});
    }
    SetLastError(error);
    return done;
}

SC_HANDLE WINAPI OpenServiceAndRemember(SC_HANDLE manager, LPCWSTR name, DWORD access) {
    const SC_HANDLE service = OpenServiceW(manager, name, access);
    const DWORD error = GetLastError();
    if (service != nullptr) {
        serviceNames[service] = name;
    }
    SetLastError(error);
    return service;
}

void TellOfService(SC_HANDLE service, const char* deed) {
    const auto name = serviceNames.find(service);
    if (name != serviceNames.end()) {
        Report({{"service", ToUtf8(name->second)}, {"deed", deed}});
    }
}

BOOL WINAPI ControlAndTell(SC_HANDLE service, DWORD control, LPSERVICE_STATUS status) {
    if (control == SERVICE_CONTROL_STOP) {
        TellOfService(service, "stop");
    }
    return ControlService(service, control, status);
}

BOOL WINAPI StartServiceAndTell(SC_HANDLE service, DWORD count, LPCWSTR* arguments) {
    TellOfService(service, "start");
    return StartServiceW(service, count, arguments);
}

void Watch(Interception& interception) {
    const std::pair<const char*, void*> watched[] = {
        {"CreateProcessW", reinterpret_cast<void*>(&StartAndTell)},
        {"ShellExecuteExW", reinterpret_cast<void*>(&StartThroughShellAndTell)},
        {"OpenServiceW", reinterpret_cast<void*>(&OpenServiceAndRemember)},
        {"ControlService", reinterpret_cast<void*>(&ControlAndTell)},
        {"StartServiceW", reinterpret_cast<void*>(&StartServiceAndTell)},
    };
    for (const auto& [function, replacement] : watched) {
        if (interception.Imports(function)) {
            interception.Replace(function, replacement);
        }
    }
}

LONG WINAPI TellOfCrash(EXCEPTION_POINTERS* exception) {
    const DWORD code = exception->ExceptionRecord->ExceptionCode;
    Report({{"crashed", code}});
    TerminateProcess(GetCurrentProcess(), code);
    return EXCEPTION_CONTINUE_SEARCH;
}

void ReportEnd(const ActionEnd& end) {
    if (end.how == Ending::Returned) {
        Report({{"returned", end.code}});
    } else {
        Report({{"threw", end.words}, {"code", end.code}});
    }
}

void RunAction(const Json& call) {
    const auto properties = call.at("properties").get<std::vector<std::pair<std::string, std::string>>>();
    InstallerSession session([](UINT kind, const std::wstring& text) {
        Report({{kind == INSTALLMESSAGE_INFO ? "log" : "message", LogLine(text)}});
    });
    Report({{"package", ToUtf8(session.Package())}, {"folder", session.MadeInstallerFolder()}});
    for (const auto& [name, value] : properties) {
        if (!session.SetProperty(ToWide(name), ToWide(value))) {
            throw UsageError("the installer takes no property \"" + name + "\"");
        }
    }
    const std::wstring path = ToWide(call.at("dll").get<std::string>());
    if (!ReadImage(path)) {
        throw UsageError(ToUtf8(path) + " is no 64-bit Windows library");
    }
    const HMODULE library = LoadLibraryW(path.c_str());
    if (library == nullptr) {
        throw UsageError("cannot load " + ToUtf8(path) + " (error " + std::to_string(GetLastError()) + ")");
    }
    Interception interception(library);
    Watch(interception);
    SetUnhandledExceptionFilter(&TellOfCrash);
    ReportEnd(CallAction(library, call.at("action").get<std::string>(), session.Handle()));
}

HANDLE HandleOf(const std::string& number) {
    const auto handle =
        reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(std::strtoull(number.c_str(), nullptr, 10)));
    // What the action starts must not hold the pipes open.
    SetHandleInformation(handle, HANDLE_FLAG_INHERIT, 0);
    return handle;
}

}  // namespace

std::optional<int> RunActionHost(const std::vector<std::string>& arguments) {
    if (arguments.size() != 3 || arguments[0] != kHostArgument) {
        return std::nullopt;
    }
    const HANDLE calls = HandleOf(arguments[1]);
    reports = HandleOf(arguments[2]);
    for (const DWORD stream : {STD_OUTPUT_HANDLE, STD_ERROR_HANDLE}) {
        SetHandleInformation(GetStdHandle(stream), HANDLE_FLAG_INHERIT, 0);
    }
    try {
        RunAction(Json::parse(ReadLine(calls)));
    } catch (const std::exception& error) {
        Report({{"refused", error.what()}});
    }
    return kFine;
}

}  // namespace corvi::tool
