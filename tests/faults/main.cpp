#include <cstring>

#include "tests/faults/sweep.h"
#include "tests/support/test_run.h"

// The sweep starts this program again for its children, which run no tests.
int main(int argc, char** argv) {
    using namespace corvi::test;
    const auto isStartedBy = [&](const char* option) {
        return argc == 2 && std::strcmp(argv[1], option) == 0;
    };
    return RunOnThrowawayMachine([&] {
        if (isStartedBy(kChildSwitch)) {
            WorkAsChild();
            return 0;
        }
        if (isStartedBy(kFirstErrorSwitch)) {
            ThrowFirstErrorWithoutMemory();
            return 0;
        }
        return RunTests(argc, argv);
    });
}
