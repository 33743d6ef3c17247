/* The store of this process: an engine and the rooms above it, put together once. */
#pragma once

#include <memory>

#include "client/handles.h"
#include "client/lease_keeper.h"
#include "engine/engine.h"
#include "engine/options.h"
#include "invocation/invocation.h"
#include "serving/server.h"

namespace store {

class Store {
public:
    /* `clock` outlives the store. */
    Store(std::unique_ptr<Engine> its_engine, Clock &clock, const Configuration &configuration)
        : configuration_(configuration), engine_(std::move(its_engine)), server(*engine_),
          invocations(*engine_, clock, configuration_),
          leases(handles, *engine_, clock, configuration_.lock_lease) {
        engine_->attach(server, invocations, server);
    }
    ~Store() { engine_->detach(); }
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    const Configuration &configuration() const { return configuration_; }
    Engine &engine() { return *engine_; }

private:
    const Configuration configuration_;
    std::unique_ptr<Engine> engine_;

public:
    /* Each is self-synchronised. */
    HandleTable handles;
    Server server;
    Invocations invocations;
    LeaseKeeper leases;
};

/* The process's store, or nullptr before it has been opened. */
Store *current_store();

/* Opens the process's store if need be; it is never destroyed. nullptr when it cannot be opened,
 * with the reason in `why_out`. */
Store *open_store(std::string &why_out);

/* Sets how the process's store will be opened. OMRALIB_ERR_CANT_INIT once it is open,
 * OMRALIB_ERR_BAD_ARGS for what is not allowed; either with the reason in `why_out`. */
Status configure_store(const OMRALIB_CONFIG &given, std::string &why_out);

/* Puts another store, or none, in the place of the current one and returns the old one. For tests,
 * while nothing else uses the store. */
Store *exchange_store(Store *store);

} // namespace store
