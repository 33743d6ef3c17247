/* Parallel method invocation: run a function on every object that matches a query, on the hosts
 * that hold the objects, and merge the per-object results into one.
 *
 * Two kinds of program use this header. An invoker calls Omrapmi_invoke. A worker registers user
 * functions and calls Omrapmi_worker_start; the store then sends it the requests for that app id. A
 * process may be both.
 *
 * Conventions that hold for every operation:
 *  1. An operation that returns int returns OMRALIB_RET_SUCCESS (1) or a negative code: one of
 *     OMRAPMI_STATUS_MAP, or one of the store library's OMRALIB_STATUS_MAP passed on.
 *     Omrapmi_status_name and Omrapmi_status_text turn either into words.
 *  2. Nothing has to be set up first: every operation initialises what it needs, once per process.
 *  3. Every operation may be called from any thread; a store handle is used by one thread at a
 *     time.
 *  4. Every buffer that crosses this interface is a block of Omrapmi_malloc, and whoever owns it
 *     releases it with Omrapmi_free. A result is NULL with length 0, or a block of at least one
 *     byte.
 *  5. After a failure every output is as the caller left it. */
#pragma once

#include "storlib.h"

#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Status codes -------------------------------------------------------------------------------- */

/* The module's own codes once: name, value, text. */
#define OMRAPMI_STATUS_MAP(X)                                                                      \
    X(OMRAPMI_ERR_NO_REQUEST_MEMORY, -114, "no memory for the request of a pass-through query")    \
    X(OMRAPMI_ERR_EXCEPTIONS_LOST, -115, "the exceptions object could not be found")               \
    X(OMRAPMI_ERR_NO_DISPATCHER, -1301, "the dispatcher thread could not be started")              \
    X(OMRAPMI_ERR_NO_INIT_MEMORY, -1302, "no memory to initialise the module")                     \
    X(OMRAPMI_ERR_NO_INVOKER_MEMORY, -1303, "no memory for the parameters, results or exceptions") \
    X(OMRAPMI_ERR_NO_HANDLE, -1304, "no store handle could be opened")                             \
    X(OMRAPMI_ERR_FUNC_ID_TAKEN, -1305, "the function id is registered already")                   \
    X(OMRAPMI_ERR_NULL_ARG, -1306, "a required pointer is NULL")                                   \
    X(OMRAPMI_ERR_BAD_APP_ID, -1307, "the app id is not one that is accepted")                     \
    X(OMRAPMI_ERR_BAD_FLAG, -1308, "use_query_spec is above 2 or use_exceptions above 1")          \
    X(OMRAPMI_ERR_BAD_FUNC_ID, -1309, "the function id is above 63")                               \
    X(OMRAPMI_ERR_BAD_QUERY_SPEC, -1310, "the query specification breaks the rules of its kind")   \
    X(OMRAPMI_ERR_BAD_PARAMS, -1311, "the parameters' pointer and length disagree")                \
    X(OMRAPMI_ERR_NOT_A_WORKER, -1312, "the calling thread is not a worker thread")                \
    X(OMRAPMI_ERR_NO_OBJECT_MEMORY, -1351, "no memory for an object's bytes")                      \
    X(OMRAPMI_ERR_FUNC_UNKNOWN, -1352, "no function is registered under the id")                   \
    X(OMRAPMI_ERR_FUNC_APP_ID, -1353, "the function is registered for another app id")             \
    X(OMRAPMI_ERR_FUNC_TYPE, -1354, "the function is registered with another type")

enum {
#define OMRAPMI_STATUS_ENUM(name, value, text) name = (value),
    OMRAPMI_STATUS_MAP(OMRAPMI_STATUS_ENUM)
#undef OMRAPMI_STATUS_ENUM
};

/* The name of a status code of the module or of the store library, for example
 * "OMRAPMI_ERR_FUNC_UNKNOWN", and its text; NULL for any other number. */
static inline const char *Omrapmi_status_name(int status) {
    switch (status) {
#define OMRAPMI_STATUS_NAME(name, value, text)                                                     \
    case value:                                                                                    \
        return #name;
        OMRALIB_STATUS_MAP(OMRAPMI_STATUS_NAME)
        OMRAPMI_STATUS_MAP(OMRAPMI_STATUS_NAME)
#undef OMRAPMI_STATUS_NAME
    default:
        return NULL;
    }
}

static inline const char *Omrapmi_status_text(int status) {
    switch (status) {
#define OMRAPMI_STATUS_TEXT(name, value, text)                                                     \
    case value:                                                                                    \
        return text;
        OMRALIB_STATUS_MAP(OMRAPMI_STATUS_TEXT)
        OMRAPMI_STATUS_MAP(OMRAPMI_STATUS_TEXT)
#undef OMRAPMI_STATUS_TEXT
    default:
        return NULL;
    }
}

/* Limits and kinds ---------------------------------------------------------------------------- */

#define OMRAPMI_NUM_FUNC_IDS 64u             /* function ids are 0 to 63 */
#define OMRAPMI_MAX_IMMEDIATE_PARAMS_LEN 32u /* longer parameters are stored as an object */
#define OMRAPMI_MAX_INDEX_SPECS 8u

/* use_query_spec */
#define OMRAPMI_QUERY_NONE 0u         /* every object of the app id */
#define OMRAPMI_QUERY_INDEX 1u        /* an OMRAPMI_QUERY_SPEC */
#define OMRAPMI_QUERY_PASS_THROUGH 2u /* bytes that only the store understands */

typedef enum OMRAPMI_FUNC_TYPE {
    OMRAPMI_FUNC_MERGE = 0,
    OMRAPMI_FUNC_EVAL = 1,
    OMRAPMI_FUNC_INVOKE_ONCE_EVAL = 2
} OMRAPMI_FUNC_TYPE;

/* Records ------------------------------------------------------------------------------------- */

/* An index query. */
typedef struct OMRAPMI_QUERY_SPEC {
    BOOLEAN match_all;     /* 1: all terms must match, 0: any may */
    ULONG num_index_specs; /* terms used, 0 to 8 */
    OMRA_INDEX_SPEC index_spec[OMRAPMI_MAX_INDEX_SPECS];
} OMRAPMI_QUERY_SPEC;

static_assert(sizeof(OMRAPMI_QUERY_SPEC) == 328, "an index query has 328 bytes");
static_assert(offsetof(OMRAPMI_QUERY_SPEC, num_index_specs) == 4, "num_index_specs");
static_assert(offsetof(OMRAPMI_QUERY_SPEC, index_spec) == 8, "index_spec");

/* The request of an index query: only the header and the used terms are sent. */
typedef struct OMRAPMI_INDEX_LIST {
    OMRA_INDEX_HDR hdr;
    OMRA_INDEX_SPEC specs[OMRAPMI_MAX_INDEX_SPECS];
} OMRAPMI_INDEX_LIST;

static_assert(sizeof(OMRAPMI_INDEX_LIST) == 424, "a full index request has 424 bytes");
static_assert(offsetof(OMRAPMI_INDEX_LIST, specs) == 104, "OMRAPMI_INDEX_LIST.specs");

/* What travels to the workers in front of the parameters. */
typedef struct OMRAPMI_PARAMS_EXT {
    ULONG event_app_id;
    UCHAR immediate_params_len; /* parameter bytes in the key; 0 when they are an object */
    BOOLEAN ignore_sliding_timeouts;
    BOOLEAN is_singleton;
    UCHAR reserved; /* 0 */
} OMRAPMI_PARAMS_EXT;

static_assert(sizeof(OMRAPMI_PARAMS_EXT) == 8, "the parameters header has 8 bytes");
static_assert(offsetof(OMRAPMI_PARAMS_EXT, is_singleton) == 6, "OMRAPMI_PARAMS_EXT.is_singleton");

/* One failure of a user function, or of the read of an object to evaluate. The key is the one that
 * Omrapmi_get_key gives, with the mark that it may carry. */
typedef struct OMRAPMI_EXCEPTION {
    int code;        /* never 0: what the user function returned, or the read's status */
    BOOLEAN is_eval; /* 1: an eval or a read failed, 0: a merge */
    UCHAR reserved0;
    USHORT reserved1;
    OMRA_OBJKEY key; /* of the object; all zero for a merge and for an invoke-once eval */
} OMRAPMI_EXCEPTION;

static_assert(sizeof(OMRAPMI_EXCEPTION) == 48, "an exception has 48 bytes");
static_assert(offsetof(OMRAPMI_EXCEPTION, is_eval) == 4, "OMRAPMI_EXCEPTION.is_eval");
static_assert(offsetof(OMRAPMI_EXCEPTION, reserved1) == 6, "OMRAPMI_EXCEPTION.reserved1");
static_assert(offsetof(OMRAPMI_EXCEPTION, key) == 8, "OMRAPMI_EXCEPTION.key");

/* What to invoke, and what came of it. The fields ending in _out are written on success only. */
typedef struct OMRAPMI_INVOKE_ARGS {
    ULONG app_id;             /* whose objects: 0 to 0x0FFFFFFF, or MGTI_APPID_INVOKE_ONCE */
    ULONG func_id_eval;       /* 0 to 63 */
    ULONG func_id_merge;      /* 0 to 63 */
    const char *pparams_obj;  /* handed to every eval call; NULL exactly when the length is 0 */
    ULONG params_obj_len;     /* bytes */
    ULONG query_spec_len;     /* bytes: 0, 328 or any, by use_query_spec */
    const void *pquery_spec;  /* NULL exactly for OMRAPMI_QUERY_NONE */
    ULONG timeout_s;          /* of the invocation, in seconds */
    UCHAR use_query_spec;     /* OMRAPMI_QUERY_* */
    BOOLEAN use_exceptions;   /* 1: hand the exceptions out, 0: only count them */
    ULONG num_successful_out; /* objects */
    ULONG num_failed_out;     /* objects */
    char *presults_obj_out;   /* the merged result, NULL when there is none; the caller's to free */
    ULONG results_obj_len_out;
    OMRAPMI_EXCEPTION *pexceptions_out; /* NULL when there are none; the caller's to free */
    ULONG num_exceptions_out;
} OMRAPMI_INVOKE_ARGS;

typedef struct OMRAPMI_INVOKE_EXT_ARGS {
    ULONG event_app_id;              /* whose workers: 0 to 0x0FFFFFFF or a reserved app id */
    BOOLEAN ignore_sliding_timeouts; /* 1: evaluating an object does not renew its time-out */
    BOOLEAN is_singleton;            /* 1: fails while another such invocation runs on a worker */
} OMRAPMI_INVOKE_EXT_ARGS;

/* User functions ------------------------------------------------------------------------------ */

/* Evaluates one object. Called on a worker thread with no lock held, for several objects at once.
 * `pdata` and `pparams` are the module's and are not changed; each is NULL exactly when its length
 * is 0, and an invoke-once eval gets no data. Returns 0 and, through the outputs (preset to NULL
 * and 0), a result that the module then owns, or none; any other value is a failure that becomes an
 * exception's code, and the outputs are then ignored: a failing function leaves no block there. */
typedef int (*OMRAPMI_EVAL_FUNCP)(const char *pdata, unsigned int data_len, const char *pparams,
                                  unsigned int params_len, char **ppresult_out,
                                  unsigned int *presult_len_out);

/* Folds the result `psrc` into the result `pdst`; neither is ever NULL. Within one request and host
 * it is called by one thread at a time, in an order that is not fixed. Returns 0 and either `pdst`
 * with `dst_len` (changed in place) or a new block, which the module then owns while it frees
 * `pdst`. Any other value is a failure that becomes an exception's code: `psrc` is then lost,
 * `pdst` stays as the function left it, and the outputs are ignored. */
typedef int (*OMRAPMI_MERGE_FUNCP)(char *pdst, unsigned int dst_len, const char *psrc,
                                   unsigned int src_len, char **ppmerged_out,
                                   unsigned int *pmerged_len_out);

/* Invoking ------------------------------------------------------------------------------------ */

/* Runs the invocation that `pargs` describes, on the workers of its own app id, and waits for its
 * outcome. OMRALIB_ERR_BAD_ARGS for a NULL `pargs` or the app id 0xFFFFFFFF. */
int Omrapmi_invoke(OMRALIB_HANDLE hdl, OMRAPMI_INVOKE_ARGS *pargs);

/* The same with everything that can be chosen. Here `app_id` may also be 0xD0000000 to 0xDFFFFFFF
 * or 0xFFFFFFFF. A failure after the parameters were stored as an object leaves that object to its
 * time-out, `timeout_s` plus 60 seconds. */
int Omrapmi_invoke_ext(OMRALIB_HANDLE hdl, OMRAPMI_INVOKE_ARGS *pargs,
                       OMRAPMI_INVOKE_EXT_ARGS *pargs_ext);

/* Working ------------------------------------------------------------------------------------- */

/* Set by a process that runs inside the store's service, before anything else: then there is one
 * worker thread. */
extern BOOLEAN omrapmi_in_svc;

/* Registers a user function under an id that it shares with no other function of any kind. An eval
 * function serves the invocations whose workers are those of `app_id`; a merge function serves all.
 * Repeating a registration is accepted; nothing is ever unregistered. */
int Omrapmi_worker_register_eval_func(OMRAPMI_EVAL_FUNCP pfunc, unsigned int func_id,
                                      unsigned int app_id);
int Omrapmi_worker_register_merge_func(OMRAPMI_MERGE_FUNCP pfunc, unsigned int func_id,
                                       unsigned int app_id);
int Omrapmi_worker_register_invoke_once_eval_func(OMRAPMI_EVAL_FUNCP pfunc, unsigned int func_id,
                                                  unsigned int app_id);

/* Sets the worker side up with `num_worker_thrds` threads; 0: one more than there are processors,
 * from 2 to 32. The first call decides, and every operation below makes it with 0. */
int Omrapmi_worker_init_ext(unsigned int num_worker_thrds);

/* Registers the callbacks below with the store library, once. */
int Omrapmi_worker_init_svc(void);

/* Binds the names of the reserved app ids; does nothing for others. */
int Omrapmi_worker_register_app_name(OMRALIB_HANDLE hdl, unsigned int event_app_id);

/* Starts, or stops, handling invocations for an app id: 0 to 0x0FFFFFFF or
 * MGTI_APPID_SYSTEM_BACKREST. Stopping leaves accepted requests running, and once the store could
 * be reached it reports success even if the store refused. */
int Omrapmi_worker_start(unsigned int event_app_id);
int Omrapmi_worker_init(unsigned int event_app_id); /* the same as Omrapmi_worker_start */
int Omrapmi_worker_stop(unsigned int event_app_id);

/* The number of worker threads, or a negative code. */
int Omrapmi_get_worker_thread_count(void);

/* The callbacks that the store library calls; an application does not. */
int Omrapmi_invoke_ext_cb(const char *pguid, OMRALIB_INVOKE_PARAMS *pparams);
int Omrapmi_event_ext_cb(OMRA_OBJKEY key, const char *pguid, unsigned int event_code);

/* Inside a user function ---------------------------------------------------------------------- */

/* These answer on the module's worker threads only; elsewhere OMRAPMI_ERR_NOT_A_WORKER. */

/* The key of the object that the calling thread evaluates, also while it merges afterwards; all
 * zero in an invoke-once eval and in a merge request. Where the invocation ignores sliding
 * time-outs, its app id carries OMRA_APPID_NO_RENEW; a program that compares keys, or looks
 * something up by them, takes the mark off: key.app_id &= ~OMRA_APPID_NO_RENEW. */
int Omrapmi_get_key(OMRA_OBJKEY *pkey_out);

/* The calling thread's index, 0 to the number of worker threads - 1, or a negative code. */
int Omrapmi_get_worker_thread_index(void);

/* The id of the server host that sent the request that the calling thread works on. */
int Omrapmi_worker_get_svr_host_id(unsigned int *phost_id_out);

/* The calling thread's own record; what is in it is the module's business. */
typedef struct OMRAPMI_WORKER_THRD_STATE OMRAPMI_WORKER_THRD_STATE;
int Omrapmi_worker_thrd_st_get(OMRAPMI_WORKER_THRD_STATE **ppworker_thrd_st_out);

/* Memory -------------------------------------------------------------------------------------- */

/* An uninitialised block, or NULL. */
void *Omrapmi_malloc(size_t size);

/* Releases a block of Omrapmi_malloc or of this interface; NULL does nothing. */
void Omrapmi_free(void *ptr);

#ifdef __cplusplus
}
#endif

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
