/* The store of this process: an engine and the rooms above it, put together. */
#pragma once

#include <atomic>
#include <cstdint>

#include "client/handles.h"
#include "client/lease_keeper.h"
#include "engine/engine.h"
#include "engine/options.h"
#include "invocation/invocations.h"
#include "serving/serving.h"

namespace store {

/* The operations of storlib.h and storapp.h work on the store that was made last, for as long as it
 * lives. */
class Store {
public:
    /* `clock` outlives the store. */
    Store(Engine engine, Clock &clock, const Configuration &configuration);
    ~Store();
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    /* nullptr when there is none. */
    static Store *current() { return current_.load(std::memory_order_acquire); }

    /* Whether this process is a child of the one that made the store, whose threads it lacks. */
    bool is_forked() const { return generation_ != current_generation_; }

    const Configuration &configuration() const { return configuration_; }
    Objects &objects() { return *engine_.objects; }
    Cluster &cluster() { return *engine_.cluster; }

private:
    static std::atomic<Store *> current_;
    static std::uint32_t current_generation_; /* processes from the first one on */

    const std::uint32_t generation_;
    const Configuration configuration_;
    const Engine engine_;

public:
    /* Each is self-synchronised. */
    HandleTable handles;
    Serving serving;
    Invocations invocations;
    LeaseKeeper leases;
};

} // namespace store
