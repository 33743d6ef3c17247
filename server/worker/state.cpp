// The worker side's one global state: its once-only set-up, and the record of the calling thread.
//
// Of its two stages (runtime/once.h) the quick one makes the queues and the built-in descriptors;
// the slow one, under lock_init, chooses the number of worker threads, makes their records and
// starts the dispatcher thread. The worker threads themselves are started by the dispatcher when
// the first request reaches it.
#include <string.h>

#include "common/records.h"
#include "common/trace.h"
#include "dispatch/dispatcher.h"
#include "runtime/descriptors.h"
#include "runtime/once.h"

OMRAPMI_WORKER_STATE omrapmi_worker_state;
BOOLEAN omrapmi_in_svc = FALSE;

static constexpr unsigned int MIN_AUTO_WORKER_THRDS = 2;
static constexpr unsigned int MAX_AUTO_WORKER_THRDS = 32;

// The quick stage.
static void set_up_queues_and_pools(void) {
    OMRAPMI_WORKER_STATE *pstate = &omrapmi_worker_state;
    memset(pstate, 0, sizeof *pstate);
    pstate->code = OMRAPMI_WORKER_STATE_CODE;
    Lock_init(&pstate->lock_init);
    Queue_init(&pstate->idsc_freeq, OMRAPMI_IDSC_FREEQ_ID);
    Queue_init(&pstate->wdsc_freeq, OMRAPMI_WDSC_FREEQ_ID);
    Blockq_init(&pstate->idsc_blockq, OMRAPMI_IDSC_BLOCKQ_ID);
    Blockq_init(&pstate->wdsc_blockq, OMRAPMI_WDSC_BLOCKQ_ID);
    static const char pguid[OMRALIB_GUID_LEN] = "pmicli";
    memcpy(pstate->pguid, pguid, sizeof pguid);
    Spinlock_init(&pstate->singleton_state.slock, OMRAPMI_SINGLETON_SLOCK_ID, 0);
    pstate->singleton_state.pidsc_singleton = NULL;
    for (OMRAPMI_IDSC &idsc : pstate->idsc_list) {
        Omrapmi_init_idsc(&idsc);
        Queue_enq(&pstate->idsc_freeq, &idsc.link);
    }
    for (OMRAPMI_WDSC &wdsc : pstate->wdsc_list) {
        Omrapmi_init_wdsc(&wdsc);
        Queue_enq(&pstate->wdsc_freeq, &wdsc.link);
    }
}

// As many as were asked for; 0 asks for one more than there are processors.
static unsigned int choose_num_worker_thrds(unsigned int num_worker_thrds) {
    if (num_worker_thrds != 0) {
        return num_worker_thrds;
    }
    const unsigned int n = Sys_get_num_lprocs() + 1;
    if (n < MIN_AUTO_WORKER_THRDS) {
        return MIN_AUTO_WORKER_THRDS;
    }
    return n > MAX_AUTO_WORKER_THRDS ? MAX_AUTO_WORKER_THRDS : n;
}

// The first place in a block at which the records may stand; there is room for one more.
static OMRAPMI_WORKER_THRD_STATE *first_record_in(void *pblock) {
    constexpr uintptr_t align = alignof(OMRAPMI_WORKER_THRD_STATE);
    const uintptr_t address = reinterpret_cast<uintptr_t>(pblock);
    return reinterpret_cast<OMRAPMI_WORKER_THRD_STATE *>((address + align - 1) / align * align);
}

// The slow stage. A failure leaves nothing behind.
static int start_dispatcher(unsigned int num_worker_thrds) {
    OMRAPMI_WORKER_STATE *pstate = &omrapmi_worker_state;
    pstate->num_worker_thrds = choose_num_worker_thrds(num_worker_thrds);
    const size_t num_records = size_t{pstate->num_worker_thrds} + 1;
    void *pblock =
        Sys_malloc(num_records * sizeof(OMRAPMI_WORKER_THRD_STATE), OMRAPMI_TAG_WORKER_THRDS);
    if (pblock == NULL) {
        OMRAPMI_TRACE("Tr [pmi-wie 1]\n");
        return OMRAPMI_ERR_NO_INIT_MEMORY;
    }
    OMRAPMI_WORKER_THRD_STATE *pworker_thrd_st = first_record_in(pblock);
    pstate->pworker_thrd_st = pworker_thrd_st;
    pstate->tid_dispatcher = Thread_fork(Omrapmi_thrd_dispatcher, NULL);
    if (pstate->tid_dispatcher == NULLTHREADID) {
        OMRAPMI_TRACE("Tr [pmi-wie 2]\n");
        pstate->pworker_thrd_st = NULL;
        Sys_free(pblock);
        return OMRAPMI_ERR_NO_DISPATCHER;
    }
    for (unsigned int i = 0; i < pstate->num_worker_thrds; ++i) {
        pworker_thrd_st[i] = {
            OMRAPMI_WORKER_THRD_STATE_CODE, i, NULLTHREADID, NULLTHREADID, NULL, NULL};
    }
    OMRAPMI_TRACE("Omrapmi worker: initialized for use with %u worker thread(s).\n",
                  pstate->num_worker_thrds);
    return OMRALIB_RET_SUCCESS;
}

static OMRAPMI_ONCE state_once = {.pquick = set_up_queues_and_pools,
                                  .pslow = start_dispatcher,
                                  .plock = &omrapmi_worker_state.lock_init};

int Omrapmi_worker_init_ext(unsigned int num_worker_thrds) {
    const int ret = Omralib_init();
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wie 0] %d\n", ret);
        return ret;
    }
    Omralib_use_large_keys();
    if (omrapmi_in_svc) {
        num_worker_thrds = 1;
    }
    return Omrapmi_do_once(&state_once, num_worker_thrds);
}

int Omrapmi_get_worker_thread_count(void) {
    const int ret = Omrapmi_worker_init_ext(0);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-gwtc 0] %d\n", ret);
        return ret;
    }
    return static_cast<int>(omrapmi_worker_state.num_worker_thrds);
}

// The worker thread record that the calling thread's data points to, or NULL with a trace line that
// tells which test failed. The data may be anything: nothing is read before it is known to lie
// inside the records.
static OMRAPMI_WORKER_THRD_STATE *find_own_record(void) {
    OMRAPMI_WORKER_THRD_STATE *pfirst = omrapmi_worker_state.pworker_thrd_st;
    const ULONG num = omrapmi_worker_state.num_worker_thrds;
    void *pdata = Thread_datap_get();
    if (pdata == NULL) {
        OMRAPMI_TRACE("Tr [pmi-wtsg 1]\n");
        return NULL;
    }
    const uintptr_t address = reinterpret_cast<uintptr_t>(pdata);
    if (address < reinterpret_cast<uintptr_t>(pfirst)) {
        OMRAPMI_TRACE("Tr [pmi-wtsg 2]\n");
        return NULL;
    }
    if (address > reinterpret_cast<uintptr_t>(&pfirst[num - 1])) {
        OMRAPMI_TRACE("Tr [pmi-wtsg 3]\n");
        return NULL;
    }
    ULONG code_and_index[2]; // copied: the address may not be that of a record
    static_assert(offsetof(OMRAPMI_WORKER_THRD_STATE, code) == 0 &&
                  offsetof(OMRAPMI_WORKER_THRD_STATE, index) == sizeof(ULONG));
    memcpy(code_and_index, pdata, sizeof code_and_index);
    const ULONG index = code_and_index[1];
    if (code_and_index[0] != OMRAPMI_WORKER_THRD_STATE_CODE) {
        OMRAPMI_TRACE("Tr [pmi-wtsg 4]\n");
        return NULL;
    }
    const uintptr_t position = (address - reinterpret_cast<uintptr_t>(pfirst)) / sizeof *pfirst;
    if (index != position) {
        OMRAPMI_TRACE("Tr [pmi-wtsg 4] %d\n", static_cast<int>(position));
        return NULL;
    }
    if (index >= num) {
        OMRAPMI_TRACE("Tr [pmi-wtsg 5] %u %u\n", index, num);
        return NULL;
    }
    if (&pfirst[index] != pdata) {
        OMRAPMI_TRACE("Tr [pmi-wtsg 6]\n");
        return NULL;
    }
    return &pfirst[index];
}

int Omrapmi_worker_thrd_st_get(OMRAPMI_WORKER_THRD_STATE **ppworker_thrd_st_out) {
    OMRAPMI_ASSERT(ppworker_thrd_st_out != NULL);
    if (ppworker_thrd_st_out == NULL) {
        return OMRAPMI_ERR_NULL_ARG;
    }
    const int ret = Omrapmi_worker_init_ext(0);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-wtsg 0] %d\n", ret);
        return ret;
    }
    OMRAPMI_WORKER_THRD_STATE *pworker_thrd_st = find_own_record();
    if (pworker_thrd_st == NULL) {
        return OMRAPMI_ERR_NOT_A_WORKER;
    }
    const THREADID tmyid = Thread_myid();
    OMRAPMI_ASSERT(tmyid != NULLTHREADID);
    if (tmyid != pworker_thrd_st->tmyid) {
        OMRAPMI_TRACE("Tr [pmi-wtsg 7] %p %p\n", reinterpret_cast<void *>(tmyid),
                      reinterpret_cast<void *>(pworker_thrd_st->tmyid));
        return OMRAPMI_ERR_NOT_A_WORKER;
    }
    *ppworker_thrd_st_out = pworker_thrd_st;
    return OMRALIB_RET_SUCCESS;
}
