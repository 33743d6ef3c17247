/* How many objects of one request are handed out at a time: about as many as are evaluated within
 * ten milliseconds, so that no other invocation waits longer behind them, and enough for every
 * thread that evaluates.
 *
 * The window starts with what is remembered of the function, or small. It doubles as long as all of
 * it is evaluated within a few milliseconds, and follows the rate from then on. */
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "engine/types.h"

namespace store {

/* The last windows of some functions. */
class KnownPaces {
public:
    /* 0 when nothing is remembered. */
    std::uint32_t window_of(std::uint64_t function) const {
        const std::uint64_t known = place_of(function).load(std::memory_order_relaxed);
        return known >> 32 == mark_of(function) ? static_cast<std::uint32_t>(known) : 0;
    }

    void remember(std::uint64_t function, std::uint32_t window) {
        place_of(function).store(mark_of(function) << 32 | window, std::memory_order_relaxed);
    }

private:
    using Place = std::atomic<std::uint64_t>; /* mark << 32 | window */

    static std::uint64_t mixed(std::uint64_t function) {
        return (function + 1) * 0x9E3779B97F4A7C15;
    }
    static std::uint64_t mark_of(std::uint64_t function) { return mixed(function) >> 32; }
    Place &place_of(std::uint64_t function) { return places_[mixed(function) >> 26 & 63]; }
    const Place &place_of(std::uint64_t function) const {
        return places_[mixed(function) >> 26 & 63];
    }

    std::array<Place, 64> places_{};
};

/* Of one request; used by one thread at a time. */
class Pace {
public:
    /* `known_window` may be 0. Every chunk's handler reads the parameters: long ones make large
     * chunks. */
    Pace(std::uint32_t known_window, std::uint32_t params_length);

    /* Objects that may be handed out and not yet be done. `num_readers`: threads that evaluate. */
    std::size_t window(std::size_t num_readers) const;

    /* Of the next chunk. */
    std::size_t chunk_size(std::size_t num_readers) const;

    /* Some are handed out. */
    void note_begun(Millis now) { began_at_ = began_at_ == never ? now : began_at_; }

    /* So many more are done. */
    void note_done(std::size_t num_objects, Millis now);

private:
    const std::size_t max_chunk_;
    std::size_t window_;
    std::size_t num_done_ = 0; /* since began_at_ */
    Millis began_at_ = never;
};

} // namespace store
