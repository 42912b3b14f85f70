#include "tool/condition_text.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <set>

namespace corvi::tool {
namespace {

// Properties that the installer sets, or takes over from the user's side whether they are listed or not.
const std::set<std::string>& StandardProperties() {
    static const std::set<std::string> names = {
        "ACTION",
        "ADDDEFAULT",
        "ADDLOCAL",
        "ADDSOURCE",
        "ADVERTISE",
        "AFTERREBOOT",
        "ALLUSERS",
        "ARPAUTHORIZEDCDFPREFIX",
        "ARPCOMMENTS",
        "ARPCONTACT",
        "ARPHELPLINK",
        "ARPHELPTELEPHONE",
        "ARPINSTALLLOCATION",
        "ARPNOMODIFY",
        "ARPNOREMOVE",
        "ARPNOREPAIR",
        "ARPPRODUCTICON",
        "ARPREADME",
        "ARPSIZE",
        "ARPSYSTEMCOMPONENT",
        "ARPURLINFOABOUT",
        "ARPURLUPDATEINFO",
        "COMPADDLOCAL",
        "COMPANYNAME",
        "DISABLEADVTSHORTCUTS",
        "EXECUTEACTION",
        "EXECUTEMODE",
        "FILEADDDEFAULT",
        "FILEADDLOCAL",
        "FILEADDSOURCE",
        "INSTALLLEVEL",
        "LIMITUI",
        "LOGACTION",
        "MSIARPSETTINGSIDENTIFIER",
        "MSICHECKCRCS",
        "MSIDEPLOYMENTCOMPLIANT",
        "MSIDISABLERMRESTART",
        "MSIENFORCEUPGRADECOMPONENTRULES",
        "MSIFASTINSTALL",
        "MSIINSTALLPERUSER",
        "MSIINSTANCEGUID",
        "MSINEWINSTANCE",
        "MSINODISABLEMEDIA",
        "MSIRESTARTMANAGERCONTROL",
        "MSIRMSHUTDOWN",
        "NOCOMPANYNAME",
        "NOUSERNAME",
        "PATCH",
        "PATCHNEWPACKAGECODE",
        "PATCHNEWSUMMARYCOMMENTS",
        "PATCHNEWSUMMARYSUBJECT",
        "PIDKEY",
        "PRIMARYFOLDER",
        "PRODUCTLANGUAGE",
        "PROMPTROLLBACKCOST",
        "REBOOT",
        "REBOOTPROMPT",
        "REINSTALL",
        "REINSTALLMODE",
        "REMOVE",
        "RESUME",
        "ROOTDRIVE",
        "SEQUENCE",
        "SHORTFILENAMES",
        "TARGETDIR",
        "TRANSFORMS",
        "TRANSFORMSATSOURCE",
        "TRANSFORMSSECURE",
        "UPGRADINGPRODUCTCODE",
        "USERNAME",
        "SOURCEDIR",
    };
    return names;
}

// What authors write where they mean the installer's own: INSTALLED, REMOVE=ALL without quotes.
const std::set<std::string>& Slips() {
    static const std::set<std::string> names = {"ALL",       "INSTALLED", "PRIVILEGED",
                                                "ADMINUSER", "UILEVEL",   "VERSIONNT"};
    return names;
}

bool IsNameStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0 || c == '_'; }

bool IsOperatorWord(std::string word) {
    std::transform(word.begin(), word.end(), word.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    static const std::set<std::string> words = {"AND", "OR", "NOT", "XOR", "EQV", "IMP"};
    return words.count(word) != 0;
}

std::size_t EndOfWord(const std::string& text, std::size_t start) {
    std::size_t end = start;
    while (end < text.size() && IsPropertyNamePart(text[end])) {
        ++end;
    }
    return end;
}

// The piece that begins at `at`, which is moved behind it.
ConditionPiece TakePiece(const std::string& condition, std::size_t& at) {
    const std::size_t start = at;
    const char first = condition[start];
    if (first == '"') {
        const std::size_t quote = condition.find('"', start + 1);
        at = quote == std::string::npos ? condition.size() : quote + 1;
        return {0, condition.substr(start, at - start), false};
    }
    const bool marked = std::strchr("&!$?%", first) != nullptr && start + 1 < condition.size() &&
                        IsNameStart(condition[start + 1]);
    const std::size_t word = marked ? start + 1 : start;
    at = std::max(EndOfWord(condition, word), start + 1);
    const std::string text = condition.substr(word, at - word);
    const bool name = marked || (IsNameStart(first) && !IsOperatorWord(text));
    return {marked ? first : '\0', text, name};
}

}  // namespace

std::vector<ConditionPiece> ConditionPieces(const std::string& condition) {
    std::vector<ConditionPiece> pieces;
    for (std::size_t at = 0; at < condition.size();) {
        pieces.push_back(TakePiece(condition, at));
    }
    return pieces;
}

std::vector<std::string> PropertiesInCondition(const std::string& condition) {
    std::vector<std::string> properties;
    for (const ConditionPiece& piece : ConditionPieces(condition)) {
        if (piece.name && piece.mark == 0) {
            properties.push_back(piece.text);
        }
    }
    return properties;
}

bool IsPropertyNamePart(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '.';
}

bool IsStandardProperty(const std::string& name) {
    return StandardProperties().count(name) != 0 || Slips().count(name) != 0;
}

bool IsCompilersProperty(const std::string& name) { return name.compare(0, 4, "WIX_") == 0; }

bool IsPublicProperty(const std::string& name) {
    return !name.empty() &&
           std::none_of(name.begin(), name.end(), [](unsigned char c) { return std::islower(c) != 0; });
}

}  // namespace corvi::tool
