/* How the key space of an app id falls into slots: by the top bits of the key's hash, which is the
 * same everywhere and for ever. What keeps objects apart by their keys keeps neighbouring slots
 * together. */
#pragma once

#include <cstdint>

#include "engine/keys.h"

namespace store {

inline constexpr std::uint32_t num_slots = 256;

std::uint64_t hash_of(const Key &key);

inline std::uint32_t slot_of(std::uint64_t hash) {
    return static_cast<std::uint32_t>(hash >> 56);
}

} // namespace store
