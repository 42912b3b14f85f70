#pragma once

#include <functional>
#include <string>
#include <vector>

namespace corvi::bench {

/// One way of doing a job. prepare makes the state that run needs and uses up, check ends the program when
/// run did not do the job; only run is timed. prepare and check may be missing.
struct Way {
    std::string name;
    std::function<void()> prepare;
    std::function<void()> run;
    std::function<void()> check = nullptr;
};

/// Another way of doing the same job, and the aim: the library's time over this one's.
struct Alternative {
    Way way;
    double aim;
};

/// One job: how the library does it, and what it is measured against. timesPerRound: how often a round
/// runs each way; its time is that of all of them, divided.
struct Row {
    std::string name;
    Way library;
    std::vector<Alternative> alternatives;
    int timesPerRound = 1;
};

/// What was measured of one alternative. The ratio is the median of the ratios within each round.
struct AlternativeResult {
    std::string name;
    double milliseconds;
    double ratio;
    double lowestRatio;
    double highestRatio;
    double aim;
};

struct RowResult {
    std::string name;
    double milliseconds;
    std::vector<AlternativeResult> alternatives;
};

/// Runs every way of a row in each round, in an order that turns from round to round, and takes medians.
/// One round before the first is not counted.
RowResult Measure(const Row& row, int rounds);

/// One row as lines of the table, and all rows as a JSON text.
std::string TableLines(const RowResult& result);
std::string Json(const std::vector<RowResult>& results, int rounds);

/// Ends the program with a message unless something is done.
void Require(bool done, const char* what);

}  // namespace corvi::bench
