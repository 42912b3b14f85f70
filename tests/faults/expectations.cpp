#include "tests/faults/expectations.h"

#include <algorithm>
#include <map>
#include <vector>

#include "tool/action_facts.h"

namespace corvi::test {
namespace {

// ---- Errors that leave an action

constexpr char kRegistryError[] = "N5corvi11RegKeyErrorE";

// The actions that let a registry error out, and why.
const std::map<std::string, std::string> kLetErrorOut = {
    {"AfterInstallPPC", "the session manager's key must be readable"},
    {"CreateBenchMarkRunOnceSchTask", "the gate and the install location must be readable"},
    {"CreateDVRLogonSchTask", "the install location must be readable"},
    {"CreateLogonSchTask", "the install location must be readable"},
    {"DeleteHXNoUpgrade", "the suite's key must be there"},
    {"DeleteHXSlimINSTALLDIRFolder", "the client's key must be there"},
    {"DeleteOPTXCameraGUID", "a chain that cannot be read must not be rewritten"},
    {"EnableAnalyticsKey", "a consent that cannot be recorded must be known"},
    {"SetEnvPath_IPU_WA", "a path that cannot be read must not be rewritten"},
    {"SetPermissionsRegisterDLL", "a path that cannot be read must not be rewritten"},
    {"ShutDownDVR", "the server's location must be readable"},
    {"ShutDownPQRNext", "the application's location must be readable"},
};

// ---- Changes in the place of others

// A change that begins with prefix is allowed where the good run made one of the others with the same object.
// An object of its own: the change as a whole, allowed for the action alone.
struct Substitution {
    std::string action;  // empty: all
    std::wstring prefix;
    std::wstring other;
    const char* reason;
};

const std::vector<Substitution> kSubstitutions = {
    {"", L"delete at restart ", L"delete ", "what cannot be deleted now goes at the restart"},
    {"", L"attributes ", L"delete ", "the read-only bit is taken off before the second try"},
    {"", L"create key ", L"set ", "a key that cannot be opened is opened by way of creating it"},
    // Started tools and the paths handed to them stay as they are where the platform does not name their
    // folder.
    {"", L"start \"\\TaskKill.exe\" ", L"", "the tool's folder cannot be named: its bare name stays"},
    {"", L"start cmd.exe /C \"\\netsh.exe ", L"", "the tool's folder cannot be named: its bare name stays"},
    {"", L"start cmd.exe /C \"Windows\\System32\\WindowsPowerShell\\", L"",
     "the Windows drive cannot be named: the rest of the path stays"},
    // Without a temporary folder a path is relative, as the reference says of these actions.
    {"SetDCLogFileRegistry", L"make folder TAVO\\HX", L"",
     "the log's path is relative without a temporary folder"},
    {"SetDCLogFileRegistry", L"set HKLM\\SYSTEM\\CURRENTCONTROLSET\\CONTROL\\CLASS\\", L"",
     "the log's path is relative without a temporary folder"},
    {"CreateLogonSchTask", L"write ", L"",
     "the task file's copy goes to the current folder without a temporary one"},
    {"CreateDVRLogonSchTask", L"write ", L"",
     "the task file's copy goes to the current folder without a temporary one"},
    {"CreateBenchMarkRunOnceSchTask", L"write ", L"",
     "the task file's copy goes to the current folder without a temporary one"},
    {"CreateBenchMarkRunOnceSchTask", L"start schtasks /Create ", L"",
     "the task file's copy goes to the current folder without a temporary one"},
    {"PostInstallPPC", L"create service TUEPLauncher: ", L"",
     "the launcher's path is composed of two registered folders: what cannot be read is missing in it"},
    {"UnregisterDLL", L"start cmd.exe /C \"regsvr32.exe /u /s ", L"",
     "a Windows whose version is unknown counts as an older one: the server is unregistered"},
    {"InstallContextMenuMSIX", L"start cmd.exe /C \"\"%SYSTEMROOT%\\System32\\WindowsPowerShell\\", L"",
     "the Windows drive cannot be named: the rest of the files' path stays"},
    {"LaunchInstallProxyHX", L"start \"\\\\MOM-InstallProxy-Net4\\", L"",
     "without action data the proxy's path begins with two separators, as the reference says"},
    {"DeleteHXFolder", L"delete C:\\FAULTS\\ELSEWHERE", L"",
     "without the registered location the folder of the action data counts"},
    {"DeleteHXINSTALLDIRFolder", L"delete C:\\FAULTS\\ELSEWHERE", L"",
     "without the registered location the folder of the action data counts"},
    {"DeleteHXSparsePackageAssets", L"delete C:\\FAULTS\\ELSEWHERE", L"",
     "without the registered location the folder of the action data counts"},
};

bool StandsIn(const Substitution& known, const std::string& action, const std::wstring& change,
              const std::set<std::wstring>& touched) {
    if ((!known.action.empty() && known.action != action) || change.rfind(known.prefix, 0) != 0) {
        return false;
    }
    if (known.other.empty()) {
        return true;
    }
    const std::wstring object = change.substr(known.prefix.size());
    // A value of the key counts as the key.
    return std::any_of(touched.begin(), touched.end(), [&](const std::wstring& made) {
        return made == known.other + object || made.rfind(known.other + object + L'|', 0) == 0;
    });
}

// ---- Lines

// %s, %d and their like stand for any text.
bool FitsPattern(const std::string& pattern, const std::string& text) {
    std::vector<std::string> pieces(1);
    for (size_t index = 0; index < pattern.size(); ++index) {
        if (pattern[index] == '%' && index + 1 < pattern.size()) {
            ++index;
            pieces.emplace_back();
        } else {
            pieces.back() += pattern[index];
        }
    }
    if (pieces.size() == 1) {
        return pattern == text;
    }
    if (text.rfind(pieces.front(), 0) != 0) {
        return false;
    }
    size_t position = pieces.front().size();
    for (size_t piece = 1; piece + 1 < pieces.size(); ++piece) {
        position = text.find(pieces[piece], position);
        if (position == std::string::npos) {
            return false;
        }
        position += pieces[piece].size();
    }
    return text.size() >= position + pieces.back().size() && text.ends_with(pieces.back());
}

std::string Trimmed(std::string text) {
    const auto isBlank = [](char c) { return c == ' ' || c == '\n' || c == '\r'; };
    while (!text.empty() && isBlank(text.back())) {
        text.pop_back();
    }
    return text;
}

}  // namespace

bool IsListedResult(const std::string& action, UINT result) {
    return tool::ResultMeaning(*tool::FindAction(action), result) != nullptr;
}

bool IsListedLine(const std::string& action, const std::wstring& line, const std::string& faulty) {
    // The record whose text is not set: the line is there, and nothing in it.
    if (line.empty() && faulty == "MsiRecordSetStringW") {
        return true;
    }
    const std::string text(line.begin(), line.end());
    // The launch-block message, which is no line of the log.
    if ((action == "LaunchedFromPIM" || action == "BlockLaunch") &&
        text.rfind("This package requires TAVO Installer Setup.", 0) == 0) {
        return true;
    }
    const auto& listed = tool::FindAction(action)->log;
    return std::any_of(listed.begin(), listed.end(), [&](const tool::LogText& known) {
        return FitsPattern(known.text, text) || FitsPattern(Trimmed(known.text), Trimmed(text)) ||
               FitsPattern(Trimmed(known.text), text.substr(0, text.find_last_not_of('\n') + 1));
    });
}

bool MayLetErrorOut(const std::string& action, const std::string& type) {
    return type == kRegistryError && kLetErrorOut.count(action) != 0;
}

bool IsAllowedInstead(const std::string& action, const std::wstring& change,
                      const std::set<std::wstring>& touched) {
    return std::any_of(kSubstitutions.begin(), kSubstitutions.end(),
                       [&](const Substitution& known) { return StandsIn(known, action, change, touched); });
}

std::vector<std::string> AllExceptions() {
    std::vector<std::string> all;
    for (const auto& [action, reason] : kLetErrorOut) {
        all.push_back(action + " lets a registry error out: " + reason);
    }
    for (const Substitution& known : kSubstitutions) {
        all.push_back((known.action.empty() ? "all actions" : known.action) + ": " +
                      std::string(known.prefix.begin(), known.prefix.end()) + "...: " + known.reason);
    }
    return all;
}

}  // namespace corvi::test
