#include "bench/harness.h"

#include <windows.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace corvi::bench {
namespace {

double Milliseconds(const Way& way, int times) {
    LARGE_INTEGER frequency = {};
    QueryPerformanceFrequency(&frequency);
    LONGLONG ticks = 0;
    for (int time = 0; time < times; ++time) {
        if (way.prepare) {
            way.prepare();
        }
        LARGE_INTEGER begin = {};
        LARGE_INTEGER end = {};
        QueryPerformanceCounter(&begin);
        way.run();
        QueryPerformanceCounter(&end);
        ticks += end.QuadPart - begin.QuadPart;
        if (way.check) {
            way.check();
        }
    }
    return 1000.0 * static_cast<double>(ticks) / static_cast<double>(frequency.QuadPart) / times;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::string Formatted(const char* format, ...) {
    char text[200] = {};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

}  // namespace

RowResult Measure(const Row& row, int rounds) {
    std::vector<const Way*> ways = {&row.library};
    for (const Alternative& alternative : row.alternatives) {
        ways.push_back(&alternative.way);
    }
    std::vector<std::vector<double>> times(ways.size());
    for (int round = -1; round < rounds; ++round) {
        for (size_t turn = 0; turn < ways.size(); ++turn) {
            const size_t way = (turn + static_cast<size_t>(round + 1)) % ways.size();
            const double time = Milliseconds(*ways[way], row.timesPerRound);
            if (round >= 0) {
                times[way].push_back(time);
            }
        }
    }
    RowResult result = {row.name, Median(times[0]), {}};
    for (size_t index = 0; index < row.alternatives.size(); ++index) {
        std::vector<double> ratios;
        for (size_t round = 0; round < times[0].size(); ++round) {
            ratios.push_back(times[0][round] / times[index + 1][round]);
        }
        const auto [lowest, highest] = std::minmax_element(ratios.begin(), ratios.end());
        result.alternatives.push_back({row.alternatives[index].way.name, Median(times[index + 1]),
                                       Median(ratios), *lowest, *highest, row.alternatives[index].aim});
    }
    return result;
}

std::string TableLines(const RowResult& result) {
    std::string text = Formatted("%-52s %10.2f\n", result.name.c_str(), result.milliseconds);
    for (const AlternativeResult& other : result.alternatives) {
        text += Formatted("  %-50s %10.2f %7.2f  %5.2f..%5.2f %6.2f  %s\n", other.name.c_str(),
                          other.milliseconds, other.ratio, other.lowestRatio, other.highestRatio, other.aim,
                          other.ratio <= other.aim ? "met" : "missed");
    }
    return text;
}

std::string Json(const std::vector<RowResult>& results, int rounds) {
    std::string text = Formatted("{\n  \"rounds\": %d,\n  \"rows\": [", rounds);
    for (const RowResult& row : results) {
        text += &row == &results.front() ? "\n" : ",\n";
        text += Formatted("    {\"name\": \"%s\", \"milliseconds\": %.3f, \"alternatives\": [",
                          row.name.c_str(), row.milliseconds);
        for (const AlternativeResult& other : row.alternatives) {
            text += &other == &row.alternatives.front() ? "\n" : ",\n";
            text += Formatted("      {\"name\": \"%s\", \"milliseconds\": %.3f, \"ratio\": %.3f, ",
                              other.name.c_str(), other.milliseconds, other.ratio);
            text += Formatted("\"lowest\": %.3f, \"highest\": %.3f, \"aim\": %.2f, \"met\": %s}",
                              other.lowestRatio, other.highestRatio, other.aim,
                              other.ratio <= other.aim ? "true" : "false");
        }
        text += "]}";
    }
    return text + "\n  ]\n}\n";
}

void Require(bool done, const char* what) {
    if (!done) {
        std::fprintf(stderr, "bench: %s failed (platform error %lu)\n", what, GetLastError());
        std::exit(1);
    }
}

}  // namespace corvi::bench
