#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "tests/faults/expectations.h"
#include "tests/faults/platform_watch.h"
#include "tests/faults/scenarios.h"
#include "tests/faults/sweep.h"
#include "tests/support/library.h"
#include "tool/action_facts.h"
#include "tool/interception.h"

namespace corvi::test {
namespace {

// One fault of so many in every run of the suite; make sweep asks for all.
constexpr size_t kSample = 4;

size_t Number(const char* variable, size_t otherwise) {
    const char* const text = std::getenv(variable);
    return text != nullptr && *text != '\0' ? std::strtoul(text, nullptr, 10) : otherwise;
}

// Methods of objects that must have failed as well.
constexpr const char* kMethods[] = {"ITaskService::Connect",           "ITaskService::GetFolder",
                                    "ITaskFolder::RegisterTask",       "IXmlReader::SetInput",
                                    "IXmlReader::SetProperty",         "IXmlReader::Read",
                                    "IXmlReader::GetQualifiedName",    "IXmlReader::GetValue",
                                    "IXmlWriter::SetOutput",           "IXmlWriter::SetProperty",
                                    "IXmlWriter::WriteNodeShallow",    "IXmlWriter::WriteString",
                                    "IXmlWriter::WriteFullEndElement", "IXmlWriter::Flush"};

// What only an XML library asks for that seeks in its files or wants their size. Wine's does neither.
const std::set<std::string> kAskedByOtherXmlLibraries = {"SetFilePointerEx", "GetFileSizeEx"};

// In a whole sweep each function has failed, and each exception was needed.
void ExpectNothingIdle(const SweepOutcome& outcome) {
    std::vector<std::string> functions = FallibleFunctions();
    functions.insert(functions.end(), std::begin(kMethods), std::end(kMethods));
    for (const std::string& function : functions) {
        EXPECT_TRUE(outcome.functions.count(function) == 1 || kAskedByOtherXmlLibraries.count(function) == 1)
            << "no scenario calls " << function;
    }
    for (const std::string& exception : AllExceptions()) {
        EXPECT_EQ(outcome.exceptions.count(exception), 1U) << "no fault needs it: " << exception;
    }
}

TEST(FaultSweep, NoFaultLosesLeaksOrWidensAnything) {
    SweepOrder order;
    order.oneOf = Number("CORVI_FAULTS_ONE_OF", kSample);
    order.shard = Number("CORVI_FAULTS_SHARD", 0);
    order.shards = Number("CORVI_FAULTS_SHARDS", 1);
    if (const char* const only = std::getenv("CORVI_FAULTS_SCENARIO")) {
        order.scenario = only;
    }
    const SweepOutcome outcome = RunSweep(order);
    for (const std::string& line : outcome.summary) {
        std::printf("%s\n", line.c_str());
    }
    std::printf("fault sweep: %zu faults in %zu scenarios, %zu findings\n", outcome.faults, outcome.scenarios,
                outcome.findings.size());
    for (const std::string& finding : outcome.findings) {
        ADD_FAILURE() << finding;
    }
    EXPECT_GT(outcome.faults, 0U);
    if (order.oneOf == 1 && order.shards == 1 && order.scenario.empty()) {
        ExpectNothingIdle(outcome);
    }
}

// The runtime can do no better: it has no record of the thread's errors yet, and no memory for one. What it
// must not do is to run on, into a stack overflow for instance.
TEST(FaultSweep, AThreadsFirstErrorWithoutMemoryEndsTheProcessAtOnce) {
    constexpr unsigned long kAborted = 3;
    EXPECT_EQ(EndOfAFirstErrorWithoutMemory(), kAborted);
}

// ---- The sweep finds what it is for

struct Defect {
    Planted planted;
    const char* found;
    /// The faults of the scenario behind which this defect cannot show.
    size_t hidden = 0;
};

// Where the action's key cannot be opened, an error leaves the action, and there is no result to look at.
// That open fails in two faults: once, and with all later ones.
constexpr size_t kFaultsWithoutResult = 2;

void PrintTo(const Defect& defect, std::ostream* stream) { *stream << defect.found; }

class PlantedDefect : public testing::TestWithParam<Defect> {};

TEST_P(PlantedDefect, IsFoundInTheFaults) {
    SweepOrder order;
    order.scenario = "DeleteHXNoUpgrade";
    order.planted = GetParam().planted;
    const SweepOutcome outcome = RunSweep(order);
    EXPECT_GE(outcome.faults, 20U);
    const auto found = std::count_if(
        outcome.findings.begin(), outcome.findings.end(),
        [](const std::string& finding) { return finding.find(GetParam().found) != std::string::npos; });
    EXPECT_EQ(static_cast<size_t>(found) + GetParam().hidden, outcome.faults);
}

INSTANTIATE_TEST_SUITE_P(FaultSweep, PlantedDefect,
                         testing::Values(Defect{Planted::Leak, "left open: key planted"},
                                         Defect{Planted::WiderDeletion, "touched without need: delete C:"},
                                         Defect{Planted::UnlistedResult, "does not list: 4711",
                                                kFaultsWithoutResult},
                                         Defect{Planted::StrayLine, "does not list: nobody knows"},
                                         Defect{Planted::StrayError, "an error leaves the action"}));

// These end the child: one fault of the scenario is enough.
class PlantedEnd : public testing::TestWithParam<Defect> {};

TEST_P(PlantedEnd, IsFoundAndTheNextFaultIsTried) {
    SweepOrder order;
    order.scenario = "DeleteQELKey";
    order.planted = GetParam().planted;
    const SweepOutcome outcome = RunSweep(order);
    EXPECT_EQ(outcome.faults, 2U);
    ASSERT_EQ(outcome.findings.size(), 2U);
    for (const std::string& finding : outcome.findings) {
        EXPECT_NE(finding.find(GetParam().found), std::string::npos) << finding;
    }
}

INSTANTIATE_TEST_SUITE_P(FaultSweep, PlantedEnd,
                         testing::Values(Defect{Planted::ProcessEnd, "the process ends, code 5"},
                                         Defect{Planted::Endless, "the process ends, code 77"}));

// ---- Nothing is left out

TEST(FaultSweepScenarios, EveryActionHasOne) {
    std::set<std::string> covered;
    for (const Scenario& scenario : AllScenarios()) {
        covered.insert(scenario.action);
    }
    for (const tool::ActionFacts& action : tool::AllActions()) {
        EXPECT_EQ(covered.count(action.name), 1U) << action.name;
    }
}

TEST(FaultSweepImports, EachIsWatchedOrLeftAloneForAReason) {
    const Library library;
    std::set<std::string> known(WatchedFunctions().begin(), WatchedFunctions().end());
    for (const auto& [function, reason] : LeftAlone()) {
        EXPECT_TRUE(known.insert(function).second) << function << " is in both lists";
    }
    for (const tool::Import& import : tool::ListImports(library.Module())) {
        EXPECT_EQ(known.count(import.function), 1U) << import.function;
    }
}

}  // namespace
}  // namespace corvi::test
