// Every action on a machine on which it has its whole work to do: a plan leaves the machine exactly as it
// was, and says what a run then does.

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sddl.h>
#include <algorithm>
#include <cwctype>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "tests/tool/machine_state.h"
#include "tests/tool/scenarios.h"
#include "tests/tool/tool_run.h"

namespace corvi::test {
namespace {

using Json = nlohmann::json;

/// Of an action that did not return.
constexpr unsigned kNoResult = 0xFFFFFFFE;

std::wstring Wide(const std::string& utf8) {
    std::wstring wide(utf8.size(), L'\0');
    wide.resize(static_cast<std::size_t>(MultiByteToWideChar(
        CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), wide.data(), static_cast<int>(wide.size()))));
    return wide;
}

std::wstring Lower(std::wstring text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](wchar_t character) { return static_cast<wchar_t>(std::towlower(character)); });
    return text;
}

bool IsOrIsBelow(const std::wstring& path, const std::wstring& above) {
    return path.compare(0, above.size(), above) == 0 &&
           (path.size() == above.size() || path[above.size()] == L'\\');
}

std::wstring CurrentUser() {
    HANDLE token = nullptr;
    OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
    BYTE buffer[256];
    DWORD size = sizeof(buffer);
    GetTokenInformation(token, TokenUser, buffer, size, &size);
    CloseHandle(token);
    LPWSTR text = nullptr;
    ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, &text);
    const std::wstring sid = text;
    LocalFree(text);
    return sid;
}

/// A key as the plan names it, by the name that it has in a machine's state.
std::wstring StateKey(std::wstring key) {
    if (key.compare(0, 5, L"HKCR\\") == 0) {
        key = L"HKLM\\Software\\Classes" + key.substr(4);
    } else if (key.compare(0, 5, L"HKCU\\") == 0) {
        key = L"HKU\\" + CurrentUser() + key.substr(4);
    }
    return Lower(key);
}

struct PlannedChange {
    std::string deed;
    std::wstring what;  ///< in lower case; keys by their names in a machine's state
    std::wstring detail;
    std::wstring data;
};

std::vector<PlannedChange> ChangesOf(const Json& plan) {
    std::vector<PlannedChange> changes;
    for (const Json& change : plan["changes"]) {
        PlannedChange planned;
        planned.deed = change["do"];
        planned.what = Lower(Wide(change["what"]));
        if (change.contains("value") || planned.deed == "delete key" || planned.deed == "create key") {
            planned.what = StateKey(Wide(change["what"]));
        }
        planned.detail = Lower(Wide(change.value("value", change.value("detail", std::string()))));
        planned.data = Wide(change.value("data", std::string()));
        changes.push_back(std::move(planned));
    }
    return changes;
}

constexpr wchar_t kTaskFolder[] = L"c:\\windows\\system32\\tasks";
constexpr wchar_t kServicesKey[] = L"hklm\\system\\currentcontrolset\\services";

/// The kind of a machine's item and the rest of its name, in lower case.
std::pair<std::wstring, std::wstring> Split(const std::wstring& item) {
    const std::size_t blank = item.find(L' ');
    return {item.substr(0, blank), Lower(item.substr(blank + 1))};
}

bool Runs(const PlannedChange& change, const wchar_t* tool, const std::wstring& word = {}) {
    return change.deed == "run" && change.what.find(tool) != std::wstring::npos &&
           change.what.find(word) != std::wstring::npos;
}

bool ExplainsFile(const PlannedChange& change, const std::wstring& path, const Difference& difference) {
    if (IsOrIsBelow(path, kTaskFolder)) {
        const std::wstring name = path.substr(std::min(std::size(kTaskFolder), path.size()));
        return change.deed == "register task" || Runs(change, L"schtasks", name);
    }
    if (difference.Went()) {
        return ((change.deed == "delete folder" || change.deed == "move") &&
                IsOrIsBelow(path, change.what)) ||
               (change.deed == "delete file" && path == change.what);
    }
    return ((change.deed == "write file" || change.deed == "set attributes") && path == change.what) ||
           (change.deed == "create folder" && IsOrIsBelow(change.what, path)) ||
           (change.deed == "move" && IsOrIsBelow(path, change.detail));
}

bool ExplainsKey(const PlannedChange& change, const std::wstring& key, const Difference& difference) {
    if (IsOrIsBelow(key, std::wstring(kServicesKey)) &&
        (change.deed == "create service" || change.deed == "delete service") &&
        IsOrIsBelow(key, kServicesKey + (L"\\" + change.what))) {
        return true;
    }
    if (key.find(L"\\clsid") != std::wstring::npos && Runs(change, L"regsvr32")) {
        return true;
    }
    return difference.Went() ? change.deed == "delete key" && IsOrIsBelow(key, change.what)
                             : change.deed == "create key" && IsOrIsBelow(change.what, key);
}

bool ExplainsValue(const PlannedChange& change, const std::wstring& value, const Difference& difference) {
    const std::wstring key = value.substr(0, value.find(L'|'));
    const std::wstring name = value.substr(key.size() + 1);
    if (name == L"pendingfilerenameoperations") {
        return change.deed == "delete at restart" || change.deed == "move at restart";
    }
    const bool ofService = (change.deed == "create service" || change.deed == "delete service" ||
                            change.deed == "configure service") &&
                           IsOrIsBelow(key, kServicesKey + (L"\\" + change.what));
    if (ofService || (key.find(L"\\clsid\\") != std::wstring::npos && Runs(change, L"regsvr32"))) {
        return true;
    }
    if (difference.Went() && change.deed == "delete key" && IsOrIsBelow(key, change.what)) {
        return true;
    }
    return change.deed == (difference.Went() ? "delete value" : "set value") && change.what == key &&
           change.detail == (name.empty() ? L"(default)" : name);
}

/// Wine's scheduler sets how its service starts when it is first asked for something.
constexpr wchar_t kScheduleStart[] = L"hklm\\system\\currentcontrolset\\services\\schedule|start";

/// True when the planned change is what made the difference.
bool Explains(const PlannedChange& change, const Difference& difference) {
    const auto [kind, name] = Split(difference.item);
    if (kind == L"file" || kind == L"folder") {
        return ExplainsFile(change, name, difference);
    }
    if (kind == L"key") {
        return ExplainsKey(change, name, difference);
    }
    if (kind == L"value" && name == kScheduleStart) {
        return change.deed == "register task" || Runs(change, L"schtasks");
    }
    if (kind == L"value") {
        return ExplainsValue(change, name, difference);
    }
    // The scheduler's own service starts when it is asked for something.
    if ((kind == L"service" && name == L"schedule") || (kind == L"process" && name == L"svchost.exe")) {
        return change.deed == "register task" || Runs(change, L"schtasks");
    }
    if (kind == L"service") {
        return change.deed.find("service") != std::string::npos && change.what == name;
    }
    return Runs(change, L"taskkill", name) || change.deed.find("service") != std::string::npos;
}

std::optional<std::wstring> ItemIn(const MachineState& state, const std::wstring& item) {
    for (const auto& [name, value] : state) {
        if (Lower(name) == item) {
            return value;
        }
    }
    return std::nullopt;
}

bool HasItem(const MachineState& state, const std::wstring& item) { return ItemIn(state, item).has_value(); }

/// A registry value's data as the machine's state has it; nothing for data that is not compared.
std::optional<std::wstring> StateData(const std::wstring& shown) {
    if (shown.empty() ||
        !std::all_of(shown.begin(), shown.end(), [](wchar_t c) { return c >= L'0' && c <= L'9'; })) {
        return std::nullopt;
    }
    const unsigned long number = std::stoul(shown);
    wchar_t text[16];
    swprintf(text, 16, L"4:%02lx%02lx%02lx%02lx", number & 255U, number >> 8U & 255U, number >> 16U & 255U,
             number >> 24U);
    return text;
}

/// What a machine lacks on which the planned change was made: empty when it lacks nothing.
std::string Missing(const PlannedChange& change, const MachineState& after) {
    const auto complain = [&](bool bad) {
        return bad ? change.deed + " " + std::string(change.what.begin(), change.what.end()) : std::string();
    };
    if (change.deed == "delete folder") {
        return complain(HasItem(after, L"folder " + change.what));
    }
    if (change.deed == "delete file") {
        return complain(HasItem(after, L"file " + change.what));
    }
    if (change.deed == "create folder") {
        return complain(!HasItem(after, L"folder " + change.what));
    }
    if (change.deed == "write file") {
        return complain(!HasItem(after, L"file " + change.what));
    }
    if (change.deed == "delete key") {
        return complain(HasItem(after, L"key " + change.what));
    }
    if (change.deed == "delete value") {
        return complain(HasItem(after, L"value " + change.what + L"|" + change.detail));
    }
    if (change.deed == "set value") {
        const auto value = ItemIn(after, L"value " + change.what + L"|" + change.detail);
        const auto wanted = StateData(change.data);
        return complain(!value || (wanted && *value != *wanted));
    }
    if (change.deed == "delete service") {
        return complain(HasItem(after, L"service " + change.what));
    }
    if (change.deed == "create service") {
        return complain(!HasItem(after, L"service " + change.what));
    }
    if (change.deed == "start service") {
        return complain(ItemIn(after, L"service " + change.what) != L"state 4");
    }
    if (change.deed == "register task") {
        return complain(!HasItem(after, std::wstring(L"file ") + kTaskFolder + L"\\" + change.what));
    }
    return {};
}

/// Programs that were started without waiting for them, and services that stop, need their time: waits until
/// none comes or goes any more.
MachineState SettledMachine() {
    MachineState last = ReadMachine(Depth::Programs);
    for (int quiet = 0, attempt = 0; quiet < 2 && attempt < 100; ++attempt) {
        Sleep(100);
        MachineState now = ReadMachine(Depth::Programs);
        quiet = Differences(last, now).empty() ? quiet + 1 : 0;
        last = std::move(now);
    }
    return ReadMachine();
}

/// Later changes undo earlier ones: a key that was created and deleted again is not there, a value that was
/// deleted and set again is.
bool IsUndoneLater(const std::vector<PlannedChange>& changes, std::size_t index) {
    const PlannedChange& change = changes[index];
    return std::any_of(changes.begin() + static_cast<std::ptrdiff_t>(index) + 1, changes.end(),
                       [&](const PlannedChange& later) {
                           const bool deletes =
                               later.deed.compare(0, 7, "delete ") == 0 || later.deed == "move";
                           const bool sets = later.deed == "set value" && change.what == later.what &&
                                             change.detail == later.detail;
                           const bool ofValue = later.deed == "delete value";
                           return sets || (deletes && IsOrIsBelow(change.what, later.what) &&
                                           (!ofValue || change.detail == later.detail));
                       });
}

std::vector<std::string> StartedBy(const Json& plan) {
    std::vector<std::string> commands;
    for (const Json& change : plan["changes"]) {
        if (change["do"] == "run") {
            commands.push_back(change["what"]);
        }
    }
    return commands;
}

class EveryAction : public testing::TestWithParam<Scenario> {
protected:
    EveryAction() { ClearMachine(); }
    ~EveryAction() override { ClearMachine(); }
};

TEST_P(EveryAction, IsPlannedWithoutAChangeAndRunAsPlanned) {
    const Scenario& scenario = GetParam();
    const std::wstring call = Wide(scenario.action) + scenario.arguments + L" --json";
    const std::shared_ptr<void> machine = scenario.setUp();
    const MachineState before = SettledMachine();

    const ToolRun planned = RunTool(L"plan " + call);
    const auto touched = Differences(before, ReadMachine());
    EXPECT_TRUE(touched.empty()) << "the plan changed the machine:\n" << Describe(touched);
    const Json plan = Json::parse(planned.output, nullptr, false);
    ASSERT_FALSE(plan.is_discarded()) << planned.output << planned.error;
    EXPECT_EQ(plan.value("result", kNoResult), scenario.result) << planned.output;
    EXPECT_EQ(planned.exitCode, plan["fine"].get<bool>() ? 0U : 1U);

    const ToolRun done = RunTool(L"run " + call);
    const Json run = Json::parse(done.output, nullptr, false);
    ASSERT_FALSE(run.is_discarded()) << done.output << done.error;
    EXPECT_EQ(run.value("result", kNoResult), scenario.result) << done.output;
    EXPECT_EQ(run["started"], Json(StartedBy(plan)));

    const MachineState after = SettledMachine();
    const auto changes = ChangesOf(plan);
    for (const Difference& difference : Differences(before, after)) {
        EXPECT_TRUE(std::any_of(changes.begin(), changes.end(),
                                [&](const PlannedChange& change) { return Explains(change, difference); }))
            << "not planned: " << Describe({difference}) << planned.output;
    }
    for (std::size_t index = 0; index < changes.size(); ++index) {
        if (!IsUndoneLater(changes, index)) {
            EXPECT_EQ(Missing(changes[index], after), "") << planned.output;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Scenarios, EveryAction, testing::ValuesIn(Scenarios()),
                         [](const testing::TestParamInfo<Scenario>& scenario) {
                             return scenario.param.action;
                         });

TEST(Plans, OfAllActionsInARowLeaveTheWholeMachineAsItWas) {
    ClearMachine();
    const MachineState before = ReadMachine(Depth::Everything);
    for (const Scenario& scenario : Scenarios()) {
        RunTool(L"plan " + Wide(scenario.action) + scenario.arguments);
    }
    const auto touched = Differences(before, ReadMachine(Depth::Everything));
    EXPECT_TRUE(touched.empty()) << Describe(touched);
}

}  // namespace
}  // namespace corvi::test
