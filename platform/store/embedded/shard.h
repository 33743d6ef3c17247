/* A part of a partition: the records whose keys hash to it, their index and their time-outs.
 *
 * Every operation takes the shard's one lock for a short while. Blocks are made and copied before
 * the lock is taken and given back after it has been released. A record whose time-out has passed
 * does not exist for any operation; its memory goes when a later operation that changes or lists
 * the shard meets it at the head of the expiry queue. */
#pragma once

#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include <absl/container/btree_set.h>
#include <absl/container/flat_hash_set.h>

#include "embedded/object_index.h"
#include "embedded/record.h"
#include "embedded/short_lock.h"

namespace store {

std::uint64_t hash_of(const Key &key);

class alignas(64) Shard {
public:
    Shard() = default;
    Shard(const Shard &) = delete;
    Shard &operator=(const Shard &) = delete;
    ~Shard();

    /* As the operations of Engine with these names; `hash` is the key's. The time is asked for only
     * when an object with a time-out is met. */
    Status create(RecordRef fresh, std::uint64_t hash, std::span<const OMRA_OBJ_INDEX> values,
                  const Clock &clock);
    Status read(const Key &key, std::uint64_t hash, bool renew, const Clock &clock,
                ContentRef &content_out);
    Status lock(const Key &key, std::uint64_t hash, bool renew, const Clock &clock, int ticket,
                ContentRef &content_out);
    Status update(const Key &key, std::uint64_t hash, int ticket, bool unlock, bool renew,
                  const Clock &clock, Bytes bytes);
    Status unlock(const Key &key, std::uint64_t hash, int ticket, const Clock &clock);
    Status replace(RecordRef fresh, std::uint64_t hash, std::span<const OMRA_OBJ_INDEX> values,
                   const Clock &clock);
    Status remove(const Key &key, std::uint64_t hash, const Clock &clock);
    Status exists(const Key &key, std::uint64_t hash, const Clock &clock);

    /* Appends the keys of the selected records, in no order. */
    void collect(const Selection &selection, const Clock &clock, std::vector<Key> &keys);

    Totals totals(const Clock &clock);

private:
    struct KeyHash {
        using is_transparent = void;
        std::size_t operator()(const Key &key) const { return hash_of(key); }
        std::size_t operator()(const Record *record) const { return hash_of(record->key); }
    };
    struct KeyEqual {
        using is_transparent = void;
        static const Key &key_of(const Key &key) { return key; }
        static const Key &key_of(const Record *record) { return record->key; }
        template <typename A, typename B>
        bool operator()(const A &a, const B &b) const {
            return order_of(key_of(a), key_of(b)) == 0;
        }
    };

    /* Blocks that an operation takes out of the shard; declared before its lock guard, so that they
     * are given back when the lock has been released. */
    using Dropped = std::vector<RecordRef>;

    Record *find_live(const Key &key, std::uint64_t hash, const Clock &clock) const;
    static void renew(Record &record, const Clock &clock);
    void enqueue(Record &record);
    void join(Record &fresh, std::span<const OMRA_OBJ_INDEX> values, const Clock &clock);
    void insert(RecordRef fresh, std::span<const OMRA_OBJ_INDEX> values, const Clock &clock);
    RecordRef put_in_place_of(Record &old, RecordRef fresh);
    RecordRef take(Record &record);
    bool reap(const Clock &clock, std::size_t max_records, Dropped &dropped);
    void reap_all(const Clock &clock);

    ShortLock lock_;

    /* Guarded by lock_. The set holds one reference to each record. */
    absl::flat_hash_set<Record *, KeyHash, KeyEqual> records_;
    std::uint64_t num_bytes_ = 0;
    ObjectIndex index_;
    absl::btree_set<std::pair<Millis, Record *>> expiry_; /* by queued_at; those with a time-out */
};

} // namespace store
