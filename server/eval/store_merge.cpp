// The end of a request on this host. In call order: Omrapmi_worker_merge_to_store, then
// Omrapmi_worker_complete_invoke, which calls Omrapmi_save_user_exceptions.
//
// The order is fixed: the result is in the results object before the exceptions are saved, and both
// are in the store before completion is reported. Hosts meet only at those two objects, under the
// store's object lock; no lock of the module is held here.
#include "eval/store_merge.h"

#include <string.h>

#include "common/trace.h"
#include "eval/user_merge.h"
#include "objects/objects.h"
#include "runtime/descriptors.h"
#include "runtime/singleton.h"

// Merges the result into the bytes of the locked results object, which this function releases, and
// unlocks it. A failed user merge leaves the object as it was and is no failure here: it is
// recorded, and the host's counts stand.
static int merge_to_locked(OMRALIB_HANDLE hdl, OMRAPMI_IDSC *pidsc, int lock_tkt,
                           char *presults_obj_dst, unsigned int results_obj_len_dst,
                           char *presults_obj_src, unsigned int results_obj_len_src) {
    int ret = OMRALIB_RET_SUCCESS;
    BOOLEAN is_unlocked = FALSE;
    if (Omrapmi_worker_merge_wrapper(pidsc->pfunc_merge, &pidsc->user_exceptions, &presults_obj_dst,
                                     &results_obj_len_dst, presults_obj_src, results_obj_len_src)) {
        ret = Omralib_update_locked_obj(hdl, lock_tkt, 1, 0, presults_obj_dst, results_obj_len_dst,
                                        pidsc->params.results_key);
        is_unlocked = ret == OMRALIB_RET_SUCCESS;
        if (ret != OMRALIB_RET_SUCCESS) {
            OMRAPMI_TRACE("Tr [pmi-wmts 1] %d\n", ret);
        }
    }
    if (!is_unlocked) {
        Omralib_unlock_obj(hdl, lock_tkt, 0, pidsc->params.results_key);
    }
    if (presults_obj_dst != presults_obj_src) {
        Sys_free(presults_obj_dst);
    }
    return ret;
}

int Omrapmi_worker_merge_to_store(OMRALIB_HANDLE hdl, OMRAPMI_IDSC *pidsc, char *presults_obj_src,
                                  unsigned int results_obj_len_src) {
    if (presults_obj_src == NULL) {
        OMRAPMI_ASSERT(results_obj_len_src == 0);
        return OMRALIB_RET_SUCCESS;
    }
    OMRAPMI_ASSERT(hdl != OMRALIB_NULL_HANDLE);
    OMRAPMI_ASSERT(pidsc != NULL);

    const char *presults_obj_dst = NULL;
    unsigned int results_obj_len_dst = 0;
    const int ret = Omrapmi_read_get_or_create_and_lock_obj(
        hdl, &pidsc->params.results_key, &presults_obj_dst, &results_obj_len_dst, 0,
        presults_obj_src, results_obj_len_src, pidsc->params.invoke_timeout);
    if (ret < 0) {
        OMRAPMI_TRACE("Tr [pmi-wmts 0] %d\n", ret);
        return ret;
    }
    const int lock_tkt = ret;
    OMRAPMI_ASSERT(lock_tkt != OMRALIB_NULL_LOCK_TKT);
    if (presults_obj_dst == presults_obj_src) { // it is the object's content now
        OMRAPMI_ASSERT(results_obj_len_src == results_obj_len_dst);
        OMRAPMI_ASSERT(ret == OMRALIB_RET_SUCCESS);
        return OMRALIB_RET_SUCCESS;
    }
    return merge_to_locked(hdl, pidsc, lock_tkt, const_cast<char *>(presults_obj_dst),
                           results_obj_len_dst, presults_obj_src, results_obj_len_src);
}

// Writes the locked exceptions object back with the list appended, and unlocks it.
// `pexceptions_obj` has room for the list behind its `exceptions_obj_len` bytes and is released.
static int append_to_locked(OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pexceptions_key, int lock_tkt,
                            char *pexceptions_obj, unsigned int exceptions_obj_len,
                            const OMRAPMI_EXCEPTION *plist, unsigned int exceptions_list_len) {
    memcpy(pexceptions_obj + exceptions_obj_len, plist, exceptions_list_len);
    const int ret =
        Omralib_update_locked_obj(hdl, lock_tkt, 1, 0, pexceptions_obj,
                                  exceptions_obj_len + exceptions_list_len, *pexceptions_key);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-sue 1] %d\n", ret);
        Omralib_unlock_obj(hdl, lock_tkt, 0, *pexceptions_key);
    }
    Sys_free(pexceptions_obj);
    return ret;
}

int Omrapmi_save_user_exceptions(OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pexceptions_key,
                                 unsigned int timeout_s,
                                 OMRAPMI_USER_EXCEPTIONS *puser_exceptions) {
    OMRAPMI_ASSERT(hdl != OMRALIB_NULL_HANDLE);
    OMRAPMI_ASSERT(puser_exceptions != NULL);
    const OMRAPMI_EXCEPTION *plist = puser_exceptions->plist;
    if (puser_exceptions->num == 0) {
        return OMRALIB_RET_SUCCESS;
    }
    if (puser_exceptions->num > 0xFFFFFFFFu / sizeof *plist) { // more than an object can hold
        OMRAPMI_TRACE("Tr [pmi-sue 0] %d\n", OMRAPMI_ERR_NO_OBJECT_MEMORY);
        return OMRAPMI_ERR_NO_OBJECT_MEMORY;
    }
    const unsigned int exceptions_list_len =
        puser_exceptions->num * static_cast<unsigned int>(sizeof *plist);

    const char *pexceptions_obj = NULL;
    unsigned int exceptions_obj_len = 0;
    const int ret = Omrapmi_read_get_or_create_and_lock_obj(
        hdl, pexceptions_key, &pexceptions_obj, &exceptions_obj_len, exceptions_list_len,
        reinterpret_cast<const char *>(plist), exceptions_list_len, timeout_s);
    if (ret < 0) {
        OMRAPMI_TRACE("Tr [pmi-sue 0] %d\n", ret);
        return ret;
    }
    const int lock_tkt = ret;
    OMRAPMI_ASSERT(lock_tkt != OMRALIB_NULL_LOCK_TKT);
    if (pexceptions_obj == reinterpret_cast<const char *>(plist)) { // it is the content now
        OMRAPMI_ASSERT(exceptions_obj_len == exceptions_list_len);
        OMRAPMI_ASSERT(ret == OMRALIB_RET_SUCCESS);
        return OMRALIB_RET_SUCCESS;
    }
    return append_to_locked(hdl, pexceptions_key, lock_tkt, const_cast<char *>(pexceptions_obj),
                            exceptions_obj_len, plist, exceptions_list_len);
}

// Reports the counts; the store drops what it knows of a request that it could not be told about.
static void report_counts(OMRALIB_HANDLE hdl, const OMRAPMI_IDSC *pidsc) {
    int ret = Omralib_complete_invoke(hdl, pidsc->params.context, pidsc->num_successful,
                                      pidsc->num_failed);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wci 1] %d\n", ret);
        ret = Omralib_flush_invoke(pidsc->params.context);
        OMRAPMI_TRACE("Tr [pmi-wci 2] %d\n", ret);
    }
}

static void trace_completed(const OMRAPMI_IDSC *pidsc) {
    const char *ptype = "eval";
    if (pidsc->params.merge_request) {
        ptype = "merge";
    } else if (pidsc->params.app_id == MGTI_APPID_INVOKE_ONCE) {
        ptype = "invoke-once eval";
    }
    if (pidsc->pparams_ext != NULL) {
        OMRAPMI_TRACE("Omrapmi worker: completed %s invreq %u for app id %d.\n", ptype,
                      pidsc->params.context, static_cast<int>(pidsc->params.app_id));
    } else {
        OMRAPMI_TRACE("Omrapmi worker: completed %s invreq %u after failure.\n", ptype,
                      pidsc->params.context);
    }
}

void Omrapmi_worker_complete_invoke(OMRALIB_HANDLE hdl, OMRAPMI_IDSC *pidsc) {
    OMRAPMI_ASSERT(hdl != OMRALIB_NULL_HANDLE);
    OMRAPMI_ASSERT(pidsc != NULL);
    const int ret = Omrapmi_save_user_exceptions(
        hdl, &pidsc->params.exceptions_key, pidsc->params.invoke_timeout, &pidsc->user_exceptions);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wci 0] %d\n", ret);
    }
    if (!pidsc->params.merge_request && pidsc->pparams_ext != NULL &&
        pidsc->pparams_ext->is_singleton) {
        Omrapmi_singleton_release(pidsc);
    }
    report_counts(hdl, pidsc);
    trace_completed(pidsc);
    if (pidsc->params.merge_request || !pidsc->params.immediate_params) {
        Sys_free(pidsc->pfree1);
    }
    Sys_free(pidsc->pfree0);
    Omrapmi_free_idsc(pidsc);
}
