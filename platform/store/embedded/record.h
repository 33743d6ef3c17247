/* One stored object of the embedded engine: its key, what the store knows of it, and its bytes, in
 * one counted block.
 *
 * A reader takes a reference under the lock of the record's shard and copies the bytes after it has
 * let go of the lock; only key and bytes are for readers. An update makes a new block; readers of
 * the old one keep it. */
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

#include "engine/content.h"
#include "engine/keys.h"
#include "engine/types.h"

namespace store {

struct IndexEntry;
struct RecordEntry;
class RecordRef;

/* The head of the block; the bytes follow it. The last reference gives the block back. */
struct Record {
private:
    std::atomic<std::uint32_t> refs_{1};
    const std::uint32_t length_;

public:
    /* In the shard. Changes under its lock. */
    std::atomic<bool> is_stored{false};

    /* Guarded by the lock of the record's shard. */
    std::uint8_t num_entries = 0;
    bool is_gathered = false; /* for the search that has the lock */

    /* Constant once stored. */
    std::uint32_t timeout_m;
    const Key key;

    /* Moves with every renewal, under the lock of the record's shard. */
    std::atomic<Millis> expires_at{never};

    /* Guarded by the lock of the record's shard. */
    RecordEntry *entry = nullptr; /* its place in the list of its app id */
    Millis queued_at = never;     /* the place in the expiry queue; at most expires_at */
    union {
        IndexEntry *entries = nullptr; /* owned while the record is stored; see object_index.h */
        Record *next;                  /* once it has left the shard; see expiry.h */
    };
    int ticket = 0;             /* of the lock, 0 when unlocked; its lease may be over */
    std::uint32_t stored_s = 0; /* when the object was stored or replaced; see second_of() */

    Record(const Key &its_key, std::uint32_t its_timeout_m, Bytes bytes);
    Record(const Record &) = delete;
    Record &operator=(const Record &) = delete;

    std::uint32_t length() const { return length_; }
    Bytes bytes() const { return {reinterpret_cast<const std::byte *>(this + 1), length_}; }
    Millis lifetime() const { return timeout_m * millis_per_minute; }

    /* The bytes, with a reference of their own. */
    Content content() {
        add_ref();
        return {bytes(), this, [](void *record) { static_cast<Record *>(record)->release(); }};
    }

    bool is_expired(Millis now) const { return timeout_m != 0 && expires_at <= now; }

    void add_ref() { refs_.fetch_add(1, std::memory_order_relaxed); }
    void release() {
        if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            std::destroy_at(this);
            ::operator delete(this);
        }
    }
};

static_assert(sizeof(Record) == 96, "every object costs this much beside its bytes");

/* Holds one reference to a record, or none. */
class RecordRef {
public:
    RecordRef() = default;
    static RecordRef adopt(Record *record) { return RecordRef(record); }
    static RecordRef share(Record &record) {
        record.add_ref();
        return RecordRef(&record);
    }
    RecordRef(RecordRef &&other) noexcept : record_(std::exchange(other.record_, nullptr)) {}
    RecordRef &operator=(RecordRef &&other) noexcept {
        std::swap(record_, other.record_);
        return *this;
    }
    ~RecordRef() {
        if (record_ != nullptr) {
            record_->release();
        }
    }

    Record *operator->() const { return record_; }
    Record *get() const { return record_; }
    Record *detach() { return std::exchange(record_, nullptr); }

private:
    explicit RecordRef(Record *record) : record_(record) {}

    Record *record_ = nullptr;
};

/* As records count time for the age of their objects; enough for 136 years of a clock. */
inline std::uint32_t second_of(Millis moment) {
    return static_cast<std::uint32_t>(moment / millis_per_second);
}

/* Throws std::bad_alloc. */
RecordRef make_record(const Key &key, std::uint32_t timeout_m, Bytes bytes);

} // namespace store
