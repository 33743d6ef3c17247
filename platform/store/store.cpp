#include "store.h"

#include <atomic>
#include <exception>
#include <mutex>

#include "embedded/embedded_engine.h"

namespace store {

namespace {

std::atomic<Store *> current{nullptr};

/* Threads may still use the store while the process exits: neither is ever destroyed. */
std::mutex &opening_lock() {
    static auto *lock = new std::mutex;
    return *lock;
}

SystemClock &system_clock() {
    static auto *clock = new SystemClock;
    return *clock;
}

} // namespace

Store *current_store() {
    return current.load(std::memory_order_acquire);
}

Store *open_store() {
    if (Store *store = current_store()) {
        return store;
    }
    try {
        const std::lock_guard guard(opening_lock());
        if (current_store() == nullptr) {
            SystemClock &clock = system_clock();
            current.store(new Store(std::make_unique<EmbeddedEngine>(clock), clock),
                          std::memory_order_release);
        }
    } catch (const std::exception &) {
        return nullptr;
    }
    return current_store();
}

Store *exchange_store(Store *store) {
    return current.exchange(store, std::memory_order_acq_rel);
}

} // namespace store
