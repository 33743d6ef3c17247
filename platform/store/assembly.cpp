#include "client/store.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <optional>

#include "embedded/embedded_engine.h"

namespace store {

namespace {

std::atomic<Store *> current{nullptr};

/* What opening takes. Threads may still use the store while the process exits: none of this is ever
 * destroyed. */
struct Opening {
    SystemClock clock;

    std::mutex lock;
    std::optional<Configuration> configured; /* guarded by lock; by configure_store() */
    bool complained = false;                 /* guarded by lock */
};

Opening &opening() {
    static auto *one = new Opening;
    return *one;
}

/* The environment is the user's, not the program's, which may have nothing to say about it: so the
 * reason goes to standard error too, once. */
void complain(Opening &open, const std::string &why) {
    if (!open.complained) {
        std::fprintf(stderr, "store: %s\n", why.c_str());
        open.complained = true;
    }
}

std::unique_ptr<Engine> make_engine(Clock &clock, const Configuration &configuration) {
    return std::make_unique<EmbeddedEngine>(clock, configuration);
}

} // namespace

Store *current_store() {
    return current.load(std::memory_order_acquire);
}

Store *open_store(std::string &why_out) {
    if (Store *store = current_store()) {
        return store;
    }
    try {
        Opening &open = opening();
        const std::lock_guard guard(open.lock);
        if (current_store() != nullptr) {
            return current_store();
        }
        Configuration configuration;
        if (open.configured) {
            configuration = *open.configured;
        } else if (read_configuration({}, std::getenv("OMRA_STORE"), configuration, why_out) !=
                   OMRALIB_RET_SUCCESS) {
            complain(open, why_out);
            return nullptr;
        }
        current.store(new Store(make_engine(open.clock, configuration), open.clock, configuration),
                      std::memory_order_release);
    } catch (const std::exception &) {
        return nullptr;
    }
    return current_store();
}

Status configure_store(const OMRALIB_CONFIG &given, std::string &why_out) {
    Opening &open = opening();
    const std::lock_guard guard(open.lock);
    if (current_store() != nullptr) {
        why_out = "the store is in use already: it can be configured before its first use only";
        return OMRALIB_ERR_CANT_INIT;
    }
    Configuration configuration;
    const Status status =
        read_configuration(given, std::getenv("OMRA_STORE"), configuration, why_out);
    if (status == OMRALIB_RET_SUCCESS) {
        open.configured = std::move(configuration);
    }
    return status;
}

Store *exchange_store(Store *store) {
    return current.exchange(store, std::memory_order_acq_rel);
}

} // namespace store
