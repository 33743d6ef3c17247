/* The records of one app id in one shard, by their keys.
 *
 * A place of the table is the address of a record and, in the sixteen bits that addresses leave
 * free, as many of its hash: hardly a record is looked at but the one that is meant, and finding it
 * costs the miss of its place and its own.
 *
 *   hash -> the place to begin with -> one place after the other, until the record or a free place
 */
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "embedded/record.h"

namespace store {

/* Under the lock of the shard. Owns no record. `hash` is the key's. */
class RecordTable {
public:
    RecordTable() = default;
    RecordTable(const RecordTable &) = delete;
    RecordTable &operator=(const RecordTable &) = delete;

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

    class Place {
    public:
        Place() = default;
        Place(Record &record, std::uint64_t hash)
            : bits_(reinterpret_cast<std::uintptr_t>(&record) | (hash & hash_mask)) {}

        /* nullptr when it is free. */
        Record *record() const { return reinterpret_cast<Record *>(bits_ & ~hash_mask); }

        bool may_have(std::uint64_t hash) const { return ((bits_ ^ hash) & hash_mask) == 0; }

    private:
        static_assert(sizeof(void *) == sizeof(std::uint64_t));
        static constexpr std::uint64_t hash_mask = 0xffff'0000'0000'0000;

        std::uintptr_t bits_ = 0;
    };

    /* All records in no order, and places without one. */
    std::span<const Place> places() const { return places_; }

private:
    std::size_t first_place(std::uint64_t hash) const { return hash & (places_.size() - 1); }
    std::size_t after(std::size_t place) const { return (place + 1) & (places_.size() - 1); }
    std::size_t distance(std::size_t from, std::size_t to) const {
        return (to - from) & (places_.size() - 1);
    }
    std::size_t place_of(const Record &record, std::uint64_t hash) const;

    void put(Record &record, std::uint64_t hash);

    std::array<Place, 4> few_places_; /* those of an app id with few records */
    std::unique_ptr<Place[]> many_places_;
    std::span<Place> places_ = few_places_; /* a power of two; a quarter at least is free */
    std::size_t num_records_ = 0;
};

} // namespace store
