// How a process becomes a worker for an app id, and stops being one.
//
// Omrapmi_worker_init_svc registers the module's callbacks with the store library, once per
// process. Omrapmi_worker_start and Omrapmi_worker_stop then only tell the store, over a handle of
// their own; which app ids are started is the store's knowledge, not the module's.
#include "common/records.h"
#include "common/trace.h"

// Once-only flags: the first guarded by the critical section, the second by lock_init.
static BOOLEAN init = FALSE;
static BOOLEAN slow_init = FALSE;

static constexpr unsigned int MAX_ORDINARY_APP_ID = 0x0FFFFFFF;

// Registers both callbacks, the event callback first.
static int register_callbacks(void) {
    OMRALIB_CB cb;
    cb.event_ext_cb = Omrapmi_event_ext_cb;
    int ret = Omralib_register_cb(OMRALIB_CB_EVENT_EXT, cb);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wis 1] %d\n", ret);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_ARGS);
        return ret;
    }
    cb.invoke_ext_cb = Omrapmi_invoke_ext_cb;
    ret = Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, cb);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wis 2] %d\n", ret);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_ARGS);
    }
    return ret;
}

int Omrapmi_worker_init_svc(void) {
    int ret = Omrapmi_worker_init_ext(0);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wis 0] %d\n", ret);
        return ret;
    }
    Enter_cs();
    const BOOLEAN is_done = init;
    Exit_cs();
    if (is_done) {
        return OMRALIB_RET_SUCCESS;
    }

    int ret_lock = Lock_enter(&omrapmi_worker_state.lock_init, SYS_WAIT_FOREVER);
    OMRAPMI_ASSERT(ret_lock == 1);
    if (!slow_init) {
        ret = register_callbacks();
        if (ret == OMRALIB_RET_SUCCESS) {
            slow_init = TRUE;
        }
    }
    ret_lock = Lock_exit(&omrapmi_worker_state.lock_init);
    OMRAPMI_ASSERT(ret_lock == 1);
    if (ret != OMRALIB_RET_SUCCESS) {
        return ret;
    }

    Enter_cs();
    init = TRUE;
    Exit_cs();
    return OMRALIB_RET_SUCCESS;
}

int Omrapmi_worker_register_app_name(OMRALIB_HANDLE hdl, unsigned int event_app_id) {
    static const char backrest_name[] = "__OMRA_appname_system_backrest";
    static const char invoke_once_name[] = "__OMRA_appname_invoke_once";

    OMRAPMI_ASSERT(hdl != OMRALIB_NULL_HANDLE);
    int ret = Omrapmi_worker_init_svc();
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wisai 0] %d\n", ret);
        return ret;
    }
    unsigned int app_id = event_app_id;
    if (event_app_id == MGTI_APPID_SYSTEM_BACKREST) {
        ret = Omralib_register_appname_hdl(hdl, backrest_name, sizeof backrest_name - 1, &app_id);
    } else if (event_app_id == MGTI_APPID_INVOKE_ONCE) {
        ret = Omralib_register_appname_hdl(hdl, invoke_once_name, sizeof invoke_once_name - 1,
                                           &app_id);
    }
    if (ret == OMRALIB_ERR_NAME_REGISTERED) {
        return OMRALIB_RET_SUCCESS;
    }
    if (ret == OMRALIB_RET_SUCCESS) {
        OMRAPMI_ASSERT(app_id == event_app_id);
        return ret;
    }
    if (event_app_id == MGTI_APPID_SYSTEM_BACKREST) {
        OMRAPMI_TRACE("Tr [pmi-wisai 1] %u %d\n", event_app_id, ret);
    } else {
        OMRAPMI_TRACE("Tr [pmi-wisai 2] %u %d\n", event_app_id, ret);
    }
    OMRAPMI_ASSERT(ret != OMRALIB_ERR_CANT_INIT);
    OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_ARGS);
    return ret;
}

static BOOLEAN can_start_or_stop(unsigned int event_app_id) {
    return event_app_id <= MAX_ORDINARY_APP_ID || event_app_id == MGTI_APPID_SYSTEM_BACKREST;
}

int Omrapmi_worker_start(unsigned int event_app_id) {
    if (!can_start_or_stop(event_app_id)) {
        return OMRAPMI_ERR_BAD_APP_ID;
    }
    int ret = Omrapmi_worker_init_svc();
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wsta 0] %d\n", ret);
        return ret;
    }
    const OMRALIB_HANDLE hdl = Omralib_open_ext(omrapmi_worker_state.pguid);
    if (hdl == OMRALIB_NULL_HANDLE) {
        OMRAPMI_TRACE("Tr [pmi-wsta 1]\n");
        return OMRAPMI_ERR_NO_HANDLE;
    }

    // Every step runs; the first failure is the result.
    int outcome = OMRALIB_RET_SUCCESS;
    ret = Omrapmi_worker_register_app_name(hdl, event_app_id);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wsta 2] %d\n", ret);
        outcome = ret;
    }
    ret = Omralib_start_app_event_handling(hdl, event_app_id);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wsta 3] %u %d\n", event_app_id, ret);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_HANDLE);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_ARGS);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_HANDLE_BUSY);
        outcome = outcome == OMRALIB_RET_SUCCESS ? ret : outcome;
    }
    ret = Omralib_close(hdl);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wsta 4] %d\n", ret);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_HANDLE);
        outcome = outcome == OMRALIB_RET_SUCCESS ? ret : outcome;
    }
    if (outcome == OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Omrapmi worker: started invocation handling for app id %d.\n",
                      static_cast<int>(event_app_id));
    } else {
        OMRAPMI_TRACE("Omrapmi worker: Warning: could not start invocation handling for app id "
                      "%d.\n",
                      static_cast<int>(event_app_id));
    }
    return outcome;
}

int Omrapmi_worker_init(unsigned int event_app_id) {
    return Omrapmi_worker_start(event_app_id);
}

int Omrapmi_worker_stop(unsigned int event_app_id) {
    if (!can_start_or_stop(event_app_id)) {
        return OMRAPMI_ERR_BAD_APP_ID;
    }
    int ret = Omrapmi_worker_init_svc();
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wsto 0] %d\n", ret);
        return ret;
    }
    const OMRALIB_HANDLE hdl = Omralib_open_ext(omrapmi_worker_state.pguid);
    if (hdl == OMRALIB_NULL_HANDLE) {
        OMRAPMI_TRACE("Tr [pmi-wsto 1]\n");
        return OMRAPMI_ERR_NO_HANDLE;
    }

    BOOLEAN is_stopped = TRUE;
    ret = Omralib_stop_app_event_handling(hdl, event_app_id);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wsto 3] %u %d\n", event_app_id, ret);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_HANDLE);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_ARGS);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_HANDLE_BUSY);
        is_stopped = FALSE;
    }
    ret = Omralib_close(hdl);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wsto 4] %d\n", ret);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_HANDLE);
        is_stopped = FALSE;
    }
    if (is_stopped) {
        OMRAPMI_TRACE("Omrapmi worker: stopped invocation handling for app id %d.\n",
                      static_cast<int>(event_app_id));
    } else {
        OMRAPMI_TRACE("Omrapmi worker: Warning: could not stop invocation handling for app id "
                      "%d.\n",
                      static_cast<int>(event_app_id));
    }
    return OMRALIB_RET_SUCCESS;
}
