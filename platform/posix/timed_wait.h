// Waits that end at a deadline. Time-outs run on the monotonic clock, so that nobody who sets the
// time of day shortens or prolongs a wait.
#pragma once

#include <ctime>

#include <pthread.h>
#include <semaphore.h>

namespace sysutil {

// ThreadSanitizer follows only those waits that are bound to the time of day.
#if defined(__SANITIZE_THREAD__)
inline constexpr clockid_t kWaitClock = CLOCK_REALTIME;
#else
inline constexpr clockid_t kWaitClock = CLOCK_MONOTONIC;
#endif

inline timespec deadline_after(unsigned int timeout_ms) {
    constexpr long kNsPerSecond = 1'000'000'000;
    timespec when{};
    clock_gettime(kWaitClock, &when);
    when.tv_sec += timeout_ms / 1000;
    when.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1'000'000;
    if (when.tv_nsec >= kNsPerSecond) {
        when.tv_nsec -= kNsPerSecond;
        ++when.tv_sec;
    }
    return when;
}

// Both results are those of the POSIX functions: an error number, and -1 with errno.
inline int lock_until(pthread_mutex_t &mutex, const timespec &deadline) {
#if defined(__SANITIZE_THREAD__)
    return pthread_mutex_timedlock(&mutex, &deadline);
#else
    return pthread_mutex_clocklock(&mutex, kWaitClock, &deadline);
#endif
}

inline int wait_until(sem_t &sem, const timespec &deadline) {
#if defined(__SANITIZE_THREAD__)
    return sem_timedwait(&sem, &deadline);
#else
    return sem_clockwait(&sem, kWaitClock, &deadline);
#endif
}

} // namespace sysutil
