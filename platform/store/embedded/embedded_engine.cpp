#include "embedded/embedded_engine.h"

#include <algorithm>

#include "embedded/key_sort.h"

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

Totals sum_up(const std::vector<Partition *> &partitions) {
    Totals sum;
    for (Partition *partition : partitions) {
        for (Shard &shard : partition->shards) {
            const Totals totals = shard.totals();
            sum.num_objects += totals.num_objects;
            sum.num_bytes += totals.num_bytes;
        }
    }
    return sum;
}

/* Puts the first `limit` keys in key order and drops the others. */
void keep_first(std::vector<Key> &keys, std::uint64_t limit) {
    if (limit < keys.size()) {
        const auto end = keys.begin() + static_cast<std::ptrdiff_t>(limit);
        std::partial_sort(keys.begin(), end, keys.end(), KeyLess());
        keys.erase(end, keys.end());
    } else {
        sort_keys(keys);
    }
}

} // namespace

EmbeddedEngine::EmbeddedEngine(Clock &clock, const Configuration &configuration)
    : context_{clock, configuration.lock_lease, budget_, waiters_, sweeper_},
      hosts_(configuration.num_hosts, configuration.deliver_inline),
      budget_(configuration.memory_limit), waiters_(clock), directory_(context_),
      sweeper_(clock, directory_) {}

/* Objects ----------------------------------------------------------------------------------------
 */

/* Unlike any other ticket until 2^31 - 1 more locks have been taken, and never 0. */
int EmbeddedEngine::next_ticket() {
    return static_cast<int>(last_ticket_.fetch_add(1, std::memory_order_relaxed) % INT32_MAX) + 1;
}

Status EmbeddedEngine::create(const Key &key, const ObjectSpec &spec) {
    const std::uint64_t hash = hash_of(key);
    Shard &shard = directory_.find_or_add(key.app_id).shard_of(hash);
    return shard.create(make_record(key, spec.timeout_m, spec.bytes), hash, spec.values);
}

Status EmbeddedEngine::read(const Key &key, bool renew, ContentRef &content_out) {
    Partition *partition = directory_.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    return partition->shard_of(hash).read(key, hash, renew, content_out);
}

int EmbeddedEngine::read_and_lock(const Key &key, bool renew, Millis patience,
                                  ContentRef &content_out) {
    Partition *partition = directory_.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    const int ticket = next_ticket();
    const auto attempt = [&](bool mark) {
        return partition->shard_of(hash).lock(key, hash, renew, ticket, mark, content_out);
    };
    Status status = attempt(false);
    if (status == OMRALIB_ERR_OBJ_LOCKED && patience > 0) {
        status = waiters_.try_until_free(key, patience, [&] { return attempt(true); });
    }
    return status == OMRALIB_RET_SUCCESS ? ticket : status;
}

Status EmbeddedEngine::renew_lock(const Key &key, int ticket) {
    Partition *partition = directory_.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    return partition->shard_of(hash).renew_lock(key, hash, ticket);
}

Status EmbeddedEngine::update(const Key &key, int ticket, bool unlock, bool renew, Bytes bytes) {
    Partition *partition = directory_.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    return partition->shard_of(hash).update(key, hash, ticket, unlock, renew, bytes);
}

Status EmbeddedEngine::unlock(const Key &key, int ticket) {
    Partition *partition = directory_.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    return partition->shard_of(hash).unlock(key, hash, ticket);
}

Status EmbeddedEngine::replace(const Key &key, const ObjectSpec &spec) {
    Partition *partition = directory_.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    return partition->shard_of(hash).replace(make_record(key, spec.timeout_m, spec.bytes), hash,
                                             spec.values);
}

Status EmbeddedEngine::remove(const Key &key) {
    Partition *partition = directory_.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    return partition->shard_of(hash).remove(key, hash);
}

Status EmbeddedEngine::exists(const Key &key) {
    Partition *partition = directory_.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    return partition->shard_of(hash).exists(key, hash);
}

/* Sets of objects --------------------------------------------------------------------------------
 */

std::vector<Partition *> EmbeddedEngine::partitions_of(std::uint32_t app_id) const {
    if (app_id == OMRALIB_ALL_APP_IDS) {
        std::vector<Partition *> partitions = directory_.all();
        std::erase_if(partitions, [](const Partition *partition) {
            return partition->app_id > last_ordinary_app_id;
        });
        return partitions;
    }
    Partition *partition = directory_.find(app_id);
    return partition != nullptr ? std::vector{partition} : std::vector<Partition *>{};
}

Status EmbeddedEngine::find(const Selection &selection, std::vector<Key> &keys_out) {
    std::vector<Key> keys;
    QueryPlan plan(selection, second_of(context_.clock.now()));
    const std::vector<Partition *> partitions = partitions_of(selection.app_id);
    if (plan.selects_all()) {
        keys.reserve(sum_up(partitions).num_objects);
    }
    for (Partition *partition : partitions) {
        for (Shard &shard : partition->shards) {
            shard.collect(plan, keys);
        }
    }
    num_examined_.fetch_add(plan.num_examined(), std::memory_order_relaxed);
    keep_first(keys, selection.limit);
    keys_out = std::move(keys);
    return OMRALIB_RET_SUCCESS;
}

Status EmbeddedEngine::explain(const Selection &selection, Explanation &explanation_out) {
    QuerySurvey survey(selection, second_of(context_.clock.now()));
    for (Partition *partition : partitions_of(selection.app_id)) {
        for (Shard &shard : partition->shards) {
            shard.survey(survey);
        }
    }
    explanation_out = survey.explain();
    return OMRALIB_RET_SUCCESS;
}

Totals EmbeddedEngine::totals_of(std::uint32_t app_id) {
    return sum_up(partitions_of(app_id));
}

Totals EmbeddedEngine::totals() {
    return sum_up(directory_.all());
}

Activity EmbeddedEngine::activity() {
    return {sweeper_.num_expired(), waiters_.num_waits()};
}

/* Names and hosts --------------------------------------------------------------------------------
 */

void EmbeddedEngine::attach(RequestReceiver &receiver, ReplySink &sink, EventReceiver &events) {
    hosts_.attach(receiver, sink);
    sweeper_.attach(events);
}

void EmbeddedEngine::detach() {
    hosts_.detach();
    sweeper_.stop();
}

Status EmbeddedEngine::bind_name(std::string_view name, std::uint32_t &app_id_out) {
    const std::lock_guard guard(names_lock_);
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

void EmbeddedEngine::announce(std::uint32_t app_id, bool serving) {
    directory_.find_or_add(app_id).wants_events = serving;
    hosts_.announce(app_id, serving);
}

std::vector<HostId> EmbeddedEngine::hosts_serving(std::uint32_t app_id) {
    return hosts_.serving(app_id);
}

std::vector<HostId> EmbeddedEngine::hosts_serving_any() {
    return hosts_.serving_any();
}

std::vector<Share> EmbeddedEngine::share_out(std::vector<Key> keys, std::span<const HostId> hosts) {
    return hosts_.share_out(std::move(keys), hosts);
}

void EmbeddedEngine::send(HostId host, std::shared_ptr<const Request> request) {
    hosts_.send(host, std::move(request));
}

void EmbeddedEngine::withdraw(HostId, RequestId request) {
    hosts_.withdraw(request);
}

std::uint32_t EmbeddedEngine::num_begun(HostId, RequestId request) {
    return hosts_.num_begun(request);
}

Status EmbeddedEngine::reply(const Reply &reply) {
    return hosts_.on_reply(reply);
}

Status EmbeddedEngine::declare_gone(HostId host) {
    return hosts_.declare_gone(host);
}

} // namespace store
