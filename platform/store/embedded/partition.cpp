/* Finding and adding partitions. */
#include "embedded/partition.h"

namespace store {

std::uint64_t Partition::num_records(const SlotSet &slots) {
    std::uint64_t num = 0;
    for (std::size_t i = 0; i < num_shards; ++i) {
        num += slots.touches(i) ? shards[i].num_records() : 0;
    }
    return num;
}

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
    const Guard guard(adding_);
    if (Partition *partition = find(app_id)) {
        return *partition;
    }
    auto &bucket = buckets_[bucket_of(app_id)];
    auto *partition = new Partition(app_id, bucket.load(std::memory_order_relaxed), context_);
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

} // namespace store
