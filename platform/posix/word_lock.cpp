#include "word_lock.h"

namespace sysutil {
namespace {

// A few microseconds: longer than a critical section, shorter than falling asleep and waking up.
constexpr int kLooks = 200;

} // namespace

void take_contended(ULONG &word) {
    const std::atomic_ref<ULONG> state(word);
    for (int look = 0; look < kLooks; ++look) {
        if (state.load(std::memory_order_relaxed) == kFree && try_take(word))
            return;
        pause_core();
    }
    // Announces a sleeper. Also the one who wakes up must announce, since he cannot know whether
    // others still sleep.
    while (state.exchange(kHeldWithSleepers, std::memory_order_acquire) != kFree)
        state.wait(kHeldWithSleepers, std::memory_order_relaxed);
}

} // namespace sysutil
