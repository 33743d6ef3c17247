/* The memory limit of an engine and what its objects count for.
 *
 * An object counts with its bytes and a fixed share for everything that is kept about it: its
 * record, its places in the tables and queues of its shard, and for each index value an entry and
 * the value's share of the index. Blocks on their way in, or out to a reader, do not count. Only
 * storing, changing and removing touch the budget, and without a limit not even they. */
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "engine/options.h"

namespace store {

inline constexpr std::uint64_t bytes_per_object = 128;
inline constexpr std::uint64_t bytes_per_index_value = 128;

inline std::uint64_t cost_of(std::size_t length, std::size_t num_index_values) {
    return length + bytes_per_object + num_index_values * bytes_per_index_value;
}

class MemoryBudget {
public:
    explicit MemoryBudget(std::uint64_t limit) : limit_(limit) {}
    MemoryBudget(const MemoryBudget &) = delete;
    MemoryBudget &operator=(const MemoryBudget &) = delete;

    /* False, and nothing has changed, when there is no room. */
    bool try_charge(std::uint64_t bytes) {
        if (limit_ == no_memory_limit) {
            return true;
        }
        std::uint64_t used = used_.load(std::memory_order_relaxed);
        do {
            if (bytes > limit_ - used) {
                return false;
            }
        } while (!used_.compare_exchange_weak(used, used + bytes, std::memory_order_relaxed));
        return true;
    }

    void refund(std::uint64_t bytes) {
        if (limit_ != no_memory_limit) {
            used_.fetch_sub(bytes, std::memory_order_relaxed);
        }
    }

private:
    const std::uint64_t limit_;
    alignas(64) std::atomic<std::uint64_t> used_{0}; /* at most limit_ */
};

/* A charge that is given back unless it is kept. */
class Charge {
public:
    Charge(MemoryBudget &budget, std::uint64_t bytes)
        : budget_(budget), bytes_(bytes), charged_(budget.try_charge(bytes)) {}
    Charge(const Charge &) = delete;
    Charge &operator=(const Charge &) = delete;
    ~Charge() {
        if (charged_) {
            budget_.refund(bytes_);
        }
    }

    explicit operator bool() const { return charged_; }
    void keep() { charged_ = false; }

private:
    MemoryBudget &budget_;
    const std::uint64_t bytes_;
    bool charged_;
};

} // namespace store
