// A mutex of one word for critical sections of a few hundred nanoseconds.
//
// Whoever finds it taken looks again for a moment. If it stays taken, its holder is not running,
// and burning a core would only keep it from running: the waiter then sleeps in the kernel until it
// is released. The word tells the holder whether somebody may be asleep, so that taking and
// releasing a lock that nobody waits for is one atomic instruction each.
//
// The word may stand in a record of a C header, where the functions serve it; WordLock is a word
// with the operations of a mutex. An AwakeLock has no sleepers in the kernel, so giving it back is
// a plain store: for what is had once or twice for every item of a queue and hardly ever by two
// threads at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

#include <absl/base/thread_annotations.h>

namespace platform {

inline void pause_core() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

using LockWord = std::uint32_t; // 0 when the lock is free

inline constexpr LockWord word_free = 0;
inline constexpr LockWord word_held = 1;
inline constexpr LockWord word_held_with_sleepers = 2;

inline bool try_take(LockWord &word) {
    LockWord expected = word_free;
    const std::atomic_ref<LockWord> state(word);
    return state.compare_exchange_strong(expected, word_held, std::memory_order_acquire,
                                         std::memory_order_relaxed);
}

// Waits for a word that another thread holds; false when `deadline`, by the monotonic clock, has
// come first. NULL is none.
bool take_contended(LockWord &word, const timespec *deadline);

void wake_sleeper(LockWord &word);

inline void take(LockWord &word) {
    if (!try_take(word)) {
        take_contended(word, nullptr);
    }
}

inline void release(LockWord &word) {
    const std::atomic_ref<LockWord> state(word);
    if (state.exchange(word_free, std::memory_order_release) == word_held_with_sleepers) {
        wake_sleeper(word);
    }
}

class ABSL_LOCKABLE WordLock {
public:
    WordLock() = default;
    WordLock(const WordLock &) = delete;
    WordLock &operator=(const WordLock &) = delete;

    void lock() ABSL_EXCLUSIVE_LOCK_FUNCTION() { take(word_); }
    void unlock() ABSL_UNLOCK_FUNCTION() { release(word_); }

private:
    LockWord word_ = word_free;
};

class ABSL_LOCKABLE AwakeLock {
public:
    AwakeLock() = default;
    AwakeLock(const AwakeLock &) = delete;
    AwakeLock &operator=(const AwakeLock &) = delete;

    void lock() ABSL_EXCLUSIVE_LOCK_FUNCTION() {
        if (is_held_.exchange(true, std::memory_order_acquire)) {
            wait_and_lock();
        }
    }
    void unlock() ABSL_UNLOCK_FUNCTION() { is_held_.store(false, std::memory_order_release); }

private:
    // Looks again until it is free, and after a while sleeps between two looks.
    void wait_and_lock();

    std::atomic<bool> is_held_{false};
};

} // namespace platform
