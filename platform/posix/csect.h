// The critical section that is part of other records.
#pragma once

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

// Holds a critical section until the end of the scope.
class CsectGuard {
public:
    explicit CsectGuard(SYS_CSECT &csect) : csect_(csect) { pthread_mutex_lock(&csect_.cs); }
    ~CsectGuard() { pthread_mutex_unlock(&csect_.cs); }
    CsectGuard(const CsectGuard &) = delete;
    CsectGuard &operator=(const CsectGuard &) = delete;

private:
    SYS_CSECT &csect_;
};

} // namespace sysutil
