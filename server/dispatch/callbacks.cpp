// The callbacks that the store library calls. The invoke callback does the quick part of accepting
// a request: it takes a descriptor, copies the request, fetches the keys and hands the descriptor
// to the dispatcher thread. It waits for nothing. Whether the request can be worked on is found out
// later.
#include <limits.h>
#include <string.h>

#include "common/records.h"
#include "common/trace.h"
#include "runtime/descriptors.h"

// Makes the memory block of a merge request: room for its one exception.
static BOOLEAN allocate_merge_block(OMRAPMI_IDSC *pidsc) {
    pidsc->pfree0 = Sys_malloc(sizeof(OMRAPMI_EXCEPTION), OMRAPMI_TAG_REQUEST);
    pidsc->user_exceptions.plist = static_cast<OMRAPMI_EXCEPTION *>(pidsc->pfree0);
    return pidsc->pfree0 != NULL;
}

// Makes the memory block of a request with keys: keys, slots, work pointers and exceptions, one of
// each a key, as four arrays one after the other. No memory is asked for a negative number, which
// as a count is one of the largest.
static BOOLEAN allocate_eval_block(OMRAPMI_IDSC *pidsc, size_t num_keys) {
    static_assert(sizeof(OMRA_OBJKEY) % alignof(OMRAPMI_SDSC) == 0 &&
                      sizeof(OMRAPMI_SDSC) % alignof(OMRAPMI_WDSC *) == 0 &&
                      sizeof(OMRAPMI_WDSC *) % alignof(OMRAPMI_EXCEPTION) == 0,
                  "each array ends where the next may begin");
    constexpr size_t key_len = sizeof(OMRA_OBJKEY) + sizeof(OMRAPMI_SDSC) + sizeof(OMRAPMI_WDSC *) +
                               sizeof(OMRAPMI_EXCEPTION);
    static_assert(SIZE_MAX / key_len >= INT_MAX, "the length of no block overflows");
    if (num_keys > INT_MAX) {
        return FALSE;
    }
    char *pblock = static_cast<char *>(Sys_malloc(num_keys * key_len, OMRAPMI_TAG_REQUEST));
    if (pblock == NULL) {
        return FALSE;
    }
    pidsc->pfree0 = pblock;
    pidsc->pdata_key_list = reinterpret_cast<OMRA_OBJKEY *>(pblock);
    pidsc->psdsc_list = reinterpret_cast<OMRAPMI_SDSC *>(pidsc->pdata_key_list + num_keys);
    pidsc->ppwdsc_list = reinterpret_cast<OMRAPMI_WDSC **>(pidsc->psdsc_list + num_keys);
    pidsc->user_exceptions.plist =
        reinterpret_cast<OMRAPMI_EXCEPTION *>(pidsc->ppwdsc_list + num_keys);
    return TRUE;
}

int Omrapmi_invoke_ext_cb(const char *pguid, OMRALIB_INVOKE_PARAMS *pparams) {
    OMRAPMI_ASSERT(pguid != NULL);
    if (pguid != NULL) {
        OMRAPMI_ASSERT(0 == memcmp(pguid, omrapmi_worker_state.pguid, OMRALIB_GUID_LEN));
    }
    OMRAPMI_ASSERT(pparams != NULL);
    if (pparams == NULL) {
        return OMRALIB_INVOKE_NO_MEMORY;
    }
    const BOOLEAN merge_request = pparams->merge_request;
    const unsigned int num_keys = static_cast<unsigned int>(pparams->num_keys);
    OMRAPMI_ASSERT(pparams->merge_request || pparams->app_id != MGTI_APPID_INVOKE_ONCE ||
                   pparams->num_keys == 1);

    OMRAPMI_IDSC *pidsc = Omrapmi_get_idsc();
    if (pidsc == NULL) {
        OMRAPMI_TRACE("Tr [pmi-ic 0]\n");
        return OMRALIB_INVOKE_NO_MEMORY;
    }
    pidsc->params = *pparams;

    BOOLEAN has_block;
    if (merge_request) {
        OMRAPMI_ASSERT(num_keys == 0);
        has_block = allocate_merge_block(pidsc);
    } else {
        OMRAPMI_ASSERT(num_keys > 0);
        has_block = allocate_eval_block(pidsc, num_keys);
    }
    if (!has_block) {
        OMRAPMI_TRACE("Tr [pmi-ic 1]\n");
        Omrapmi_free_idsc(pidsc);
        return OMRALIB_INVOKE_NO_MEMORY;
    }
    if (!merge_request) {
        const int ret = Omralib_get_invoke_keys(pparams->context, pidsc->pdata_key_list, num_keys);
        if (ret != OMRALIB_RET_SUCCESS) {
            OMRAPMI_TRACE("Tr [pmi-ic 2] %d\n", ret);
            Sys_free(pidsc->pfree0);
            Omrapmi_free_idsc(pidsc);
            return OMRALIB_INVOKE_NO_KEYS;
        }
    }
    Blockq_enq(&omrapmi_worker_state.idsc_blockq, &pidsc->link);
    return OMRALIB_INVOKE_ACCEPTED;
}

int Omrapmi_event_ext_cb(OMRA_OBJKEY key, const char *pguid, unsigned int event_code) {
    OMRAPMI_ASSERT(pguid != NULL);
    OMRAPMI_TRACE("Tr [pmi-eec 0] %d %u %u\n", static_cast<int>(key.app_id), event_code,
                  pguid != NULL ? static_cast<unsigned char>(pguid[0]) : 0u);
    return OMRALIB_EVENT_NOT_HANDLED;
}
