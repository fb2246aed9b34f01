#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

namespace terrane::bench {

// One row of the summary table that scripts/run-benchmarks prints at the end of `make bench` and
// keeps as results.json: our figure beside its anchor, measured in the same run.
struct Result {
    std::string work;    // the row's name, as scripts/run-benchmarks lists the rows
    std::string ours;    // our figure, with its unit
    std::string anchor;  // the anchor's figure, or "-" for none
    double ratio = 0;    // the figure the goal is about
    std::string goal;    // ">= 0.95", "<= 1.1", ...
    bool met = false;
};

// Appends the row to the file named by TERRANE_BENCH_RESULTS, one tab-separated line; without it
// (a benchmark run by hand) nothing is written.
inline void recordResult(const Result& result) {
    const char* path = std::getenv("TERRANE_BENCH_RESULTS");
    if (path == nullptr || *path == '\0') {
        return;
    }
    if (std::FILE* out = std::fopen(path, "a")) {
        std::fprintf(out, "%s\t%s\t%s\t%.3f\t%s\t%s\n", result.work.c_str(), result.ours.c_str(),
                     result.anchor.c_str(), result.ratio, result.goal.c_str(),
                     result.met ? "yes" : "no");
        std::fclose(out);
    }
}

inline std::string format(const char* pattern, double value) {
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

}  // namespace terrane::bench
