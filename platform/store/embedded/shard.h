/* A part of the key space: the records whose keys hash to it, their indexes, locks and time-outs.
 * What belongs to one app id is a section of the shard, which comes with its first record and goes
 * soon after its last.
 *
 * Every operation takes the shard's one lock for a short while. Blocks are made and copied before
 * the lock is taken and given back after it has been released.
 *
 * A record whose time-out has passed does not exist for any operation; it goes when a sweep or an
 * operation that changes or lists the shard meets it at the head of the expiry queue. A lock whose
 * lease is over is no lock for any operation; it goes when the next one is taken.
 *
 * An operation that runs out of memory leaves everything as it was: what it needs is made before
 * the first change, and tables that only hold what is stored already need nothing. */
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "embedded/expiry.h"
#include "embedded/lock_waiters.h"
#include "embedded/memory_budget.h"
#include "embedded/object_index.h"
#include "embedded/query_plan.h"
#include "embedded/record.h"
#include "embedded/record_list.h"
#include "embedded/record_table.h"
#include "embedded/slots.h"
#include "engine/objects.h"

namespace store {

/* What the shards of an engine share. */
struct ShardContext {
    const Clock &clock;
    const Millis lock_lease;
    MemoryBudget &budget;
    LockWaiters &waiters;
    RecordLists &lists;
    ExpirySink &expiry;
};

class alignas(64) Shard {
public:
    explicit Shard(const ShardContext &context) : context_(context) {}
    Shard(const Shard &) = delete;
    Shard &operator=(const Shard &) = delete;
    ~Shard();

    /* As the operations of Objects with these names; `hash` is the key's. The time is asked for
     * only when an object is stored and when one with a time-out or a lock is met. */
    Status create(RecordRef fresh, std::uint64_t hash, std::span<const OMRA_OBJ_INDEX> values);
    Status read(const Key &key, std::uint64_t hash, bool renew, Content &content_out);
    Status update(const Key &key, std::uint64_t hash, int ticket, bool unlock, bool renew,
                  Bytes bytes);
    Status renew_lock(const Key &key, std::uint64_t hash, int ticket);
    Status unlock(const Key &key, std::uint64_t hash, int ticket);
    Status replace(RecordRef fresh, std::uint64_t hash, std::span<const OMRA_OBJ_INDEX> values);
    Status remove(const Key &key, std::uint64_t hash);
    Status exists(const Key &key, std::uint64_t hash);
    Status touch(const Key &key, std::uint64_t hash);

    /* Reads and locks under a new ticket. When the object is locked and `mark` is set, whoever
     * gives that lock back will wake the waiters of the key. */
    Status lock(const Key &key, std::uint64_t hash, bool renew, int ticket, bool mark,
                Content &content_out);

    /* Appends the keys of the records of an app id for which a query holds, in no order; only those
     * in `slots` unless that is nullptr. Those that would take too long come to `untested`, for
     * collect_some(). */
    void collect(std::uint32_t app_id, QueryPlan &plan, const SlotSet *slots,
                 std::vector<Key> &keys, std::vector<RecordRef> &untested);

    /* Takes some of `untested` off the list, and appends the keys of those that are selected. */
    void collect_some(std::uint32_t app_id, QueryPlan &plan, std::vector<Key> &keys,
                      std::vector<RecordRef> &untested);

    /* Adds what a query may expect of an app id in this shard. */
    void survey(std::uint32_t app_id, QuerySurvey &survey);

    /* Adds the app ids of the records. */
    void add_app_ids(std::set<std::uint32_t> &app_ids);

    /* Of an app id, and of all. */
    Totals totals_of(std::uint32_t app_id);
    Totals totals();

    /* Expired ones that have not been swept are among them. */
    std::size_t num_records(std::uint32_t app_id);

    /* Looks at no more than `max_records` records whose time may be over, and takes out those whose
     * time is. When the next one is due: a moment that has passed when there was more to do. */
    Millis sweep(std::size_t max_records);

private:
    /* Records by the moment at which they are looked at. */
    using ExpiryQueue = std::set<std::pair<Millis, Record *>>;

    /* The records of one app id. */
    struct Section {
        RecordTable records;              /* with one reference to each */
        std::shared_ptr<RecordList> list; /* of the app id, in which they are */
        std::uint64_t num_bytes = 0;
        ObjectIndex index;
    };

    /* The records that a search looks at. */
    class Gathering;

    struct Lease {
        Millis ends_at;
        bool waited_for = false;
    };

    bool is_expired(const Record &record) const;
    Record *find(const Key &key, std::uint64_t hash) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    Record *find_live(const Key &key, std::uint64_t hash) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    Section *section_of(std::uint32_t app_id) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    void note_emptied(std::uint32_t app_id) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    void renew(Record &record) const;
    void enqueue(Record &record) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    ExpiryQueue::node_type take_place(const Record &record) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    void give_place(ExpiryQueue::node_type place, Millis moment, Record &record)
        ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    void join(Section &section, Record &fresh, std::span<const OMRA_OBJ_INDEX> values)
        ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    void insert(RecordRef fresh, std::uint64_t hash, std::span<const OMRA_OBJ_INDEX> values)
        ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    RecordRef put_in_place_of(Section &section, Record &old, RecordRef fresh)
        ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    RecordRef take(Record &record) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    Millis reap(std::size_t max_records, ExpiredRecords &expired)
        ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    void reap_all();
    static void test_or_put_off(QueryPlan &plan, const Gathering &gathering, std::vector<Key> &keys,
                                std::vector<RecordRef> &untested);

    bool is_locked(const Record &record) const ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    bool holds(const Record &record, int ticket) const ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    bool end_lock(Record &record) ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);

    const ShardContext &context_;

    WordLock lock_;

    std::unordered_map<std::uint32_t, Section> sections_ ABSL_GUARDED_BY(lock_); /* by app id */
    std::pair<std::uint32_t, Section *> last_used_ ABSL_GUARDED_BY(lock_){};
    std::optional<std::uint32_t> last_emptied_ ABSL_GUARDED_BY(lock_); /* the one without records */
    ExpiryQueue expiry_ ABSL_GUARDED_BY(lock_); /* by queued_at; those with a time-out */
    std::unordered_map<int, Lease> leases_ ABSL_GUARDED_BY(lock_); /* of the records' tickets */
};

using Shards = std::array<Shard, num_shards>;

} // namespace store
