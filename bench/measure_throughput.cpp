// Throughput: the time of one run over all selected objects, ours beside what it is compared with.
//
// The machine may be shared and its speed may change while this runs. So the sides take turns, and
// each round gives its own ratios; their median is what counts. All sides must come to the same
// outcome in every round.
#include <array>
#include <chrono>
#include <functional>
#include <thread>

#include "comparisons.h"
#include "measures.h"
#include "statistics.h"

namespace bench {

namespace {

struct Side {
    const char *name;
    std::function<Timed()> run;
    int repeats = 1;             // within a round
    std::vector<double> times{}; // nanoseconds of one run, by round
};

// A side that takes less than this is repeated within a round, and the round counts its mean.
constexpr Nanoseconds kShortest = std::chrono::microseconds(500);

class Rounds {
public:
    explicit Rounds(std::vector<Side> sides) : sides_(std::move(sides)) {}

    // Two runs of each side: the first one makes threads, handles and pools; the second says what
    // a round takes, in seconds.
    double warm_up() {
        expected_ = sides_.front().run().outcome;
        double seconds = 0;
        for (int i = 0; i < 2; ++i) {
            seconds = 0;
            for (Side &side : sides_) {
                const Nanoseconds time = run_once(side);
                side.repeats = std::max(1, static_cast<int>(kShortest / time));
                seconds += time.count() * side.repeats / 1e9;
            }
        }
        return seconds;
    }

    // Returns our time, in seconds.
    double run() {
        for (Side &side : sides_) {
            // The threads of the side before fall asleep.
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            Nanoseconds time{};
            for (int i = 0; i < side.repeats; ++i) {
                time += run_once(side);
            }
            side.times.push_back(time.count() / side.repeats);
        }
        return sides_.front().times.back() / 1e9;
    }

    const std::vector<Side> &sides() const { return sides_; }

private:
    Nanoseconds run_once(const Side &side) const {
        const Timed timed = side.run();
        if (timed.outcome != expected_) {
            fail(std::string("the outcome of ") + side.name + " is " + to_string(timed.outcome) +
                 "; expected is " + to_string(expected_));
        }
        return timed.time;
    }

    std::vector<Side> sides_;
    Outcome expected_;
};

void report(const std::vector<Side> &sides, benchmark::State &state) {
    const std::vector<double> &ours = sides.front().times;
    for (const Side &side : sides) {
        const std::string name = side.name;
        state.counters[name + "_ns"] = median(side.times);
        if (&side == &sides.front()) {
            continue;
        }
        std::vector<double> ratios;
        for (std::size_t round = 0; round < ours.size(); ++round) {
            ratios.push_back(ours[round] / side.times[round]);
        }
        state.counters["x_" + name] = median(ratios);
        state.counters["x_" + name + "_low"] = quantile(ratios, 0.25);
        state.counters["x_" + name + "_high"] = quantile(ratios, 0.75);
    }
}

} // namespace

std::size_t choose_rounds(const Plan &plan, double round_seconds) {
    if (plan.num_rounds != 0) {
        return plan.num_rounds;
    }
    return static_cast<std::size_t>(std::clamp(plan.seconds / round_seconds, 5.0, 201.0));
}

void measure_throughput(benchmark::State &state, const Plan &plan) {
    store_objects(kAppId, plan.workload.num_objects, plan.workload);
    start_worker(plan.workload);
    const Invocation ours(plan.workload, kAppId);
    Comparisons others(plan.workload, kAppId, true);
    Rounds rounds({{.name = "ours", .run = [&] { return ours.run(); }},
                   {.name = "loop", .run = [&] { return others.run_loop(); }},
                   {.name = "tbb", .run = [&] { return others.run_tbb(); }},
                   {.name = "bytes", .run = [&] { return others.run_bytes(); }}});
    const std::size_t num_rounds = choose_rounds(plan, rounds.warm_up());
    while (state.KeepRunning()) {
        double seconds = 0;
        for (std::size_t round = 0; round < num_rounds; ++round) {
            seconds += rounds.run();
        }
        state.SetIterationTime(seconds / static_cast<double>(num_rounds));
    }
    report(rounds.sides(), state);
    state.counters["rounds"] = static_cast<double>(num_rounds);
    state.counters["objects"] = static_cast<double>(select(plan.workload).size());
}

} // namespace bench
