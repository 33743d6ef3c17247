/* The keys of a share, as many at a time as are wanted: from the list that the share brings, or
 * looked for in the part of the key space that it names. */
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "engine/cluster.h"
#include "engine/objects.h"

namespace store {

/* Some keys, in key order, and their objects if the engine has them at hand: that of key i is at
 * the place first + i. */
struct SomeKeys {
    std::vector<Key> keys = {};
    std::shared_ptr<AtHand> at_hand = {};
    std::size_t first = 0;
};

/* Used by one thread at a time. */
class KeySource {
public:
    /* Takes the keys out of the share, or keeps its selection, which outlives the source. */
    Status open(Objects &objects, Share &share);

    /* Looks for keys, for about a millisecond at most where that is costly, unless take(`num`)
     * has enough. */
    Status look_for(std::size_t num);

    /* Whether take(`num`) would give so many, or as many as the engine gave at once, or the last.
     */
    bool has(std::size_t num) const { return is_complete_ || num_at_hand() >= num; }

    /* Up to `num` keys. Throws std::bad_alloc, and has lost none. */
    SomeKeys take(std::size_t num);

    /* Whether take(`num`) would give all that are left. */
    bool ends_within(std::size_t num) const { return is_last_ && num_at_hand() <= num; }

    /* Whether all keys have been taken. */
    bool is_empty() const { return is_last_ && num_at_hand() == 0; }

    /* How many keys there are, taken or not; a guess until all have been found. */
    std::uint64_t num_expected() const;

private:
    std::size_t num_at_hand() const { return keys_.size() - num_taken_; }

    std::unique_ptr<Scan> scan_; /* of a part */
    bool is_last_ = false;       /* there are no keys but those below */
    bool is_complete_ = false;   /* these can only be added to when they have been taken */
    std::vector<Key> keys_;
    std::shared_ptr<AtHand> at_hand_; /* the objects of keys_ */
    std::size_t num_taken_ = 0;       /* of keys_ */
    std::uint64_t num_found_ = 0;
};

} // namespace store
