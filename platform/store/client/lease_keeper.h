/* Renews the leases of the locks that are held through open handles, for as long as this process
 * lives: three times within a lease, whatever the holders are doing meanwhile. */
#pragma once

#include "client/handles.h"
#include "engine/objects.h"

namespace store {

class LeaseKeeper {
public:
    /* All of them outlive the keeper. */
    LeaseKeeper(const HandleTable &handles, Objects &objects, Clock &clock, Millis lease);
    LeaseKeeper(const LeaseKeeper &) = delete;
    LeaseKeeper &operator=(const LeaseKeeper &) = delete;

    /* A lock has been added to a handle's, with a lease from now on: the next renewal, which is due
     * within a period, is soon enough for it. */
    void note_lock() noexcept {
        if (!alarm_.is_set()) {
            alarm_.call_at(clock_.now() + period_);
        }
    }

private:
    Millis work();

    const HandleTable &handles_;
    Objects &objects_;
    Clock &clock_;
    const Millis period_;
    Alarm alarm_;
};

} // namespace store
