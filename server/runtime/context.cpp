// What a user function may ask about the work that its thread is doing, and the memory that it
// hands to the module. Each query reads the calling thread's own record and what hangs on it, which
// stand still while the user function runs.
#include <string.h>

#include "common/records.h"
#include "common/trace.h"

int Omrapmi_get_key(OMRA_OBJKEY *pkey_out) {
    if (pkey_out == NULL) {
        return OMRAPMI_ERR_NULL_ARG;
    }
    OMRAPMI_WORKER_THRD_STATE *pworker_thrd_st = NULL;
    const int ret = Omrapmi_worker_thrd_st_get(&pworker_thrd_st);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-gk 0] %d\n", ret);
        return ret;
    }
    OMRAPMI_ASSERT(pworker_thrd_st != NULL &&
                   pworker_thrd_st->code == OMRAPMI_WORKER_THRD_STATE_CODE);
    if (pworker_thrd_st->pkey == NULL) {
        memset(pkey_out, 0, sizeof *pkey_out);
    } else {
        *pkey_out = *pworker_thrd_st->pkey;
    }
    return OMRALIB_RET_SUCCESS;
}

int Omrapmi_get_worker_thread_index(void) {
    OMRAPMI_WORKER_THRD_STATE *pworker_thrd_st = NULL;
    const int ret = Omrapmi_worker_thrd_st_get(&pworker_thrd_st);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-gwti 0] %d\n", ret);
        return ret;
    }
    OMRAPMI_ASSERT(pworker_thrd_st != NULL &&
                   pworker_thrd_st->code == OMRAPMI_WORKER_THRD_STATE_CODE);
    return static_cast<int>(pworker_thrd_st->index);
}

int Omrapmi_worker_get_svr_host_id(unsigned int *phost_id_out) {
    if (phost_id_out == NULL) {
        return OMRAPMI_ERR_NULL_ARG;
    }
    OMRAPMI_WORKER_THRD_STATE *pworker_thrd_st = NULL;
    const int ret = Omrapmi_worker_thrd_st_get(&pworker_thrd_st);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wgshi 0] %d\n", ret);
        return ret;
    }
    OMRAPMI_ASSERT(pworker_thrd_st != NULL &&
                   pworker_thrd_st->code == OMRAPMI_WORKER_THRD_STATE_CODE);
    OMRAPMI_ASSERT(pworker_thrd_st->pwdsc != NULL);
    if (pworker_thrd_st->pwdsc == NULL) {
        return OMRAPMI_ERR_NOT_A_WORKER;
    }
    OMRAPMI_ASSERT(pworker_thrd_st->pwdsc->pidsc != NULL);
    if (pworker_thrd_st->pwdsc->pidsc == NULL) {
        return OMRAPMI_ERR_NOT_A_WORKER;
    }
    *phost_id_out = pworker_thrd_st->pwdsc->pidsc->params.svr_host_id;
    return OMRALIB_RET_SUCCESS;
}

void *Omrapmi_malloc(size_t size) {
    Sys_util_init();
    return Sys_malloc(size, OMRAPMI_TAG_USER);
}

void Omrapmi_free(void *ptr) {
    Sys_util_init();
    Sys_free(ptr);
}
