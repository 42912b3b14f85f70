#include <cstring>

#include "tests/faults/sweep.h"
#include "tests/support/test_run.h"

// The sweep starts this program again for its children, which run no tests.
int main(int argc, char** argv) {
    using namespace corvi::test;
    const bool isChild = argc == 2 && std::strcmp(argv[1], kChildSwitch) == 0;
    return RunOnThrowawayMachine([&] {
        if (isChild) {
            WorkAsChild();
            return 0;
        }
        return RunTests(argc, argv);
    });
}
