#include "tests/faults/expectations.h"

#include <algorithm>
#include <initializer_list>
#include <map>
#include <utility>
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

std::string ErrorRow(const std::pair<const std::string, std::string>& row) {
    return row.first + " lets a registry error out: " + row.second;
}

// ---- Changes in the place of others

// A change that the good run has not made.
struct Substitution {
    std::string action;  ///< empty: all
    /// The change as a whole, or its beginning: then the good run made one that begins with other and goes on
    /// in the same way.
    std::wstring change;
    std::wstring other;
    const char* reason;
    std::set<std::string> faulty = {};  ///< allowed where one of these functions fails; empty: any
};

constexpr char kGoesAtRestart[] = "what cannot be deleted now goes at the restart";
constexpr char kMadeWritable[] = "the read-only bit is taken off before the second try";
constexpr char kOpenedByCreating[] = "a key that cannot be opened is opened by way of creating it";
constexpr char kBareTool[] =
    "started tools keep their bare name where the platform does not name their folder";
constexpr char kBareDrive[] = "the Windows drive cannot be named: the rest of the path stays";
constexpr char kRelativeCopy[] =
    "without a temporary folder the copy has only its name, and so has its task's file";
constexpr char kFolderOfData[] = "where the registry names no folder, that of the action data counts";
constexpr char kOtherFolderOfTuep[] =
    "where the install manager's folder cannot be read or seen, the profile client's counts";
constexpr char kNoFolderOfTuep[] =
    "with neither folder to be read the launcher's path begins with its separator";
constexpr char kOlderWindows[] =
    "a Windows whose version, or a media source whose file cannot be examined, counts as one without";
constexpr char kUnreadableGuid[] = "a GUID that cannot be read counts as none";
constexpr char kNoProxyFolder[] = "without action data the proxy's path begins with two separators";

// A copy whose version cannot be read counts as older: its registration goes.
constexpr char kVersionQuery[] = "MsiGetProductInfoW";
constexpr char kCountsAsOlder[] = "an installed copy whose version cannot be read counts as older";
constexpr const wchar_t* kRegistrationOfTheCopy[] = {
    L"delete tree "
    L"HKLM\\SOFTWARE\\MICROSOFT\\WINDOWS\\CURRENTVERSION\\UNINSTALL\\{7E570001-AAAA-4B00-8C00-000000000000}",
    L"delete value "
    L"HKLM\\SOFTWARE\\MICROSOFT\\WINDOWS\\CURRENTVERSION\\INSTALLER\\FOLDERS|C:\\WINDOWS\\INSTALLER\\{"
    L"7E570001-AAAA-4B00-8C00-000000000000}\\",
    L"delete tree "
    L"HKLM\\SOFTWARE\\MICROSOFT\\WINDOWS\\CURRENTVERSION\\INSTALLER\\UPGRADECODES\\F479FF4120814D348BEF87FA15"
    L"9D116D",
    L"delete tree "
    L"HKLM\\SOFTWARE\\MICROSOFT\\WINDOWS\\CURRENTVERSION\\INSTALLER\\USERDATA\\S-1-5-"
    L"18\\COMPONENTS\\00000000000000000000000000000001",
    L"delete value "
    L"HKLM\\SOFTWARE\\MICROSOFT\\WINDOWS\\CURRENTVERSION\\INSTALLER\\USERDATA\\S-1-5-"
    L"18\\COMPONENTS\\SHARED00000000000000000000000000|100075E7AAAA00B4C800000000000000",
    L"delete C:\\WINDOWS\\INSTALLER\\1.MSI",
    L"delete tree "
    L"HKLM\\SOFTWARE\\MICROSOFT\\WINDOWS\\CURRENTVERSION\\INSTALLER\\USERDATA\\S-1-5-"
    L"18\\PRODUCTS\\100075E7AAAA00B4C800000000000000",
    L"delete tree HKCR\\INSTALLER\\UPGRADECODES\\F479FF4120814D348BEF87FA159D116D",
    L"delete tree HKCR\\INSTALLER\\FEATURES\\100075E7AAAA00B4C800000000000000",
    L"delete tree HKCR\\INSTALLER\\PRODUCTS\\100075E7AAAA00B4C800000000000000",
    L"delete tree "
    L"HKU\\.DEFAULT\\SOFTWARE\\MICROSOFT\\INSTALLER\\UPGRADECODES\\F479FF4120814D348BEF87FA159D116D",
    L"delete tree HKU\\.DEFAULT\\SOFTWARE\\MICROSOFT\\INSTALLER\\FEATURES\\100075E7AAAA00B4C800000000000000",
    L"delete tree HKU\\.DEFAULT\\SOFTWARE\\MICROSOFT\\INSTALLER\\PRODUCTS\\100075E7AAAA00B4C800000000000000",
};

const std::vector<Substitution>& AllSubstitutions() {
    static const std::vector<Substitution> all = [] {
        std::vector<Substitution> rows = {
            {"", L"delete at restart ", L"delete ", kGoesAtRestart},
            {"", L"attributes ", L"delete ", kMadeWritable},
            {"", L"create key ", L"set ", kOpenedByCreating},
            {"", L"start \"\\TaskKill.exe\" ", L"start \"C:\\windows\\system32\\TaskKill.exe\" ", kBareTool},
            {"", L"start cmd.exe /C \"\\netsh.exe ", L"start cmd.exe /C \"C:\\windows\\system32\\netsh.exe ",
             kBareTool},
            {"", L"start cmd.exe /C \"Windows\\System32\\WindowsPowerShell\\",
             L"start cmd.exe /C \"C:\\Windows\\System32\\WindowsPowerShell\\", kBareDrive},
            {"InstallContextMenuMSIX",
             L"start cmd.exe /C \"\"%SYSTEMROOT%\\System32\\WindowsPowerShell\\v1.0\\powershell.exe\" "
             L"\"Import-Certificate -FilePath 'Program Files\\ContextMenuDemo\\MyKey.cer' -CertStoreLocation "
             L"Cert:\\LocalMachine\\Root\"\" in ",
             L"",
             kBareDrive,
             {"GetWindowsDirectoryW"}},
            {"InstallContextMenuMSIX",
             L"start cmd.exe /C \"\"%SYSTEMROOT%\\System32\\WindowsPowerShell\\v1.0\\powershell.exe\" "
             L"\"Add-AppxPackage -Path 'Program Files\\ContextMenuDemo\\PhotoStoreDemoPkg.msix'\"\" in ",
             L"",
             kBareDrive,
             {"GetWindowsDirectoryW"}},
            {"CreateBenchMarkRunOnceSchTask", L"write STARTHXBM.XML", L"", kRelativeCopy, {"GetTempPathW"}},
            {"CreateBenchMarkRunOnceSchTask",
             L"start schtasks /Create /TN \"StartHXBM\" /XML \"StartHXBM.xml\" in C:\\FAULTS\\HX",
             L"",
             kRelativeCopy,
             {"GetTempPathW"}},
            {"PostInstallPPC",
             L"create service TUEPLauncher: \"C:\\faults\\client\\TUEPDU.exe\" type 272 start 2 account ",
             L"",
             kOtherFolderOfTuep,
             {"RegOpenKeyExW", "RegQueryValueExW", "GetFileAttributesW"}},
            {"PostInstallPPC",
             L"create service TUEPLauncher: \"\\TUEPDU.exe\" type 272 start 2 account ",
             L"",
             kNoFolderOfTuep,
             {"RegOpenKeyExW", "RegQueryValueExW"}},
            {"PostInstallPPC",
             L"set HKLM\\SOFTWARE\\TUEP|GUID=(a new GUID) of type 1",
             L"",
             kUnreadableGuid,
             {"RegOpenKeyExW", "RegQueryValueExW"}},
            {"UnregisterDLL",
             L"start cmd.exe /C \"regsvr32.exe /u /s \"C:\\faults camera\\server.dll\"\" in C:\\FAULTS "
             L"CAMERA",
             L"",
             kOlderWindows,
             {"RegOpenKeyExW", "RegGetValueW", "GetFileAttributesW"}},
            {"LaunchInstallProxyHX",
             L"start \"\\\\MOM-InstallProxy-Net4\\MOM.InstallProxy.exe\" Install C:\\faults\\cli\\CLI.exe "
             L"in ",
             L"",
             kNoProxyFolder,
             {"MsiGetPropertyW"}},
            {"DeleteHXFolder",
             L"delete C:\\FAULTS\\ELSEWHERE",
             L"",
             kFolderOfData,
             {"RegOpenKeyExW", "RegGetValueW"}},
            {"DeleteHXFolder",
             L"delete C:\\FAULTS\\ELSEWHERE\\KEPT.TXT",
             L"",
             kFolderOfData,
             {"RegOpenKeyExW", "RegGetValueW"}},
        };
        for (const wchar_t* change : kRegistrationOfTheCopy) {
            rows.push_back({"CheckForClients", change, L"", kCountsAsOlder, {kVersionQuery}});
        }
        return rows;
    }();
    return all;
}

std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

std::string RowText(const Substitution& row) {
    return (row.action.empty() ? "all actions" : row.action) + ": " + Narrow(row.change) +
           (row.other.empty() ? "" : "...") + ": " + row.reason;
}

/// The object of a change; for a started program its command line, whatever folder it is started in.
std::wstring Object(const std::wstring& change, const std::wstring& prefix) {
    const bool isStart = prefix.rfind(L"start ", 0) == 0;
    const std::wstring object = change.substr(prefix.size());
    return isStart ? object.substr(0, object.find(L" in ")) : object;
}

bool IsMade(const std::set<std::wstring>& touched, const std::wstring& other, const std::wstring& object) {
    return std::any_of(touched.begin(), touched.end(), [&](const std::wstring& made) {
        if (made.rfind(other, 0) != 0) {
            return false;
        }
        const std::wstring madeObject = Object(made, other);
        // A value of the key counts as the key.
        return madeObject == object || madeObject.rfind(object + L'|', 0) == 0;
    });
}

bool StandsIn(const Substitution& row, const std::string& action, const std::wstring& change,
              const std::set<std::wstring>& touched, const std::string& faulty) {
    if ((!row.action.empty() && row.action != action) ||
        (!row.faulty.empty() && row.faulty.count(faulty) == 0)) {
        return false;
    }
    if (row.other.empty()) {
        return row.change == change;
    }
    return change.rfind(row.change, 0) == 0 && IsMade(touched, row.other, Object(change, row.change));
}

// ---- Parts of something that goes as a whole

constexpr char kPartOfTreeRow[] = "all actions: what lies in a tree that the good run deletes goes by itself";
constexpr char kPartOfFolderRow[] =
    "all actions: what lies in the folder that is to go goes, though a good run stops at a file in use";
constexpr wchar_t kDeletesTree[] = L"delete tree ";

/// True for whole itself, and for what is below it.
bool IsWithin(const std::wstring& object, const std::wstring& whole) {
    return object.rfind(whole, 0) == 0 &&
           (object.size() == whole.size() || object[whole.size()] == L'\\' || object[whole.size()] == L'|');
}

bool IsWithinDeletedTree(const std::wstring& object, const std::set<std::wstring>& touched) {
    return std::any_of(touched.begin(), touched.end(), [&](const std::wstring& made) {
        return made.rfind(kDeletesTree, 0) == 0 && IsWithin(object, Object(made, kDeletesTree));
    });
}

/// True when change is one of the verbs' and done is true of its object.
template <typename Predicate>
bool IsDoneTo(const std::wstring& change, std::initializer_list<const wchar_t*> verbs,
              const Predicate& done) {
    return std::any_of(verbs.begin(), verbs.end(), [&](const std::wstring verb) {
        return change.rfind(verb, 0) == 0 && done(change.substr(verb.size()));
    });
}

// ---- What stays open

constexpr char kItemList[] = "item list SHGetFolderLocation";
constexpr char kShellAllocator[] = "SHGetMalloc";
constexpr char kItemListRow[] =
    "all actions: an item list stays open without the allocator that takes it back";
constexpr char kKeyClosedTwice[] = "key that is closed without being open";
constexpr char kClosedTwiceRow[] = "TrackDVRAnalytics: its key is closed twice";

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
    // An installed copy's version stands alone in its line. Of a query that fails nothing is told: the error
    // is past the end of the message, and the version is empty.
    const bool isVersion = line.find_first_not_of(L"0123456789.") == std::wstring::npos;
    if (action == "CheckForClients" && isVersion && (!line.empty() || faulty == kVersionQuery)) {
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

std::string MayLetErrorOut(const std::string& action, const std::string& type) {
    const auto found = kLetErrorOut.find(action);
    return type == kRegistryError && found != kLetErrorOut.end() ? ErrorRow(*found) : "";
}

std::string MayStandIn(const std::string& action, const std::wstring& change,
                       const std::set<std::wstring>& touched, const std::string& faulty) {
    const std::vector<Substitution>& rows = AllSubstitutions();
    const auto row = std::find_if(rows.begin(), rows.end(), [&](const Substitution& known) {
        return StandsIn(known, action, change, touched, faulty);
    });
    return row != rows.end() ? RowText(*row) : "";
}

std::string MayGoWithTheWhole(const std::wstring& change, const std::set<std::wstring>& touched,
                              const std::wstring& wholeFolder) {
    if (IsDoneTo(change, {L"delete value ", L"delete key ", kDeletesTree},
                 [&](const std::wstring& object) { return IsWithinDeletedTree(object, touched); })) {
        return kPartOfTreeRow;
    }
    if (!wholeFolder.empty() &&
        IsDoneTo(change, {L"delete ", L"delete at restart ", L"attributes "},
                 [&](const std::wstring& object) { return IsWithin(object, wholeFolder); })) {
        return kPartOfFolderRow;
    }
    return "";
}

std::string MayStayOpen(const std::string& action, const std::string& resource, const std::string& faulty) {
    if (action == "TrackDVRAnalytics" && resource == kKeyClosedTwice) {
        return kClosedTwiceRow;
    }
    return resource == kItemList && faulty == kShellAllocator ? kItemListRow : "";
}

std::vector<std::string> AllExceptions() {
    std::vector<std::string> all = {kItemListRow, kClosedTwiceRow, kPartOfTreeRow, kPartOfFolderRow};
    for (const auto& row : kLetErrorOut) {
        all.push_back(ErrorRow(row));
    }
    for (const Substitution& row : AllSubstitutions()) {
        all.push_back(RowText(row));
    }
    return all;
}

}  // namespace corvi::test
