/* Callbacks, app ids and the requests that this process handles. */
#include "client/calls.h"

#include <utility>

using namespace store;

int Omralib_register_cb(unsigned int cb_type, OMRALIB_CB cb) {
    return with_store(
        [&](Store &store) { return store.serving.handlers.set_callback(cb_type, cb); });
}

int Omralib_register_appname_hdl(OMRALIB_HANDLE hdl, const char *name, unsigned int name_len,
                                 unsigned int *papp_id_out) {
    return with_handle(hdl, [&](Store &store, HandleUse &) -> int {
        if (name == nullptr || name_len == 0 || papp_id_out == nullptr) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        return store.cluster().bind_name({name, name_len}, *papp_id_out);
    });
}

int Omralib_start_app_event_handling(OMRALIB_HANDLE hdl, unsigned int event_app_id) {
    return with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        return store.serving.handlers.start(event_app_id, use->guid);
    });
}

int Omralib_stop_app_event_handling(OMRALIB_HANDLE hdl, unsigned int event_app_id) {
    return with_handle(hdl, [&](Store &store, HandleUse &use) -> int {
        return store.serving.handlers.stop(event_app_id, use->guid);
    });
}

int Omralib_get_invoke_keys(unsigned int context, OMRA_OBJKEY *pkeys, unsigned int num_keys) {
    return with_open_store(OMRALIB_ERR_BAD_ARGS, [&](Store &store) -> int {
        return pkeys != nullptr ? store.serving.get_keys(context, {pkeys, num_keys})
                                : OMRALIB_ERR_BAD_ARGS;
    });
}

int Omralib_complete_invoke(OMRALIB_HANDLE hdl, unsigned int context, unsigned int num_successful,
                            unsigned int num_failed) {
    return with_handle(hdl, [&](Store &store, HandleUse &use) {
        if (!use->pending) {
            use->cursor.leave();
        }
        return store.serving.complete(context, num_successful, num_failed,
                                      std::exchange(use->note, {}));
    });
}

int Omralib_flush_invoke(unsigned int context) {
    return with_open_store(OMRALIB_ERR_BAD_ARGS,
                           [&](Store &store) { return store.serving.flush(context); });
}
