#pragma once

// Command lines of the benchmarks that report ratios: unless the caller chose a
// repetition count, five repetitions in random interleaved order, reported as
// aggregates, so that a disturbance from another process falls on a benchmark
// and its baseline alike.

#include <cstring>
#include <vector>

namespace widmo::bench {

/// `argv` with the default repetition flags added when none was given (not
/// null-terminated). The added strings live for the whole process.
inline std::vector<char*> withInterleavedRepetitions(int argc, char** argv) {
    static char repetitions[] = "--benchmark_repetitions=5";
    static char interleaving[] = "--benchmark_enable_random_interleaving=true";
    static char aggregates[] = "--benchmark_report_aggregates_only=true";
    std::vector<char*> args(argv, argv + argc);
    bool given = false;
    for (int k = 1; k < argc; ++k)
        given |= std::strncmp(argv[k], "--benchmark_repetitions", 23) == 0;
    if (!given) {
        args.push_back(repetitions);
        args.push_back(interleaving);
        args.push_back(aggregates);
    }
    return args;
}

} // namespace widmo::bench
