// The pools of invocation and work descriptors: free queues that grow by batches.
//
// A descriptor is reset when it leaves a new batch and when it is given back, so whatever lies on a
// free queue is ready for use. The free queues lock themselves; two threads that find one empty at
// the same time each add a batch.
#include "runtime/descriptors.h"

#include <string.h>

#include "common/trace.h"

void Omrapmi_init_idsc(OMRAPMI_IDSC *pidsc) {
    OMRAPMI_ASSERT(pidsc != NULL);
    if (pidsc->code != OMRAPMI_IDSC_CODE) {
        pidsc->code = OMRAPMI_IDSC_CODE;
        Link_init(&pidsc->link);
        Spinlock_init(&pidsc->user_exceptions.slock, OMRAPMI_EXCEPTIONS_SLOCK_ID, 0);
        Lock_init(&pidsc->lock_merge);
    } else {
        OMRAPMI_ASSERT(!Link_inuse(&(pidsc->link)));
    }
    memset(&pidsc->params, 0, sizeof pidsc->params);
    pidsc->pparams_ext = NULL;
    pidsc->pfunc_eval = NULL;
    pidsc->pfunc_merge = NULL;
    pidsc->pwdsc_single = NULL;
    pidsc->psdsc_list = NULL;
    pidsc->ppwdsc_list = NULL;
    pidsc->pdata_key_list = NULL;
    pidsc->pparams_obj = NULL;
    pidsc->params_obj_len = 0;
    pidsc->num_successful = 0;
    pidsc->num_failed = 0;
    pidsc->user_exceptions.num = 0;
    pidsc->user_exceptions.max_num = 0;
    pidsc->user_exceptions.plist = NULL;
    pidsc->pfree0 = NULL;
    pidsc->pfree1 = NULL;
}

OMRAPMI_IDSC *Omrapmi_get_idsc(void) {
    OMRAPMI_IDSC *pidsc =
        reinterpret_cast<OMRAPMI_IDSC *>(Queue_deq(&omrapmi_worker_state.idsc_freeq));
    if (pidsc != NULL) {
        OMRAPMI_ASSERT(pidsc->code == OMRAPMI_IDSC_CODE);
        return pidsc;
    }
    pidsc = static_cast<OMRAPMI_IDSC *>(
        Sys_malloc(OMRAPMI_IDSC_BATCH_LEN * sizeof *pidsc, OMRAPMI_TAG_IDSC_BATCH));
    OMRAPMI_ASSERT(pidsc != NULL);
    if (pidsc == NULL) {
        return NULL;
    }
    for (unsigned int i = 1; i < OMRAPMI_IDSC_BATCH_LEN; ++i) {
        pidsc[i].code = 0;
        Omrapmi_init_idsc(&pidsc[i]);
        Queue_enq(&omrapmi_worker_state.idsc_freeq, &pidsc[i].link);
    }
    pidsc->code = 0;
    Omrapmi_init_idsc(pidsc);
    return pidsc;
}

void Omrapmi_free_idsc(OMRAPMI_IDSC *pidsc) {
    OMRAPMI_ASSERT(pidsc->code == OMRAPMI_IDSC_CODE);
    Omrapmi_init_idsc(pidsc);
    Queue_enq(&omrapmi_worker_state.idsc_freeq, &pidsc->link);
}

void Omrapmi_init_wdsc(OMRAPMI_WDSC *pwdsc) {
    OMRAPMI_ASSERT(pwdsc != NULL);
    if (pwdsc->code != OMRAPMI_WDSC_CODE) {
        pwdsc->code = OMRAPMI_WDSC_CODE;
        Link_init(&pwdsc->link);
    } else {
        OMRAPMI_ASSERT(!Link_inuse(&(pwdsc->link)));
    }
    pwdsc->pidsc = NULL;
    pwdsc->is_merge = FALSE;
    pwdsc->is_invoke_once = FALSE;
    pwdsc->index = 0;
    pwdsc->pdata_obj = NULL;
    pwdsc->data_obj_len = 0;
    pwdsc->presults_obj = NULL;
    pwdsc->results_obj_len = 0;
}

OMRAPMI_WDSC *Omrapmi_get_wdsc(void) {
    OMRAPMI_WDSC *pwdsc =
        reinterpret_cast<OMRAPMI_WDSC *>(Queue_deq(&omrapmi_worker_state.wdsc_freeq));
    if (pwdsc != NULL) {
        OMRAPMI_ASSERT(pwdsc->code == OMRAPMI_WDSC_CODE);
        return pwdsc;
    }
    pwdsc = static_cast<OMRAPMI_WDSC *>(
        Sys_malloc(OMRAPMI_WDSC_BATCH_LEN * sizeof *pwdsc, OMRAPMI_TAG_WDSC_BATCH));
    OMRAPMI_ASSERT(pwdsc != NULL);
    if (pwdsc == NULL) {
        return NULL;
    }
    for (unsigned int i = 1; i < OMRAPMI_WDSC_BATCH_LEN; ++i) {
        pwdsc[i].code = 0;
        Omrapmi_init_wdsc(&pwdsc[i]);
        Queue_enq(&omrapmi_worker_state.wdsc_freeq, &pwdsc[i].link);
    }
    pwdsc->code = 0;
    Omrapmi_init_wdsc(pwdsc);
    return pwdsc;
}

void Omrapmi_free_wdsc(OMRAPMI_WDSC *pwdsc) {
    OMRAPMI_ASSERT(pwdsc != NULL);
    OMRAPMI_ASSERT(pwdsc->code == OMRAPMI_WDSC_CODE);
    Omrapmi_init_wdsc(pwdsc);
    Queue_enq(&omrapmi_worker_state.wdsc_freeq, &pwdsc->link);
}
