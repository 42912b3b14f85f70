#include "tests/faults/sweep.h"

#include <windows.h>

#include <msi.h>
#include <msiquery.h>

#include <cxxabi.h>
#include <objbase.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>

#include "tests/faults/expectations.h"
#include "tests/faults/machine.h"
#include "tests/faults/platform_watch.h"
#include "tests/faults/stand_ins.h"
#include "tests/support/installer_session.h"
#include "tests/support/library.h"

namespace corvi::test {
namespace {

// The child's orders and its record.
constexpr char kVariable[] = "CORVI_FAULTS_CHILD";
constexpr char kRecord[] = "C:\\corvi\\faults.txt";
constexpr DWORD kSilenceLimitMilliseconds = 60000;
constexpr unsigned kSeed = 20240611;

std::string Narrow(const std::wstring& text) {
    std::string narrow;
    for (const wchar_t c : text) {
        narrow += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : (c == L'\n' ? ' ' : '?');
    }
    return narrow;
}

// ---- One run

struct Run {
    UINT result = 0;
    std::string error;  ///< the type of the error that left the action; empty for none
    Recording recording;
    std::vector<std::wstring> lines;
    size_t linesAtFault = 0;
    std::vector<std::string> open;
};

/// The library, a session and the watch between library and platform; one for a process.
class Stage {
public:
    Stage() {
        // The C++ runtime makes a thread's record of errors at its first throw, and cannot do without it: an
        // action that throws for the first time while memory is short ends the process. So one error is
        // thrown before.
        DropKey(L"SOFTWARE\\TAVO");
        try {
            library_.Call("DeleteHXNoUpgrade", session_.Handle());
        } catch (...) {
        }
        watch_ = std::make_unique<PlatformWatch>(library_.Module());
    }

    Run Do(const Scenario& scenario, const std::optional<Fault>& fault, Planted planted) {
        ResetStandIns();
        scenario.setUp();
        for (const auto& [name, value] : scenario.properties) {
            session_.SetProperty(name, value);
        }
        session_.SetActionData(scenario.actionData);
        session_.ClearMessages();
        Run run;
        watch_->Begin(fault, [&] {
            run.linesAtFault = session_.Messages().size();
            Plant(planted);
        });
        try {
            run.result = library_.Call(scenario.action, session_.Handle());
        } catch (...) {
            run.error = NameOfError();
        }
        run.recording = watch_->End();
        run.open = watch_->Open();
        for (const InstallerMessage& message : session_.Messages()) {
            run.lines.push_back(message.text);
        }
        for (const auto& [name, value] : scenario.properties) {
            session_.SetProperty(name, L"");
        }
        ApplyToOutcome(planted, run);
        return run;
    }

    PlatformWatch& Watch() { return *watch_; }

private:
    static std::string NameOfError() {
        const std::type_info* const type = abi::__cxa_current_exception_type();
        return type != nullptr ? type->name() : "unknown";
    }

    // What a defect of the product would do where it meets the fault.
    void Plant(Planted planted) {
        if (planted == Planted::Leak) {
            watch_->Opened("key", this, "planted");
        } else if (planted == Planted::WiderDeletion) {
            watch_->NoteChange(L"delete C:\\USERS");
        } else if (planted == Planted::StrayLine) {
            const MSIHANDLE record = MsiCreateRecord(0);
            MsiRecordSetStringW(record, 0, L"nobody knows this line");
            MsiProcessMessage(session_.Handle(), INSTALLMESSAGE_INFO, record);
            MsiCloseHandle(record);
        } else if (planted == Planted::ProcessEnd) {
            TerminateProcess(GetCurrentProcess(), 5);
        } else if (planted == Planted::Endless) {
            while (watch_->Running()) {
                watch_->Fails("PlantedCall");
            }
        }
    }

    static void ApplyToOutcome(Planted planted, Run& run) {
        if (run.recording.faultMet && planted == Planted::UnlistedResult) {
            run.result = 4711;
        }
        if (run.recording.faultMet && planted == Planted::StrayError) {
            run.error = "St9bad_alloc";
        }
    }

    Library library_;
    InstallerSession session_;
    std::unique_ptr<PlatformWatch> watch_;
};

// ---- What holds after each run

/// What is wrong with a run, and which exceptions it needed.
class Judgement {
public:
    Judgement(const Scenario& scenario, const Fault& fault, const Run& good, const Run& run)
        : action_(scenario.action),
          wholeFolder_(scenario.wholeFolder),
          fault_(fault),
          good_(good),
          run_(run) {
        if (!run.recording.faultMet) {
            findings.emplace_back("the fault was not met: the run is not the same as the good one");
        }
        LookAtEnd();
        for (const std::string& resource : run.open) {
            FindUnless(MayStayOpen(action_, resource, fault.function), "left open: " + resource);
        }
        LookAtChanges();
        LookAtLines();
    }

    std::vector<std::string> findings;
    std::set<std::string> exceptions;

private:
    /// exception: the row that allows it; empty for none.
    void FindUnless(const std::string& exception, const std::string& finding) {
        if (exception.empty()) {
            findings.push_back(finding);
        } else {
            exceptions.insert(exception);
        }
    }

    void LookAtEnd() {
        if (!run_.error.empty()) {
            FindUnless(MayLetErrorOut(action_, run_.error), "an error leaves the action: " + run_.error);
        } else if (!IsListedResult(action_, run_.result)) {
            findings.push_back("a result that the reference does not list: " + std::to_string(run_.result));
        }
    }

    void LookAtChanges() {
        const std::vector<std::wstring>& changes = good_.recording.changes;
        const std::set<std::wstring> touched(changes.begin(), changes.end());
        std::set<std::wstring> told = touched;
        for (const std::wstring& change : run_.recording.changes) {
            if (told.insert(change).second) {
                const std::string part = MayGoWithTheWhole(change, touched, wholeFolder_);
                FindUnless(part.empty() ? MayStandIn(action_, change, touched, fault_.function) : part,
                           "touched without need: " + Narrow(change));
            }
        }
    }

    void LookAtLines() {
        for (size_t index = 0; index < run_.lines.size(); ++index) {
            const std::wstring& line = run_.lines[index];
            if (index < run_.linesAtFault) {
                if (index >= good_.lines.size() || line != good_.lines[index]) {
                    findings.push_back("another line before the fault: " + Narrow(line));
                }
            } else if (!IsListedLine(action_, line, fault_.function)) {
                findings.push_back("a line that the reference does not list: " + Narrow(line));
            }
        }
    }

    const std::string action_;
    const std::wstring wholeFolder_;
    const Fault& fault_;
    const Run& good_;
    const Run& run_;
};

/// Every call once, and once with all later ones; the allocator's requests too.
std::vector<Fault> FaultsOf(const Recording& good) {
    std::vector<Fault> faults;
    const auto add = [&](const std::string& function, size_t nth) {
        faults.push_back({function, nth, false});
        faults.push_back({function, nth, true});
    };
    std::map<std::string, size_t> counts;
    for (const std::string& function : good.calls) {
        add(function, counts[function]++);
    }
    for (size_t nth = 0; nth < good.allocations; ++nth) {
        add(kAllocator, nth);
    }
    return faults;
}

/// A sample by a fixed seed.
bool IsTaken(const std::string& scenario, size_t index, size_t oneOf) {
    unsigned hash = kSeed;
    for (const char c : scenario + std::to_string(index)) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    }
    return (hash >> 8U) % oneOf == 0;
}

// ---- The child

struct ChildOrder {
    SweepOrder sweep;
    size_t scenario = 0;  ///< where to begin
    size_t fault = 0;
};

std::string Encode(const ChildOrder& order) {
    std::ostringstream text;
    text << order.scenario << ' ' << order.fault << ' ' << order.sweep.shard << ' ' << order.sweep.shards
         << ' ' << order.sweep.oneOf << ' ' << static_cast<int>(order.sweep.planted) << ' '
         << order.sweep.scenario;
    return text.str();
}

ChildOrder Decode(const std::string& text) {
    ChildOrder order;
    int planted = 0;
    std::istringstream stream(text);
    stream >> order.scenario >> order.fault >> order.sweep.shard >> order.sweep.shards >> order.sweep.oneOf >>
        planted;
    stream.get();
    std::getline(stream, order.sweep.scenario);
    order.sweep.planted = static_cast<Planted>(planted);
    return order;
}

/// The child's record, a line a step, written through at once: "scenario 3", "fault 17 malloc #2, once",
/// "finding ...", "done".
class Record {
public:
    Record() : file_(kRecord, std::ios::app) {}
    void Write(const std::string& line) { file_ << line << std::endl; }

private:
    std::ofstream file_;
};

Record* currentRecord = nullptr;

LONG WINAPI TellAboutCrash(EXCEPTION_POINTERS* crash) {
    std::ostringstream text;
    text << "crash " << std::hex << crash->ExceptionRecord->ExceptionCode << " at "
         << crash->ExceptionRecord->ExceptionAddress << ", library at " << GetModuleHandleW(L"Corvi_CA.dll");
    currentRecord->Write(text.str());
    std::_Exit(5);
}

void WorkOn(Stage& stage, Record& record, const Scenario& scenario, size_t firstFault,
            const SweepOrder& order) {
    scenario.prepare();
    // The platform keeps things of its own after a first call; the second run is what all others are like.
    stage.Do(scenario, std::nullopt, Planted::Nothing);
    const Run good = stage.Do(scenario, std::nullopt, Planted::Nothing);
    const Run again = stage.Do(scenario, std::nullopt, Planted::Nothing);
    if (good.result != scenario.result || !good.error.empty()) {
        record.Write("finding the good run gives " + std::to_string(good.result) + " " + good.error);
    }
    for (const std::string& resource : good.open) {
        const std::string exception = MayStayOpen(scenario.action, resource, "");
        record.Write(exception.empty() ? "finding the good run leaves open: " + resource
                                       : "exception " + exception);
    }
    if (good.recording.calls != again.recording.calls || good.recording.changes != again.recording.changes ||
        good.recording.allocations != again.recording.allocations) {
        record.Write("finding two good runs differ");
    }
    const std::vector<Fault> faults = FaultsOf(good.recording);
    stage.Watch().callLimit = good.recording.calls.size() * 50 + 10000;
    record.Write("size " + std::to_string(good.recording.calls.size()) + " calls, " +
                 std::to_string(good.recording.allocations) + " requests for memory, " +
                 std::to_string(good.recording.changes.size()) + " changes");
    for (size_t index = firstFault; index < faults.size(); ++index) {
        if (!IsTaken(scenario.name, index, order.oneOf)) {
            continue;
        }
        record.Write("fault " + std::to_string(index) + " " + faults[index].Text());
        const Run run = stage.Do(scenario, faults[index], order.planted);
        const Judgement judgement(scenario, faults[index], good, run);
        for (const std::string& finding : judgement.findings) {
            record.Write("finding " + finding);
        }
        for (const std::string& exception : judgement.exceptions) {
            record.Write("exception " + exception);
        }
    }
    scenario.leave();
}

bool IsOrdered(const SweepOrder& order, size_t index) {
    return index % order.shards == order.shard &&
           (order.scenario.empty() || order.scenario == AllScenarios()[index].name);
}

// ---- The parent

/// Runs one child until it ends or is silent for too long. Gives its exit code.
DWORD RunChild(const ChildOrder& order, const std::string& childSwitch = kChildSwitch) {
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring commandLine =
        L"\"" + std::wstring(self) + L"\" " + std::wstring(childSwitch.begin(), childSwitch.end());
    SetEnvironmentVariableA(kVariable, Encode(order).c_str());
    SECURITY_ATTRIBUTES inheritable = {sizeof(inheritable), nullptr, TRUE};
    const HANDLE output =
        CreateFileW(L"C:\\corvi\\faults_child.txt", FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    &inheritable, OPEN_ALWAYS, 0, nullptr);
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output;
    startup.hStdError = output;
    PROCESS_INFORMATION child = {};
    if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                       &child) == FALSE) {
        throw std::runtime_error("cannot start a child");
    }
    CloseHandle(child.hThread);
    CloseHandle(output);
    std::streamoff size = -1;
    DWORD exitCode = 0;
    while (WaitForSingleObject(child.hProcess, kSilenceLimitMilliseconds) == WAIT_TIMEOUT) {
        std::ifstream record(kRecord, std::ios::ate);
        const std::streamoff now = record.tellg();
        if (now == size) {
            TerminateProcess(child.hProcess, 258);
            WaitForSingleObject(child.hProcess, INFINITE);
            break;
        }
        size = now;
    }
    GetExitCodeProcess(child.hProcess, &exitCode);
    CloseHandle(child.hProcess);
    return exitCode;
}

/// Reads a child's record into the outcome. Gives where the next child begins, or nothing when all is done.
class Reading {
public:
    explicit Reading(SweepOutcome& outcome) : outcome_(outcome) {}

    /// True when the child came to its end.
    bool Read(DWORD exitCode) {
        std::ifstream record(kRecord);
        bool done = false;
        std::string crash;
        for (std::string line; std::getline(record, line);) {
            std::istringstream words(line);
            std::string word;
            words >> word;
            std::string rest;
            std::getline(words >> std::ws, rest);
            if (word == "scenario") {
                scenario_ = std::stoul(rest);
                fault_ = 0;
                known_ = false;
                faultText_ = "without a fault";
                EndSummary();
                if (scenario_ != summarized_) {
                    ++outcome_.scenarios;
                    summarized_ = scenario_;
                }
            } else if (word == "fault") {
                fault_ = std::stoul(rest);
                known_ = true;
                faultText_ = rest.substr(rest.find(' ') + 1);
                outcome_.functions.insert(faultText_.substr(0, faultText_.find(' ')));
                ++outcome_.faults;
                ++faultsOfScenario_;
            } else if (word == "size") {
                size_ = rest;
            } else if (word == "finding") {
                Find(rest);
            } else if (word == "exception") {
                outcome_.exceptions.insert(rest);
            } else if (word == "crash") {
                crash = line;
            } else if (word == "done") {
                done = true;
            }
        }
        if (!done) {
            Find("the process ends, code " + std::to_string(exitCode) + " " + crash);
        }
        EndSummary();
        return done;
    }

    size_t NextScenario() const { return known_ ? scenario_ : scenario_ + 1; }
    size_t NextFault() const { return known_ ? fault_ + 1 : 0; }

private:
    void Find(const std::string& text) {
        outcome_.findings.push_back(std::string(AllScenarios()[scenario_].name) + ": " + faultText_ + ": " +
                                    text);
    }

    void EndSummary() {
        if (faultsOfScenario_ > 0) {
            outcome_.summary.push_back(std::string(AllScenarios()[summarized_].name) + ": " +
                                       std::to_string(faultsOfScenario_) + " faults (" + size_ + ")");
        }
        faultsOfScenario_ = 0;
    }

    SweepOutcome& outcome_;
    size_t scenario_ = 0;
    size_t fault_ = 0;
    bool known_ = false;
    std::string faultText_ = "at the start";
    size_t faultsOfScenario_ = 0;
    size_t summarized_ = static_cast<size_t>(-1);
    std::string size_;
};

}  // namespace

unsigned long EndOfAFirstErrorWithoutMemory() {
    DeleteFileA(kRecord);
    return RunChild(ChildOrder(), kFirstErrorSwitch);
}

void ThrowFirstErrorWithoutMemory() {
    DropKey(L"SOFTWARE\\TAVO");
    const Library library;
    const InstallerSession session;
    PlatformWatch watch(library.Module());
    watch.Begin(Fault{kAllocator, 0, true}, [] {});
    try {
        library.Call("DeleteHXNoUpgrade", session.Handle());
    } catch (...) {
        std::_Exit(0);
    }
}

void WorkAsChild() {
    const char* const text = std::getenv(kVariable);
    if (text == nullptr) {
        return;
    }
    const ChildOrder order = Decode(text);
    Record record;
    currentRecord = &record;
    SetUnhandledExceptionFilter(TellAboutCrash);
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    Stage stage;
    for (size_t index = order.scenario; index < AllScenarios().size(); ++index) {
        if (IsOrdered(order.sweep, index)) {
            record.Write("scenario " + std::to_string(index));
            WorkOn(stage, record, AllScenarios()[index], index == order.scenario ? order.fault : 0,
                   order.sweep);
        }
    }
    record.Write("done");
}

SweepOutcome RunSweep(const SweepOrder& order) {
    constexpr size_t kMostChildren = 200;
    SweepOutcome outcome;
    const KeptValues kept;
    ChildOrder child{order, 0, 0};
    Reading reading(outcome);
    for (size_t count = 0; count < kMostChildren && child.scenario < AllScenarios().size(); ++count) {
        DeleteFileA(kRecord);
        if (reading.Read(RunChild(child))) {
            break;
        }
        child.scenario = reading.NextScenario();
        child.fault = reading.NextFault();
    }
    return outcome;
}

}  // namespace corvi::test
