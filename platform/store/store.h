/* The store of this process: an engine and the rooms above it, put together once. */
#pragma once

#include <memory>

#include "engine.h"
#include "handles.h"
#include "invocation.h"
#include "server.h"

namespace store {

class Store {
public:
    /* `clock` outlives the store. */
    Store(std::unique_ptr<Engine> its_engine, Clock &clock)
        : engine_(std::move(its_engine)), server(*engine_), invocations(*engine_, clock) {
        engine_->attach(server, invocations);
    }
    ~Store() { engine_->detach(); }
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    Engine &engine() { return *engine_; }

private:
    std::unique_ptr<Engine> engine_;

public:
    /* Each is self-synchronised. */
    HandleTable handles;
    Server server;
    Invocations invocations;
};

/* The process's store, or nullptr before it has been opened. */
Store *current_store();

/* Opens the process's store if need be; it is never destroyed. nullptr when it cannot be opened. */
Store *open_store();

/* Puts another store, or none, in the place of the current one and returns the old one. For tests,
 * while nothing else uses the store. */
Store *exchange_store(Store *store);

} // namespace store
