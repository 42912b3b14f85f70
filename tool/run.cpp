#include <windows.h>

#include <tlhelp32.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "tool/action_call.h"
#include "tool/action_host.h"
#include "tool/console.h"
#include "tool/encoding.h"
#include "tool/facts_text.h"
#include "tool/image.h"
#include "tool/installer_session.h"
#include "tool/verbs.h"

namespace corvi::tool {
namespace {

using Json = nlohmann::json;

/// Without a sign of life for so long, the program says what it waits for; and again each time as long.
constexpr ULONGLONG kPatienceMilliseconds = 10000;
constexpr DWORD kPollMilliseconds = 10;

class Handle {
public:
    Handle() = default;
    explicit Handle(HANDLE handle) : handle_(handle) {}
    ~Handle() { Close(); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    HANDLE Get() const { return handle_; }
    HANDLE* Put() { return &handle_; }
    void Close() {
        if (handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE) {
            CloseHandle(handle_);
        }
        handle_ = nullptr;
    }

private:
    HANDLE handle_ = nullptr;
};

struct Pipe {
    Handle readEnd;
    Handle writeEnd;
};

void MakePipe(Pipe& pipe) {
    SECURITY_ATTRIBUTES inheritable = {sizeof(inheritable), nullptr, TRUE};
    if (CreatePipe(pipe.readEnd.Put(), pipe.writeEnd.Put(), &inheritable, 1U << 16U) == FALSE) {
        throw UsageError("no pipe can be made (error " + std::to_string(GetLastError()) + ")");
    }
}

/// What waits in a pipe, without waiting for more.
std::string Drain(HANDLE readEnd) {
    std::string text;
    DWORD waiting = 0;
    while (PeekNamedPipe(readEnd, nullptr, 0, nullptr, &waiting, nullptr) != FALSE && waiting > 0) {
        std::string chunk(waiting, '\0');
        DWORD read = 0;
        if (ReadFile(readEnd, chunk.data(), waiting, &read, nullptr) == FALSE || read == 0) {
            break;
        }
        text.append(chunk, 0, read);
    }
    return text;
}

/// The host process and the ends of its pipes that are ours.
class Host {
public:
    Host() {
        MakePipe(calls_);
        MakePipe(reports_);
        MakePipe(output_);
        for (const Handle* ours : {&calls_.writeEnd, &reports_.readEnd, &output_.readEnd}) {
            SetHandleInformation(ours->Get(), HANDLE_FLAG_INHERIT, 0);
        }
        Start();
        calls_.readEnd.Close();
        reports_.writeEnd.Close();
        output_.writeEnd.Close();
    }

    void Send(const Json& call) const {
        const std::string line = call.dump() + "\n";
        for (std::size_t done = 0; done < line.size();) {
            DWORD written = 0;
            if (WriteFile(calls_.writeEnd.Get(), line.data() + done, static_cast<DWORD>(line.size() - done),
                          &written, nullptr) == FALSE) {
                return;
            }
            done += written;
        }
    }

    bool HasEnded(DWORD milliseconds) const {
        return WaitForSingleObject(process_.Get(), milliseconds) == WAIT_OBJECT_0;
    }
    DWORD ExitCode() const {
        DWORD code = 0;
        GetExitCodeProcess(process_.Get(), &code);
        return code;
    }
    DWORD ProcessId() const { return processId_; }
    std::string Reports() const { return Drain(reports_.readEnd.Get()); }
    std::string Output() const { return Drain(output_.readEnd.Get()); }

private:
    static std::wstring Number(const Handle& handle) {
        return std::to_wstring(reinterpret_cast<std::uintptr_t>(handle.Get()));
    }

    void Start() {
        std::wstring program(32768, L'\0');
        program.resize(GetModuleFileNameW(nullptr, program.data(), static_cast<DWORD>(program.size())));
        std::wstring line = L"\"" + program + L"\" " + ToWide(kHostArgument) + L" " + Number(calls_.readEnd) +
                            L" " + Number(reports_.writeEnd);
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = output_.writeEnd.Get();
        startup.hStdError = output_.writeEnd.Get();
        PROCESS_INFORMATION started = {};
        if (CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                           &startup, &started) == FALSE) {
            throw UsageError("the action's process cannot be started (error " +
                             std::to_string(GetLastError()) + ")");
        }
        *process_.Put() = started.hProcess;
        processId_ = started.dwProcessId;
        CloseHandle(started.hThread);
    }

    Pipe calls_;
    Pipe reports_;
    Pipe output_;
    Handle process_;
    DWORD processId_ = 0;
};

struct StartedProgram {
    std::string commandLine;
    DWORD process;
};

/// Everything that the host told.
struct Told {
    std::vector<std::string> log;
    std::vector<std::string> messages;
    std::vector<std::string> waits;
    std::string output;
    std::vector<StartedProgram> programs;
    std::string service;
    std::string deed;
    std::wstring package;
    bool madeFolder = false;
    std::optional<std::string> refused;
    std::optional<ActionEnd> end;
};

// What the action waits for

bool IsRunning(DWORD processId) {
    const Handle process(OpenProcess(SYNCHRONIZE, FALSE, processId));
    return process.Get() != nullptr && WaitForSingleObject(process.Get(), 0) == WAIT_TIMEOUT;
}

/// The names of the processes that a process and its children have started and that run.
std::string ChildrenOf(DWORD parent) {
    std::string names;
    std::vector<DWORD> family = {parent};
    const Handle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    for (std::size_t next = 0; next < family.size(); ++next) {
        PROCESSENTRY32W entry = {};
        entry.dwSize = sizeof(entry);
        for (BOOL more = Process32FirstW(snapshot.Get(), &entry); more != FALSE;
             more = Process32NextW(snapshot.Get(), &entry)) {
            const bool isNew = std::find(family.begin(), family.end(), entry.th32ProcessID) == family.end();
            if (entry.th32ParentProcessID == family[next] && isNew) {
                family.push_back(entry.th32ProcessID);
                names += (names.empty() ? "" : ", ") + ToUtf8(entry.szExeFile);
            }
        }
    }
    return names;
}

const char* StateWords(DWORD state) {
    switch (state) {
        case SERVICE_STOP_PENDING:
            return "is stopping";
        case SERVICE_START_PENDING:
            return "is starting";
        case SERVICE_RUNNING:
            return "runs";
        case SERVICE_STOPPED:
            return "has stopped";
        default:
            return "is in another state";
    }
}

/// "the service X, which is stopping"; empty when its state is the one that the action asked for.
std::string ServiceWait(const Told& told) {
    const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    const SC_HANDLE service = OpenServiceW(manager, ToWide(told.service).c_str(), SERVICE_QUERY_STATUS);
    SERVICE_STATUS status = {};
    const bool known = QueryServiceStatus(service, &status) != FALSE;
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
    const DWORD wanted = told.deed == "stop" ? DWORD{SERVICE_STOPPED} : DWORD{SERVICE_RUNNING};
    if (!known || status.dwCurrentState == wanted) {
        return {};
    }
    return "the service " + told.service + ", which " + StateWords(status.dwCurrentState);
}

std::string WhatItWaitsFor(const Host& host, const Told& told) {
    for (auto program = told.programs.rbegin(); program != told.programs.rend(); ++program) {
        if (IsRunning(program->process)) {
            const std::string children = ChildrenOf(program->process);
            return "the program " + program->commandLine + " (process " + std::to_string(program->process) +
                   (children.empty() ? "" : ", which has started " + children) + ")";
        }
    }
    if (!told.service.empty()) {
        const std::string service = ServiceWait(told);
        if (!service.empty()) {
            return service;
        }
    }
    const std::string children = ChildrenOf(host.ProcessId());
    return children.empty() ? "nothing outside: the action itself is working" : "the program " + children;
}

// The report

class Report {
public:
    Report(const ActionFacts& facts, bool json) : facts_(facts), json_(json) {}

    Told told;

    void Begin(const std::vector<std::string>& notes) const {
        if (json_) {
            return;
        }
        for (const std::string& note : notes) {
            PrintWrapped("note: " + note, "", "  ");
        }
        PrintLine("run of " + facts_.name);
        FlushOutput();
    }

    /// True when something was told.
    bool Take(const std::string& reports, const std::string& output) {
        unfinished_ += reports;
        for (std::size_t end = unfinished_.find('\n'); end != std::string::npos;
             end = unfinished_.find('\n')) {
            TakeEvent(Json::parse(unfinished_.substr(0, end), nullptr, false));
            unfinished_.erase(0, end + 1);
        }
        told.output += output;
        return !reports.empty() || !output.empty();
    }

    void SayWait(const std::string& what, ULONGLONG seconds) {
        const std::string line = "still waiting after " + std::to_string(seconds) + " s for " + what;
        told.waits.push_back(line);
        if (json_) {
            PrintError(line);
        } else {
            Say(line);
        }
    }

    void Finish(const std::vector<std::string>& notes, bool elevated, const ActionEnd& end) const {
        if (!json_) {
            FinishText(end);
            return;
        }
        nlohmann::ordered_json json;
        json["action"] = facts_.name;
        json["elevated"] = elevated;
        json["notes"] = notes;
        json["started"] = nlohmann::ordered_json::array();
        for (const StartedProgram& program : told.programs) {
            json["started"].push_back(program.commandLine);
        }
        json["log"] = told.log;
        json["messages"] = told.messages;
        json["output"] = OutputText();
        json["waits"] = told.waits;
        AddTo(json, facts_, end);
        PrintLine(json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
    }

private:
    void Say(const std::string& line) const {
        if (!json_) {
            PrintWrapped(line, "  ", "    ");
            FlushOutput();
        }
    }

    void TakeEvent(const Json& event) {
        if (event.contains("log")) {
            told.log.push_back(event["log"]);
            Say(told.log.back());
        } else if (event.contains("message")) {
            told.messages.push_back(event["message"]);
            Say("message to the user: " + told.messages.back());
        } else if (event.contains("started")) {
            told.programs.push_back({event["started"], event["process"]});
        } else if (event.contains("service")) {
            told.service = event["service"];
            told.deed = event["deed"];
        } else if (event.contains("package")) {
            told.package = ToWide(event["package"].get<std::string>());
            told.madeFolder = event["folder"];
        } else if (event.contains("refused")) {
            told.refused = event["refused"];
        } else if (event.contains("returned")) {
            told.end = {Ending::Returned, event["returned"], {}};
        } else if (event.contains("threw")) {
            told.end = {Ending::Threw, event["code"], event["threw"]};
        } else if (event.contains("crashed")) {
            told.end = {Ending::Crashed, event["crashed"], {}};
        }
    }

    /// What the action wrote to its standard output, with the line ends of a plan.
    std::string OutputText() const {
        std::string text = Utf8FromBytes(told.output);
        for (std::size_t end = text.find("\r\n"); end != std::string::npos; end = text.find("\r\n", end)) {
            text.erase(end, 1);
        }
        return text;
    }

    void FinishText(const ActionEnd& end) const {
        if (!told.output.empty()) {
            PrintLine("standard output:");
            PrintWrapped(LogLine(ToWide(OutputText())), "  ", "    ");
        }
        PrintWrapped(InWords(facts_, end), "", "  ");
    }

    const ActionFacts& facts_;
    bool json_;
    std::string unfinished_;
};

/// Codes that a process only ends with when it has crashed.
bool IsCrashCode(DWORD code) {
    constexpr DWORD kCrashes[] = {0xC0000005, 0xC00000FD, 0xC0000409, 0xC000001D, 0xC0000094, 0xC0000374};
    return std::find(std::begin(kCrashes), std::end(kCrashes), code) != std::end(kCrashes);
}

ActionEnd EndOf(const Host& host, const Told& told) {
    if (told.end) {
        return *told.end;
    }
    const DWORD code = host.ExitCode();
    return {IsCrashCode(code) ? Ending::Crashed : Ending::EndedProcess, code, {}};
}

void Follow(const Host& host, Report& report) {
    ULONGLONG lastSign = GetTickCount64();
    ULONGLONG nextNotice = lastSign + kPatienceMilliseconds;
    for (bool ended = false; !ended;) {
        ended = host.HasEnded(kPollMilliseconds);
        const ULONGLONG now = GetTickCount64();
        if (report.Take(host.Reports(), host.Output())) {
            lastSign = now;
            nextNotice = now + kPatienceMilliseconds;
        } else if (now >= nextNotice && !ended) {
            report.SayWait(WhatItWaitsFor(host, report.told), (now - lastSign) / 1000);
            nextNotice = now + kPatienceMilliseconds;
        }
    }
    report.Take(host.Reports(), host.Output());
    if (!report.told.package.empty()) {
        RemoveLeftPackage(report.told.package, report.told.madeFolder);
    }
}

void RequireExport(const std::wstring& library, const std::string& action) {
    const auto image = ReadImage(library);
    if (!image) {
        throw UsageError(ToUtf8(library) + " is no 64-bit Windows library");
    }
    if (std::find(image->exports.begin(), image->exports.end(), action) == image->exports.end()) {
        throw UsageError("the library has no action " + action);
    }
}

int Run(const ActionCall& call) {
    const ActionFacts& facts = RequireAction(call.action);
    const std::wstring library = LibraryPath(call.dll);
    RequireExport(library, facts.name);
    const Json order = {{"dll", ToUtf8(library)}, {"action", facts.name}, {"properties", PropertiesOf(call)}};
    const bool elevated = IsElevated();
    const auto notes = Notes(facts, call, elevated);
    Report report(facts, call.json);
    const Host host;
    host.Send(order);
    report.Begin(notes);
    Follow(host, report);
    if (report.told.refused) {
        throw UsageError(*report.told.refused);
    }
    const ActionEnd end = EndOf(host, report.told);
    report.Finish(notes, elevated, end);
    if (IsFine(facts, end)) {
        return kFine;
    }
    PrintError(Complaint(facts, end));
    return kFindings;
}

}  // namespace

void AddRunVerb(CLI::App& program, Work& work) {
    const auto call = std::make_shared<ActionCall>();
    CLI::App* verb = AddVerb(program, "run",
                             "Runs an action on this machine, outside an install. It does what it does in an "
                             "install: corvi plan tells beforehand what that is.",
                             {"corvi run BlockLaunch --set LAUNCHED_FROM_PIM=1"});
    AddActionOptions(*verb, *call);
    verb->callback([call, &work] { work = [call] { return Run(*call); }; });
}

}  // namespace corvi::tool
