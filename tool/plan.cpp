#include <windows.h>

#include <msi.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "tool/action_call.h"
#include "tool/change_journal.h"
#include "tool/console.h"
#include "tool/facts_text.h"
#include "tool/image.h"
#include "tool/import_rules.h"
#include "tool/installer_session.h"
#include "tool/interception.h"
#include "tool/plan_machine.h"
#include "tool/verbs.h"

namespace corvi::tool {
namespace {

/// Everything that a plan tells at its end.
struct Told {
    const ActionFacts* facts = nullptr;
    bool json = false;
    bool elevated = false;
    std::vector<std::string> notes;
    std::vector<std::string> log;
    std::vector<std::string> messages;
};

nlohmann::ordered_json ToJson(const Change& change) {
    nlohmann::ordered_json json;
    json["do"] = DeedName(change.deed);
    json["what"] = ToUtf8(change.subject);
    switch (change.deed) {
        case Deed::SetValue:
            json["value"] = ToUtf8(change.detail);
            json["data"] = ToUtf8(change.note);
            break;
        case Deed::DeleteValue:
            json["value"] = ToUtf8(change.detail);
            break;
        case Deed::DeleteFolder:
            json["files"] = change.files;
            json["folders"] = change.folders;
            break;
        case Deed::DeleteKey:
            json["keys"] = change.folders;
            break;
        case Deed::WriteFile:
            json["bytes"] = change.files;
            break;
        case Deed::Run:
            json["directory"] = ToUtf8(change.detail);
            if (!change.note.empty()) {
                json["effect"] = ToUtf8(change.note);
            }
            break;
        default:
            if (!change.detail.empty()) {
                json["detail"] = ToUtf8(change.detail);
            }
            break;
    }
    json["text"] = ToUtf8(InWords(change));
    return json;
}

void PrintJson(const Told& told, const ActionEnd& end) {
    nlohmann::ordered_json json;
    json["action"] = told.facts->name;
    json["elevated"] = told.elevated;
    json["notes"] = told.notes;
    json["changes"] = nlohmann::ordered_json::array();
    for (const Change& change : plan::Journal().Changes()) {
        json["changes"].push_back(ToJson(change));
    }
    json["log"] = told.log;
    json["messages"] = told.messages;
    json["output"] = ToUtf8(plan::StandardOutputText());
    AddTo(json, *told.facts, end);
    PrintLine(json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

void PrintSection(const std::string& heading, const std::vector<std::string>& lines) {
    if (lines.empty()) {
        return;
    }
    PrintLine(heading);
    for (const std::string& line : lines) {
        PrintWrapped(line, "  ", "    ");
    }
}

void PrintText(const Told& told, const ActionEnd& end) {
    for (const std::string& note : told.notes) {
        PrintWrapped("note: " + note, "", "  ");
    }
    const auto& changes = plan::Journal().Changes();
    const std::wstring count = Counted(changes.size(), L"change", L"changes");
    PrintLine("plan of " + told.facts->name + ": " +
              (changes.empty() ? "nothing would change" : ToUtf8(count) + ", none of them made"));
    for (const std::wstring& line : InWords(changes)) {
        PrintWrapped(ToUtf8(line), "  ", "    ");
    }
    PrintSection("log:", told.log);
    PrintSection("message to the user:", told.messages);
    if (!plan::StandardOutputText().empty()) {
        PrintSection("standard output:", {LogLine(plan::StandardOutputText())});
    }
    PrintWrapped(InWords(*told.facts, end), "", "  ");
}

/// Everything, and the program's exit code.
int Tell(const Told& told, const ActionEnd& end) {
    if (told.json) {
        PrintJson(told, end);
    } else {
        PrintText(told, end);
    }
    if (IsFine(*told.facts, end)) {
        return kFine;
    }
    PrintError(Complaint(*told.facts, end));
    return kFindings;
}

/// The library as its file tells of it. Throws UsageError for one of which no plan can tell what it does.
void RequireKnownImports(const std::wstring& path, const std::string& action) {
    const auto image = ReadImage(path);
    if (!image) {
        throw UsageError(ToUtf8(path) + " is no 64-bit Windows library");
    }
    for (const std::string& function : image->imports) {
        if (plan::FindImportRule(function) == nullptr) {
            throw UsageError("no plan: the library imports " + function +
                             ", and it is not known whether that changes anything");
        }
    }
    if (std::find(image->exports.begin(), image->exports.end(), action) == image->exports.end()) {
        throw UsageError("the library has no action " + action);
    }
}

void StandIn(Interception& interception) {
    for (const plan::ImportRule& rule : plan::ImportRules()) {
        if (rule.standIn != nullptr && interception.Imports(rule.function)) {
            interception.Replace(rule.function, rule.standIn);
        }
    }
}

/// What must be told and tidied up when the action does not come back: the one plan of the process.
struct Running {
    Told told;
    std::unique_ptr<InstallerSession> session;
};
Running* running = nullptr;

/// Ends the program from within the action: nothing of the action may run any more.
[[noreturn]] void EndProgram(const ActionEnd& end) {
    running->session->Close();
    const int code = Tell(running->told, end);
    FlushOutput();
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(code));
    std::abort();
}

void EndEarly(plan::End end, DWORD code, const std::wstring& reason) {
    if (end == plan::End::ProcessEnds) {
        EndProgram({Ending::EndedProcess, code, {}});
    }
    running->session->Close();
    PrintError("no plan: " + ToUtf8(reason) + ", and no plan can tell what that does");
    FlushOutput();
    TerminateProcess(GetCurrentProcess(), kWrongUse);
}

LONG WINAPI EndAfterCrash(EXCEPTION_POINTERS* exception) {
    EndProgram({Ending::Crashed, exception->ExceptionRecord->ExceptionCode, {}});
}

int Plan(const ActionCall& call) {
    const ActionFacts& facts = RequireAction(call.action);
    const auto properties = PropertiesOf(call);
    const std::wstring path = LibraryPath(call.dll);
    RequireKnownImports(path, facts.name);

    Running plan;
    // The plan ends in this function, and the stand-ins with it.
    // cppcheck-suppress danglingLifetime
    running = &plan;
    plan.told.facts = &facts;
    plan.told.json = call.json;
    plan.told.elevated = IsElevated();
    plan.told.notes = Notes(facts, call, plan.told.elevated);
    plan.session = std::make_unique<InstallerSession>([&](UINT kind, const std::wstring& text) {
        (kind == INSTALLMESSAGE_INFO ? plan.told.log : plan.told.messages).push_back(LogLine(text));
    });
    for (const auto& [name, value] : properties) {
        if (!plan.session->SetProperty(ToWide(name), ToWide(value))) {
            throw UsageError("the installer takes no property \"" + name + "\"");
        }
    }
    const HMODULE library = LoadLibraryW(path.c_str());
    if (library == nullptr) {
        throw UsageError("cannot load " + ToUtf8(path) + " (error " + std::to_string(GetLastError()) + ")");
    }
    ActionEnd end;
    {
        Interception interception(library);
        StandIn(interception);
        plan::SetEndHandler(&EndEarly);
        SetUnhandledExceptionFilter(&EndAfterCrash);
        end = CallAction(library, facts.name, plan.session->Handle());
        SetUnhandledExceptionFilter(nullptr);
    }
    plan.session->Close();
    return Tell(plan.told, end);
}

}  // namespace

void AddPlanVerb(CLI::App& program, Work& work) {
    const auto call = std::make_shared<ActionCall>();
    CLI::App* verb =
        AddVerb(program, "plan",
                "Tells what an action would do on this machine. The library runs, and every change "
                "that it asks for is noted instead of made: nothing on the machine changes.",
                {"corvi plan DeleteHXFolder",
                 "corvi plan DeleteDMFTDirectory --data InstallDir=C:\\TAVO\\Imaging\\"});
    AddActionOptions(*verb, *call);
    verb->callback([call, &work] { work = [call] { return Plan(*call); }; });
}

}  // namespace corvi::tool
