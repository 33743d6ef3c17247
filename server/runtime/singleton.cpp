// The place that only one singleton invocation can have. Acquired by the dispatcher, released by
// whichever thread completes the request.
#include "runtime/singleton.h"

#include "common/trace.h"

BOOLEAN Omrapmi_singleton_acquire(OMRAPMI_IDSC *pidsc) {
    OMRAPMI_ASSERT(pidsc->pparams_ext->is_singleton == TRUE);
    OMRAPMI_SINGLETON_STATE *pstate = &omrapmi_worker_state.singleton_state;
    Spinlock_enter(&pstate->slock);
    const BOOLEAN was_free = pstate->pidsc_singleton == NULL;
    if (was_free) {
        pstate->pidsc_singleton = pidsc;
    }
    Spinlock_exit(&pstate->slock);
    return was_free;
}

void Omrapmi_singleton_release(OMRAPMI_IDSC *pidsc) {
    OMRAPMI_ASSERT(pidsc->pparams_ext->is_singleton == TRUE);
    OMRAPMI_SINGLETON_STATE *pstate = &omrapmi_worker_state.singleton_state;
    Spinlock_enter(&pstate->slock);
    if (pstate->pidsc_singleton == pidsc) {
        pstate->pidsc_singleton = NULL;
    }
    Spinlock_exit(&pstate->slock);
}
