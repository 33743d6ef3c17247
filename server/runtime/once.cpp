// The once-only stages of what the module sets up; see once.h.
//
// The flags of the quick stage and of the whole are looked at in one visit of the critical section,
// which is all that a call costs once everything is set up.
#include "runtime/once.h"

#include "common/trace.h"

int Omrapmi_do_once(OMRAPMI_ONCE *ponce, unsigned int arg) {
    Enter_cs();
    if (ponce->init) {
        Exit_cs();
        return OMRALIB_RET_SUCCESS;
    }
    if (!ponce->fast_init) {
        if (ponce->pquick != NULL) {
            ponce->pquick();
        }
        ponce->fast_init = TRUE;
    }
    Exit_cs();

    int ret = OMRALIB_RET_SUCCESS;
    int ret_lock = Lock_enter(ponce->plock, SYS_WAIT_FOREVER);
    OMRAPMI_ASSERT(ret_lock == 1);
    if (!ponce->slow_init) {
        ret = ponce->pslow(arg);
        if (ret == OMRALIB_RET_SUCCESS) {
            ponce->slow_init = TRUE;
        }
    }
    ret_lock = Lock_exit(ponce->plock);
    OMRAPMI_ASSERT(ret_lock == 1);
    if (ret != OMRALIB_RET_SUCCESS) {
        return ret;
    }

    Enter_cs();
    ponce->init = TRUE;
    Exit_cs();
    return OMRALIB_RET_SUCCESS;
}
