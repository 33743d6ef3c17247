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
    double pause_us = 0;            // before each of them
    std::size_t num_beside = 0;     // objects of another invocation that runs all the time
    unsigned int invokers = 1;      // of the rate measurement
};

// Our invocation, `loop`, `tbb` and `bytes` in turn, round by round. Counters, each with the prefix
// of its side: `_ns`, the median nanoseconds of one run; `x_`, the median over the rounds of our
// time in one round by that side's in the same round, with `_low` and `_high`, its quartiles.
void measure_throughput(benchmark::State &state, const Plan &plan);

// The time of each of many calls: `p50_ns`, `p99_ns`, `p999_ns`; `loop_ns` and `tbb_ns` are
// medians.
void measure_latency(benchmark::State &state, const Plan &plan);

// Invocations a second: `per_second`, with its quartiles; `loop_per_second` with a loop instead.
void measure_rate(benchmark::State &state, const Plan &plan);

// Bytes that the first invocation takes at its peak, by object, of all resident memory and of the
// module's (`resident_per_object`, `module_per_object`, `tag_..._per_object`), and bytes that nine
// more add to that (`resident_growth`, `module_growth`).
void measure_memory(benchmark::State &state, const Plan &plan);

// Exactly `num_rounds` invocations, and nothing beside them. No counters.
void measure_invocations(benchmark::State &state, const Plan &plan);

// How many rounds to run when one takes `round_seconds`.
std::size_t choose_rounds(const Plan &plan, double round_seconds);

} // namespace bench
