// What a user would write instead of an invocation, over the same objects with the same kernel:
//
//   loop   one thread that reads each object through the store's read calls,
//   tbb    oneTBB's parallel_reduce with a handle a thread, through the same calls,
//   bytes  the same parallel_reduce over an array in this process: the limit.
//
// The last two have as many threads as there are worker threads, and oneTBB's own partitioner and
// grain. Handles and buffers are made before anything is timed, and used again in each run.
#pragma once

#include <memory>

#include "invocation.h"

namespace bench {

class Comparisons {
public:
    // Without `with_array`, there is no `bytes` to run.
    Comparisons(const Workload &workload, unsigned int app_id, bool with_array);
    ~Comparisons();
    Comparisons(const Comparisons &) = delete;
    Comparisons &operator=(const Comparisons &) = delete;

    Timed run_loop();
    Timed run_tbb();
    Timed run_bytes();

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace bench
