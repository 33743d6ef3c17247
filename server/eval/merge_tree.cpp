// The merge tree of an eval request. In call order: Omrapmi_init_sdsc for every key, by the
// dispatcher; Omrapmi_merge_tree for every evaluated key, by the worker threads.
//
// All slots of a request are guarded by its lock_merge, so exactly one thread sees slot 0 complete;
// that thread, having left the lock, is the last one that works on the request. A slot's work
// descriptor goes back to its pool when the slot has been merged onwards.
#include "eval/merge_tree.h"

#include "common/trace.h"
#include "eval/store_merge.h"
#include "eval/user_merge.h"
#include "runtime/descriptors.h"
#include "util.h"

unsigned int Omrapmi_get_pred_index(unsigned int index) {
    return Util_get_pred_index(index, 0xFFFFFFFF);
}

unsigned int Omrapmi_get_pred_mask(unsigned int index) {
    return Util_get_pred_mask(index, 0xFFFFFFFF);
}

unsigned int Omrapmi_get_succ_mask(unsigned int index, unsigned int num_indexes) {
    return Util_get_succ_mask(index, num_indexes, 0xFFFFFFFF);
}

void Omrapmi_init_sdsc(OMRAPMI_IDSC *pidsc, unsigned int index, unsigned int num_indexes) {
    OMRAPMI_ASSERT(pidsc->psdsc_list != NULL);
    OMRAPMI_SDSC *psdsc = &pidsc->psdsc_list[index];
    psdsc->pidsc = pidsc;
    psdsc->presults_obj = NULL;
    psdsc->succ_mask = Omrapmi_get_succ_mask(index, num_indexes);
    psdsc->succ_done = 0;
    psdsc->num_successful = 0;
    psdsc->num_failed = 0;
    psdsc->local_done = FALSE;
    psdsc->results_obj_len = 0;
}

static BOOLEAN is_complete(const OMRAPMI_SDSC *psdsc) {
    return psdsc->local_done && psdsc->succ_done == psdsc->succ_mask;
}

// Tells the context queries of the calling worker thread whose slot it now works for: the
// descriptor that it had before is about to go back to its pool.
static void move_thread_to(OMRAPMI_WDSC *pwdsc) {
    OMRAPMI_WORKER_THRD_STATE *pworker_thrd_st =
        static_cast<OMRAPMI_WORKER_THRD_STATE *>(Thread_datap_get());
    if (pworker_thrd_st != NULL) {
        pworker_thrd_st->pwdsc = pwdsc;
    }
}

// Accounts for the slot's own key. The slot takes over the key's result.
static void merge_local(OMRAPMI_SDSC *psdsc, OMRAPMI_WDSC *pwdsc, BOOLEAN eval_success) {
    OMRAPMI_IDSC *pidsc = psdsc->pidsc;
    if (eval_success && Omrapmi_worker_merge_in_mem(pidsc->pfunc_merge, &pidsc->user_exceptions,
                                                    &psdsc->presults_obj, &psdsc->results_obj_len,
                                                    pwdsc->presults_obj, pwdsc->results_obj_len)) {
        psdsc->num_successful += 1;
    } else {
        psdsc->num_failed += 1;
    }
    psdsc->local_done = TRUE;
}

// Merges a complete slot into its predecessor. When the user's merge fails, the slot's result is
// lost, and with it every key that it stood for.
static void merge_onwards(OMRAPMI_SDSC *psdsc_curr, OMRAPMI_SDSC *psdsc_pred,
                          unsigned int pred_mask) {
    OMRAPMI_IDSC *pidsc = psdsc_curr->pidsc;
    const BOOLEAN fret = Omrapmi_worker_merge_in_mem(
        pidsc->pfunc_merge, &pidsc->user_exceptions, &psdsc_pred->presults_obj,
        &psdsc_pred->results_obj_len, psdsc_curr->presults_obj, psdsc_curr->results_obj_len);
    if (fret) {
        psdsc_pred->num_successful += psdsc_curr->num_successful;
        psdsc_pred->num_failed += psdsc_curr->num_failed;
    } else {
        psdsc_pred->num_failed += psdsc_curr->num_successful + psdsc_curr->num_failed;
    }
    psdsc_pred->succ_done |= pred_mask;
}

// Merges slots into their predecessors from `index` on, as long as they are complete. Returns the
// index at which the climb ended: 0, or that of a slot that is not complete.
static unsigned int climb(OMRAPMI_IDSC *pidsc, unsigned int index) {
    unsigned int index_curr = index;
    unsigned int lchk = 0;
    while (index_curr != 0 && is_complete(&pidsc->psdsc_list[index_curr])) {
        if (lchk <= OMRAPMI_MAX_ROUNDS) {
            ++lchk;
        }
        if (lchk > OMRAPMI_MAX_ROUNDS) {
            OMRAPMI_ASSERT(FALSE);
        }
        const unsigned int index_pred = Omrapmi_get_pred_index(index_curr);
        OMRAPMI_WDSC *pwdsc_pred = pidsc->ppwdsc_list[index_pred];
        OMRAPMI_SDSC *psdsc_pred = &pidsc->psdsc_list[index_pred];
        OMRAPMI_ASSERT(pwdsc_pred != NULL);
        OMRAPMI_ASSERT(psdsc_pred != NULL);
        merge_onwards(&pidsc->psdsc_list[index_curr], psdsc_pred,
                      Omrapmi_get_pred_mask(index_curr));
        move_thread_to(pwdsc_pred);
        Omrapmi_free_wdsc(pidsc->ppwdsc_list[index_curr]);
        index_curr = index_pred;
    }
    return index_curr;
}

// Ends a request whose slot 0 is complete. No other thread works on it any more.
static void finish_request(OMRALIB_HANDLE hdl, OMRAPMI_IDSC *pidsc) {
    const OMRAPMI_SDSC *proot = &pidsc->psdsc_list[0];
    const int ret =
        Omrapmi_worker_merge_to_store(hdl, pidsc, proot->presults_obj, proot->results_obj_len);
    if (ret == OMRALIB_RET_SUCCESS) {
        pidsc->num_successful = proot->num_successful;
        pidsc->num_failed = proot->num_failed;
    } else {
        OMRAPMI_TRACE("Tr [pmi-we 1] %d\n", ret);
        pidsc->num_failed = proot->num_successful + proot->num_failed;
    }
    Sys_free(proot->presults_obj);
    Omrapmi_free_wdsc(pidsc->ppwdsc_list[0]);
    Omrapmi_worker_complete_invoke(hdl, pidsc);
}

void Omrapmi_merge_tree(OMRALIB_HANDLE hdl, OMRAPMI_WDSC *pwdsc, BOOLEAN eval_success) {
    OMRAPMI_IDSC *pidsc = pwdsc->pidsc;
    const unsigned int index = pwdsc->index;

    int ret_lock = Lock_enter(&pidsc->lock_merge, SYS_WAIT_FOREVER);
    OMRAPMI_ASSERT(ret_lock == 1);
    merge_local(&pidsc->psdsc_list[index], pwdsc, eval_success);
    const unsigned int index_end = climb(pidsc, index);
    const BOOLEAN is_last = index_end == 0 && is_complete(&pidsc->psdsc_list[0]);
    ret_lock = Lock_exit(&pidsc->lock_merge);
    OMRAPMI_ASSERT(ret_lock == 1);
    if (is_last) {
        finish_request(hdl, pidsc);
    }
}
