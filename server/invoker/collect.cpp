// The objects that an invocation leaves in the store: removed, or read and removed.
#include "invoker/collect.h"

#include "common/trace.h"
#include "objects/objects.h"

// A failure counts only while there was none before.
static void note_failure(int *poutcome, int ret) {
    if (*poutcome == OMRALIB_RET_SUCCESS) {
        *poutcome = ret;
    }
}

static void remove_params(OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pparams_key, int *poutcome) {
    const int ret = Omralib_remove_obj(hdl, 0, *pparams_key);
    if (ret == OMRALIB_RET_SUCCESS) {
        return;
    }
    OMRAPMI_TRACE("Tr [pmi-ipo 0] %d\n", ret);
    if (ret == OMRALIB_ERR_OBJ_NOT_FOUND) { // it expired meanwhile
        return;
    }
    OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_KEY);
    note_failure(poutcome, ret);
}

static void collect_results(OMRALIB_HANDLE hdl, const OMRA_INVOKE_RESULT *pinv_result,
                            char **ppresults_obj, unsigned int *presults_obj_len, int *poutcome) {
    const int ret = Omrapmi_read_get_delete_obj(hdl, &pinv_result->results_key, ppresults_obj,
                                                presults_obj_len);
    if (ret == OMRALIB_RET_SUCCESS) {
        return;
    }
    OMRAPMI_TRACE("Tr [pmi-ipo 1] %d\n", ret);
    OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_KEY);
    OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_ARGS);
    OMRAPMI_ASSERT(ret != OMRALIB_ERR_NOT_READING);
    OMRAPMI_ASSERT(ret != OMRALIB_ERR_OBJ_NOT_FOUND);
    OMRAPMI_ASSERT(ret != OMRALIB_ERR_OBJ_READING);
    note_failure(poutcome,
                 ret == OMRAPMI_ERR_NO_OBJECT_MEMORY ? OMRAPMI_ERR_NO_INVOKER_MEMORY : ret);
}

static void collect_exceptions(OMRALIB_HANDLE hdl, const OMRA_INVOKE_RESULT *pinv_result,
                               OMRAPMI_EXCEPTION **ppexceptions, unsigned int *pnum_exceptions,
                               int *poutcome) {
    char *pexceptions_obj = NULL;
    unsigned int exceptions_obj_len = 0;
    int ret = Omrapmi_read_get_delete_obj(hdl, &pinv_result->exceptions_key, &pexceptions_obj,
                                          &exceptions_obj_len);
    if (ret == OMRALIB_RET_SUCCESS) {
        OMRAPMI_EXCEPTION *pexceptions = reinterpret_cast<OMRAPMI_EXCEPTION *>(pexceptions_obj);
        OMRAPMI_ASSERT(exceptions_obj_len % sizeof *pexceptions == 0);
        *ppexceptions = pexceptions;
        *pnum_exceptions = exceptions_obj_len / static_cast<unsigned int>(sizeof *pexceptions);
        return;
    }
    OMRAPMI_TRACE("Tr [pmi-ipo 2] %d %u %u\n", ret, pinv_result->num_successful,
                  pinv_result->num_failed);
    OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_KEY);
    OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_ARGS);
    OMRAPMI_ASSERT(ret != OMRALIB_ERR_NOT_READING);
    OMRAPMI_ASSERT(ret != OMRALIB_ERR_OBJ_READING);
    if (ret == OMRAPMI_ERR_NO_OBJECT_MEMORY) {
        ret = OMRAPMI_ERR_NO_INVOKER_MEMORY;
    } else if (ret == OMRALIB_ERR_OBJ_NOT_FOUND) {
        ret = OMRAPMI_ERR_EXCEPTIONS_LOST;
    }
    note_failure(poutcome, ret);
}

int Omrapmi_invoker_post(OMRALIB_HANDLE hdl, OMRA_OBJKEY *pparams_key, BOOLEAN immediate_params,
                         const OMRA_INVOKE_RESULT *pinv_result, char **ppresults_obj,
                         unsigned int *presults_obj_len, OMRAPMI_EXCEPTION **ppexceptions,
                         unsigned int *pnum_exceptions) {
    int outcome = OMRALIB_RET_SUCCESS;
    char *presults_obj = NULL;
    unsigned int results_obj_len = 0;
    OMRAPMI_EXCEPTION *pexceptions = NULL;
    unsigned int num_exceptions = 0;

    if (!immediate_params) {
        remove_params(hdl, pparams_key, &outcome);
    }
    if (!OMRA_OBJKEY_IS_NULL(pinv_result->results_key)) {
        collect_results(hdl, pinv_result, &presults_obj, &results_obj_len, &outcome);
    }
    if (pinv_result->num_failed != 0 && !OMRA_OBJKEY_IS_NULL(pinv_result->exceptions_key)) {
        collect_exceptions(hdl, pinv_result, &pexceptions, &num_exceptions, &outcome);
    }
    if (outcome != OMRALIB_RET_SUCCESS) {
        Sys_free(presults_obj);
        Sys_free(pexceptions);
        return outcome;
    }
    *ppresults_obj = presults_obj;
    *presults_obj_len = results_obj_len;
    *ppexceptions = pexceptions;
    *pnum_exceptions = num_exceptions;
    return OMRALIB_RET_SUCCESS;
}
