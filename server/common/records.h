// Every record that the module keeps, which lock guards which field, and the life of the
// descriptors.
//
// Locks, in the order in which they may nest:
//   1. Enter_cs / Exit_cs: the once-only flags and the quick first stage of each set-up. No mutex
//      is taken while it is held.
//   2. omrapmi_worker_state.lock_init and omrapmi_functbl_state.lock: the one-time allocations.
//   3. OMRAPMI_IDSC.lock_merge: the merges of one request. User merge functions run under it.
//   4. OMRAPMI_USER_EXCEPTIONS.slock: one request's exception list.
//   Alone: omrapmi_functbl_state.slock, OMRAPMI_SINGLETON_STATE.slock.
// No lock is held across a user eval function, and none but lock_init across a store call.
//
// The life of a request (OMRAPMI_IDSC), with the function on each edge:
//
//   idsc_freeq --Omrapmi_get_idsc--> invoke callback --Blockq_enq--> idsc_blockq
//       ^                                 | refused: Omrapmi_free_idsc    |
//       |                                 v                        Omrapmi_thrd_dispatcher
//       +---------------------------------+                               |
//       |                                          failed: Omrapmi_worker_complete_invoke
//       +<----------------------------------------------------------------+
//       |                                                                 | Omrapmi_dispatcher
//       +<--Omrapmi_worker_complete_invoke-- worker threads <-------------+
//
// The life of a piece of work (OMRAPMI_WDSC):
//
//   wdsc_freeq --Omrapmi_get_wdsc--> dispatcher --Blockq_enq--> wdsc_blockq
//   --Omrapmi_thrd_worker--> worker thread --Omrapmi_free_wdsc--> wdsc_freeq
//
// The descriptor of a key is freed when the key's slot has been merged onwards, not when its eval
// ends; the one of an invoke-once eval or a merge request is freed when its function has returned.
#pragma once

#include "pmicli.h"
#include "sys_util.h"

// Who allocated a block.
enum OMRAPMI_MEM_TAG : unsigned int {
    OMRAPMI_TAG_FUNCTBL = 0xD0,       // the function table
    OMRAPMI_TAG_NEW_OBJECT = 0xD1,    // a new object's bytes
    OMRAPMI_TAG_OBJECT = 0xD2,        // an object's bytes
    OMRAPMI_TAG_LOCKED_OBJECT = 0xD3, // a locked object's bytes, with room to append
    OMRAPMI_TAG_IDSC_BATCH = 0xD4,
    OMRAPMI_TAG_WDSC_BATCH = 0xD5,
    OMRAPMI_TAG_REQUEST = 0xD6, // a request's keys, slots, work pointers and exceptions
    OMRAPMI_TAG_WORKER_THRDS = 0xD7,
    OMRAPMI_TAG_USER = 0xD8, // Omrapmi_malloc
};

// A loop that has gone round this often has lost its way, and reports it.
inline constexpr unsigned int OMRAPMI_MAX_ROUNDS = 249999999;

// The last of the app ids that are anybody's; behind them are those with a meaning of their own.
inline constexpr unsigned int OMRAPMI_MAX_ORDINARY_APP_ID = 0x0FFFFFFF;

// Ids of the queues and spin locks.
inline constexpr unsigned int OMRAPMI_IDSC_BLOCKQ_ID = 0x515;
inline constexpr unsigned int OMRAPMI_WDSC_BLOCKQ_ID = 0x516;
inline constexpr unsigned int OMRAPMI_IDSC_FREEQ_ID = 0x518;
inline constexpr unsigned int OMRAPMI_WDSC_FREEQ_ID = 0x519;
inline constexpr unsigned int OMRAPMI_EXCEPTIONS_SLOCK_ID = 0x515;
inline constexpr unsigned int OMRAPMI_FUNCTBL_SLOCK_ID = 0x516;
inline constexpr unsigned int OMRAPMI_SINGLETON_SLOCK_ID = 0x517;

// Marks of the records. A record without its mark has not been set up.
inline constexpr ULONG OMRAPMI_WORKER_STATE_CODE = 0xA5A50D01;
inline constexpr ULONG OMRAPMI_WORKER_THRD_STATE_CODE = 0xA5A50D02;
inline constexpr ULONG OMRAPMI_IDSC_CODE = 0xA5A50D03;
inline constexpr ULONG OMRAPMI_WDSC_CODE = 0xA5A50D04;

struct OMRAPMI_IDSC;
struct OMRAPMI_WDSC;

// The failures of one request on this host, in the order in which they happened.
struct OMRAPMI_USER_EXCEPTIONS {
    // Guarded by slock while the request is worked on.
    ULONG num;
    // Constant after dispatch.
    ULONG max_num;            // capacity of plist: no request can record more
    OMRAPMI_EXCEPTION *plist; // inside the request's memory block
    THREADSPINL slock;
};

// One slot of the merge tree: what is known of a key and of the slots already merged into it.
// Guarded by the request's lock_merge after dispatch.
struct OMRAPMI_SDSC {
    OMRAPMI_IDSC *pidsc;
    char *presults_obj; // owned by the slot; NULL while it holds no result
    ULONG succ_mask;    // constant after dispatch: the bits of all successors
    ULONG succ_done;    // the bits of the successors merged into this slot
    ULONG num_successful;
    ULONG num_failed;
    BOOLEAN local_done; // the slot's own key is accounted for
    ULONG results_obj_len;
};

// One invoke request, from its acceptance until it is reported complete. Owned by one thread at a
// time, except while its work is queued or running.
struct OMRAPMI_IDSC {
    LINK link; // on idsc_freeq or idsc_blockq
    ULONG code;
    // Constant while work is running.
    OMRALIB_INVOKE_PARAMS params;
    OMRAPMI_PARAMS_EXT *pparams_ext; // NULL until the parameters have been read
    OMRAPMI_EVAL_FUNCP pfunc_eval;
    OMRAPMI_MERGE_FUNCP pfunc_merge;
    OMRAPMI_WDSC *pwdsc_single; // the one piece of work of a merge request
    // One entry a key, all inside pfree0.
    OMRAPMI_SDSC *psdsc_list;   // entries guarded by lock_merge
    OMRAPMI_WDSC **ppwdsc_list; // entry i is valid until slot i has been merged onwards
    OMRA_OBJKEY *pdata_key_list;
    char *pparams_obj; // for a merge request: the bytes to merge
    ULONG params_obj_len;
    // Written by the thread that finishes the last piece of work.
    ULONG num_successful;
    ULONG num_failed;
    OMRAPMI_USER_EXCEPTIONS user_exceptions;
    void *pfree0; // the memory block
    void *pfree1; // the parameters object's bytes, or NULL
    THREADLOCK lock_merge;
};

// One piece of work for a worker thread: a key, an invoke-once eval or a merge request.
struct OMRAPMI_WDSC {
    LINK link; // on wdsc_freeq or wdsc_blockq
    ULONG code;
    OMRAPMI_IDSC *pidsc;
    BOOLEAN is_merge;
    BOOLEAN is_invoke_once;
    ULONG index;     // of the key
    char *pdata_obj; // the object's bytes while its eval runs
    ULONG data_obj_len;
    char *presults_obj;
    ULONG results_obj_len;
};

// A queue's item is the descriptor itself.
static_assert(offsetof(OMRAPMI_IDSC, link) == 0 && offsetof(OMRAPMI_WDSC, link) == 0);

// A worker thread. Written by the dispatcher (tid) and by the thread itself, twice for every piece
// of work: so no two of them meet in a cache line.
struct alignas(SYS_CACHE_LINE) OMRAPMI_WORKER_THRD_STATE {
    ULONG code;
    ULONG index;
    THREADID tid;   // as Thread_fork gave it
    THREADID tmyid; // as the thread sees itself
    // The thread's own, NULL between two pieces of work.
    OMRAPMI_WDSC *pwdsc; // moves on to the predecessor's while the thread climbs the merge tree
    OMRA_OBJKEY *pkey;   // of the key that the thread took; NULL for other work
};

struct OMRAPMI_SINGLETON_STATE {
    THREADSPINL slock;
    OMRAPMI_IDSC *pidsc_singleton; // guarded by slock; NULL while no singleton invocation runs
};

inline constexpr unsigned int OMRAPMI_NUM_BUILT_IN_IDSCS = 8;
inline constexpr unsigned int OMRAPMI_NUM_BUILT_IN_WDSCS = 64;

// The worker side. Set up once, never torn down.
struct OMRAPMI_WORKER_STATE {
    ULONG code;
    THREADLOCK lock_init;
    // Constant once set up under lock_init.
    THREADID tid_dispatcher;
    ULONG num_worker_thrds;
    OMRAPMI_WORKER_THRD_STATE *pworker_thrd_st;
    OMRAPMI_SINGLETON_STATE singleton_state;
    char pguid[OMRALIB_GUID_LEN]; // with which every handle of the worker side is opened
    // Self-synchronised.
    QUEUE idsc_freeq;
    QUEUE wdsc_freeq;
    BLOCKQ idsc_blockq; // to the dispatcher
    BLOCKQ wdsc_blockq; // to the worker threads
    // The first descriptors of the pools.
    OMRAPMI_IDSC idsc_list[OMRAPMI_NUM_BUILT_IN_IDSCS];
    OMRAPMI_WDSC wdsc_list[OMRAPMI_NUM_BUILT_IN_WDSCS];
};

extern OMRAPMI_WORKER_STATE omrapmi_worker_state;

// One slot of the function table. Guarded by the table's slock; set once.
struct OMRAPMI_FUNCTBL_ENTRY {
    void *pfunc; // NULL while the slot is free
    ULONG func_id;
    ULONG app_id;
    OMRAPMI_FUNC_TYPE type;
};

struct OMRAPMI_FUNCTBL_STATE {
    THREADLOCK lock;
    THREADSPINL slock;
    OMRAPMI_FUNCTBL_ENTRY *ptbl; // constant once set up under lock
};

extern OMRAPMI_FUNCTBL_STATE omrapmi_functbl_state;
