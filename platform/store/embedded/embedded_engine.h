/* The engine in this process's memory: the default.
 *
 *   EmbeddedEngine -> Partition (one per app id) -> Shard (by hash of the key) -> Record
 *
 * Partitions are found without a lock and never go away; a shard has a lock of its own, so that
 * threads which use different objects rarely meet. This process is the only host: requests reach
 * its receiver on the courier's thread, and replies its sink on the thread that replies. */
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include <absl/container/flat_hash_set.h>

#include "embedded/courier.h"
#include "embedded/shard.h"
#include "engine.h"

namespace store {

/* All objects of one app id. */
struct Partition {
    static constexpr std::size_t num_shards = 32;

    Partition(std::uint32_t its_app_id, Partition *its_next) : app_id(its_app_id), next(its_next) {}

    /* By the top bits of the hash; the sets inside the shards use the others. */
    Shard &shard_of(std::uint64_t hash) { return shards[hash >> 59]; }

    const std::uint32_t app_id;
    Partition *const next; /* in the same bucket of the directory */
    std::array<Shard, num_shards> shards;
};

/* The partitions by app id. */
class PartitionDirectory {
public:
    PartitionDirectory() = default;
    PartitionDirectory(const PartitionDirectory &) = delete;
    PartitionDirectory &operator=(const PartitionDirectory &) = delete;
    ~PartitionDirectory();

    Partition *find(std::uint32_t app_id) const;
    Partition &find_or_add(std::uint32_t app_id);
    std::vector<Partition *> all() const;

private:
    static constexpr std::size_t num_buckets = 1024;

    static std::size_t bucket_of(std::uint32_t app_id) { return app_id % num_buckets; }

    std::array<std::atomic<Partition *>, num_buckets>
        buckets_{}; /* lists that only grow at the head */
    std::mutex adding_;
};

class EmbeddedEngine final : public Engine {
public:
    /* `clock` outlives the engine. */
    explicit EmbeddedEngine(const Clock &clock) : clock_(clock) {}

    void attach(RequestReceiver &receiver, ReplySink &sink) override;
    void detach() override { courier_.reset(); }

    Status create(const Key &key, const ObjectSpec &spec) override;
    Status read(const Key &key, bool renew, ContentRef &content_out) override;
    int read_and_lock(const Key &key, bool renew, ContentRef &content_out) override;
    Status update(const Key &key, int ticket, bool unlock, bool renew, Bytes bytes) override;
    Status unlock(const Key &key, int ticket) override;
    Status replace(const Key &key, const ObjectSpec &spec) override;
    Status remove(const Key &key) override;
    Status exists(const Key &key) override;

    Status find(const Selection &selection, std::vector<Key> &keys_out) override;
    Status count(std::uint32_t app_id, std::uint64_t &count_out) override;
    Totals totals() override;

    Status bind_name(std::string_view name, std::uint32_t &app_id_out) override;
    HostId this_host() const override { return the_host; }
    void announce(std::uint32_t app_id, bool serving) override;
    std::vector<HostId> hosts_serving(std::uint32_t app_id) override;
    std::vector<HostId> hosts_serving_any() override;
    std::vector<Share> share_out(std::vector<Key> keys, std::span<const HostId> hosts) override;
    void send(HostId host, std::shared_ptr<const Request> request) override;
    void withdraw(HostId host, RequestId request) override;
    Status reply(const Reply &reply) override;

private:
    static constexpr HostId the_host = 1;

    std::vector<Partition *> partitions_of(std::uint32_t app_id) const;
    int next_ticket();

    /* Constant after set-up. */
    const Clock &clock_;
    RequestReceiver *receiver_ = nullptr;
    ReplySink *sink_ = nullptr;

    /* Self-synchronised. */
    PartitionDirectory directory_;
    std::atomic<std::uint32_t> last_ticket_{0};

    std::mutex names_lock_;                                   /* a leaf */
    std::map<std::string, std::uint32_t, std::less<>> names_; /* guarded by names_lock_ */
    absl::flat_hash_set<std::uint32_t> served_;               /* guarded by names_lock_ */

    std::unique_ptr<Courier> courier_; /* constant between attach() and detach() */
};

} // namespace store
