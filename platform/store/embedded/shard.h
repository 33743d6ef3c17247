/* A part of a partition: the records whose keys hash to it, their index, locks and time-outs.
 *
 * Every operation takes the shard's one lock for a short while. Blocks are made and copied before
 * the lock is taken and given back after it has been released.
 *
 * A record whose time-out has passed does not exist for any operation; it goes when a sweep or an
 * operation that changes or lists the shard meets it at the head of the expiry queue. A lock whose
 * lease is over is no lock for any operation; it goes when the next one is taken. */
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include <absl/container/btree_set.h>
#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include "common/word_lock.h"
#include "embedded/expiry.h"
#include "embedded/lock_waiters.h"
#include "embedded/memory_budget.h"
#include "embedded/object_index.h"
#include "embedded/query_plan.h"
#include "embedded/record.h"

namespace store {

std::uint64_t hash_of(const Key &key);

/* What the shards of an engine share. */
struct ShardContext {
    const Clock &clock;
    const Millis lock_lease;
    MemoryBudget &budget;
    LockWaiters &waiters;
    ExpirySink &expiry;
};

class alignas(64) Shard {
public:
    explicit Shard(const ShardContext &context) : context_(context) {}
    Shard(const Shard &) = delete;
    Shard &operator=(const Shard &) = delete;
    ~Shard();

    /* As the operations of Engine with these names; `hash` is the key's. The time is asked for only
     * when an object is stored and when one with a time-out or a lock is met. */
    Status create(RecordRef fresh, std::uint64_t hash, std::span<const OMRA_OBJ_INDEX> values);
    Status read(const Key &key, std::uint64_t hash, bool renew, ContentRef &content_out);
    Status update(const Key &key, std::uint64_t hash, int ticket, bool unlock, bool renew,
                  Bytes bytes);
    Status renew_lock(const Key &key, std::uint64_t hash, int ticket);
    Status unlock(const Key &key, std::uint64_t hash, int ticket);
    Status replace(RecordRef fresh, std::uint64_t hash, std::span<const OMRA_OBJ_INDEX> values);
    Status remove(const Key &key, std::uint64_t hash);
    Status exists(const Key &key, std::uint64_t hash);

    /* Reads and locks under a new ticket. When the object is locked and `mark` is set, whoever
     * gives that lock back will wake the waiters of the key. */
    Status lock(const Key &key, std::uint64_t hash, bool renew, int ticket, bool mark,
                ContentRef &content_out);

    /* Appends the keys of the selected records, in no order. */
    void collect(QueryPlan &plan, std::vector<Key> &keys);

    /* Adds what a query may expect of this shard. */
    void survey(QuerySurvey &survey);

    Totals totals();

    /* Looks at no more than `max_records` records whose time may be over, and takes out those whose
     * time is. When the next one is due: a moment that has passed when there was more to do. */
    Millis sweep(std::size_t max_records);

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

    struct Lease {
        Millis ends_at;
        bool waited_for = false;
    };

    bool is_expired(const Record &record) const;
    Record *find_live(const Key &key, std::uint64_t hash) const;
    void renew(Record &record) const;
    void enqueue(Record &record);
    void join(Record &fresh, std::span<const OMRA_OBJ_INDEX> values);
    void insert(RecordRef fresh, std::span<const OMRA_OBJ_INDEX> values);
    RecordRef put_in_place_of(Record &old, RecordRef fresh);
    RecordRef take(Record &record);
    Millis reap(std::size_t max_records, ExpiredRecords &expired);
    void reap_all();

    bool is_locked(const Record &record) const;
    bool holds(const Record &record, int ticket) const;
    bool end_lock(Record &record);

    const ShardContext &context_;

    WordLock lock_;

    /* Guarded by lock_. The set holds one reference to each record. */
    absl::flat_hash_set<Record *, KeyHash, KeyEqual> records_;
    std::uint64_t num_bytes_ = 0;
    ObjectIndex index_;
    absl::btree_set<std::pair<Millis, Record *>> expiry_; /* by queued_at; those with a time-out */
    absl::flat_hash_map<int, Lease> leases_;              /* of the records' tickets */
};

} // namespace store
