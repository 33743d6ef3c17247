// Mutexes and the critical section of the process: Lock_*, Enter_cs and Exit_cs.
//
// A mutex checks its owner: taking it twice and releasing it without holding it are answered with 0
// and change nothing, instead of a dead lock or a mutex that two threads hold. Spin locks are in
// spinlock.cpp.
#include <mutex>
#include <type_traits>

#include "exported.h"
#include "timed_wait.h"

namespace {

// Entered at any time of the process, so it must have no destructor to run.
constinit std::mutex process_cs;
static_assert(std::is_trivially_destructible_v<std::mutex>);

} // namespace

void Lock_init(THREADLOCK *plock) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(plock, &attr);
    pthread_mutexattr_destroy(&attr);
}

int Lock_enter(THREADLOCK *plock, unsigned int timeout_ms) {
    if (timeout_ms == SYS_WAIT_FOREVER)
        return pthread_mutex_lock(plock) == 0 ? 1 : 0;
    // A free mutex needs no deadline.
    if (pthread_mutex_trylock(plock) == 0)
        return 1;
    if (timeout_ms == 0)
        return 0;
    return sysutil::lock_until(*plock, sysutil::deadline_after(timeout_ms)) == 0 ? 1 : 0;
}

int Lock_exit(THREADLOCK *plock) {
    return pthread_mutex_unlock(plock) == 0 ? 1 : 0;
}

void Enter_cs(void) {
    process_cs.lock();
}

void Exit_cs(void) {
    process_cs.unlock();
}
