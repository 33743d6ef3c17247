#include "embedded/shard.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace store {

namespace {

/* What a changing operation reaps on its way: more than it can add, so that expired records cannot
 * pile up while a shard is in use. */
constexpr std::size_t reap_on_the_way = 4;

/* What is reaped under one holding of the lock. */
constexpr std::size_t reap_batch = 256;

bool is_expired(const Record &record, const Clock &clock) {
    return record.timeout_m != 0 && record.expires_at <= clock.now();
}

} // namespace

std::uint64_t hash_of(const Key &key) {
    return XXH3_64bits(&key, sizeof key);
}

Shard::~Shard() {
    for (Record *record : records_) {
        index_.detach(*record);
        record->release();
    }
}

/* Under the lock ---------------------------------------------------------------------------------
 */

Record *Shard::find_live(const Key &key, std::uint64_t hash, const Clock &clock) const {
    const auto found = records_.find(key, hash);
    if (found == records_.end() || is_expired(**found, clock)) {
        return nullptr;
    }
    return *found;
}

/* The record keeps its place in the expiry queue, which is then too early; reap() moves it on. */
void Shard::renew(Record &record, const Clock &clock) {
    if (record.timeout_m != 0) {
        record.expires_at = clock.now() + record.lifetime();
    }
}

void Shard::enqueue(Record &record) {
    if (record.timeout_m != 0) {
        expiry_.emplace(record.expires_at, &record);
        record.queued_at = record.expires_at;
    }
}

/* Brings a new record into the index and the expiry queue. Changes nothing when it throws. */
void Shard::join(Record &fresh, std::span<const OMRA_OBJ_INDEX> values, const Clock &clock) {
    index_.attach(fresh, values);
    try {
        renew(fresh, clock);
        enqueue(fresh);
    } catch (...) {
        index_.detach(fresh);
        throw;
    }
}

/* Puts in a record whose key is free. Changes nothing when it throws. */
void Shard::insert(RecordRef fresh, std::span<const OMRA_OBJ_INDEX> values, const Clock &clock) {
    const auto slot = records_.insert(fresh.get()).first;
    try {
        join(*fresh.get(), values, clock);
    } catch (...) {
        records_.erase(slot);
        throw;
    }
    num_bytes_ += fresh->length();
    fresh.detach();
}

/* Makes `fresh`, which has joined, the record of its key, and takes out the old one, which has left
 * the index. */
RecordRef Shard::put_in_place_of(Record &old, RecordRef fresh) {
    if (old.timeout_m != 0) {
        expiry_.erase({old.queued_at, &old});
    }
    num_bytes_ += fresh->length();
    num_bytes_ -= old.length();
    /* Equal keys, hence the same place in the set. */
    const_cast<Record *&>(*records_.find(&old)) = fresh.detach();
    return RecordRef::adopt(&old);
}

/* Takes a record out of the shard, whatever holds it there. */
RecordRef Shard::take(Record &record) {
    if (record.timeout_m != 0) {
        expiry_.erase({record.queued_at, &record});
    }
    index_.detach(record);
    num_bytes_ -= record.length();
    records_.erase(&record);
    return RecordRef::adopt(&record);
}

/* Looks at up to `max_records` records whose turn in the expiry queue has come: drops the expired
 * and moves the renewed on. False when no other record's turn has come. */
bool Shard::reap(const Clock &clock, std::size_t max_records, Dropped &dropped) {
    if (expiry_.empty()) {
        return false;
    }
    const Millis now = clock.now();
    dropped.reserve(dropped.size() + max_records);
    for (std::size_t i = 0; i < max_records; ++i) {
        const auto head = expiry_.begin();
        if (head == expiry_.end() || head->first > now) {
            return false;
        }
        Record &record = *head->second;
        if (record.expires_at <= now) {
            dropped.push_back(take(record));
        } else {
            const Millis queued_at = record.queued_at;
            enqueue(record);
            expiry_.erase({queued_at, &record});
        }
    }
    return true;
}

/* Operations -------------------------------------------------------------------------------------
 */

Status Shard::create(RecordRef fresh, std::uint64_t hash, std::span<const OMRA_OBJ_INDEX> values,
                     const Clock &clock) {
    Dropped dropped;
    const std::lock_guard guard(lock_);
    reap(clock, reap_on_the_way, dropped);
    const auto found = records_.find(fresh->key, hash);
    if (found != records_.end()) {
        if (!is_expired(**found, clock)) {
            return OMRALIB_ERR_OBJ_EXISTS;
        }
        dropped.reserve(dropped.size() + 1);
        dropped.push_back(take(**found));
    }
    insert(std::move(fresh), values, clock);
    return OMRALIB_RET_SUCCESS;
}

Status Shard::read(const Key &key, std::uint64_t hash, bool renewing, const Clock &clock,
                   ContentRef &content_out) {
    const std::lock_guard guard(lock_);
    Record *record = find_live(key, hash, clock);
    if (record == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    if (renewing) {
        renew(*record, clock);
    }
    content_out = RecordRef::share(record);
    return OMRALIB_RET_SUCCESS;
}

Status Shard::lock(const Key &key, std::uint64_t hash, bool renewing, const Clock &clock,
                   int ticket, ContentRef &content_out) {
    const std::lock_guard guard(lock_);
    Record *record = find_live(key, hash, clock);
    if (record == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    if (record->ticket != OMRALIB_NULL_LOCK_TKT) {
        return OMRALIB_ERR_OBJ_LOCKED;
    }
    record->ticket = ticket;
    if (renewing) {
        renew(*record, clock);
    }
    content_out = RecordRef::share(record);
    return OMRALIB_RET_SUCCESS;
}

Status Shard::update(const Key &key, std::uint64_t hash, int ticket, bool unlocking, bool renewing,
                     const Clock &clock, Bytes bytes) {
    RecordRef fresh = make_record(key, 0, bytes);
    RecordRef old;
    const std::lock_guard guard(lock_);
    Record *record = find_live(key, hash, clock);
    if (record == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    if (record->ticket != ticket) {
        return OMRALIB_ERR_LOCK_LOST;
    }
    fresh->timeout_m = record->timeout_m;
    fresh->expires_at = record->expires_at;
    fresh->ticket = unlocking ? OMRALIB_NULL_LOCK_TKT : ticket;
    if (renewing) {
        renew(*fresh.get(), clock);
    }
    enqueue(*fresh.get());
    ObjectIndex::move_entries(*record, *fresh.get());
    old = put_in_place_of(*record, std::move(fresh));
    return OMRALIB_RET_SUCCESS;
}

Status Shard::unlock(const Key &key, std::uint64_t hash, int ticket, const Clock &clock) {
    const std::lock_guard guard(lock_);
    Record *record = find_live(key, hash, clock);
    if (record == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    if (record->ticket != ticket) {
        return OMRALIB_ERR_LOCK_LOST;
    }
    record->ticket = OMRALIB_NULL_LOCK_TKT;
    return OMRALIB_RET_SUCCESS;
}

Status Shard::replace(RecordRef fresh, std::uint64_t hash, std::span<const OMRA_OBJ_INDEX> values,
                      const Clock &clock) {
    RecordRef old;
    const std::lock_guard guard(lock_);
    Record *record = find_live(fresh->key, hash, clock);
    if (record == nullptr) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    if (record->ticket != OMRALIB_NULL_LOCK_TKT) {
        return OMRALIB_ERR_OBJ_LOCKED;
    }
    join(*fresh.get(), values, clock);
    index_.detach(*record);
    old = put_in_place_of(*record, std::move(fresh));
    return OMRALIB_RET_SUCCESS;
}

Status Shard::remove(const Key &key, std::uint64_t hash, const Clock &clock) {
    RecordRef removed;
    const std::lock_guard guard(lock_);
    const auto found = records_.find(key, hash);
    if (found == records_.end()) {
        return OMRALIB_ERR_OBJ_NOT_FOUND;
    }
    const bool was_there = !is_expired(**found, clock);
    removed = take(**found);
    return was_there ? OMRALIB_RET_SUCCESS : OMRALIB_ERR_OBJ_NOT_FOUND;
}

Status Shard::exists(const Key &key, std::uint64_t hash, const Clock &clock) {
    const std::lock_guard guard(lock_);
    return find_live(key, hash, clock) != nullptr ? OMRALIB_RET_SUCCESS : OMRALIB_ERR_OBJ_NOT_FOUND;
}

/* Sets of records --------------------------------------------------------------------------------
 */

/* Reaps all that has expired, in batches, between which others get the lock. */
void Shard::reap_all(const Clock &clock) {
    for (bool more = true; more;) {
        Dropped dropped;
        const std::lock_guard guard(lock_);
        more = reap(clock, reap_batch, dropped);
    }
}

void Shard::collect(const Selection &selection, const Clock &clock, std::vector<Key> &keys) {
    reap_all(clock);
    const std::lock_guard guard(lock_);
    const TermMatcher matcher(index_, selection);
    const auto add = [&](const Record &record) {
        if (!is_expired(record, clock)) {
            keys.push_back(record.key);
        }
    };
    if (matcher.has_postings()) {
        matcher.walk(add);
        return;
    }
    for (const Record *record : records_) {
        if (matcher.matches(*record)) {
            add(*record);
        }
    }
}

Totals Shard::totals(const Clock &clock) {
    reap_all(clock);
    const std::lock_guard guard(lock_);
    return {records_.size(), num_bytes_};
}

} // namespace store
