/* Slots and shards: neighbouring slots share a shard. */
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <span>

#include "engine/slots.h"

namespace store {

inline constexpr std::uint32_t slots_per_shard = 8;
inline constexpr std::uint32_t num_shards = num_slots / slots_per_shard;

inline std::uint32_t shard_of_slot(std::uint32_t slot) {
    return slot / slots_per_shard;
}

class SlotSet {
public:
    /* All of them. */
    SlotSet() { of_shard_.fill(every); }

    /* Numbers of slots that there are not are in nobody's set. */
    explicit SlotSet(std::span<const std::uint32_t> slots) {
        for (const std::uint32_t slot : slots) {
            if (slot < num_slots) {
                of_shard_[shard_of_slot(slot)] |= bit_of(slot);
            }
        }
    }

    bool contains(std::uint32_t slot) const {
        return (of_shard_[shard_of_slot(slot)] & bit_of(slot)) != 0;
    }
    bool touches(std::size_t shard) const { return of_shard_[shard] != 0; }
    bool holds_all_of(std::size_t shard) const { return of_shard_[shard] == every; }
    std::size_t size() const {
        std::size_t num = 0;
        for (const std::uint8_t slots : of_shard_) {
            num += static_cast<std::size_t>(std::popcount(slots));
        }
        return num;
    }

private:
    static constexpr std::uint8_t every = 0xFF;

    static std::uint8_t bit_of(std::uint32_t slot) {
        return static_cast<std::uint8_t>(1u << slot % slots_per_shard);
    }

    std::array<std::uint8_t, num_shards> of_shard_{};
};

} // namespace store
