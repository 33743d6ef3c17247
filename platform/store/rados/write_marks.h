/* Which objects this process may have changed since some moment: a counter for each of some
 * thousands of sets of keys. What was read ahead counts as old once the counter of its key has
 * moved. */
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "engine/slots.h"

namespace store {

class WriteMarks {
public:
    using Mark = std::uint32_t;

    Mark of(const Key &key) const { return counters_[place_of(key)].load(); }

    /* After a write, whatever became of it. */
    void note_write(const Key &key) { ++counters_[place_of(key)]; }

private:
    static constexpr std::size_t num_counters = 4096;

    static std::size_t place_of(const Key &key) { return hash_of(key) % num_counters; }

    std::array<std::atomic<Mark>, num_counters> counters_{};
};

} // namespace store
