/* Objects of an engine whose hosts are all played in this process: what these ask of them beside
 * what everybody may. */
#pragma once

#include "engine/cluster.h"
#include "engine/objects.h"

namespace store {

class LocalObjects : public Objects {
public:
    /* Objects of an app id, counted for as little as the engine can: those that have expired but
     * have not been swept yet may be among them. */
    virtual Status num_records(std::uint32_t app_id, std::uint64_t &num_out) = 0;

    /* What has expired is told to `events` from now on, for the app ids that want it, until
     * detach_events(). */
    virtual void attach_events(EventReceiver &events) = 0;
    virtual void want_events(std::uint32_t app_id, bool wanted) = 0;
    virtual void detach_events() = 0;
};

} // namespace store
