/* Renewing on an alarm. */
#include "client/lease_keeper.h"

#include <algorithm>
#include <new>

namespace store {

namespace {

constexpr int renewals_per_lease = 3;

} // namespace

LeaseKeeper::LeaseKeeper(const HandleTable &handles, Objects &objects, Clock &clock, Millis lease)
    : handles_(handles), objects_(objects), clock_(clock),
      period_(std::max<Millis>(lease / renewals_per_lease, 1)),
      alarm_(clock, [this] { return work(); }) {
    /* The holders have lived through a jump of the clock, however far it went. */
    clock_.add_listener([this] { work(); });
}

/* A renewal that comes too late for its lock fails, and the holder hears of it when it updates or
 * unlocks. */
Millis LeaseKeeper::work() {
    const std::vector<HeldLock> held = handles_.held_locks();
    for (const HeldLock &lock : held) {
        objects_.renew_lock(lock.key, lock.ticket);
    }
    return held.empty() ? never : clock_.now() + period_;
}

} // namespace store
