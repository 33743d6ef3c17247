// Memory: what an invocation takes in addition to the stored objects, and whether later ones take
// more than the first.
//
// Two views. The system utilities' accounts know every block of the module exactly, but only those;
// they are looked at again and again while the invocation runs. The system's count of resident
// pages has everything, the store's own lists included, page by page; the system keeps its peak.
#include <array>
#include <atomic>
#include <fstream>
#include <thread>

#include <malloc.h>

#include <fmt/format.h>

#include "invocation.h"
#include "measures.h"
#include "sysapp.h"

namespace bench {

namespace {

constexpr std::size_t kTags = 256;
constexpr int kLaterRuns = 9;

using TagBytes = std::array<std::size_t, kTags>;

TagBytes read_tags() {
    TagBytes bytes{};
    for (unsigned int tag = 0; tag < kTags; ++tag) {
        bytes[tag] = Sys_get_mem_use(tag).bytes;
    }
    return bytes;
}

double total(const TagBytes &bytes) {
    double sum = 0;
    for (const std::size_t each : bytes) {
        sum += static_cast<double>(each);
    }
    return sum;
}

// The bytes that the line `name` of the process's status gives.
double read_status(const std::string &name) {
    std::ifstream status("/proc/self/status");
    std::string word;
    double kibibytes = 0;
    while (status >> word) {
        if (word == name && status >> kibibytes) {
            return kibibytes * 1024;
        }
    }
    fail("/proc/self/status has no " + name);
}

double resident() {
    return read_status("VmRSS:");
}

double peak_resident() {
    return read_status("VmHWM:");
}

void reset_peak() {
    std::ofstream("/proc/self/clear_refs") << 5 << std::flush;
}

// An invocation has its result before the worker has given its memory back.
void wait_for_worker() {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

// Looks at the accounts while it lives, and keeps the highest of their totals.
class AccountWatch {
public:
    AccountWatch() : thread_([this](const std::stop_token &stop) { watch(stop); }) {}

    TagBytes peak() {
        thread_.request_stop();
        thread_.join();
        return peak_;
    }

private:
    void watch(const std::stop_token &stop) {
        while (!stop.stop_requested()) {
            const TagBytes now = read_tags();
            if (total(now) > total(peak_)) {
                peak_ = now;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }

    TagBytes peak_{};
    std::jthread thread_;
};

} // namespace

void measure_memory(benchmark::State &state, const Plan &plan) {
    const auto objects = static_cast<double>(plan.workload.num_objects);
    store_objects(kAppId, plan.workload.num_objects, plan.workload);
    start_worker(plan.workload);
    const Invocation ours(plan.workload, kAppId);
    malloc_trim(0); // what loading left free must not hide what the first run takes
    const TagBytes tags_before = read_tags();
    const double resident_before = resident();
    reset_peak();

    AccountWatch watch;
    const Timed first = ours.run();
    wait_for_worker();
    const TagBytes tags_peak = watch.peak();
    const double first_peak = peak_resident();
    const double tags_after_first = total(read_tags());
    double last_peak = first_peak;
    double tags_growth = 0;
    while (state.KeepRunning()) {
        for (int run = 0; run < kLaterRuns; ++run) {
            reset_peak();
            if (ours.run().outcome != first.outcome) {
                fail("the outcome differs from that of the first run");
            }
            wait_for_worker();
            last_peak = peak_resident();
            tags_growth = std::max(tags_growth, total(read_tags()) - tags_after_first);
        }
        state.SetIterationTime(first.time.count() / 1e9);
    }

    state.counters["objects"] = objects;
    state.counters["resident_per_object"] = (first_peak - resident_before) / objects;
    state.counters["resident_growth"] = last_peak - first_peak;
    state.counters["module_per_object"] = (total(tags_peak) - total(tags_before)) / objects;
    state.counters["module_growth"] = tags_growth;
    for (std::size_t tag = 0; tag < kTags; ++tag) {
        if (tags_peak[tag] > tags_before[tag]) {
            state.counters[fmt::format("tag_{:#x}_per_object", tag)] =
                static_cast<double>(tags_peak[tag] - tags_before[tag]) / objects;
        }
    }
}

} // namespace bench
