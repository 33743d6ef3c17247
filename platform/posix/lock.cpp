// Mutexes and the critical section of the process: Lock_*, Enter_cs and Exit_cs.
//
// A mutex is the word of word_lock.h, which waits a moment before it sleeps, and knows its owner:
// taking it twice and releasing it without holding it are answered with 0 and change nothing,
// instead of a dead lock or a mutex that two threads hold. Spin locks, whose misuse is reported,
// are in spinlock.cpp.
#include <atomic>
#include <mutex>
#include <type_traits>

#include "common/word_lock.h"
#include "exported.h"
#include "timed_wait.h"

namespace {

// Entered at any time of the process, so it must have no destructor to run.
constinit std::mutex process_cs;
static_assert(std::is_trivially_destructible_v<std::mutex>);

[[gnu::noinline]] bool wait_for(ULONG &word, unsigned int timeout_ms) {
    if (timeout_ms == SYS_WAIT_FOREVER)
        return platform::take_contended(word, nullptr);
    if (timeout_ms == 0)
        return false;
    const timespec deadline = sysutil::deadline_after(timeout_ms, CLOCK_MONOTONIC);
    return platform::take_contended(word, &deadline);
}

} // namespace

void Lock_init(THREADLOCK *plock) {
    *plock = THREADLOCK{};
}

int Lock_enter(THREADLOCK *plock, unsigned int timeout_ms) {
    const std::atomic_ref<THREADID> owner(plock->tid);
    const THREADID self = Thread_myid();
    if (owner.load(std::memory_order_relaxed) == self)
        return 0;
    if (!platform::try_take(plock->state) && !wait_for(plock->state, timeout_ms))
        return 0;
    owner.store(self, std::memory_order_relaxed);
    return 1;
}

int Lock_exit(THREADLOCK *plock) {
    const std::atomic_ref<THREADID> owner(plock->tid);
    if (owner.load(std::memory_order_relaxed) != Thread_myid())
        return 0;
    owner.store(NULLTHREADID, std::memory_order_relaxed);
    platform::release(plock->state);
    return 1;
}

void Enter_cs(void) {
    process_cs.lock();
}

void Exit_cs(void) {
    process_cs.unlock();
}
