/* A mutex of four bytes for critical sections of a few hundred nanoseconds: one atomic operation to
 * take it and one to give it back while nobody waits; who waits sleeps in the kernel. */
#pragma once

#include <atomic>

namespace store {

class ShortLock {
public:
    ShortLock() = default;
    ShortLock(const ShortLock &) = delete;
    ShortLock &operator=(const ShortLock &) = delete;

    void lock() {
        int seen = is_free;
        if (!state_.compare_exchange_strong(seen, is_taken, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
            lock_contended();
        }
    }

    void unlock() {
        if (state_.exchange(is_free, std::memory_order_release) == is_waited_for) {
            state_.notify_one();
        }
    }

private:
    static constexpr int is_free = 0;
    static constexpr int is_taken = 1;
    static constexpr int is_waited_for = 2;

    /* Whoever has once waited takes the lock as waited for, since others may be waiting still. */
    void lock_contended() {
        while (state_.exchange(is_waited_for, std::memory_order_acquire) != is_free) {
            state_.wait(is_waited_for, std::memory_order_relaxed);
        }
    }

    std::atomic<int> state_{is_free};
};

} // namespace store
