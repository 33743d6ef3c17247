#include "embedded/hosts.h"

#include <algorithm>

#include "embedded/shard.h"

namespace store {

void Hosts::attach(RequestReceiver &receiver, ReplySink &sink) {
    receiver_ = &receiver;
    sink_ = &sink;
    for (std::uint32_t i = 0; i < num_hosts_ && !deliver_inline_; ++i) {
        couriers_.push_back(std::make_unique<Courier>(receiver, *this));
    }
}

/* Who serves -------------------------------------------------------------------------------------
 */

/* All hosts are this process, so each of them serves what it serves. */
void Hosts::announce(std::uint32_t app_id, bool serving) {
    const std::lock_guard guard(lock_);
    if (serving) {
        served_.insert(app_id);
    } else {
        served_.erase(app_id);
    }
}

/* Under lock_. */
std::vector<HostId> Hosts::live() const {
    std::vector<HostId> hosts;
    for (std::uint32_t i = 0; i < num_hosts_; ++i) {
        if (!gone_[i]) {
            hosts.push_back(first + i);
        }
    }
    return hosts;
}

std::vector<HostId> Hosts::serving(std::uint32_t app_id) {
    const std::lock_guard guard(lock_);
    return served_.contains(app_id) ? live() : std::vector<HostId>{};
}

std::vector<HostId> Hosts::serving_any() {
    const std::lock_guard guard(lock_);
    return served_.empty() ? std::vector<HostId>{} : live();
}

Status Hosts::declare_gone(HostId host) {
    if (host < first || host - first >= num_hosts_) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    std::vector<RequestId> orphans;
    {
        const std::lock_guard guard(lock_);
        gone_[host - first] = true;
        for (const auto &[request, its_host] : in_flight_) {
            if (its_host == host) {
                orphans.push_back(request);
            }
        }
        for (const RequestId request : orphans) {
            in_flight_.erase(request);
        }
    }
    std::sort(orphans.begin(), orphans.end());
    for (const RequestId request : orphans) {
        take_back(host, request);
        Reply reply;
        reply.request = request;
        reply.to = first;
        reply.kind = Reply::Kind::host_gone;
        sink_->on_reply(reply);
    }
    return OMRALIB_RET_SUCCESS;
}

/* Requests and replies ---------------------------------------------------------------------------
 */

/* An object is at home on the host that its key's hash names. What is at home on a host that is not
 * among `hosts` is spread over those that are. */
std::vector<Share> Hosts::share_out(std::vector<Key> keys, std::span<const HostId> hosts) const {
    std::vector<Share> shares(hosts.size());
    for (std::size_t i = 0; i < hosts.size(); ++i) {
        shares[i].host = hosts[i];
    }
    if (hosts.size() == 1) {
        shares[0].keys = std::move(keys);
        keys.clear();
    }
    for (const Key &key : keys) {
        const std::uint64_t hash = hash_of(key);
        const HostId home = first + static_cast<HostId>(hash % num_hosts_);
        const auto found = std::find(hosts.begin(), hosts.end(), home);
        const std::size_t i = found != hosts.end() ? static_cast<std::size_t>(found - hosts.begin())
                                                   : hash / num_hosts_ % hosts.size();
        shares[i].keys.push_back(key);
    }
    std::erase_if(shares, [](const Share &share) { return share.keys.empty(); });
    return shares;
}

void Hosts::send(HostId host, std::shared_ptr<const Request> request) {
    bool reachable = false;
    {
        const std::lock_guard guard(lock_);
        reachable = !gone_[host - first];
        if (reachable) {
            in_flight_.emplace(request->id, host);
        }
    }
    if (reachable && deliver_inline_) {
        receiver_->receive(std::move(request));
        return;
    }
    if (reachable) {
        couriers_[host - first]->send(request);
        return;
    }
    Reply reply;
    reply.request = request->id;
    reply.to = request->sender;
    reply.kind = Reply::Kind::host_gone;
    sink_->on_reply(reply);
}

/* The host that has it in flight, which no longer does; 0 when none has. */
HostId Hosts::take_off(RequestId request) {
    const std::lock_guard guard(lock_);
    const auto found = in_flight_.find(request);
    if (found == in_flight_.end()) {
        return 0;
    }
    const HostId host = found->second;
    in_flight_.erase(found);
    return host;
}

/* From its courier, or from the receiver when it has been handed over. */
void Hosts::take_back(HostId host, RequestId request) {
    if (deliver_inline_ || !couriers_[host - first]->take_back(request)) {
        receiver_->withdraw(first, request);
    }
}

void Hosts::withdraw(RequestId request) {
    if (const HostId host = take_off(request)) {
        take_back(host, request);
    }
}

std::uint32_t Hosts::num_begun(RequestId request) {
    return receiver_->num_begun(first, request);
}

Status Hosts::on_reply(const Reply &reply) {
    return take_off(reply.request) != 0 ? sink_->on_reply(reply) : OMRALIB_ERR_BAD_ARGS;
}

} // namespace store
