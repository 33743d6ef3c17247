/* Putting a store together, and making it the one of this process. */
#include "client/store.h"

#include <utility>

namespace store {

constinit std::atomic<Store *> Store::current_{nullptr};

Store::Store(Engine engine, Clock &clock, const Configuration &configuration)
    : configuration_(configuration), engine_(std::move(engine)), serving(objects(), cluster()),
      invocations(objects(), cluster(), clock, configuration_),
      leases(handles, objects(), clock, configuration_.lock_lease) {
    cluster().attach(serving, invocations, serving);
    current_.store(this, std::memory_order_release);
}

Store::~Store() {
    Store *self = this;
    current_.compare_exchange_strong(self, nullptr);
    cluster().detach();
}

} // namespace store
