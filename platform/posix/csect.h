// The critical section that is part of other records.
#pragma once

#include <absl/base/thread_annotations.h>

#include "exported.h"

namespace sysutil {

inline constexpr ULONG kCsectCode = 0x43534543;

// Its waiters look again for a moment before they sleep.
inline void csect_init(SYS_CSECT &csect) {
    csect.code = kCsectCode;
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
    pthread_mutex_init(&csect.cs, &attr);
    pthread_mutexattr_destroy(&attr);
}

// The same as a lock that the checker of thread_safety.h knows. Never destroyed, as its record.
class ABSL_LOCKABLE Csect : public SYS_CSECT {
public:
    Csect() : SYS_CSECT() { csect_init(*this); }
    Csect(const Csect &) = delete;
    Csect &operator=(const Csect &) = delete;

    void lock() ABSL_EXCLUSIVE_LOCK_FUNCTION() { pthread_mutex_lock(&cs); }
    void unlock() ABSL_UNLOCK_FUNCTION() { pthread_mutex_unlock(&cs); }
};

} // namespace sysutil
