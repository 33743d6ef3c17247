/* Putting a store together, and making it the one of this process. */
#include "client/store.h"

#include <utility>

#include <pthread.h>

#include "sysapp.h"

namespace store {

constinit std::atomic<Store *> Store::current_{nullptr};
constinit std::uint32_t Store::current_generation_ = 0;

Store::Store(Engine engine, Clock &clock, const Configuration &configuration)
    : generation_(current_generation_), configuration_(configuration), engine_(std::move(engine)),
      serving(objects(), cluster(), clock),
      invocations(objects(), cluster(), clock, configuration_),
      leases(handles, objects(), clock, configuration_.lock_lease) {
    cluster().attach(serving, invocations, serving);
    [[maybe_unused]] static const int once =
        pthread_atfork(nullptr, nullptr, [] { ++current_generation_; });
    /* The threads of those who handle requests end only when they cannot go on. */
    Sys_set_thread_end_func([] {
        if (Store *store = Store::current()) {
            store->serving.stop_all();
        }
    });
    current_.store(this, std::memory_order_release);
}

Store::~Store() {
    Store *self = this;
    current_.compare_exchange_strong(self, nullptr);
    cluster().detach();
}

} // namespace store
