// Latency: the time of each of many invocations of few objects, one after another; with pauses
// between them, every thread that a call needs has fallen asleep.
//
// What it is compared with takes its turns between batches of calls. Beside them another thread may
// invoke over many objects of its own without a pause, one long invocation after another.
#include <thread>

#include "comparisons.h"
#include "measures.h"
#include "statistics.h"

namespace bench {

namespace {

constexpr std::size_t kBatch = 100; // calls in one turn
constexpr unsigned int kAppIdBeside = 2;

template <typename Run>
void time_batch(const Run &run, double pause_us, const Outcome &expected,
                std::vector<double> &times) {
    for (std::size_t i = 0; i < kBatch; ++i) {
        if (pause_us > 0) {
            std::this_thread::sleep_for(std::chrono::duration<double, std::micro>(pause_us));
        }
        const Timed timed = run();
        if (timed.outcome != expected) {
            fail("the outcome is " + to_string(timed.outcome) + "; expected is " +
                 to_string(expected));
        }
        times.push_back(timed.time.count());
    }
}

} // namespace

void measure_latency(benchmark::State &state, const Plan &plan) {
    store_objects(kAppId, plan.workload.num_objects, plan.workload);
    store_objects(kAppIdBeside, plan.num_beside, plan.workload);
    start_worker(plan.workload);
    const std::jthread beside([&](const std::stop_token &stop) {
        Workload workload = plan.workload;
        workload.num_objects = plan.num_beside;
        const Invocation invocation(workload, kAppIdBeside);
        while (plan.num_beside != 0 && !stop.stop_requested()) {
            invocation.run();
        }
    });
    const Invocation ours(plan.workload, kAppId);
    Comparisons others(plan.workload, kAppId, false);
    const Outcome expected = others.run_loop().outcome;
    std::vector<double> our_times;
    std::vector<double> loop_times;
    std::vector<double> tbb_times;
    const auto take_turns = [&] {
        time_batch([&] { return ours.run(); }, plan.pause_us, expected, our_times);
        time_batch([&] { return others.run_loop(); }, plan.pause_us, expected, loop_times);
        time_batch([&] { return others.run_tbb(); }, plan.pause_us, expected, tbb_times);
    };
    take_turns(); // warms up
    our_times.clear();
    while (state.KeepRunning()) {
        while (our_times.size() < plan.num_calls) {
            take_turns();
        }
        state.SetIterationTime(median(our_times) / 1e9);
    }
    state.counters["calls"] = static_cast<double>(our_times.size());
    state.counters["p50_ns"] = median(our_times);
    state.counters["p99_ns"] = quantile(our_times, 0.99);
    state.counters["p999_ns"] = quantile(our_times, 0.999);
    state.counters["loop_ns"] = median(loop_times);
    state.counters["tbb_ns"] = median(tbb_times);
}

} // namespace bench
