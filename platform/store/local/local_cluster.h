/* Hosts that an engine plays, 1 to N, all in this process, and the names.
 *
 *   send(request) --> in flight --> courier --> receiver     reply, host_gone or withdrawal
 *                                                            takes it out of flight, once
 *
 * Every host hands its requests to the one receiver, on a thread of its own, and replies reach the
 * one sink on the thread that replies. What makes them hosts of their own is kept here: which
 * requests each has in flight and which of them are gone. A request is answered once, by whoever
 * takes it out of flight: a host that has been declared gone can say what it likes.
 *
 * Few objects are listed here and dealt out one by one; of many, every host finds its own, all of
 * them at once. Hosts that are gone stay gone, so all incarnations are the first.
 *
 * Left to others: what a host does with a request (serving/), and which requests are tried again
 * elsewhere (invocation/delivery.h). */
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "engine/cluster.h"
#include "engine/local_objects.h"
#include "local/courier.h"

namespace store {

class LocalCluster final : public Cluster, private ReplySink {
public:
    /* `objects` outlives the cluster. */
    LocalCluster(LocalObjects &objects, std::uint32_t num_hosts)
        : objects_(objects), num_hosts_(num_hosts), gone_(num_hosts) {}

    void attach(RequestReceiver &receiver, ReplySink &sink, EventReceiver &events) override;
    void detach() override;
    HostId this_host() const override { return host_at(0); }
    Status bind_name(std::string_view name, std::uint32_t &app_id_out) override;
    Status announce(std::uint32_t app_id, bool serving) override;
    Status hosts_serving(std::uint32_t app_id, std::vector<HostId> &hosts_out) override;
    Status hosts_serving_any(std::vector<HostId> &hosts_out) override;
    Status plan(const Selection &selection, std::span<const HostId> hosts, const SearchCheck &check,
                std::vector<Share> &shares_out) override;
    Status send(Request request) override;
    Status withdraw(const HostId &host, RequestId request) override;
    Status progress_of(const HostId &host, RequestId request,
                       RequestProgress &progress_out) override;
    Status renew(const HostId &host, RequestId request) override;
    Status call_back(const HostId &host, const HostId &sender, RequestId request) override;
    Status reply(const Reply &reply) override { return on_reply(reply); }
    Status declare_gone(std::uint32_t host_number) override;

private:
    static HostId host_at(std::size_t index) { return {static_cast<std::uint32_t>(index) + 1, 1}; }
    static std::size_t index_of(const HostId &host) { return host.number - 1; }

    Status on_reply(const Reply &reply) override;

    std::size_t home_of_slot(std::uint32_t slot, std::span<const HostId> hosts) const;
    std::vector<Share> deal_out(std::vector<Key> keys, std::span<const HostId> hosts) const;
    std::vector<Share> divide(const Selection &selection, std::span<const HostId> hosts) const;
    std::vector<HostId> live() const ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    bool take_off(RequestId request, std::size_t &index_out);
    void take_back(std::size_t index, RequestId request);

    /* Constant after set-up. */
    LocalObjects &objects_;
    const std::uint32_t num_hosts_;
    RequestReceiver *receiver_ = nullptr;
    ReplySink *sink_ = nullptr;
    std::vector<std::unique_ptr<Courier>> couriers_; /* by index of the host */

    Mutex lock_; /* a leaf: receiver and sink are called without it */
    std::vector<bool> gone_ ABSL_GUARDED_BY(lock_); /* by index of the host */
    std::set<std::uint32_t> served_ ABSL_GUARDED_BY(lock_);
    std::unordered_map<RequestId, std::size_t> in_flight_ ABSL_GUARDED_BY(lock_); /* at a host */

    Mutex names_lock_; /* a leaf */
    std::map<std::string, std::uint32_t, std::less<>> names_ ABSL_GUARDED_BY(names_lock_);
};

} // namespace store
