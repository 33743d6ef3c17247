// Waits that end at a deadline. Time-outs run on the monotonic clock, so that nobody who sets the
// time of day shortens or prolongs a wait.
#pragma once

#include <ctime>

#include <semaphore.h>

namespace sysutil {

// ThreadSanitizer follows only those waits that are bound to the time of day.
#if defined(__SANITIZE_THREAD__)
inline constexpr clockid_t kWaitClock = CLOCK_REALTIME;
#else
inline constexpr clockid_t kWaitClock = CLOCK_MONOTONIC;
#endif

inline timespec deadline_after(unsigned int timeout_ms, clockid_t clock = kWaitClock) {
    constexpr long kNsPerSecond = 1'000'000'000;
    timespec when{};
    clock_gettime(clock, &when);
    when.tv_sec += timeout_ms / 1000;
    when.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1'000'000;
    if (when.tv_nsec >= kNsPerSecond) {
        when.tv_nsec -= kNsPerSecond;
        ++when.tv_sec;
    }
    return when;
}

// The result is that of the POSIX function: -1 with errno.
inline int wait_until(sem_t &sem, const timespec &deadline) {
#if defined(__SANITIZE_THREAD__)
    return sem_timedwait(&sem, &deadline);
#else
    return sem_clockwait(&sem, kWaitClock, &deadline);
#endif
}

} // namespace sysutil
