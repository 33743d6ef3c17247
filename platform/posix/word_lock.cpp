#include "word_lock.h"

#include <cerrno>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace sysutil {
namespace {

// A few microseconds: longer than a critical section, shorter than falling asleep and waking up.
constexpr int kLooks = 200;

// Sleeps while the word has this value; false when the deadline has come. May return for no reason.
bool sleep_while(ULONG &word, ULONG value, const timespec *deadline) {
    const long ret = syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, value, deadline, nullptr,
                             FUTEX_BITSET_MATCH_ANY);
    return ret == 0 || errno != ETIMEDOUT;
}

} // namespace

bool take_contended(ULONG &word, const timespec *deadline) {
    const std::atomic_ref<ULONG> state(word);
    for (int look = 0; look < kLooks; ++look) {
        if (state.load(std::memory_order_relaxed) == kFree && try_take(word))
            return true;
        pause_core();
    }
    // Announces a sleeper. Also the one who wakes up must announce, since he cannot know whether
    // others still sleep.
    while (state.exchange(kHeldWithSleepers, std::memory_order_acquire) != kFree) {
        if (!sleep_while(word, kHeldWithSleepers, deadline))
            return false;
    }
    return true;
}

void wake_sleeper(ULONG &word) {
    syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1);
}

} // namespace sysutil
