// The dispatcher thread: takes accepted requests from idsc_blockq, finds out whether they can be
// worked on, and queues their work to wdsc_blockq.
//
// In call order: Omrapmi_thrd_dispatcher; start_workers, on the first request; Omrapmi_dispatcher,
// with dispatch_merge for a merge request and dispatch_eval for the other two kinds. The thread
// runs no user code and never waits for work to finish. Once a request's work is queued the request
// belongs to the worker threads; one that cannot be worked on is completed here, as failed.
#include "dispatch/dispatcher.h"

#include "common/trace.h"
#include "eval/merge_tree.h"
#include "eval/store_merge.h"
#include "eval/worker_thread.h"
#include "objects/objects.h"
#include "runtime/descriptors.h"
#include "runtime/functbl.h"
#include "runtime/params.h"
#include "runtime/singleton.h"

// The last app id whose keys can be marked as not renewing the object's time-out.
static constexpr ULONG MAX_MARKED_APP_ID = 0x0FFFFFFE;

static void trace_accepted(const OMRAPMI_IDSC *pidsc, const char *ptype) {
    OMRAPMI_TRACE("Omrapmi worker: accepting %s invreq %u for app id %d.\n", ptype,
                  pidsc->params.context, static_cast<int>(pidsc->params.app_id));
}

static BOOLEAN find_merge_func(OMRAPMI_IDSC *pidsc) {
    void *pfunc = NULL;
    const int ret = Omrapmi_func_table_get(static_cast<unsigned int>(pidsc->params.merge_op),
                                           pidsc->params.app_id, OMRAPMI_FUNC_MERGE, &pfunc);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-d 3] %d\n", ret);
        return FALSE;
    }
    pidsc->pfunc_merge = reinterpret_cast<OMRAPMI_MERGE_FUNCP>(pfunc);
    return TRUE;
}

static BOOLEAN find_eval_func(OMRAPMI_IDSC *pidsc) {
    const OMRAPMI_FUNC_TYPE type = pidsc->params.app_id == MGTI_APPID_INVOKE_ONCE
                                       ? OMRAPMI_FUNC_INVOKE_ONCE_EVAL
                                       : OMRAPMI_FUNC_EVAL;
    void *pfunc = NULL;
    const int ret = Omrapmi_func_table_get(static_cast<unsigned int>(pidsc->params.invoke_op),
                                           pidsc->pparams_ext->event_app_id, type, &pfunc);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-d 2] %d\n", ret);
        return FALSE;
    }
    pidsc->pfunc_eval = reinterpret_cast<OMRAPMI_EVAL_FUNCP>(pfunc);
    return TRUE;
}

// Reads the object named by params_key, which completion will free.
static BOOLEAN read_params_obj(OMRALIB_HANDLE hdl, OMRAPMI_IDSC *pidsc, unsigned int min_len,
                               unsigned int *plen_out) {
    char *pbuf = NULL;
    unsigned int len = 0;
    int ret = Omrapmi_read_get_obj(hdl, &pidsc->params.params_key, TRUE, &pbuf, &len);
    if (ret == OMRALIB_RET_SUCCESS) {
        pidsc->pfree1 = pbuf;
        if (len < min_len) {
            ret = OMRAPMI_ERR_NO_OBJECT_MEMORY;
        }
    }
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-d 0] %d\n", ret);
        return FALSE;
    }
    pidsc->pparams_ext = reinterpret_cast<OMRAPMI_PARAMS_EXT *>(pbuf);
    *plen_out = len;
    return TRUE;
}

// Merge request: the object named by params_key is to be merged into the results object.
static BOOLEAN dispatch_merge(OMRALIB_HANDLE hdl, OMRAPMI_IDSC *pidsc, unsigned int num_keys) {
    unsigned int source_len = 0;
    if (!read_params_obj(hdl, pidsc, 0, &source_len)) {
        return FALSE;
    }
    pidsc->pparams_obj = static_cast<char *>(pidsc->pfree1);
    pidsc->params_obj_len = source_len;
    trace_accepted(pidsc, "merge");
    if (!find_merge_func(pidsc)) {
        return FALSE;
    }
    OMRAPMI_ASSERT(pidsc->ppwdsc_list == NULL);
    OMRAPMI_ASSERT(num_keys == 0);
    pidsc->user_exceptions.num = 0;
    pidsc->user_exceptions.max_num = 1;

    OMRAPMI_WDSC *pwdsc = Omrapmi_get_wdsc();
    OMRAPMI_ASSERT(pwdsc != NULL);
    if (pwdsc == NULL) {
        return FALSE;
    }
    pwdsc->pidsc = pidsc;
    pwdsc->is_merge = TRUE;
    pidsc->pwdsc_single = pwdsc;
    Blockq_enq(&omrapmi_worker_state.wdsc_blockq, &pwdsc->link);
    return TRUE;
}

// Finds the parameters header and the parameters, in the key or in the object that it names.
static BOOLEAN get_params(OMRALIB_HANDLE hdl, OMRAPMI_IDSC *pidsc) {
    if (pidsc->params.immediate_params) {
        Omrapmi_immediate_params_get(&pidsc->params.params_key, &pidsc->pparams_ext,
                                     &pidsc->pparams_obj, &pidsc->params_obj_len);
        pidsc->pfree1 = NULL;
        return TRUE;
    }
    unsigned int len = 0;
    if (!read_params_obj(hdl, pidsc, sizeof(OMRAPMI_PARAMS_EXT), &len)) {
        return FALSE;
    }
    pidsc->params_obj_len = len - static_cast<unsigned int>(sizeof(OMRAPMI_PARAMS_EXT));
    pidsc->pparams_obj = pidsc->params_obj_len == 0
                             ? NULL
                             : static_cast<char *>(pidsc->pfree1) + sizeof(OMRAPMI_PARAMS_EXT);
    return TRUE;
}

// An invoke-once request has just one key, which names no object. One with another number of keys
// would be completed once for each of them.
static BOOLEAN check_invoke_once_key(const OMRAPMI_IDSC *pidsc, unsigned int num_keys) {
    OMRAPMI_ASSERT(num_keys == 1);
    if (num_keys != 1) {
        return FALSE;
    }
    OMRAPMI_ASSERT(OMRA_OBJKEY_IS_NULL(pidsc->pdata_key_list[0]));
    return TRUE;
}

// Marks the keys whose objects are to be read without renewing their time-outs.
static void prepare_data_keys(const OMRAPMI_IDSC *pidsc, unsigned int num_keys) {
    const BOOLEAN ignore = pidsc->pparams_ext->ignore_sliding_timeouts;
    for (unsigned int i = 0; i < num_keys; ++i) {
        OMRA_OBJKEY *pkey = &pidsc->pdata_key_list[i];
        OMRAPMI_ASSERT(!(OMRA_OBJKEY_IS_NULL(*pkey)));
        if (ignore && pkey->app_id <= MAX_MARKED_APP_ID) {
            pkey->app_id |= OMRA_APPID_NO_RENEW;
        }
    }
}

// Takes a work descriptor for every key and prepares the key's slot: all of them, or none.
static BOOLEAN prepare_work(OMRAPMI_IDSC *pidsc, unsigned int num_keys) {
    for (unsigned int i = 0; i < num_keys; ++i) {
        Omrapmi_init_sdsc(pidsc, i, num_keys);
        OMRAPMI_WDSC *pwdsc = Omrapmi_get_wdsc();
        OMRAPMI_ASSERT(pwdsc != NULL);
        if (pwdsc == NULL) {
            while (i > 0) {
                Omrapmi_free_wdsc(pidsc->ppwdsc_list[--i]);
            }
            return FALSE;
        }
        pwdsc->pidsc = pidsc;
        pwdsc->is_merge = FALSE;
        pwdsc->is_invoke_once = pidsc->params.app_id == MGTI_APPID_INVOKE_ONCE;
        pwdsc->index = i;
        pidsc->ppwdsc_list[i] = pwdsc;
    }
    return TRUE;
}

// Eval or invoke-once eval request.
static BOOLEAN dispatch_eval(OMRALIB_HANDLE hdl, OMRAPMI_IDSC *pidsc, unsigned int num_keys) {
    if (!get_params(hdl, pidsc)) {
        return FALSE;
    }
    if (pidsc->pparams_ext->is_singleton && !Omrapmi_singleton_acquire(pidsc)) {
        OMRAPMI_TRACE("Tr [pmi-d 1]\n");
        return FALSE;
    }
    if (pidsc->params.app_id == MGTI_APPID_INVOKE_ONCE) {
        if (!check_invoke_once_key(pidsc, num_keys)) {
            return FALSE;
        }
        trace_accepted(pidsc, "invoke-once eval");
    } else {
        prepare_data_keys(pidsc, num_keys);
        trace_accepted(pidsc, "eval");
    }
    if (!find_eval_func(pidsc) || !find_merge_func(pidsc)) {
        return FALSE;
    }
    OMRAPMI_ASSERT(pidsc->ppwdsc_list != NULL);
    OMRAPMI_ASSERT(num_keys != 0);
    pidsc->user_exceptions.num = 0;
    pidsc->user_exceptions.max_num = num_keys;
    if (num_keys == 0) { // nobody else would ever complete it
        Omrapmi_worker_complete_invoke(hdl, pidsc);
        return TRUE;
    }
    if (!prepare_work(pidsc, num_keys)) {
        return FALSE;
    }
    // The request may be complete, and gone, as soon as its last piece of work is queued. Of many
    // descriptors the first have left the cache by now: each is fetched some rounds ahead.
    OMRAPMI_WDSC **ppwdsc_list = pidsc->ppwdsc_list;
    constexpr unsigned int AHEAD = 8;
    for (unsigned int i = 0; i < num_keys; ++i) {
        if (i + AHEAD < num_keys) {
            __builtin_prefetch(&ppwdsc_list[i + AHEAD]->link, 1);
        }
        Blockq_enq(&omrapmi_worker_state.wdsc_blockq, &ppwdsc_list[i]->link);
    }
    return TRUE;
}

BOOLEAN Omrapmi_dispatcher(OMRALIB_HANDLE hdl, OMRAPMI_IDSC *pidsc) {
    OMRAPMI_ASSERT(pidsc != NULL);
    OMRAPMI_ASSERT(pidsc->user_exceptions.plist != NULL);
    const unsigned int num_keys = static_cast<unsigned int>(pidsc->params.num_keys);
    return pidsc->params.merge_request ? dispatch_merge(hdl, pidsc, num_keys)
                                       : dispatch_eval(hdl, pidsc, num_keys);
}

// Opens the dispatcher's handle and starts the worker threads. When one cannot be started, those
// before it keep running.
static BOOLEAN start_workers(OMRALIB_HANDLE *phdl_out) {
    OMRAPMI_TRACE("Omrapmi worker: starting.\n");
    *phdl_out = Omralib_open_ext(omrapmi_worker_state.pguid);
    if (*phdl_out == OMRALIB_NULL_HANDLE) {
        OMRAPMI_TRACE("Tr [pmi-td 0]\n");
        return FALSE;
    }
    for (unsigned int i = 0; i < omrapmi_worker_state.num_worker_thrds; ++i) {
        OMRAPMI_WORKER_THRD_STATE *pworker_thrd_st = &omrapmi_worker_state.pworker_thrd_st[i];
        pworker_thrd_st->tid = Thread_fork(Omrapmi_thrd_worker, pworker_thrd_st);
        if (pworker_thrd_st->tid == NULLTHREADID) {
            OMRAPMI_TRACE("Tr [pmi-td 1] %u\n", i);
            return FALSE;
        }
    }
    return TRUE;
}

void *Omrapmi_thrd_dispatcher(void *f_args) {
    OMRAPMI_ASSERT(f_args == NULL);
    BOOLEAN is_set_up = FALSE;
    OMRALIB_HANDLE hdl = OMRALIB_NULL_HANDLE;
    for (;;) {
        OMRAPMI_IDSC *pidsc = reinterpret_cast<OMRAPMI_IDSC *>(
            Blockq_deq(&omrapmi_worker_state.idsc_blockq, SYS_WAIT_FOREVER));
        OMRAPMI_ASSERT(pidsc != NULL);
        if (pidsc == NULL) {
            continue;
        }
        if (!is_set_up) {
            is_set_up = TRUE;
            if (!start_workers(&hdl)) {
                Thread_end();
                return NULL;
            }
        }
        if (!Omrapmi_dispatcher(hdl, pidsc)) {
            OMRAPMI_TRACE("Tr [pmi-td 2]\n");
            const ULONG num_keys = static_cast<ULONG>(pidsc->params.num_keys);
            pidsc->num_failed = num_keys != 0 ? num_keys : 1;
            Omrapmi_worker_complete_invoke(hdl, pidsc);
        }
    }
}
