// Invocations alone, a fixed number of them: for counting instructions. Two processes that differ
// in this number alone differ by what the additional invocations take.
#include <algorithm>

#include "invocation.h"
#include "measures.h"

namespace bench {

void measure_invocations(benchmark::State &state, const Plan &plan) {
    store_objects(kAppId, plan.workload.num_objects, plan.workload);
    start_worker(plan.workload);
    const Invocation ours(plan.workload, kAppId);
    while (state.KeepRunning()) {
        Nanoseconds time{};
        for (std::size_t run = 0; run < std::max<std::size_t>(1, plan.num_rounds); ++run) {
            time += ours.run().time;
        }
        state.SetIterationTime(time.count() / 1e9);
    }
}

} // namespace bench
