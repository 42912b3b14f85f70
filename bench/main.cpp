// Measures the library against the alternatives. Writes the table to standard output and behind it, after
// a line of its own, the same figures as JSON.
// corvi_bench [ROUNDS [NAME]]   NAME: only rows whose name contains it

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/harness.h"
#include "bench/rows.h"
#include "tests/support/throwaway_machine.h"

namespace {

constexpr int kRounds = 7;
constexpr char kJsonFollows[] = "--- json ---\n";

}  // namespace

int main(int argc, char** argv) {
    using namespace corvi::bench;
    if (!corvi::test::IsThrowawayMachine()) {
        std::fprintf(stderr, "This machine is not marked as throwaway; nothing was measured.\n");
        return 2;
    }
    const int rounds = argc > 1 ? std::max(std::atoi(argv[1]), 1) : kRounds;
    const std::string wanted = argc > 2 ? argv[2] : "";
    std::printf("%-52s %10s %7s  %12s %6s\n", "job, and the other ways of doing it", "median ms", "ratio",
                "lowest..high", "aim");
    std::vector<RowResult> results;
    for (Row (*const row)() :
         {DeleteFolderRow, ListKeyPathsRow, ListKeyPathsGrowthRow, RunCommandlineRow, LibraryLoadRow,
          RemoveProductRegistrationRow, RemoveProductRegistrationGrowthRow, RewriteTaskFileRow,
          InstallerCallsRow, PackageCheckRow, PlanRow, ExplainLogRow}) {
        const Row job = row();
        if (job.name.find(wanted) == std::string::npos) {
            continue;
        }
        results.push_back(Measure(job, rounds));
        std::printf("%s", TableLines(results.back()).c_str());
        std::fflush(stdout);
    }
    std::printf("%s%s", kJsonFollows, Json(results, rounds).c_str());
    return 0;
}
