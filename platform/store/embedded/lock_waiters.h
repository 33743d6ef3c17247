/* Threads that wait for an object's lock.
 *
 * A waiter is on the list before it tries the lock once more, and the try leaves a mark on the lock
 * that it finds taken; whoever gives a marked lock back calls wake() afterwards. So no release is
 * missed, and a release that nobody waits for costs nothing. */
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>

#include "engine/keys.h"
#include "engine/types.h"

namespace store {

class LockWaiters {
public:
    explicit LockWaiters(Clock &clock);
    LockWaiters(const LockWaiters &) = delete;
    LockWaiters &operator=(const LockWaiters &) = delete;

    /* Calls `attempt` now, whenever the lock of `key` is given back, and when `patience` is over,
     * until it answers something other than OMRALIB_ERR_OBJ_LOCKED; the last answer. */
    Status try_until_free(const Key &key, Millis patience, const std::function<Status()> &attempt);

    /* The lock of `key` is free, or its object gone. Called with no lock held. */
    void wake(const Key &key);

    std::uint64_t num_waits() const { return num_waits_; }

private:
    struct Waiter {
        const Key &key;
        bool woken = false; /* guarded by the lock of the list */
        std::condition_variable wake{};
    };
    class Registration;

    Clock &clock_;
    std::atomic<std::uint64_t> num_waits_{0};

    Mutex lock_; /* a leaf */
    std::list<Waiter *> waiters_ ABSL_GUARDED_BY(lock_);
};

/* Declared before the guard of the lock under which it is armed: wakes when that has been released.
 */
class WakeUp {
public:
    WakeUp(LockWaiters &waiters, const Key &key) : waiters_(waiters), key_(key) {}
    WakeUp(const WakeUp &) = delete;
    WakeUp &operator=(const WakeUp &) = delete;
    ~WakeUp() {
        if (armed_) {
            waiters_.wake(key_);
        }
    }

    void arm_if(bool waited_for) { armed_ = armed_ || waited_for; }

private:
    LockWaiters &waiters_;
    const Key &key_;
    bool armed_ = false;
};

} // namespace store
