// How a process becomes a worker for an app id, and stops being one.
//
// Omrapmi_worker_init_svc registers the module's callbacks with the store library, once per
// process. Omrapmi_worker_start and Omrapmi_worker_stop then only tell the store, over a handle of
// their own; which app ids are started is the store's knowledge, not the module's.
#include "common/records.h"
#include "common/trace.h"
#include "runtime/once.h"

// Registers both callbacks, the event callback first.
static int register_callbacks(unsigned int /*unused*/) {
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

// Comes after the worker side's own set-up, which makes the lock.
static OMRAPMI_ONCE attach_once = {
    .pquick = NULL, .pslow = register_callbacks, .plock = &omrapmi_worker_state.lock_init};

int Omrapmi_worker_init_svc(void) {
    const int ret = Omrapmi_worker_init_ext(0);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wis 0] %d\n", ret);
        return ret;
    }
    return Omrapmi_do_once(&attach_once, 0);
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
    return event_app_id <= OMRAPMI_MAX_ORDINARY_APP_ID ||
           event_app_id == MGTI_APPID_SYSTEM_BACKREST;
}

// The two things that the store is told about an app id, and how the trace speaks of them.
struct ATTACHMENT {
    int (*ptell)(OMRALIB_HANDLE hdl, unsigned int app_id);
    BOOLEAN is_start;
    const char *pmark;
    const char *pto_do;
    const char *pdone;
};

static const ATTACHMENT start = {Omralib_start_app_event_handling, TRUE, "pmi-wsta", "start",
                                 "started"};
static const ATTACHMENT stop = {Omralib_stop_app_event_handling, FALSE, "pmi-wsto", "stop",
                                "stopped"};

// Over an open handle, which it closes. Every step runs; the first failure is the result.
static int tell_store(const ATTACHMENT *pattachment, OMRALIB_HANDLE hdl, unsigned int app_id) {
    const char *pmark = pattachment->pmark;
    int ret = OMRALIB_RET_SUCCESS;
    if (pattachment->is_start) {
        ret = Omrapmi_worker_register_app_name(hdl, app_id);
    }
    int outcome = ret;
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [%s 2] %d\n", pmark, ret);
    }
    ret = pattachment->ptell(hdl, app_id);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [%s 3] %u %d\n", pmark, app_id, ret);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_HANDLE);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_ARGS);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_HANDLE_BUSY);
        outcome = outcome == OMRALIB_RET_SUCCESS ? ret : outcome;
    }
    ret = Omralib_close(hdl);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [%s 4] %d\n", pmark, ret);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_HANDLE);
        outcome = outcome == OMRALIB_RET_SUCCESS ? ret : outcome;
    }
    return outcome;
}

static int start_or_stop(const ATTACHMENT *pattachment, unsigned int app_id) {
    if (!can_start_or_stop(app_id)) {
        return OMRAPMI_ERR_BAD_APP_ID;
    }
    const int ret = Omrapmi_worker_init_svc();
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [%s 0] %d\n", pattachment->pmark, ret);
        return ret;
    }
    const OMRALIB_HANDLE hdl = Omralib_open_ext(omrapmi_worker_state.pguid);
    if (hdl == OMRALIB_NULL_HANDLE) {
        OMRAPMI_TRACE("Tr [%s 1]\n", pattachment->pmark);
        return OMRAPMI_ERR_NO_HANDLE;
    }
    const int outcome = tell_store(pattachment, hdl, app_id);
    if (outcome == OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Omrapmi worker: %s invocation handling for app id %d.\n", pattachment->pdone,
                      static_cast<int>(app_id));
    } else {
        OMRAPMI_TRACE("Omrapmi worker: Warning: could not %s invocation handling for app id %d.\n",
                      pattachment->pto_do, static_cast<int>(app_id));
    }
    // An app id that the store could not be told to stop is reported, not refused.
    return pattachment->is_start ? outcome : OMRALIB_RET_SUCCESS;
}

int Omrapmi_worker_start(unsigned int event_app_id) {
    return start_or_stop(&start, event_app_id);
}

int Omrapmi_worker_init(unsigned int event_app_id) {
    return Omrapmi_worker_start(event_app_id);
}

int Omrapmi_worker_stop(unsigned int event_app_id) {
    return start_or_stop(&stop, event_app_id);
}
