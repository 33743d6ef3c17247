/* The objects of the embedded engine by app id: one partition for each, divided into shards. */
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <utility>
#include <vector>

#include "embedded/shard.h"

namespace store {

/* All objects of one app id. */
struct Partition {

    Partition(std::uint32_t its_app_id, Partition *its_next, const ShardContext &context)
        : app_id(its_app_id), next(its_next),
          shards(make_shards(context, std::make_index_sequence<num_shards>())) {}

    /* By the top bits of the hash; the sets inside the shards use the others. */
    Shard &shard_of(std::uint64_t hash) { return shards[shard_of_slot(slot_of(hash))]; }

    /* In the shards that these slots touch. */
    std::uint64_t num_records(const SlotSet &slots);

    const std::uint32_t app_id;
    Partition *const next;                 /* in the same bucket of the directory */
    std::atomic<bool> wants_events{false}; /* self-synchronised: somebody handles the app id */
    std::array<Shard, num_shards> shards;

private:
    template <std::size_t... I>
    static std::array<Shard, num_shards> make_shards(const ShardContext &context,
                                                     std::index_sequence<I...>) {
        return {{(static_cast<void>(I), Shard(context))...}};
    }
};

/* The partitions by app id: found without a lock; they stay until the directory goes. */
class PartitionDirectory {
public:
    /* `context` outlives the directory. */
    explicit PartitionDirectory(const ShardContext &context) : context_(context) {}
    PartitionDirectory(const PartitionDirectory &) = delete;
    PartitionDirectory &operator=(const PartitionDirectory &) = delete;
    ~PartitionDirectory();

    Partition *find(std::uint32_t app_id) const;
    Partition &find_or_add(std::uint32_t app_id);
    std::vector<Partition *> all() const;

private:
    static constexpr std::size_t num_buckets = 1024;

    static std::size_t bucket_of(std::uint32_t app_id) { return app_id % num_buckets; }

    const ShardContext &context_;
    std::array<std::atomic<Partition *>, num_buckets>
        buckets_{}; /* lists that only grow at the head */
    Mutex adding_;
};

} // namespace store
