// A lock of one word for critical sections of a few instructions.
//
// Whoever finds it taken looks again for a moment. If it stays taken, its holder is not running,
// and burning a core would only keep it from running: the waiter then sleeps in the kernel until it
// is released. The word tells the holder whether somebody may be asleep, so that taking and
// releasing a lock that nobody waits for is one atomic instruction each.
#pragma once

#include <atomic>
#include <ctime>

#include "exported.h"

namespace sysutil {

inline void pause_core() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

enum WordLockState : ULONG { kFree = 0, kHeld = 1, kHeldWithSleepers = 2 };

inline bool try_take(ULONG &word) {
    ULONG expected = kFree;
    const std::atomic_ref<ULONG> state(word);
    return state.compare_exchange_strong(expected, kHeld, std::memory_order_acquire,
                                         std::memory_order_relaxed);
}

// Waits for a word that another thread holds; false when `deadline`, by the monotonic clock, has
// come first. NULL is none.
bool take_contended(ULONG &word, const timespec *deadline);

void wake_sleeper(ULONG &word);

inline void take(ULONG &word) {
    if (!try_take(word))
        take_contended(word, nullptr);
}

inline void release(ULONG &word) {
    const std::atomic_ref<ULONG> state(word);
    if (state.exchange(kFree, std::memory_order_release) == kHeldWithSleepers)
        wake_sleeper(word);
}

} // namespace sysutil
