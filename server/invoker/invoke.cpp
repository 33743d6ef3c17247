// The entry of an invocation: check the arguments, put the parameters where the workers find them,
// send the request, collect what the workers left in the store.
//
// In call order: Omrapmi_invoke and Omrapmi_invoke_ext; Omrapmi_invoker_init; check_args;
// Omrapmi_invoker_pre (params); send_request; Omrapmi_invoker_post (collect). The calling thread
// waits inside Omralib_invoke. Whether a handle may be used, and who runs the request, is the
// store's matter.
#include "invoker/invoke.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "common/trace.h"
#include "invoker/collect.h"
#include "runtime/params.h"

// Once-only flags, guarded by the process-wide critical section.
static BOOLEAN is_seeded = FALSE;
static BOOLEAN init = FALSE;

static constexpr ULONG ALL_APP_IDS = 0xFFFFFFFF;

int Omrapmi_invoker_init(void) {
    const int ret = Omralib_init();
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [br-iai 0] %d\n", ret);
        return ret;
    }
    Omralib_use_large_keys();

    Enter_cs();
    if (!init) {
        if (!is_seeded) {
            ULONG seed = static_cast<ULONG>(time(NULL));
            seed *= Omralib_get_host_addr();
            seed *= Sys_get_pid();
            srand(seed);
            is_seeded = TRUE;
        }
        init = TRUE;
    }
    Exit_cs();
    return OMRALIB_RET_SUCCESS;
}

static BOOLEAN is_app_id_ok(ULONG app_id) {
    return app_id <= OMRAPMI_MAX_ORDINARY_APP_ID || app_id == MGTI_APPID_INVOKE_ONCE ||
           (app_id & 0xF0000000) == 0xD0000000 || app_id == ALL_APP_IDS;
}

static BOOLEAN is_event_app_id_ok(ULONG event_app_id) {
    return event_app_id <= OMRAPMI_MAX_ORDINARY_APP_ID || event_app_id == MGTI_APPID_INVOKE_ONCE ||
           event_app_id == MGTI_APPID_SYSTEM_BACKREST;
}

static BOOLEAN is_index_query_ok(const OMRAPMI_QUERY_SPEC *pspec) {
    if (pspec->num_index_specs > OMRAPMI_MAX_INDEX_SPECS || pspec->match_all > 1) {
        return FALSE;
    }
    for (ULONG i = 0; i < pspec->num_index_specs; ++i) {
        if (pspec->index_spec[i].index >= OMRA_NUM_INDEXES || pspec->index_spec[i].flags > 1) {
            return FALSE;
        }
    }
    return TRUE;
}

static BOOLEAN is_query_ok(const OMRAPMI_INVOKE_ARGS *pargs) {
    switch (pargs->use_query_spec) {
    case OMRAPMI_QUERY_INDEX:
        return pargs->query_spec_len == sizeof(OMRAPMI_QUERY_SPEC) && pargs->pquery_spec != NULL &&
               is_index_query_ok(static_cast<const OMRAPMI_QUERY_SPEC *>(pargs->pquery_spec));
    case OMRAPMI_QUERY_PASS_THROUGH:
        return pargs->query_spec_len != 0 && pargs->pquery_spec != NULL;
    default:
        return pargs->query_spec_len == 0 && pargs->pquery_spec == NULL;
    }
}

// The first rule that is broken, in this order, decides the code.
static int check_args(const OMRAPMI_INVOKE_ARGS *pargs, const OMRAPMI_INVOKE_EXT_ARGS *pargs_ext) {
    if (!is_app_id_ok(pargs->app_id)) {
        return OMRAPMI_ERR_BAD_APP_ID;
    }
    if (pargs->func_id_eval >= OMRAPMI_NUM_FUNC_IDS ||
        pargs->func_id_merge >= OMRAPMI_NUM_FUNC_IDS) {
        return OMRAPMI_ERR_BAD_FUNC_ID;
    }
    if ((pargs->pparams_obj == NULL) != (pargs->params_obj_len == 0)) {
        return OMRAPMI_ERR_BAD_PARAMS;
    }
    if (pargs->use_query_spec > OMRAPMI_QUERY_PASS_THROUGH) {
        return OMRAPMI_ERR_BAD_FLAG;
    }
    if (!is_query_ok(pargs)) {
        return OMRAPMI_ERR_BAD_QUERY_SPEC;
    }
    if (!is_event_app_id_ok(pargs_ext->event_app_id)) {
        return OMRAPMI_ERR_BAD_APP_ID;
    }
    if (pargs->use_exceptions > 1) {
        return OMRAPMI_ERR_BAD_FLAG;
    }
    return OMRALIB_RET_SUCCESS;
}

// Everything of a request header that does not depend on the kind of query.
static void fill_header(OMRA_INDEX_HDR *phdr, const OMRAPMI_INVOKE_ARGS *pargs,
                        const OMRAPMI_INVOKE_EXT_ARGS *pargs_ext, const OMRA_OBJKEY *pparams_key,
                        BOOLEAN immediate_params) {
    memset(phdr, 0, sizeof *phdr);
    phdr->reserved = OMRALIB_INDEX_OP_INVOKE;
    phdr->app_id = pargs->app_id;
    phdr->invoke_op = pargs->func_id_eval;
    phdr->merge_op = pargs->func_id_merge;
    phdr->invoke_timeout = pargs->timeout_s;
    phdr->reserved2 = pargs_ext->event_app_id;
    phdr->immediate_params = immediate_params;
    phdr->params_key = *pparams_key;
}

// Sends a request and waits for its result, of which `*presult_len_out` bytes are then pending.
static int send_request(OMRALIB_HANDLE hdl, const OMRA_INDEX_HDR *phdr, unsigned int req_len,
                        unsigned int *presult_len_out) {
    OMRAPMI_TRACE("Omrapmi invoker: starting invocation for app id %d.\n",
                  static_cast<int>(phdr->reserved2));
    const int ret = Omralib_invoke(hdl, 0, phdr, req_len, presult_len_out);
    OMRAPMI_TRACE("Omrapmi invoker: finished invocation for app id %d.\n",
                  static_cast<int>(phdr->reserved2));
    if (ret != OMRALIB_RET_SUCCESS && ret != OMRALIB_ERR_INVOKE_TIMEOUT) {
        OMRAPMI_TRACE("Tr [pmi-ie 3] %d\n", ret);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_ARGS);
    }
    return ret;
}

// Sends the request with the terms of an index query, or with no query at all, from the stack.
static int send_index_request(OMRALIB_HANDLE hdl, const OMRA_INDEX_HDR *phdr,
                              const OMRAPMI_INVOKE_ARGS *pargs, unsigned int *presult_len_out) {
    OMRAPMI_INDEX_LIST list;
    list.hdr = *phdr;
    unsigned int specs_len = 0;
    if (pargs->use_query_spec == OMRAPMI_QUERY_INDEX) {
        const OMRAPMI_QUERY_SPEC *pindex_spec =
            static_cast<const OMRAPMI_QUERY_SPEC *>(pargs->pquery_spec);
        OMRAPMI_ASSERT(pindex_spec != NULL);
        list.hdr.num_index = pindex_spec->num_index_specs;
        list.hdr.reserved1 = pindex_spec->match_all;
        specs_len = pindex_spec->num_index_specs * static_cast<unsigned int>(sizeof list.specs[0]);
        memcpy(list.specs, pindex_spec->index_spec, specs_len);
    } else {
        OMRAPMI_ASSERT(pargs->use_query_spec == OMRAPMI_QUERY_NONE);
    }
    return send_request(hdl, &list.hdr, static_cast<unsigned int>(sizeof list.hdr) + specs_len,
                        presult_len_out);
}

// Sends the request with query bytes that only the store understands.
static int send_pass_through_request(OMRALIB_HANDLE hdl, const OMRA_INDEX_HDR *phdr,
                                     const OMRAPMI_INVOKE_ARGS *pargs,
                                     unsigned int *presult_len_out) {
    const unsigned int req_len = static_cast<unsigned int>(sizeof *phdr) + pargs->query_spec_len;
    char *preq = NULL;
    if (req_len >= pargs->query_spec_len) { // else more than a request can hold
        preq = static_cast<char *>(Omrapmi_malloc(req_len));
    }
    if (preq == NULL) {
        return OMRAPMI_ERR_NO_REQUEST_MEMORY;
    }
    OMRA_INDEX_HDR *preq_hdr = reinterpret_cast<OMRA_INDEX_HDR *>(preq);
    *preq_hdr = *phdr;
    preq_hdr->num_index = pargs->query_spec_len;
    preq_hdr->reserved1 = OMRALIB_QUERY_PASS_THROUGH;
    memcpy(preq + sizeof *phdr, pargs->pquery_spec, pargs->query_spec_len);
    const int ret = send_request(hdl, preq_hdr, req_len, presult_len_out);
    Sys_free(preq);
    return ret;
}

// Fetches the pending invoke result. A longer one cannot be fetched and is dropped: left pending,
// it would be in the way of all that follows on the handle.
static int get_inv_result(OMRALIB_HANDLE hdl, unsigned int inv_result_len,
                          OMRA_INVOKE_RESULT *pinv_result) {
    OMRA_INVOKE_RESULT inv_result;
    OMRAPMI_ASSERT(inv_result_len == sizeof inv_result);
    memset(&inv_result, 0, sizeof inv_result);
    const BOOLEAN is_too_long = inv_result_len > sizeof inv_result;
    if (is_too_long) {
        inv_result_len = sizeof inv_result;
    }
    const int ret = Omralib_get_read_data(hdl, &inv_result, inv_result_len);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-ie 4] %d\n", ret);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_ARGS);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_NOT_READING);
        if (is_too_long) {
            Omralib_flush_read_data(hdl);
        }
        return ret;
    }
    OMRAPMI_ASSERT(inv_result.reserved == OMRALIB_INDEX_OP_INVOKE);
    *pinv_result = inv_result;
    return OMRALIB_RET_SUCCESS;
}

// Sends the request in the form that its query needs and fetches the result.
static int run_request(OMRALIB_HANDLE hdl, const OMRA_INDEX_HDR *phdr,
                       const OMRAPMI_INVOKE_ARGS *pargs, OMRA_INVOKE_RESULT *pinv_result) {
    unsigned int inv_result_len = 0;
    const int ret = pargs->use_query_spec == OMRAPMI_QUERY_PASS_THROUGH
                        ? send_pass_through_request(hdl, phdr, pargs, &inv_result_len)
                        : send_index_request(hdl, phdr, pargs, &inv_result_len);
    if (ret != OMRALIB_RET_SUCCESS) {
        return ret;
    }
    return get_inv_result(hdl, inv_result_len, pinv_result);
}

int Omrapmi_invoke_ext(OMRALIB_HANDLE hdl, OMRAPMI_INVOKE_ARGS *pargs,
                       OMRAPMI_INVOKE_EXT_ARGS *pargs_ext) {
    int ret = Omrapmi_invoker_init();
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-ie 0] %d\n", ret);
        return ret;
    }
    ret = Omralib_handle_ready(hdl);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-ie 1] %u %d\n", hdl, ret);
        return ret;
    }
    if (pargs == NULL || pargs_ext == NULL) {
        return OMRAPMI_ERR_NULL_ARG;
    }
    ret = check_args(pargs, pargs_ext);
    if (ret != OMRALIB_RET_SUCCESS) {
        return ret;
    }

    OMRAPMI_PARAMS_EXT params_ext = {pargs_ext->event_app_id, 0, pargs_ext->ignore_sliding_timeouts,
                                     pargs_ext->is_singleton, 0};
    OMRA_OBJKEY params_key;
    BOOLEAN immediate_params = FALSE;
    ret = Omrapmi_invoker_pre(hdl, &params_key, &params_ext, pargs->pparams_obj,
                              pargs->params_obj_len, pargs->timeout_s, &immediate_params);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-ie 2] %d\n", ret);
        return ret;
    }

    OMRA_INDEX_HDR hdr;
    fill_header(&hdr, pargs, pargs_ext, &params_key, immediate_params);
    OMRA_INVOKE_RESULT inv_result;
    ret = run_request(hdl, &hdr, pargs, &inv_result);
    if (ret != OMRALIB_RET_SUCCESS) {
        return ret;
    }

    char *presults_obj = NULL;
    unsigned int results_obj_len = 0;
    OMRAPMI_EXCEPTION *pexceptions = NULL;
    unsigned int num_exceptions = 0;
    ret = Omrapmi_invoker_post(hdl, &params_key, immediate_params, &inv_result, &presults_obj,
                               &results_obj_len, &pexceptions, &num_exceptions);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-ie 5] %d\n", ret);
        return ret;
    }
    if (!pargs->use_exceptions) {
        Sys_free(pexceptions);
        pexceptions = NULL;
    }
    pargs->num_successful_out = inv_result.num_successful;
    pargs->num_failed_out = inv_result.num_failed;
    pargs->presults_obj_out = presults_obj;
    pargs->results_obj_len_out = results_obj_len;
    pargs->pexceptions_out = pexceptions;
    pargs->num_exceptions_out = num_exceptions;
    return OMRALIB_RET_SUCCESS;
}

int Omrapmi_invoke(OMRALIB_HANDLE hdl, OMRAPMI_INVOKE_ARGS *pargs) {
    if (pargs == NULL || pargs->app_id == ALL_APP_IDS) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    OMRAPMI_INVOKE_EXT_ARGS args_ext = {pargs->app_id, FALSE, FALSE};
    return Omrapmi_invoke_ext(hdl, pargs, &args_ext);
}
