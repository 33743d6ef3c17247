// The worker threads: each takes pieces of work from wdsc_blockq, one at a time, for the life of
// the process, and the only place where a user eval function is called.
//
// One function for each kind of work: Omrapmi_worker_eval for a key (then the merge tree),
// Omrapmi_worker_eval_invoke_once, Omrapmi_worker_merge. Reading an object and calling the user's
// function happen without any lock. Nothing that goes wrong with one key stops its request.
#include "eval/worker_thread.h"

#include <atomic>

#include "common/trace.h"
#include "eval/exceptions.h"
#include "eval/merge_tree.h"
#include "eval/store_merge.h"
#include "objects/objects.h"
#include "runtime/descriptors.h"

// Worker threads that ended at start-up.
static std::atomic<ULONG> num_ended{0};

BOOLEAN Omrapmi_worker_eval_wrapper(OMRAPMI_EVAL_FUNCP pfunc_eval,
                                    OMRAPMI_USER_EXCEPTIONS *puser_exceptions,
                                    OMRA_OBJKEY *pdata_key, char *pdata_obj,
                                    unsigned int data_obj_len, char *pparams_obj,
                                    unsigned int params_obj_len, char **ppresults_obj_out,
                                    unsigned int *presults_obj_len_out) {
    OMRAPMI_ASSERT(pfunc_eval != NULL);
    OMRAPMI_ASSERT(pdata_obj != NULL || data_obj_len == 0);
    OMRAPMI_ASSERT(pdata_obj == NULL || data_obj_len != 0);
    OMRAPMI_ASSERT(pparams_obj != NULL || params_obj_len == 0);
    OMRAPMI_ASSERT(pparams_obj == NULL || params_obj_len != 0);

    char *presults_obj_out = NULL;
    unsigned int results_obj_len_out = 0;
    const int user_ret = pfunc_eval(pdata_obj, data_obj_len, pparams_obj, params_obj_len,
                                    &presults_obj_out, &results_obj_len_out);
    if (user_ret != 0) {
        Omrapmi_log_user_exception(puser_exceptions, user_ret, FALSE, pdata_key);
        return FALSE;
    }
    *ppresults_obj_out = presults_obj_out;
    *presults_obj_len_out = results_obj_len_out;
    return TRUE;
}

// Reads the key's object and evaluates it; the result, if there is one, is then in `pwdsc`. An
// object that has gone since the keys were listed counts as evaluated, without a result.
static BOOLEAN read_and_eval(OMRALIB_HANDLE hdl, OMRAPMI_WDSC *pwdsc) {
    OMRAPMI_IDSC *pidsc = pwdsc->pidsc;
    OMRA_OBJKEY *pkey = &pidsc->pdata_key_list[pwdsc->index];
    const int ret = Omrapmi_read_get_obj(hdl, pkey, FALSE, &pwdsc->pdata_obj, &pwdsc->data_obj_len);
    if (ret == OMRALIB_ERR_OBJ_NOT_FOUND) {
        return TRUE;
    }
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-we 0] %d\n", ret);
        Omrapmi_log_user_exception(&pidsc->user_exceptions, ret, FALSE, pkey);
        return FALSE;
    }
    const BOOLEAN eval_success = Omrapmi_worker_eval_wrapper(
        pidsc->pfunc_eval, &pidsc->user_exceptions, pkey, pwdsc->pdata_obj, pwdsc->data_obj_len,
        pidsc->pparams_obj, pidsc->params_obj_len, &pwdsc->presults_obj, &pwdsc->results_obj_len);
    Sys_free(pwdsc->pdata_obj);
    pwdsc->pdata_obj = NULL;
    pwdsc->data_obj_len = 0;
    return eval_success;
}

void Omrapmi_worker_eval(OMRALIB_HANDLE hdl, OMRAPMI_WDSC *pwdsc) {
    OMRAPMI_ASSERT(pwdsc->pidsc->pdata_key_list != NULL);
    OMRAPMI_ASSERT(pwdsc->pidsc->params.num_keys != 0);
    OMRAPMI_ASSERT(!pwdsc->is_merge);
    OMRAPMI_ASSERT(pwdsc->presults_obj == NULL);
    OMRAPMI_ASSERT(pwdsc->results_obj_len == 0);

    const BOOLEAN eval_success = read_and_eval(hdl, pwdsc);
    Omrapmi_merge_tree(hdl, pwdsc, eval_success);
}

void Omrapmi_worker_eval_invoke_once(OMRALIB_HANDLE hdl, OMRAPMI_WDSC *pwdsc) {
    OMRAPMI_IDSC *pidsc = pwdsc->pidsc;
    OMRAPMI_ASSERT(pwdsc->pidsc != NULL);
    OMRAPMI_ASSERT(pwdsc->pidsc->pdata_key_list != NULL);
    OMRAPMI_ASSERT(pwdsc->pidsc->params.num_keys == 1);
    OMRAPMI_ASSERT(!pwdsc->is_merge);

    pwdsc->presults_obj = NULL;
    pwdsc->results_obj_len = 0;
    const BOOLEAN eval_success = Omrapmi_worker_eval_wrapper(
        pidsc->pfunc_eval, &pidsc->user_exceptions, NULL, NULL, 0, pidsc->pparams_obj,
        pidsc->params_obj_len, &pwdsc->presults_obj, &pwdsc->results_obj_len);
    const int ret =
        Omrapmi_worker_merge_to_store(hdl, pidsc, pwdsc->presults_obj, pwdsc->results_obj_len);
    if (ret == OMRALIB_RET_SUCCESS && eval_success) {
        pidsc->num_successful = 1;
    } else {
        if (ret != OMRALIB_RET_SUCCESS) {
            OMRAPMI_TRACE("Tr [pmi-weio 1] %d\n", ret);
        }
        pidsc->num_failed = 1;
    }
    Sys_free(pwdsc->presults_obj);
    Omrapmi_free_wdsc(pwdsc);
    Omrapmi_worker_complete_invoke(hdl, pidsc);
}

void Omrapmi_worker_merge(OMRALIB_HANDLE hdl, OMRAPMI_WDSC *pwdsc) {
    OMRAPMI_IDSC *pidsc = pwdsc->pidsc;
    OMRAPMI_ASSERT(pwdsc->pidsc != NULL);
    OMRAPMI_ASSERT(pwdsc->pidsc->pdata_key_list == NULL);
    OMRAPMI_ASSERT(pwdsc->pidsc->params.num_keys == 0);
    OMRAPMI_ASSERT(pwdsc->is_merge);

    const int ret =
        Omrapmi_worker_merge_to_store(hdl, pidsc, pidsc->pparams_obj, pidsc->params_obj_len);
    if (ret == OMRALIB_RET_SUCCESS) {
        pidsc->num_successful = 1;
    } else {
        OMRAPMI_TRACE("Tr [pmi-wm 0] %d\n", ret);
        pidsc->num_failed = 1;
    }
    Omrapmi_free_wdsc(pwdsc);
    Omrapmi_worker_complete_invoke(hdl, pidsc);
}

// Carries out one piece of work. Whoever does it disposes of the descriptor.
static void do_work(OMRALIB_HANDLE hdl, OMRAPMI_WORKER_THRD_STATE *pworker_thrd_st,
                    OMRAPMI_WDSC *pwdsc) {
    pworker_thrd_st->pwdsc = pwdsc;
    if (pwdsc->is_merge) {
        Omrapmi_worker_merge(hdl, pwdsc);
    } else if (pwdsc->is_invoke_once) {
        Omrapmi_worker_eval_invoke_once(hdl, pwdsc);
    } else {
        OMRAPMI_ASSERT(pwdsc->pidsc != NULL);
        OMRAPMI_ASSERT(pwdsc->pidsc->pdata_key_list != NULL);
        pworker_thrd_st->pkey = &pwdsc->pidsc->pdata_key_list[pwdsc->index];
        Omrapmi_worker_eval(hdl, pwdsc);
        pworker_thrd_st->pkey = NULL;
    }
    pworker_thrd_st->pwdsc = NULL;
}

// Makes the calling thread a worker thread with a handle of its own, or OMRALIB_NULL_HANDLE.
static OMRALIB_HANDLE start_up(OMRAPMI_WORKER_THRD_STATE *pworker_thrd_st) {
    pworker_thrd_st->tmyid = Thread_myid();
    const int ret = Thread_datap_set(pworker_thrd_st);
    if (ret != 1) {
        OMRAPMI_TRACE("Tr [pmi-tw 0] %d\n", ret);
        return OMRALIB_NULL_HANDLE;
    }
    const OMRALIB_HANDLE hdl = Omralib_open_ext(omrapmi_worker_state.pguid);
    if (hdl == OMRALIB_NULL_HANDLE) {
        OMRAPMI_TRACE("Tr [pmi-tw 1]\n");
    }
    return hdl;
}

void *Omrapmi_thrd_worker(void *f_pworker_thrd_st) {
    OMRAPMI_WORKER_THRD_STATE *pworker_thrd_st =
        static_cast<OMRAPMI_WORKER_THRD_STATE *>(f_pworker_thrd_st);
    OMRAPMI_ASSERT(pworker_thrd_st != NULL &&
                   pworker_thrd_st->code == OMRAPMI_WORKER_THRD_STATE_CODE);
    const OMRALIB_HANDLE hdl = start_up(pworker_thrd_st);
    if (hdl == OMRALIB_NULL_HANDLE) {
        if (++num_ended == omrapmi_worker_state.num_worker_thrds) {
            OMRAPMI_TRACE("Omrapmi worker: Warning: no worker thread could be started.\n");
        }
        Thread_end();
        return NULL;
    }
    for (;;) {
        OMRAPMI_WDSC *pwdsc = reinterpret_cast<OMRAPMI_WDSC *>(
            Blockq_deq(&omrapmi_worker_state.wdsc_blockq, SYS_WAIT_FOREVER));
        OMRAPMI_ASSERT(pwdsc != NULL);
        if (pwdsc != NULL) {
            do_work(hdl, pworker_thrd_st, pwdsc);
        }
    }
}
