#include "embedded/embedded_engine.h"

#include <algorithm>

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

} // namespace

/* The directory ----------------------------------------------------------------------------------
 */

PartitionDirectory::~PartitionDirectory() {
    for (Partition *partition : all()) {
        delete partition;
    }
}

Partition *PartitionDirectory::find(std::uint32_t app_id) const {
    Partition *partition = buckets_[bucket_of(app_id)].load(std::memory_order_acquire);
    while (partition != nullptr && partition->app_id != app_id) {
        partition = partition->next;
    }
    return partition;
}

Partition &PartitionDirectory::find_or_add(std::uint32_t app_id) {
    if (Partition *partition = find(app_id)) {
        return *partition;
    }
    const std::lock_guard guard(adding_);
    if (Partition *partition = find(app_id)) {
        return *partition;
    }
    auto &bucket = buckets_[bucket_of(app_id)];
    auto *partition = new Partition(app_id, bucket.load(std::memory_order_relaxed));
    bucket.store(partition, std::memory_order_release);
    return *partition;
}

std::vector<Partition *> PartitionDirectory::all() const {
    std::vector<Partition *> partitions;
    for (const auto &bucket : buckets_) {
        Partition *partition = bucket.load(std::memory_order_acquire);
        for (; partition != nullptr; partition = partition->next) {
            partitions.push_back(partition);
        }
    }
    return partitions;
}

/* Objects ----------------------------------------------------------------------------------------
 */

/* Unlike any other ticket until 2^31 - 1 more locks have been taken, and never 0. */
int EmbeddedEngine::next_ticket() {
    return static_cast<int>(last_ticket_.fetch_add(1, std::memory_order_relaxed) % INT32_MAX) + 1;
}

Status EmbeddedEngine::create(const Key &key, const ObjectSpec &spec) {
    const std::uint64_t hash = hash_of(key);
    Shard &shard = directory_.find_or_add(key.app_id).shard_of(hash);
    return shard.create(make_record(key, spec.timeout_m, spec.bytes), hash, spec.values, clock_);
}

Status EmbeddedEngine::read(const Key &key, bool renew, ContentRef &content_out) {
    Partition *partition = directory_.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    return partition->shard_of(hash).read(key, hash, renew, clock_, content_out);
}

int EmbeddedEngine::read_and_lock(const Key &key, bool renew, ContentRef &content_out) {
    Partition *partition = directory_.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    const int ticket = next_ticket();
    const Status status =
        partition->shard_of(hash).lock(key, hash, renew, clock_, ticket, content_out);
    return status == OMRALIB_RET_SUCCESS ? ticket : status;
}

Status EmbeddedEngine::update(const Key &key, int ticket, bool unlock, bool renew, Bytes bytes) {
    Partition *partition = directory_.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    return partition->shard_of(hash).update(key, hash, ticket, unlock, renew, clock_, bytes);
}

Status EmbeddedEngine::unlock(const Key &key, int ticket) {
    Partition *partition = directory_.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    return partition->shard_of(hash).unlock(key, hash, ticket, clock_);
}

Status EmbeddedEngine::replace(const Key &key, const ObjectSpec &spec) {
    Partition *partition = directory_.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    return partition->shard_of(hash).replace(make_record(key, spec.timeout_m, spec.bytes), hash,
                                             spec.values, clock_);
}

Status EmbeddedEngine::remove(const Key &key) {
    Partition *partition = directory_.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    return partition->shard_of(hash).remove(key, hash, clock_);
}

Status EmbeddedEngine::exists(const Key &key) {
    Partition *partition = directory_.find(key.app_id);
    if (partition == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const std::uint64_t hash = hash_of(key);
    return partition->shard_of(hash).exists(key, hash, clock_);
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
    for (Partition *partition : partitions_of(selection.app_id)) {
        for (Shard &shard : partition->shards) {
            shard.collect(selection, clock_, keys);
        }
    }
    std::sort(keys.begin(), keys.end(), KeyLess());
    keys_out = std::move(keys);
    return OMRALIB_RET_SUCCESS;
}

Status EmbeddedEngine::count(std::uint32_t app_id, std::uint64_t &count_out) {
    std::uint64_t sum = 0;
    for (Partition *partition : partitions_of(app_id)) {
        for (Shard &shard : partition->shards) {
            sum += shard.totals(clock_).num_objects;
        }
    }
    count_out = sum;
    return OMRALIB_RET_SUCCESS;
}

Totals EmbeddedEngine::totals() {
    Totals sum;
    for (Partition *partition : directory_.all()) {
        for (Shard &shard : partition->shards) {
            const Totals totals = shard.totals(clock_);
            sum.num_objects += totals.num_objects;
            sum.num_bytes += totals.num_bytes;
        }
    }
    return sum;
}

/* Names and hosts --------------------------------------------------------------------------------
 */

void EmbeddedEngine::attach(RequestReceiver &receiver, ReplySink &sink) {
    receiver_ = &receiver;
    sink_ = &sink;
    courier_ = std::make_unique<Courier>(receiver, sink);
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
    const std::lock_guard guard(names_lock_);
    if (serving) {
        served_.insert(app_id);
    } else {
        served_.erase(app_id);
    }
}

std::vector<HostId> EmbeddedEngine::hosts_serving(std::uint32_t app_id) {
    const std::lock_guard guard(names_lock_);
    return served_.contains(app_id) ? std::vector{the_host} : std::vector<HostId>{};
}

std::vector<HostId> EmbeddedEngine::hosts_serving_any() {
    const std::lock_guard guard(names_lock_);
    return served_.empty() ? std::vector<HostId>{} : std::vector{the_host};
}

std::vector<Share> EmbeddedEngine::share_out(std::vector<Key> keys, std::span<const HostId> hosts) {
    std::vector<Share> shares;
    if (!keys.empty()) {
        shares.push_back({hosts.front(), std::move(keys)});
    }
    return shares;
}

void EmbeddedEngine::send(HostId, std::shared_ptr<const Request> request) {
    courier_->send(std::move(request));
}

void EmbeddedEngine::withdraw(HostId, RequestId request) {
    if (!courier_->take_back(request)) {
        receiver_->withdraw(the_host, request);
    }
}

Status EmbeddedEngine::reply(const Reply &reply) {
    return sink_->on_reply(reply);
}

} // namespace store
