// Which lock guards what, in words that clang checks: its -Wthread-safety refuses what touches a
// field without the lock that ABSL_GUARDED_BY names. Other compilers see nothing of it.
//
// std::mutex is not annotated in libstdc++, so Mutex, MutexLock and the condition variable that
// goes with them stand in for it.
#pragma once

#include <condition_variable>
#include <mutex>

#include <absl/base/thread_annotations.h>

namespace platform {

class ABSL_LOCKABLE Mutex {
public:
    void lock() ABSL_EXCLUSIVE_LOCK_FUNCTION() { mutex_.lock(); }
    void unlock() ABSL_UNLOCK_FUNCTION() { mutex_.unlock(); }

    // Tells the checker that the calling thread holds it, where it cannot see that for itself.
    void assert_held() const ABSL_ASSERT_EXCLUSIVE_LOCK(this) {}

private:
    friend class MutexLock;

    std::mutex mutex_;
};

// Holds a Mutex until it goes, and while it waits on a condition, which gives the lock back
// meanwhile.
class ABSL_SCOPED_LOCKABLE MutexLock {
public:
    explicit MutexLock(Mutex &mutex) ABSL_EXCLUSIVE_LOCK_FUNCTION(mutex) : lock_(mutex.mutex_) {}
    ~MutexLock() ABSL_UNLOCK_FUNCTION() = default;
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

    std::unique_lock<std::mutex> &native() { return lock_; }

private:
    std::unique_lock<std::mutex> lock_;
};

// Holds any annotated lock until it goes.
template <typename Lock>
class ABSL_SCOPED_LOCKABLE Guard {
public:
    explicit Guard(Lock &lock) ABSL_EXCLUSIVE_LOCK_FUNCTION(lock) : lock_(lock) { lock_.lock(); }
    ~Guard() ABSL_UNLOCK_FUNCTION() { lock_.unlock(); }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

private:
    Lock &lock_;
};

} // namespace platform
