/* The records of one app id in one shard, by their keys.
 *
 * A place of the table is a byte and a record. The byte tells by a few bits of the hash which
 * records are worth a look: the bytes of a table mostly are in the cache where the records are not,
 * so that finding one costs the miss of its place and its own.
 *
 *   hash -> the place to begin with -> one place after the other, until the record or a free place
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "embedded/record.h"

namespace store {

std::uint64_t hash_of(const Key &key);

/* Under the lock of the shard. Owns no record. `hash` is the key's. */
class RecordTable {
public:
    std::size_t size() const { return num_records_; }
    bool empty() const { return num_records_ == 0; }

    /* nullptr when there is none. */
    Record *find(const Key &key, std::uint64_t hash) const;

    /* Room for one more; whatever follows needs no memory. Throws std::bad_alloc, having changed
     * nothing. */
    void make_room();

    /* After make_room(). The key is not there yet. */
    void insert(Record &record, std::uint64_t hash);

    /* Puts a record with the same key into the place of one that is there. */
    void replace(const Record &old, Record &fresh, std::uint64_t hash);

    void erase(const Record &record, std::uint64_t hash);

    /* All records in no order; nullptr where there is none. */
    std::span<Record *const> places() const { return places_; }

private:
    /* What a place holds: a record of a hash with these bits, marked by the highest one, or: */
    static constexpr std::uint8_t is_free = 0;
    static constexpr std::uint8_t was_taken = 1; /* those that were put behind it still are there */

    static std::uint8_t mark_of(std::uint64_t hash) {
        return static_cast<std::uint8_t>(0x80 | (hash >> 48));
    }
    std::size_t first_place(std::uint64_t hash) const { return hash & (places_.size() - 1); }
    std::size_t after(std::size_t place) const { return (place + 1) & (places_.size() - 1); }
    std::size_t before(std::size_t place) const { return (place - 1) & (places_.size() - 1); }
    std::size_t place_of(const Record &record, std::uint64_t hash) const;

    /* Side by side; a power of two of them, or none. A quarter at least is free. */
    std::vector<std::uint8_t> marks_;
    std::vector<Record *> places_;
    std::size_t num_records_ = 0;
    std::size_t num_not_free_ = 0; /* places */
};

} // namespace store
