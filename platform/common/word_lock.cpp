// What threads do that find a word taken: look again, then sleep in the kernel.
#include "common/word_lock.h"

#include <cerrno>
#include <chrono>
#include <thread>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace platform {
namespace {

// A few microseconds: longer than a critical section, shorter than falling asleep and waking up.
constexpr int max_looks = 200;

// Sleeps while the word has this value; false when the deadline has come. May return for no reason.
bool sleep_while(LockWord &word, LockWord value, const timespec *deadline) {
    const long ret = syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, value, deadline, nullptr,
                             FUTEX_BITSET_MATCH_ANY);
    return ret == 0 || errno != ETIMEDOUT;
}

} // namespace

bool take_contended(LockWord &word, const timespec *deadline) {
    const std::atomic_ref<LockWord> state(word);
    for (int look = 0; look < max_looks; ++look) {
        if (state.load(std::memory_order_relaxed) == word_free && try_take(word)) {
            return true;
        }
        pause_core();
    }
    // Announces a sleeper. Also the one who wakes up must announce, since he cannot know whether
    // others still sleep.
    while (state.exchange(word_held_with_sleepers, std::memory_order_acquire) != word_free) {
        if (!sleep_while(word, word_held_with_sleepers, deadline)) {
            return false;
        }
    }
    return true;
}

void wake_sleeper(LockWord &word) {
    syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1);
}

void AwakeLock::wait_and_lock() {
    constexpr int max_looks_awake = 100;
    constexpr auto pause = std::chrono::microseconds(50);
    for (int look = 0;; ++look) {
        if (!is_held_.load(std::memory_order_relaxed) &&
            !is_held_.exchange(true, std::memory_order_acquire)) {
            return;
        }
        if (look < max_looks_awake) {
            pause_core();
        } else {
            std::this_thread::sleep_for(pause);
        }
    }
}

} // namespace platform
