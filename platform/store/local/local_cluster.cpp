/* Hosts played in this process: who serves, who gets which objects, requests and replies. */
#include "local/local_cluster.h"

#include <algorithm>
#include <exception>

#include "engine/slots.h"

namespace store {

namespace {

struct ReservedName {
    std::string_view name;
    std::uint32_t app_id;
};

constexpr ReservedName reserved_names[] = {
    {"__OMRA_appname_system_backrest", MGTI_APPID_SYSTEM_BACKREST},
    {"__OMRA_appname_invoke_once", MGTI_APPID_INVOKE_ONCE},
};

/* Other names get ordinary app ids from here on, far from the numbers that people choose. */
constexpr std::uint32_t first_named_app_id = 0x0F000000;

/* Up to this many objects are listed by the sender when there are several hosts: dealing them out
 * costs less than asking hosts that may have none of them. */
constexpr std::uint64_t few_objects = 1024;

Share share_of(const HostId &host, std::vector<Key> keys) {
    return {host, false, std::move(keys), {}, {}};
}

Reply host_gone(const HostId &host, const HostId &sender, RequestId request) {
    Reply reply;
    reply.request = request;
    reply.to = sender;
    reply.from = host;
    reply.kind = Reply::Kind::host_gone;
    return reply;
}

} // namespace

void LocalCluster::attach(RequestReceiver &receiver, ReplySink &sink, EventReceiver &events) {
    receiver_ = &receiver;
    sink_ = &sink;
    ReplySink &refusals = *this;
    for (std::size_t i = 0; i < num_hosts_; ++i) {
        couriers_.push_back(std::make_unique<Courier>(receiver, refusals));
    }
    objects_.attach_events(events);
}

void LocalCluster::detach() {
    couriers_.clear();
    objects_.detach_events();
}

/* Names and who serves ------------------------------------------------------------------------ */

Status LocalCluster::bind_name(std::string_view name, std::uint32_t &app_id_out) {
    const Guard guard(names_lock_);
    if (names_.contains(name)) {
        return OMRALIB_ERR_NAME_REGISTERED;
    }
    std::uint32_t app_id = first_named_app_id + static_cast<std::uint32_t>(names_.size());
    for (const ReservedName &reserved : reserved_names) {
        if (reserved.name == name) {
            app_id = reserved.app_id;
        }
    }
    names_.emplace(name, app_id);
    app_id_out = app_id;
    return OMRALIB_RET_SUCCESS;
}

/* All hosts are this process, so each of them serves what it serves. */
Status LocalCluster::announce(std::uint32_t app_id, bool serving) {
    objects_.want_events(app_id, serving);
    const Guard guard(lock_);
    if (serving) {
        served_.insert(app_id);
    } else {
        served_.erase(app_id);
    }
    return OMRALIB_RET_SUCCESS;
}

std::vector<HostId> LocalCluster::live() const {
    std::vector<HostId> hosts;
    for (std::size_t i = 0; i < num_hosts_; ++i) {
        if (!gone_[i]) {
            hosts.push_back(host_at(i));
        }
    }
    return hosts;
}

Status LocalCluster::hosts_serving(std::uint32_t app_id, std::vector<HostId> &hosts_out) {
    const Guard guard(lock_);
    hosts_out = served_.contains(app_id) ? live() : std::vector<HostId>{};
    return OMRALIB_RET_SUCCESS;
}

Status LocalCluster::hosts_serving_any(std::vector<HostId> &hosts_out) {
    const Guard guard(lock_);
    hosts_out = served_.empty() ? std::vector<HostId>{} : live();
    return OMRALIB_RET_SUCCESS;
}

Status LocalCluster::declare_gone(std::uint32_t host_number) {
    if (host_number == 0 || host_number > num_hosts_) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    const std::size_t index = host_number - 1;
    std::vector<RequestId> orphans;
    {
        const Guard guard(lock_);
        orphans.reserve(in_flight_.size());
        gone_[index] = true;
        for (const auto &[request, its_host] : in_flight_) {
            if (its_host == index) {
                orphans.push_back(request);
            }
        }
        for (const RequestId request : orphans) {
            in_flight_.erase(request);
        }
    }
    std::sort(orphans.begin(), orphans.end());
    for (const RequestId request : orphans) {
        take_back(index, request);
        sink_->on_reply(host_gone(host_at(index), this_host(), request));
    }
    return OMRALIB_RET_SUCCESS;
}

/* Plans --------------------------------------------------------------------------------------- */

/* Which of `hosts` a slot is at home on. Neighbouring slots are at home on one host, so that few
 * shards are divided. What is at home on a host that is not among `hosts` is spread over those that
 * are. */
std::size_t LocalCluster::home_of_slot(std::uint32_t slot, std::span<const HostId> hosts) const {
    const HostId home = host_at(slot * num_hosts_ / num_slots);
    const auto found = std::find(hosts.begin(), hosts.end(), home);
    return found != hosts.end() ? static_cast<std::size_t>(found - hosts.begin())
                                : slot % hosts.size();
}

std::vector<Share> LocalCluster::deal_out(std::vector<Key> keys,
                                          std::span<const HostId> hosts) const {
    if (hosts.size() == 1 && !keys.empty()) {
        return {share_of(hosts.front(), std::move(keys))};
    }
    std::vector<std::vector<Key>> dealt(hosts.size());
    for (const Key &key : keys) {
        dealt[home_of_slot(slot_of(hash_of(key)), hosts)].push_back(key);
    }
    std::vector<Share> shares;
    for (std::size_t i = 0; i < hosts.size(); ++i) {
        if (!dealt[i].empty()) {
            shares.push_back(share_of(hosts[i], std::move(dealt[i])));
        }
    }
    return shares;
}

std::vector<Share> LocalCluster::divide(const Selection &selection,
                                        std::span<const HostId> hosts) const {
    if (hosts.size() == 1) {
        return {{hosts.front(), true, {}, selection, {.is_whole = true}}};
    }
    std::vector<Part> parts(hosts.size());
    for (std::uint32_t slot = 0; slot < num_slots; ++slot) {
        parts[home_of_slot(slot, hosts)].slots.push_back(slot);
    }
    std::vector<Share> shares;
    for (std::size_t i = 0; i < hosts.size(); ++i) {
        if (!parts[i].slots.empty()) {
            shares.push_back({hosts[i], true, {}, selection, std::move(parts[i])});
        }
    }
    return shares;
}

Status LocalCluster::plan(const Selection &selection, std::span<const HostId> hosts,
                          const SearchCheck &check, std::vector<Share> &shares_out) {
    std::uint64_t num_records = 0;
    Status status = objects_.num_records(selection.app_id, num_records);
    if (status != OMRALIB_RET_SUCCESS) {
        return status;
    }
    if (num_records == 0) {
        shares_out.clear();
        return OMRALIB_RET_SUCCESS;
    }
    if (selection.limit == UINT64_MAX && (hosts.size() == 1 || num_records > few_objects)) {
        shares_out = divide(selection, hosts);
        return OMRALIB_RET_SUCCESS;
    }
    std::vector<Key> keys;
    status = find(objects_, selection, nullptr, keys, check);
    if (status == OMRALIB_RET_SUCCESS) {
        shares_out = deal_out(std::move(keys), hosts);
    }
    return status;
}

/* Requests and replies ------------------------------------------------------------------------ */

Status LocalCluster::send(Request request) {
    const HostId host = request.share.host;
    const std::size_t index = index_of(host);
    bool reachable = false;
    {
        const Guard guard(lock_);
        reachable = !gone_[index];
        if (reachable) {
            in_flight_.emplace(request.id, index);
        }
    }
    if (reachable) {
        couriers_[index]->send(std::move(request));
    } else {
        sink_->on_reply(host_gone(host, request.sender, request.id));
    }
    return OMRALIB_RET_SUCCESS;
}

/* Takes the request out of flight. False when it is not there; else at which host it was. */
bool LocalCluster::take_off(RequestId request, std::size_t &index_out) {
    const Guard guard(lock_);
    const auto found = in_flight_.find(request);
    if (found == in_flight_.end()) {
        return false;
    }
    index_out = found->second;
    in_flight_.erase(found);
    return true;
}

/* From the host's courier, or from the receiver when it has been handed over. */
void LocalCluster::take_back(std::size_t index, RequestId request) {
    if (!couriers_[index]->take_back(request)) {
        receiver_->withdraw(this_host(), request);
    }
}

Status LocalCluster::withdraw(const HostId &, RequestId request) {
    std::size_t index = 0;
    if (take_off(request, index)) {
        take_back(index, request);
    }
    return OMRALIB_RET_SUCCESS;
}

Status LocalCluster::progress_of(const HostId &, RequestId request, RequestProgress &progress_out) {
    progress_out = receiver_->progress_of(this_host(), request);
    return OMRALIB_RET_SUCCESS;
}

Status LocalCluster::renew(const HostId &, RequestId request) {
    receiver_->renew(this_host(), request);
    return OMRALIB_RET_SUCCESS;
}

Status LocalCluster::call_back(const HostId &host, const HostId &sender, RequestId request) {
    try {
        couriers_[index_of(host)]->call_back(sender, request);
    } catch (const std::exception &) {
        return OMRALIB_ERR_NO_SPACE;
    }
    return OMRALIB_RET_SUCCESS;
}

Status LocalCluster::on_reply(const Reply &reply) {
    std::size_t index = 0;
    return take_off(reply.request, index) ? sink_->on_reply(reply) : OMRALIB_ERR_BAD_ARGS;
}

} // namespace store
