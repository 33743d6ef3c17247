/* Invoking, and what can be done meanwhile. */
#include "client/calls.h"

#include <cstring>
#include <memory>
#include <span>

#include "query/request.h"
#include "sys_util.h"

namespace store {

namespace {

void release_result(void *result) {
    delete static_cast<OMRA_INVOKE_RESULT *>(result);
}

/* Notes what the parameters' first bytes say, be they in the key or in the object of the key, and
 * how long they are. */
void look_at_params(Objects &objects, InvokeOrder &order) {
    constexpr std::size_t place = 6;
    const OMRA_INDEX_HDR &header = order.header;
    Content content;
    Bytes params = std::as_bytes(std::span(&header.params_key, 1));
    if (header.immediate_params == 0) {
        if (is_null(header.params_key)) {
            return;
        }
        if (objects.read(header.params_key, false, content) == OMRALIB_ERR_UNKNOWN) {
            order.is_singleton = true; /* which does no harm */
            return;
        }
        params = content.bytes();
    }
    order.is_singleton = params.size() > place && params[place] != std::byte{0};
    order.params_length = static_cast<std::uint32_t>(params.size());
}

int invoke(Store &store, HandleUse &use, OMRALIB_HANDLE hdl, Bytes request,
           unsigned int *presult_len_out) {
    if (use->pending) {
        return OMRALIB_ERR_OBJ_READING;
    }
    if (store.is_forked()) {
        return OMRALIB_ERR_FORKED;
    }
    /* The threads that would serve it may all be waiting in the same way. */
    if (Thread_datap_get() != nullptr) {
        return OMRALIB_ERR_INVOKE_INSIDE;
    }
    InvokeOrder order;
    std::string why;
    Status status = parse_request(request, order, why);
    if (status != OMRALIB_RET_SUCCESS) {
        use.explain(std::move(why));
        return status;
    }
    look_at_params(store.objects(), order);
    auto result = std::make_unique<OMRA_INVOKE_RESULT>(); /* nothing may fail afterwards */
    status = store.invocations.run(order, {hdl, use->progress, use->progress_arg}, *result);
    if (status == OMRALIB_RET_SUCCESS) {
        const Bytes bytes = as_bytes(result.get(), sizeof *result);
        hand_over(use, Content(bytes, result.release(), release_result), presult_len_out);
    }
    return status;
}

/* An invocation has failed, and no host works for it any more: parameters that were stored for it
 * alone are nobody's. */
void remove_params(Bytes request) {
    OMRA_INDEX_HDR header{};
    if (request.size() < sizeof header) {
        return;
    }
    std::memcpy(&header, request.data(), sizeof header);
    if (header.immediate_params == 0 && header.params_key.app_id == reserved_app_id) {
        with_open_store(OMRALIB_ERR_BAD_HANDLE,
                        [&](Store &store) { return store.objects().remove(header.params_key); });
    }
}

} // namespace

} // namespace store

using namespace store;

int Omralib_invoke(OMRALIB_HANDLE hdl, unsigned int options, const void *preq, unsigned int req_len,
                   unsigned int *presult_len_out) {
    (void)options;
    const Bytes request = as_bytes(preq, preq != nullptr ? req_len : 0);
    const int status = with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        return preq != nullptr && presult_len_out != nullptr
                   ? invoke(store, use, hdl, request, presult_len_out)
                   : OMRALIB_ERR_BAD_ARGS;
    });
    if (status != OMRALIB_RET_SUCCESS) {
        remove_params(request);
    }
    return status;
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
    return with_open_store(OMRALIB_ERR_BAD_HANDLE, [&](Store &store) {
        if (!store.handles.is_open(hdl)) {
            return OMRALIB_ERR_BAD_HANDLE;
        }
        store.invocations.cancel(hdl);
        return OMRALIB_RET_SUCCESS;
    });
}

int Omralib_declare_host_gone(unsigned int host_id) {
    return with_store([&](Store &store) { return store.cluster().declare_gone(host_id); });
}
