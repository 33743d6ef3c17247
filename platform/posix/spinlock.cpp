// Spin locks: Spinlock_init, Spinlock_enter, Spinlock_exit.
//
// A spin lock is held for a few instructions, so whoever finds it taken looks again for a moment.
// If it stays taken, its holder is not running, and burning a core would only keep it from running:
// the waiter then sleeps in the kernel until it is released. The state tells the holder whether
// somebody may be asleep, so that taking and releasing a lock that nobody waits for is one atomic
// instruction each.
//
// The lock is not recursive. Its owner entering once more is reported, and counted in `depth`,
// since waiting for itself would help nobody.
#include <atomic>

#include "check.h"
#include "csect.h"
#include "exported.h"

namespace {

constexpr ULONG kSpinlockCode = 0x5350494E;

enum State : ULONG { kFree = 0, kHeld = 1, kHeldWithSleepers = 2 };

// A few microseconds: longer than a critical section, shorter than falling asleep and waking up.
constexpr int kLooks = 200;

std::atomic_ref<ULONG> state_of(THREADSPINL &lock) {
    return std::atomic_ref<ULONG>(lock.state);
}

// Any thread compares this field with its own id; only the holder writes it.
std::atomic_ref<THREADID> owner_of(THREADSPINL &lock) {
    return std::atomic_ref<THREADID>(lock.tid);
}

bool is_mine(THREADSPINL &lock) {
    return owner_of(lock).load(std::memory_order_relaxed) == Thread_myid();
}

void pause_core() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

bool try_take(std::atomic_ref<ULONG> state) {
    ULONG expected = kFree;
    return state.load(std::memory_order_relaxed) == kFree &&
           state.compare_exchange_strong(expected, kHeld, std::memory_order_acquire,
                                         std::memory_order_relaxed);
}

// Takes the lock, announcing a sleeper: also the one who wakes up must announce, since he cannot
// know whether others still sleep.
void take_asleep(std::atomic_ref<ULONG> state) {
    while (state.exchange(kHeldWithSleepers, std::memory_order_acquire) != kFree)
        state.wait(kHeldWithSleepers, std::memory_order_relaxed);
}

void take(std::atomic_ref<ULONG> state) {
    for (int look = 0; look < kLooks; ++look) {
        if (try_take(state))
            return;
        pause_core();
    }
    take_asleep(state);
}

} // namespace

void Spinlock_init(THREADSPINL *pslock, unsigned int id, unsigned int /*options*/) {
    *pslock = THREADSPINL{};
    pslock->code = kSpinlockCode;
    pslock->id = id;
    sysutil::csect_init(pslock->cs);
    pslock->csp = &pslock->cs;
}

void Spinlock_enter(THREADSPINL *pslock) {
    if (SYS_CHECK(!is_mine(*pslock))) {
        take(state_of(*pslock));
        owner_of(*pslock).store(Thread_myid(), std::memory_order_relaxed);
    }
    ++pslock->depth;
}

void Spinlock_exit(THREADSPINL *pslock) {
    if (!SYS_CHECK(is_mine(*pslock)))
        return;
    if (--pslock->depth > 0)
        return;
    owner_of(*pslock).store(NULLTHREADID, std::memory_order_relaxed);
    const std::atomic_ref<ULONG> state = state_of(*pslock);
    if (state.exchange(kFree, std::memory_order_release) == kHeldWithSleepers)
        state.notify_one();
}
