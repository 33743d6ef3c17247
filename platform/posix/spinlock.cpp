// Spin locks: Spinlock_init, Spinlock_enter, Spinlock_exit.
//
// The waiting is that of word_lock.h; what a spin lock adds is that it knows its owner.
//
// The lock is not recursive. Its owner entering once more is reported, and counted in `depth`,
// since waiting for itself would help nobody.
#include <atomic>

#include "check.h"
#include "common/word_lock.h"
#include "csect.h"
#include "exported.h"

namespace {

constexpr ULONG kSpinlockCode = 0x5350494E;

// Any thread compares this field with its own id; only the holder writes it.
std::atomic_ref<THREADID> owner_of(THREADSPINL &lock) {
    return std::atomic_ref<THREADID>(lock.tid);
}

bool is_mine(THREADSPINL &lock) {
    return owner_of(lock).load(std::memory_order_relaxed) == Thread_myid();
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
        platform::take(pslock->state);
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
    platform::release(pslock->state);
}
