/* Waiting for a lock, and waking those who wait. */
#include "embedded/lock_waiters.h"

namespace store {

LockWaiters::LockWaiters(Clock &clock) : clock_(clock) {
    clock_.add_listener([this] {
        const Guard guard(lock_);
        for (Waiter *waiter : waiters_) {
            waiter->wake.notify_one();
        }
    });
}

class LockWaiters::Registration {
public:
    Registration(LockWaiters &list, Waiter &waiter) : list_(list) {
        const Guard guard(list_.lock_);
        place_ = list_.waiters_.insert(list_.waiters_.end(), &waiter);
    }
    Registration(const Registration &) = delete;
    Registration &operator=(const Registration &) = delete;
    ~Registration() {
        const Guard guard(list_.lock_);
        list_.waiters_.erase(place_);
    }

private:
    LockWaiters &list_;
    std::list<Waiter *>::iterator place_;
};

Status LockWaiters::try_until_free(const Key &key, Millis patience,
                                   const std::function<Status()> &attempt) {
    const Millis deadline = clock_.now() + patience;
    Waiter waiter{key};
    const Registration registration(*this, waiter);
    num_waits_.fetch_add(1, std::memory_order_relaxed);
    for (;;) {
        const bool last = clock_.now() >= deadline;
        const Status status = attempt();
        if (status != OMRALIB_ERR_OBJ_LOCKED || last) {
            return status;
        }
        MutexLock lock(lock_);
        while (!waiter.woken && clock_.now() < deadline) {
            clock_.wait(lock.native(), waiter.wake, deadline);
        }
        waiter.woken = false;
    }
}

/* Wakes all who wait for the key: one alone might have lost its patience at this moment. */
void LockWaiters::wake(const Key &key) {
    const Guard guard(lock_);
    for (Waiter *waiter : waiters_) {
        if (order_of(waiter->key, key) == 0) {
            waiter->woken = true;
            waiter->wake.notify_one();
        }
    }
}

} // namespace store
