/* The hosts that the embedded engine plays, 1 to N, all in this process.
 *
 *   send(host, request) --> in flight --> courier --> receiver     reply, host_gone or withdrawal
 *                                                                  takes it out of flight, once
 *
 * Every host hands its requests to the one receiver, on a thread of its own, and replies reach the
 * one sink on the thread that replies. What makes them hosts of their own is kept here:
 * which requests each has in flight and which of them are gone. A request is answered once, by
 * whoever takes it out of flight: a host that has been declared gone can say what it likes.
 *
 * Left to others: what a host does with a request (server.h), and which requests are tried again
 * elsewhere (delivery.h). */
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include "embedded/courier.h"
#include "engine/engine.h"

namespace store {

class Hosts final : public ReplySink {
public:
    static constexpr HostId first = 1;

    /* `deliver_inline`: requests reach the receiver on the thread that sends them. */
    Hosts(std::uint32_t num_hosts, bool deliver_inline)
        : num_hosts_(num_hosts), deliver_inline_(deliver_inline), gone_(num_hosts) {}
    Hosts(const Hosts &) = delete;
    Hosts &operator=(const Hosts &) = delete;

    /* As the operations of Engine with these names. */
    void attach(RequestReceiver &receiver, ReplySink &sink);
    void detach() { couriers_.clear(); }
    void announce(std::uint32_t app_id, bool serving);
    std::vector<HostId> serving(std::uint32_t app_id);
    std::vector<HostId> serving_any();
    std::vector<Share> share_out(std::vector<Key> keys, std::span<const HostId> hosts) const;
    void send(HostId host, std::shared_ptr<const Request> request);
    void withdraw(RequestId request);
    std::uint32_t num_begun(RequestId request);
    Status on_reply(const Reply &reply) override;
    Status declare_gone(HostId host);

private:
    std::vector<HostId> live() const;
    HostId take_off(RequestId request);
    void take_back(HostId host, RequestId request);

    /* Constant after set-up. */
    const std::uint32_t num_hosts_;
    const bool deliver_inline_;
    RequestReceiver *receiver_ = nullptr;
    ReplySink *sink_ = nullptr;
    std::vector<std::unique_ptr<Courier>> couriers_; /* by host - first; none to deliver inline */

    std::mutex lock_;        /* a leaf: receiver and sink are called without it */
    std::vector<bool> gone_; /* guarded by lock_; by host - first */
    absl::flat_hash_set<std::uint32_t> served_;        /* guarded by lock_ */
    absl::flat_hash_map<RequestId, HostId> in_flight_; /* guarded by lock_ */
};

} // namespace store
