/* The store client library: handles, objects, locks, invocations.
 *
 * Conventions that hold for every operation:
 *  1. An operation returns OMRALIB_RET_SUCCESS (1) or one of the negative codes of
 *     OMRALIB_STATUS_MAP; test for success with == OMRALIB_RET_SUCCESS. Only
 *     Omralib_read_and_lock_obj (a lock ticket), Omralib_open_ext (a handle) and
 *     Omralib_get_host_addr return something else.
 *  2. A handle belongs to one thread at a time: a call on a handle that another thread is using, or
 *     that is not open, fails and changes nothing. Operations without a handle may be called from
 *     any thread.
 *  3. Keys are passed by value. All 40 bytes count, except that the app id of an ordinary key may
 *     carry OMRA_APPID_NO_RENEW. A null key is OMRALIB_ERR_BAD_KEY. No operation keeps a pointer
 *     of its caller after it has returned.
 *  4. `options` and `lock_options` are reserved: pass 0.
 *  5. After a failure every output is as the caller left it, and the store is as it was, unless the
 *     operation says otherwise. */
#pragma once

#include "storkey.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Every status code once: name, value, text. */
#define OMRALIB_STATUS_MAP(X)                                                                      \
    X(OMRALIB_RET_SUCCESS, 1, "success")                                                           \
    X(OMRALIB_ERR_CANT_INIT, -101, "the store client library cannot be initialised")               \
    X(OMRALIB_ERR_BAD_HANDLE, -102, "the handle is not open")                                      \
    X(OMRALIB_ERR_HANDLE_BUSY, -103, "the handle is in use by another thread")                     \
    X(OMRALIB_ERR_BAD_KEY, -105, "the object key is not valid")                                    \
    X(OMRALIB_ERR_BAD_ARGS, -106, "an argument is not valid")                                      \
    X(OMRALIB_ERR_OBJ_EXISTS, -108, "an object with this key exists already")                      \
    X(OMRALIB_ERR_OBJ_NOT_FOUND, -109, "there is no object with this key")                         \
    X(OMRALIB_ERR_NOT_READING, -110, "no read is pending on the handle")                           \
    X(OMRALIB_ERR_NAME_REGISTERED, -111, "the application name is registered already")             \
    X(OMRALIB_ERR_OBJ_LOCKED, -112, "the object is locked by another holder")                      \
    X(OMRALIB_ERR_INVOKE_TIMEOUT, -116, "the invocation's time was over before it was done")       \
    X(OMRALIB_ERR_OBJ_READING, -119, "a read is pending on the handle")                            \
    X(OMRALIB_ERR_NO_WORKER, -120, "no process handles invocations for this app id")               \
    X(OMRALIB_ERR_BAD_QUERY, -121, "the query is not valid")                                       \
    X(OMRALIB_ERR_LOCK_LOST, -122, "the lock ticket is no longer valid")                           \
    X(OMRALIB_ERR_NO_SPACE, -123, "the store's memory limit is reached")                           \
    X(OMRALIB_ERR_CANCELLED, -124, "the invocation was cancelled")                                 \
    X(OMRALIB_ERR_UNKNOWN, -125, "it is unknown whether the operation was carried out")            \
    X(OMRALIB_ERR_INVOKE_INSIDE, -126, "a function that an invocation runs cannot invoke")         \
    X(OMRALIB_ERR_FORKED, -127, "the process was forked from the one that opened the store")

enum {
#define OMRALIB_STATUS_ENUM(name, value, text) name = (value),
    OMRALIB_STATUS_MAP(OMRALIB_STATUS_ENUM)
#undef OMRALIB_STATUS_ENUM
};

typedef unsigned int OMRALIB_HANDLE;

#define OMRALIB_NULL_HANDLE 0xFFFFFFFFu
#define OMRALIB_NULL_LOCK_TKT 0
#define OMRALIB_GUID_LEN 16

/* Kinds of callback for Omralib_register_cb. */
#define OMRALIB_CB_EVENT 1u
#define OMRALIB_CB_INVOKE 2u
#define OMRALIB_CB_EVENT_EXT 3u
#define OMRALIB_CB_INVOKE_EXT 4u

/* An invocation of this app id runs its eval function once, on no object. */
#define MGTI_APPID_INVOKE_ONCE 0x40000001u

/* The app id that the name "__OMRA_appname_system_backrest" is bound to. */
#define MGTI_APPID_SYSTEM_BACKREST 0x30000002u

/* ORed into a key's app_id by a reader that must not renew the object's time-out; it names the same
 * object. */
#define OMRA_APPID_NO_RENEW 0x70000000u

/* One invoke request as a host receives it. */
typedef struct OMRALIB_INVOKE_PARAMS {
    unsigned int app_id; /* of the objects; MGTI_APPID_INVOKE_ONCE for an invoke-once request */
    ULONGLONG invoke_op;
    ULONGLONG merge_op;
    int num_keys;                /* objects to evaluate; 0 for a merge request, 1 for invoke-once */
    unsigned int context;        /* names this request on this host in the calls below */
    unsigned int invoke_timeout; /* seconds */
    unsigned int svr_host_id;    /* the server host that sent the request */
    OMRA_OBJKEY params_key;      /* for a merge request: the object to merge into results_key */
    OMRA_OBJKEY results_key;
    OMRA_OBJKEY exceptions_key;
    UCHAR immediate_params; /* 1: the parameters are packed into params_key */
    UCHAR merge_request;    /* 1: a merge request */
    UCHAR verno_supplied;
} OMRALIB_INVOKE_PARAMS;

static_assert(sizeof(OMRALIB_INVOKE_PARAMS) == 168, "an invoke request has 168 bytes");
static_assert(offsetof(OMRALIB_INVOKE_PARAMS, invoke_op) == 8, "OMRALIB_INVOKE_PARAMS.invoke_op");
static_assert(offsetof(OMRALIB_INVOKE_PARAMS, num_keys) == 24, "OMRALIB_INVOKE_PARAMS.num_keys");
static_assert(offsetof(OMRALIB_INVOKE_PARAMS, params_key) == 40,
              "OMRALIB_INVOKE_PARAMS.params_key");
static_assert(offsetof(OMRALIB_INVOKE_PARAMS, immediate_params) == 160,
              "OMRALIB_INVOKE_PARAMS.immediate_params");
static_assert(offsetof(OMRALIB_INVOKE_PARAMS, verno_supplied) == 162,
              "OMRALIB_INVOKE_PARAMS.verno_supplied");

/* What an invoke callback answers. */
#define OMRALIB_INVOKE_ACCEPTED 3 /* Omralib_complete_invoke follows, from any thread */
#define OMRALIB_INVOKE_NO_KEYS (-3)
#define OMRALIB_INVOKE_NO_MEMORY (-4)

/* What an event callback answers for an event that it did not handle. */
#define OMRALIB_EVENT_NOT_HANDLED (-1)

/* Callbacks run on threads of the store, several at once. `pguid` has OMRALIB_GUID_LEN bytes: the
 * identifier with which the serving handle was opened. */
typedef int (*OMRALIB_EVENT_CB)(OMRA_OBJKEY key, unsigned int event_code);
typedef int (*OMRALIB_INVOKE_CB)(OMRALIB_INVOKE_PARAMS *pparams);
typedef int (*OMRALIB_EVENT_EXT_CB)(OMRA_OBJKEY key, const char *pguid, unsigned int event_code);
typedef int (*OMRALIB_INVOKE_EXT_CB)(const char *pguid, OMRALIB_INVOKE_PARAMS *pparams);

typedef union OMRALIB_CB {
    OMRALIB_EVENT_CB event_cb;
    OMRALIB_INVOKE_CB invoke_cb;
    OMRALIB_EVENT_EXT_CB event_ext_cb;
    OMRALIB_INVOKE_EXT_CB invoke_ext_cb;
} OMRALIB_CB;

static_assert(sizeof(OMRALIB_CB) == 8, "a callback is one pointer");

/* Connection ---------------------------------------------------------------------------------- */

/* Sets the library up once; cheap afterwards. OMRALIB_ERR_CANT_INIT when that is impossible. */
int Omralib_init(void);

/* Selects the 40-byte keys of storkey.h. They are the only ones that this library has. */
void Omralib_use_large_keys(void);

/* A new handle for a process that identifies itself with the OMRALIB_GUID_LEN bytes at `pguid`
 * (NULL: none), or OMRALIB_NULL_HANDLE when `Omralib_init` fails or no handle is free. The caller
 * closes it with Omralib_close. */
OMRALIB_HANDLE Omralib_open_ext(const char *pguid);

/* Closes `hdl`, drops its pending read and releases the object locks taken through it. */
int Omralib_close(OMRALIB_HANDLE hdl);

/* Success when `hdl` is open and has no read pending. */
int Omralib_handle_ready(OMRALIB_HANDLE hdl);

/* An address of this host, 0 when it has none. */
unsigned int Omralib_get_host_addr(void);

/* Serving ------------------------------------------------------------------------------------- */

/* Sets this process's callback of the kind `cb_type` (OMRALIB_CB_*); a second call replaces it.
 * Only those of OMRALIB_CB_EVENT_EXT are added to those there are: up to eight hear of every event,
 * and so does the one of OMRALIB_CB_EVENT; OMRALIB_ERR_NO_SPACE beyond that. */
int Omralib_register_cb(unsigned int cb_type, OMRALIB_CB cb);

/* Binds the `name_len` bytes of `name` to an app id and writes it to `*papp_id_out`.
 * OMRALIB_ERR_NAME_REGISTERED when the name is bound already. */
int Omralib_register_appname_hdl(OMRALIB_HANDLE hdl, const char *name, unsigned int name_len,
                                 unsigned int *papp_id_out);

/* From now on, or no longer, requests and events of `event_app_id` reach this process's callbacks.
 * Requests that it has accepted stay accepted. */
int Omralib_start_app_event_handling(OMRALIB_HANDLE hdl, unsigned int event_app_id);
int Omralib_stop_app_event_handling(OMRALIB_HANDLE hdl, unsigned int event_app_id);

/* Objects ------------------------------------------------------------------------------------- */

/* Creates an object with a copy of the `data_len` bytes at `pdata` (NULL when 0). It vanishes
 * `timeout_m` minutes after its last use; 0: never. OMRALIB_ERR_OBJ_EXISTS when the key is taken;
 * OMRALIB_ERR_BAD_KEY for a null key. */
int Omralib_store_obj(OMRALIB_HANDLE hdl, unsigned int options, const void *pdata,
                      unsigned int data_len, unsigned int timeout_m, OMRA_OBJKEY key);

/* Reads an object: writes its length to `*pdata_len_out`; the bytes, unless there are none, stay
 * pending on `hdl` for one call of Omralib_get_read_data or Omralib_flush_read_data.
 * OMRALIB_ERR_OBJ_READING when a read is pending already. */
int Omralib_read_obj(OMRALIB_HANDLE hdl, unsigned int options, unsigned int *pdata_len_out,
                     OMRA_OBJKEY key);

/* Copies the pending bytes to `pbuf`; `len` is the length that the read reported, else
 * OMRALIB_ERR_BAD_ARGS and the bytes stay pending. OMRALIB_ERR_NOT_READING when nothing is. */
int Omralib_get_read_data(OMRALIB_HANDLE hdl, void *pbuf, unsigned int len);

/* Drops the pending bytes. OMRALIB_ERR_NOT_READING when nothing is pending. */
int Omralib_flush_read_data(OMRALIB_HANDLE hdl);

/* Reads as Omralib_read_obj does and locks the object for `hdl`. Returns the lock's ticket, a
 * positive number, or a code: OMRALIB_ERR_OBJ_LOCKED while another holder has it. May wait a few
 * milliseconds for that holder before it says so. */
int Omralib_read_and_lock_obj(OMRALIB_HANDLE hdl, unsigned int options, unsigned int lock_options,
                              unsigned int *pdata_len_out, OMRA_OBJKEY key);

/* Replaces the bytes of an object locked under `lock_tkt`, and releases the lock when `unlock`
 * is 1. A ticket is valid with the handle and the key that it was taken for. The lock stays held
 * after a failure, except for OMRALIB_ERR_LOCK_LOST: it is gone. */
int Omralib_update_locked_obj(OMRALIB_HANDLE hdl, int lock_tkt, unsigned int unlock,
                              unsigned int options, const void *pdata, unsigned int data_len,
                              OMRA_OBJKEY key);

/* Releases the lock held under `lock_tkt`. OMRALIB_ERR_LOCK_LOST when it is gone. */
int Omralib_unlock_obj(OMRALIB_HANDLE hdl, int lock_tkt, unsigned int options, OMRA_OBJKEY key);

/* Removes the object, locked or not. */
int Omralib_remove_obj(OMRALIB_HANDLE hdl, unsigned int options, OMRA_OBJKEY key);

/* Invocations --------------------------------------------------------------------------------- */

/* Runs the invocation that the `req_len` bytes at `preq` ask for (OMRA_INDEX_HDR and its query) and
 * waits for its result: an OMRA_INVOKE_RESULT, whose length goes to `*presult_len_out` and whose
 * bytes stay pending on `hdl`. The caller reads and removes the objects that it names. Without a
 * matching object all counts are 0 and all keys null. A host that refuses its request is asked
 * again, then another one is; objects that no host takes count as failed, and each refusal for good
 * is a line of the trace. OMRALIB_ERR_NO_WORKER, at once, when nobody handles requests of the app
 * id; OMRALIB_ERR_INVOKE_TIMEOUT when the request's time (0: no limit) is over first: what hosts
 * still do for it then changes nothing; OMRALIB_ERR_BAD_QUERY for a query that is not valid,
 * OMRALIB_ERR_BAD_ARGS for a header or a length that is none of a request. */
int Omralib_invoke(OMRALIB_HANDLE hdl, unsigned int options, const void *preq, unsigned int req_len,
                   unsigned int *presult_len_out);

/* Copies the keys of the request `context` to `pkeys`; `num_keys` is the number that the request
 * named. Called inside the invoke callback, and as long as the request is not complete.
 * OMRALIB_ERR_BAD_ARGS for another number, or when `context` is no such request. */
int Omralib_get_invoke_keys(unsigned int context, OMRA_OBJKEY *pkeys, unsigned int num_keys);

/* Reports an accepted request as complete with these counts, exactly once. OMRALIB_ERR_BAD_ARGS
 * when `context` is no request that waits for it, or its time is over: the counts are ignored then
 * and the results and exceptions objects of the request are removed. */
int Omralib_complete_invoke(OMRALIB_HANDLE hdl, unsigned int context, unsigned int num_successful,
                            unsigned int num_failed);

/* Gives up an accepted request whose completion could not be reported; its objects count as failed,
 * and its results and exceptions objects are removed. OMRALIB_ERR_BAD_ARGS as above. */
int Omralib_flush_invoke(unsigned int context);

#ifdef __cplusplus
}
#endif
