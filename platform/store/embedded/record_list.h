/* The records of each app id in the order in which they came, for those who go through all of them:
 * records that came one after the other mostly lie so in memory too.
 *
 * An entry keeps its place as long as its record, and the one that takes the record's place, is
 * stored; then it is used for another record. So a scan knows by an entry's age, not by its place,
 * what was there when it began. */
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "embedded/record.h"
#include "embedded/slots.h"

namespace store {

/* A place in the list. */
struct RecordEntry {
    union {
        Record *record = nullptr;
        RecordEntry *next_free; /* while it has no record */
    };
    std::uint64_t age_and_slot = 0; /* the age of the list when the record came; 0 without one */

    void come(Record &its_record, std::uint64_t its_age, std::uint32_t its_slot) {
        record = &its_record;
        age_and_slot = its_age << 8 | its_slot;
    }
    std::uint64_t age() const { return age_and_slot >> 8; }
    std::uint32_t slot() const { return static_cast<std::uint32_t>(age_and_slot & 0xFF); }
};

static_assert(sizeof(RecordEntry) == 16, "every object costs this much in the list");

/* Of one app id. Entries are made and changed under the lock of the record's shard, which is taken
 * before the list's own. */
class RecordList {
public:
    RecordList() = default;
    RecordList(const RecordList &) = delete;
    RecordList &operator=(const RecordList &) = delete;

    /* Throws std::bad_alloc and has changed nothing. */
    void add(Record &record, std::uint32_t slot);
    void replace(Record &old, Record &fresh);
    void remove(Record &record);

    /* Records; expired ones that have not been swept are among them. */
    std::size_t size() const { return num_records_.load(std::memory_order_relaxed); }

    /* How far a scan has come. */
    struct Place {
        std::uint64_t age = 0; /* of the scan: what is younger came later */
        std::size_t segment = 0;
        std::size_t entry = 0; /* of the segment */
    };

    Place begin_scan();

    /* `visit(record)` for up to `max` records that were there when the scan began, in `slots`, and
     * counts `max` down. False when there are no more. The visitor allocates nothing. */
    template <typename Visit>
    bool go_on(Place &place, std::size_t &max, const SlotSet &slots, Visit visit);

private:
    struct Segment {
        std::unique_ptr<RecordEntry[]> entries;
        std::size_t num = 0; /* that there are */
        std::size_t num_used = 0;
    };

    WordLock lock_; /* a leaf */
    std::uint64_t age_ ABSL_GUARDED_BY(lock_) = 1;
    std::vector<Segment> segments_ ABSL_GUARDED_BY(lock_);
    RecordEntry *first_free_ ABSL_GUARDED_BY(lock_) = nullptr;
    std::atomic<std::size_t> num_records_{0}; /* written under the lock */
};

template <typename Visit>
bool RecordList::go_on(Place &place, std::size_t &max, const SlotSet &slots, Visit visit) {
    constexpr std::size_t max_entries = 4096; /* under one holding of the lock */
    const Guard guard(lock_);
    std::size_t num_left = max_entries;
    while (place.segment < segments_.size()) {
        const Segment &segment = segments_[place.segment];
        for (; place.entry < segment.num_used; ++place.entry) {
            const RecordEntry &entry = segment.entries[place.entry];
            if (max == 0 || num_left-- == 0) {
                return true;
            }
            if (entry.age() != 0 && entry.age() < place.age && slots.contains(entry.slot())) {
                visit(*entry.record);
                --max;
            }
        }
        ++place.segment;
        place.entry = 0;
    }
    return false;
}

/* Of all app ids that have records. */
class RecordLists {
public:
    RecordLists() = default;
    RecordLists(const RecordLists &) = delete;
    RecordLists &operator=(const RecordLists &) = delete;

    /* The list of an app id, made if need be; it lives as long as somebody holds it. Throws
     * std::bad_alloc. */
    std::shared_ptr<RecordList> get(std::uint32_t app_id);

    /* nullptr when there is none. */
    std::shared_ptr<RecordList> find(std::uint32_t app_id);

private:
    void forget(std::uint32_t app_id) noexcept;

    Mutex lock_; /* taken after that of a shard */
    std::unordered_map<std::uint32_t, std::weak_ptr<RecordList>> lists_ ABSL_GUARDED_BY(lock_);
};

} // namespace store
