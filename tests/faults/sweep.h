#pragma once

#include <set>
#include <string>
#include <vector>

#include "tests/faults/scenarios.h"

namespace corvi::test {

/// The command line that starts this program as a child of the sweep.
inline constexpr char kChildSwitch[] = "--sweep-child";

/// That of a child in whose thread nothing was thrown before.
inline constexpr char kFirstErrorSwitch[] = "--sweep-first-error";

/// What a fault is made to do beside failing one call: a defect as the product might have it. Each must be
/// found.
enum class Planted {
    Nothing,
    Leak,
    WiderDeletion,
    UnlistedResult,
    StrayLine,
    StrayError,
    ProcessEnd,
    Endless
};

struct SweepOrder {
    std::string scenario;  ///< empty: all
    size_t shard = 0;      ///< this one of
    size_t shards = 1;     ///< so many parts of the scenarios
    /// Of so many faults one is taken, by a fixed seed; 1: all.
    size_t oneOf = 1;
    Planted planted = Planted::Nothing;
};

struct SweepOutcome {
    size_t scenarios = 0;
    size_t faults = 0;
    std::vector<std::string> findings;
    std::set<std::string> functions;   ///< those that failed
    std::set<std::string> exceptions;  ///< the rows of the tables of exceptions that a fault needed
    std::vector<std::string> summary;  ///< one line for each scenario
};

/// Runs the scenarios in child processes of this program; one that ends or hangs is a finding, and the next
/// child goes on behind the fault.
SweepOutcome RunSweep(const SweepOrder& order);

/// Lets an action throw while there is no memory, in a process in which nothing was thrown before. Gives the
/// code with which the process ends: the C++ runtime needs memory for a thread's first error.
unsigned long EndOfAFirstErrorWithoutMemory();

/// The child's part of that.
void ThrowFirstErrorWithoutMemory();

/// The child's part: works off what the environment says, and writes down each step.
void WorkAsChild();

}  // namespace corvi::test
