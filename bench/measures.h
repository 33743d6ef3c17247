// The measurements, each of which runs as a benchmark of Google Benchmark. Its counters are the
// figures; its own time is that of our side.
#pragma once

#include <benchmark/benchmark.h>

#include "workload.h"

namespace bench {

struct Plan {
    Workload workload;
    double seconds = 2;             // that the rounds may take, about
    std::size_t num_rounds = 0;     // 0: as many as the seconds allow, at least 5
    std::size_t num_calls = 10'000; // of the latency measurement
    unsigned int invokers = 1;      // of the rate measurement
};

// Our invocation, `loop`, `tbb` and `bytes` in turn, round by round. Counters, each with the prefix
// of its side: `_ns`, the median nanoseconds of one run; `x_`, the median over the rounds of our
// time in one round by that side's in the same round, with `_low` and `_high`, its quartiles.
void measure_throughput(benchmark::State &state, const Plan &plan);

// How many rounds to run when one takes `round`.
std::size_t choose_rounds(const Plan &plan, double round_seconds);

} // namespace bench
