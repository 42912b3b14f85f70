#pragma once

#include <functional>

namespace corvi::test {

/// What a test program does before anything else: refuses to go on where the machine is not marked as
/// throwaway (2) or its service manager does not answer (3). Else the result of run.
int RunOnThrowawayMachine(const std::function<int()>& run);

/// Runs the program's tests as the command line asks. Gives the program's exit code.
int RunTests(int argc, char** argv);

}  // namespace corvi::test
