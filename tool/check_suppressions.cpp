#include "tool/check_suppressions.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "tool/console.h"

namespace corvi::tool {
namespace {

constexpr char kPropertyPrefix[] = "CorviSuppress";
constexpr char kBlanks[] = " \t\r";
constexpr char kMark[] = "\xEF\xBB\xBF";  // that editors put in front of UTF-8

std::string TakeWord(std::string& text) {
    const std::size_t start = std::min(text.find_first_not_of(kBlanks), text.size());
    const std::size_t end = std::min(text.find_first_of(kBlanks, start), text.size());
    std::string word = text.substr(start, end - start);
    text.erase(0, std::min(text.find_first_not_of(kBlanks, end), text.size()));
    return word;
}

Suppression Parse(const std::string& line, const std::string& where) {
    std::string rest = line;
    Suppression suppression;
    suppression.id = TakeWord(rest);
    suppression.action = TakeWord(rest);
    rest.erase(rest.find_last_not_of(kBlanks) + 1);
    suppression.reason = rest;
    if (suppression.reason.empty()) {
        throw UsageError(where + ": a suppression is \"identifier action reason\", not \"" + line + "\"");
    }
    return suppression;
}

}  // namespace

std::vector<Suppression> PackageSuppressions(const PackageTables& tables) {
    std::vector<Suppression> suppressions;
    for (const auto& [name, value] : tables.properties) {
        if (name.compare(0, sizeof(kPropertyPrefix) - 1, kPropertyPrefix) == 0) {
            suppressions.push_back(Parse(value, "property " + name));
        }
    }
    return suppressions;
}

std::vector<Suppression> FileSuppressions(const std::wstring& path) {
    std::ifstream file{std::filesystem::path(path)};
    if (!file) {
        throw UsageError("cannot read the suppressions '" + ToUtf8(path) + "'");
    }
    std::vector<Suppression> suppressions;
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        if (number == 1 && line.compare(0, sizeof(kMark) - 1, kMark) == 0) {
            line.erase(0, sizeof(kMark) - 1);
        }
        const std::size_t start = line.find_first_not_of(kBlanks);
        if (start != std::string::npos && line[start] != '#') {
            suppressions.push_back(Parse(line, "line " + std::to_string(number) + " of the suppressions"));
        }
    }
    return suppressions;
}

std::vector<SuppressedFinding> Suppress(Findings& findings, std::vector<Suppression>& suppressions) {
    std::vector<SuppressedFinding> suppressed;
    for (auto finding = findings.begin(); finding != findings.end();) {
        const auto match = std::find_if(suppressions.begin(), suppressions.end(), [&](const Suppression& s) {
            return s.id == finding->id && s.action == finding->action;
        });
        if (match == suppressions.end()) {
            ++finding;
            continue;
        }
        match->used = true;
        suppressed.push_back({*finding, match->reason});
        finding = findings.erase(finding);
    }
    return suppressed;
}

}  // namespace corvi::tool
