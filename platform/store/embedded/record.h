/* One stored object of the embedded engine: its key, what the store knows of it, and its bytes, in
 * one block. A reader's reference keeps the block; only key and bytes are for readers. */
#pragma once

#include <cstdint>

#include "common/clock.h"
#include "engine/content.h"
#include "engine/engine.h"

namespace store {

struct IndexEntry;

struct Record : Content {
    /* Guarded by the lock of the record's shard; in the head's padding. */
    std::uint8_t num_entries = 0;

    /* Constant once stored. */
    std::uint32_t timeout_m;
    const Key key;

    /* Guarded by the lock of the record's shard. */
    Millis expires_at = never; /* moves with every renewal */
    Millis queued_at = never;  /* the place in the expiry queue; at most expires_at */
    union {
        IndexEntry *entries = nullptr; /* owned while the record is stored; see object_index.h */
        Record *next;                  /* once it has left the shard; see expiry.h */
    };
    int ticket = 0;             /* of the lock, 0 when unlocked; its lease may be over */
    std::uint32_t stored_s = 0; /* when the object was stored or replaced; see second_of() */

    Record(const Key &its_key, std::uint32_t its_timeout_m, Bytes bytes);

    Millis lifetime() const { return timeout_m * millis_per_minute; }
};

static_assert(sizeof(Record) == 88, "every object costs this much beside its bytes");

/* As records count time for the age of their objects; enough for 136 years of a clock. */
inline std::uint32_t second_of(Millis moment) {
    return static_cast<std::uint32_t>(moment / millis_per_second);
}

using RecordRef = Ref<Record>;

RecordRef make_record(const Key &key, std::uint32_t timeout_m, Bytes bytes);

} // namespace store
