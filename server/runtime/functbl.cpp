// The table of user functions: 64 slots indexed by function id, made on first use, filled once
// each.
//
// In call order: the three public registrations; Omrapmi_worker_register_func, which checks the
// arguments; Omrapmi_func_table_init; Omrapmi_func_table_add. The dispatcher calls
// Omrapmi_func_table_get. Three locks, never held together: the process-wide critical section for
// the flags, the table's mutex for the allocation, its spin lock for a look at one slot.
#include "runtime/functbl.h"

#include <string.h>

#include "common/trace.h"
#include "runtime/once.h"

OMRAPMI_FUNCTBL_STATE omrapmi_functbl_state;

// The quick stage.
static void set_up_locks(void) {
    memset(&omrapmi_functbl_state, 0, sizeof omrapmi_functbl_state);
    Lock_init(&omrapmi_functbl_state.lock);
    Spinlock_init(&omrapmi_functbl_state.slock, OMRAPMI_FUNCTBL_SLOCK_ID, 0);
}

// The slow stage: makes the slots, all free.
static int allocate_slots(unsigned int /*unused*/) {
    OMRAPMI_FUNCTBL_ENTRY *ptbl = static_cast<OMRAPMI_FUNCTBL_ENTRY *>(
        Sys_malloc(OMRAPMI_NUM_FUNC_IDS * sizeof *ptbl, OMRAPMI_TAG_FUNCTBL));
    if (ptbl == NULL) {
        OMRAPMI_TRACE("Tr [pmi-fti 1]\n");
        return OMRAPMI_ERR_NO_INIT_MEMORY;
    }
    for (unsigned int i = 0; i < OMRAPMI_NUM_FUNC_IDS; ++i) {
        ptbl[i] = {NULL, 0, 0, OMRAPMI_FUNC_MERGE};
    }
    omrapmi_functbl_state.ptbl = ptbl;
    return OMRALIB_RET_SUCCESS;
}

static OMRAPMI_ONCE functbl_once = {
    .pquick = set_up_locks, .pslow = allocate_slots, .plock = &omrapmi_functbl_state.lock};

int Omrapmi_func_table_init(void) {
    const int ret = Omralib_init();
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-fti 0] %d\n", ret);
        return ret;
    }
    Omralib_use_large_keys();
    return Omrapmi_do_once(&functbl_once, 0);
}

int Omrapmi_func_table_add(void *pfunc, unsigned int func_id, unsigned int app_id,
                           OMRAPMI_FUNC_TYPE type) {
    OMRAPMI_ASSERT(func_id < OMRAPMI_NUM_FUNC_IDS);
    if (func_id >= OMRAPMI_NUM_FUNC_IDS) {
        return OMRAPMI_ERR_BAD_FUNC_ID;
    }
    int ret = Omrapmi_func_table_init();
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-fta 0] %d\n", ret);
        return ret;
    }

    Spinlock_enter(&omrapmi_functbl_state.slock);
    OMRAPMI_FUNCTBL_ENTRY *pentry = &omrapmi_functbl_state.ptbl[func_id];
    if (pentry->pfunc == NULL) {
        *pentry = {pfunc, func_id, app_id, type};
    } else if (pentry->pfunc != pfunc || pentry->func_id != func_id || pentry->app_id != app_id ||
               pentry->type != type) {
        ret = OMRAPMI_ERR_FUNC_ID_TAKEN;
    }
    Spinlock_exit(&omrapmi_functbl_state.slock);
    return ret;
}

int Omrapmi_func_table_get(unsigned int func_id, unsigned int app_id, OMRAPMI_FUNC_TYPE type,
                           void **ppfunc_out) {
    OMRAPMI_ASSERT(func_id < OMRAPMI_NUM_FUNC_IDS);
    if (func_id >= OMRAPMI_NUM_FUNC_IDS) {
        return OMRAPMI_ERR_BAD_FUNC_ID;
    }
    const int ret = Omrapmi_func_table_init();
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-ftg 0] %d\n", ret);
        return ret;
    }

    Spinlock_enter(&omrapmi_functbl_state.slock);
    const OMRAPMI_FUNCTBL_ENTRY entry = omrapmi_functbl_state.ptbl[func_id];
    Spinlock_exit(&omrapmi_functbl_state.slock);

    if (entry.pfunc == NULL) {
        OMRAPMI_TRACE("Omrapmi worker: Warning: received unregistered function id %u\n", func_id);
        return OMRAPMI_ERR_FUNC_UNKNOWN;
    }
    if (type != OMRAPMI_FUNC_MERGE && entry.app_id != app_id) {
        OMRAPMI_TRACE(
            "Omrapmi worker: Warning: received eval function id %u for app id %d, but was "
            "registered for app id %d\n",
            func_id, static_cast<int>(app_id), static_cast<int>(entry.app_id));
        return OMRAPMI_ERR_FUNC_APP_ID;
    }
    if (entry.type != type) {
        OMRAPMI_TRACE("Omrapmi worker: Warning: received function id %u of type %u, but was "
                      "registered as type %u\n",
                      func_id, static_cast<unsigned int>(type),
                      static_cast<unsigned int>(entry.type));
        return OMRAPMI_ERR_FUNC_TYPE;
    }
    *ppfunc_out = entry.pfunc;
    return OMRALIB_RET_SUCCESS;
}

int Omrapmi_worker_register_func(void *pfunc, unsigned int func_id, unsigned int app_id,
                                 OMRAPMI_FUNC_TYPE type) {
    if (pfunc == NULL) {
        return OMRAPMI_ERR_NULL_ARG;
    }
    if (func_id >= OMRAPMI_NUM_FUNC_IDS) {
        return OMRAPMI_ERR_BAD_FUNC_ID;
    }
    int ret = Omrapmi_func_table_init();
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wrf 0] %d\n", ret);
        return ret;
    }
    ret = Omrapmi_func_table_add(pfunc, func_id, app_id, type);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wrf 1] %d\n", ret);
    }
    return ret;
}

int Omrapmi_worker_register_eval_func(OMRAPMI_EVAL_FUNCP pfunc, unsigned int func_id,
                                      unsigned int app_id) {
    return Omrapmi_worker_register_func(reinterpret_cast<void *>(pfunc), func_id, app_id,
                                        OMRAPMI_FUNC_EVAL);
}

int Omrapmi_worker_register_merge_func(OMRAPMI_MERGE_FUNCP pfunc, unsigned int func_id,
                                       unsigned int app_id) {
    return Omrapmi_worker_register_func(reinterpret_cast<void *>(pfunc), func_id, app_id,
                                        OMRAPMI_FUNC_MERGE);
}

int Omrapmi_worker_register_invoke_once_eval_func(OMRAPMI_EVAL_FUNCP pfunc, unsigned int func_id,
                                                  unsigned int app_id) {
    return Omrapmi_worker_register_func(reinterpret_cast<void *>(pfunc), func_id, app_id,
                                        OMRAPMI_FUNC_INVOKE_ONCE_EVAL);
}
