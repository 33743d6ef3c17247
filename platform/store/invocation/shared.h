/* What the invocations of a store share. */
#pragma once

#include <atomic>
#include <cstdint>

#include "invocation/mailroom.h"
#include "invocation/temp_objects.h"

namespace store {

struct InvocationFigures {
    std::atomic<std::uint64_t> num_finished{0};
    std::atomic<std::uint64_t> num_running{0};
    std::atomic<std::uint64_t> num_evaluated{0};
    std::atomic<std::uint64_t> num_folds{0};
    std::atomic<std::uint64_t> num_refusals{0};
    std::atomic<std::uint64_t> num_retries{0};
    std::atomic<std::uint64_t> time_us{0};
};

struct Shared {
    Shared(Objects &its_objects, Cluster &its_cluster, Clock &its_clock)
        : objects(its_objects), cluster(its_cluster), clock(its_clock), mailroom(its_clock),
          temp_objects(its_objects) {}

    Objects &objects;
    Cluster &cluster;
    Clock &clock;

    /* Self-synchronised. */
    Mailroom mailroom;
    TempObjects temp_objects;
    InvocationFigures figures;
    std::atomic<RequestId> next_request{1};
};

} // namespace store
