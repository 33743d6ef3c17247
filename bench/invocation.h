// Our side of a measurement: the workload as registered functions and an invocation.
#pragma once

#include <chrono>

#include "objects.h"

namespace bench {

using Clock = std::chrono::steady_clock;
using Nanoseconds = std::chrono::duration<double, std::nano>;

struct Timed {
    Outcome outcome;
    Nanoseconds time;
};

// Registers the workload's functions and starts the worker with its number of threads. Once in a
// process, since the functions and the threads stay.
void start_worker(const Workload &workload);

// One invocation, as often as it is wanted. Used by one thread.
class Invocation {
public:
    // On the objects of `app_id`, which may be others than those that `workload` selects from.
    Invocation(const Workload &workload, unsigned int app_id);

    // The time is that of the call alone.
    Timed run() const;

private:
    Workload workload_;
    unsigned int app_id_;
    std::string params_;
    std::string query_;
    OMRAPMI_QUERY_SPEC term_;
    StoreHandle handle_;
};

} // namespace bench
