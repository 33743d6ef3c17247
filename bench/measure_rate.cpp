// Rate: small invocations a second, from several invoking threads at once, each with objects of its
// own; beside that, as many threads that read their objects in a loop.
#include <atomic>
#include <barrier>
#include <deque>
#include <functional>
#include <thread>

#include "comparisons.h"
#include "measures.h"
#include "statistics.h"

namespace bench {

namespace {

constexpr double kWindow = 0.25; // seconds that are counted at once

struct Invoker {
    Invoker(const Workload &workload, unsigned int app_id)
        : ours(workload, app_id), loop(workload, app_id, false) {
        expected = loop.run_loop().outcome;
    }

    Invocation ours;
    Comparisons loop;
    Outcome expected;
};

// Lets all invokers run for one window, each on a thread of its own; returns runs a second.
double count_runs(std::deque<Invoker> &invokers, const std::function<Timed(Invoker &)> &run) {
    std::atomic<bool> stop = false;
    std::atomic<std::uint64_t> num_runs = 0;
    std::barrier start(static_cast<std::ptrdiff_t>(invokers.size() + 1));
    std::deque<std::jthread> threads;
    for (Invoker &invoker : invokers) {
        threads.emplace_back([&] {
            std::uint64_t own_runs = 0;
            start.arrive_and_wait();
            while (!stop.load(std::memory_order_relaxed)) {
                if (run(invoker).outcome != invoker.expected) {
                    fail("the outcome of one invoker differs");
                }
                ++own_runs;
            }
            num_runs += own_runs;
        });
    }
    start.arrive_and_wait();
    const auto begin = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(kWindow));
    stop = true;
    threads.clear();
    const std::chrono::duration<double> time = Clock::now() - begin;
    return static_cast<double>(num_runs) / time.count();
}

} // namespace

void measure_rate(benchmark::State &state, const Plan &plan) {
    std::deque<Invoker> invokers;
    for (unsigned int i = 0; i < plan.invokers; ++i) {
        const unsigned int app_id = kAppId + i;
        store_objects(app_id, plan.workload.num_objects, plan.workload);
        invokers.emplace_back(plan.workload, app_id);
    }
    start_worker(plan.workload);
    const auto run_ours = [](Invoker &invoker) { return invoker.ours.run(); };
    const auto run_loop = [](Invoker &invoker) { return invoker.loop.run_loop(); };
    count_runs(invokers, run_ours); // warms up
    std::vector<double> our_rates;
    std::vector<double> loop_rates;
    const std::size_t num_rounds = choose_rounds(plan, 2 * kWindow);
    while (state.KeepRunning()) {
        for (std::size_t round = 0; round < num_rounds; ++round) {
            our_rates.push_back(count_runs(invokers, run_ours));
            loop_rates.push_back(count_runs(invokers, run_loop));
        }
        state.SetIterationTime(1 / median(our_rates));
    }
    state.counters["per_second"] = median(our_rates);
    state.counters["per_second_low"] = quantile(our_rates, 0.25);
    state.counters["per_second_high"] = quantile(our_rates, 0.75);
    state.counters["loop_per_second"] = median(loop_rates);
    state.counters["rounds"] = static_cast<double>(num_rounds);
}

} // namespace bench
