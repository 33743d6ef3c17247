/* Invoking, and what can be done meanwhile. */
#include "client/calls.h"

#include "query/request.h"

using namespace store;

int Omralib_invoke(OMRALIB_HANDLE hdl, unsigned int options, const void *preq, unsigned int req_len,
                   unsigned int *presult_len_out) {
    (void)options;
    return with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        if (preq == nullptr || presult_len_out == nullptr) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        if (use->pending) {
            return OMRALIB_ERR_OBJ_READING;
        }
        InvokeOrder order;
        std::string why;
        Status status = parse_request(as_bytes(preq, req_len), order, why);
        if (status != OMRALIB_RET_SUCCESS) {
            use.explain(std::move(why));
            return status;
        }
        OMRA_INVOKE_RESULT result;
        status = store.invocations.run(order, {hdl, use->progress, use->progress_arg}, result);
        if (status == OMRALIB_RET_SUCCESS) {
            hand_over(use, Content::copy_of(as_bytes(&result, sizeof result)), presult_len_out);
        }
        return status;
    });
}

int Omralib_set_progress_func(OMRALIB_HANDLE hdl, OMRALIB_PROGRESS_FUNC pfunc, void *parg) {
    return with_handle(hdl, [&](Store &, HandleUse &use) -> int {
        use->progress = pfunc;
        use->progress_arg = parg;
        return OMRALIB_RET_SUCCESS;
    });
}

/* Without taking the handle, which the invocation has. */
int Omralib_cancel_invoke(OMRALIB_HANDLE hdl) {
    Store *store = Store::current();
    if (store == nullptr || !store->handles.is_open(hdl)) {
        return OMRALIB_ERR_BAD_HANDLE;
    }
    store->invocations.cancel(hdl);
    return OMRALIB_RET_SUCCESS;
}

int Omralib_declare_host_gone(unsigned int host_id) {
    return with_store([&](Store &store) { return store.cluster().declare_gone(host_id); });
}
