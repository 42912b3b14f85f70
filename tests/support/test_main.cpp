#include "tests/support/test_run.h"

int main(int argc, char** argv) {
    using namespace corvi::test;
    return RunOnThrowawayMachine([&] { return RunTests(argc, argv); });
}
