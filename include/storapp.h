/* What the shipped store gives applications beyond storlib.h: objects with index values, replacing,
 * listing and counting; configuration; queries explained; the progress of invocations and their
 * end; figures about the store's work. The conventions of storlib.h hold. */
#pragma once

#include "storlib.h"

#ifdef __cplusplus
extern "C" {
#endif

/* In the place of an app id where objects are counted, listed or selected by an invocation: all
 * ordinary app ids, which are those up to 0x0FFFFFFF. */
#define OMRALIB_ALL_APP_IDS 0xFFFFFFFFu

/* The value of one of an object's indexes. An object has at most one value for each index; strings
 * are stored from the first byte on and zero-padded, numbers little-endian. */
typedef struct OMRA_OBJ_INDEX {
    USHORT index;       /* 0 to OMRA_NUM_INDEXES - 1 */
    USHORT reserved[3]; /* 0 */
    OMRA_INDEX_VALUE value;
} OMRA_OBJ_INDEX;

static_assert(sizeof(OMRA_OBJ_INDEX) == 40, "an object's index has 40 bytes");
static_assert(offsetof(OMRA_OBJ_INDEX, value) == 8, "OMRA_OBJ_INDEX.value");

/* Creates an object as Omralib_store_obj does, with the `num_indexes` (0 to 8) index values at
 * `pindexes` (NULL when 0). OMRALIB_ERR_BAD_ARGS for an index above 7 or one given twice. */
int Omralib_store_indexed_obj(OMRALIB_HANDLE hdl, const void *pdata, unsigned int data_len,
                              unsigned int timeout_m, const OMRA_OBJ_INDEX *pindexes,
                              unsigned int num_indexes, OMRA_OBJKEY key);

/* Gives an existing object new bytes, a new time-out and new index values, all at once.
 * OMRALIB_ERR_OBJ_NOT_FOUND when there is none, OMRALIB_ERR_OBJ_LOCKED while it is locked. */
int Omralib_replace_obj(OMRALIB_HANDLE hdl, const void *pdata, unsigned int data_len,
                        unsigned int timeout_m, const OMRA_OBJ_INDEX *pindexes,
                        unsigned int num_indexes, OMRA_OBJKEY key);

/* An object for Omralib_store_objs, by the names of Omralib_store_indexed_obj's arguments. */
typedef struct OMRALIB_NEW_OBJ {
    OMRA_OBJKEY key;
    const void *pdata;
    unsigned int data_len;
    unsigned int timeout_m;
    const OMRA_OBJ_INDEX *pindexes;
    unsigned int num_indexes;
    int status_out; /* what became of it */
} OMRALIB_NEW_OBJ;

/* Creates or removes many objects at once, in any order, as Omralib_store_indexed_obj and
 * Omralib_remove_obj do one; an engine that asks others has many of them under way at a time, so
 * that about a thousand make a good call. Every object's own status goes to its `status_out`, or to
 * the `num_keys` statuses at `pstatuses_out`. Success when all succeeded, else what one that failed
 * answered. When a key or another argument is not valid nothing is done and no status written. */
int Omralib_store_objs(OMRALIB_HANDLE hdl, OMRALIB_NEW_OBJ *pobjs, unsigned int num_objs);
int Omralib_remove_objs(OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pkeys, unsigned int num_keys,
                        int *pstatuses_out);

/* Writes the number of objects of `app_id`, which may be OMRALIB_ALL_APP_IDS, to `*pcount_out`. */
int Omralib_count_objs(OMRALIB_HANDLE hdl, unsigned int app_id, ULONGLONG *pcount_out);

/* Calls `pfunc` with the key of every object of `app_id`, which may be OMRALIB_ALL_APP_IDS, in key
 * order, until it returns non-zero. Key order goes by the fields as they stand in the record; an id
 * counts as two numbers, u64_comp[0] first. Listing renews no time-out. The keys are those of one
 * moment; objects may have gone since. `pfunc` runs on the calling thread with no lock held and may
 * use the store, but not `hdl`. */
typedef int (*OMRALIB_KEY_FUNC)(const OMRA_OBJKEY *pkey, void *parg);
int Omralib_list_objs(OMRALIB_HANDLE hdl, unsigned int app_id, OMRALIB_KEY_FUNC pfunc, void *parg);

/* The same for the objects that a query selects (as in a pass-through request; NULL and 0: all).
 * OMRALIB_ERR_BAD_QUERY as for an invocation. */
int Omralib_find_objs(OMRALIB_HANDLE hdl, unsigned int app_id, const void *pquery,
                      unsigned int query_len, OMRALIB_KEY_FUNC pfunc, void *parg);

/* Configuration ------------------------------------------------------------------------------- */

/* How the store of this process is set up. A member that is 0 (NULL) means its default. */
typedef struct OMRALIB_CONFIG {
    const char *engine_url;       /* "embedded:", or "rados:POOL..." for a Ceph cluster; default:
                                     environment OMRA_STORE, else "embedded:" */
    unsigned int num_hosts;       /* hosts that are played in this process, 1 to 64; default 1 */
    unsigned int lock_lease_s;    /* seconds that a lock outlives its holder; default 60 */
    unsigned int max_invocations; /* that run at once; default 64. Others wait their turn, first
                                     come first served, while their time-outs run */
    ULONGLONG memory_limit; /* bytes, of the embedded engine; default: none. An object counts its
                             * own plus 128, and 128 for each of its index values */
} OMRALIB_CONFIG;

/* Configures the store, before its first use: OMRALIB_ERR_CANT_INIT once it has been used.
 * OMRALIB_ERR_BAD_ARGS for a value that is not allowed; Omralib_get_error_text with
 * OMRALIB_NULL_HANDLE then says which, and what is. After a failure the store may be configured
 * again. */
int Omralib_configure(const OMRALIB_CONFIG *pconfig);

/* What went wrong last on `hdl`, in words, when there is more to say than the status code does: for
 * example "at 17: expected a number or a string after '<'". Copies at most `buf_len` - 1 bytes and
 * a zero to `pbuf`; the text is empty when the last failing operation had nothing to add. May be
 * called while a read is pending. With OMRALIB_NULL_HANDLE: of the calling thread's last
 * Omralib_configure or Omralib_init. */
int Omralib_get_error_text(OMRALIB_HANDLE hdl, char *pbuf, unsigned int buf_len);

/* Queries ------------------------------------------------------------------------------------- */

/* Writes, as lines of text, how the query (as in a pass-through request; NULL and 0: all objects)
 * would be answered for the objects of `app_id`: the terms, the cheapest first, with the number of
 * objects that each is expected to give, and which of them are looked up in an index. Truncated to
 * `buf_len` - 1 bytes and a zero. OMRALIB_ERR_BAD_QUERY as for an invocation. */
int Omralib_explain_query(OMRALIB_HANDLE hdl, unsigned int app_id, const void *pquery,
                          unsigned int query_len, char *pbuf, unsigned int buf_len);

/* Invocations --------------------------------------------------------------------------------- */

typedef struct OMRALIB_PROGRESS {
    ULONGLONG num_matched; /* objects that hosts have found, or expect to find */
    ULONGLONG num_done;    /* objects, failed ones included; goes back when a host is lost */
    ULONGLONG num_failed;  /* objects known to have failed */
    unsigned int num_hosts;
    unsigned int num_hosts_done;
} OMRALIB_PROGRESS;

/* Calls `pfunc` (NULL: no longer) during invocations on `hdl`, on the invoking thread, at most ten
 * times a second and once at the end, when it is too late for cancelling. What a host has begun to
 * read counts as done before the host has reported it. `pfunc` may call Omralib_cancel_invoke, but
 * not use `hdl` otherwise. */
typedef void (*OMRALIB_PROGRESS_FUNC)(const OMRALIB_PROGRESS *pprogress, void *parg);
int Omralib_set_progress_func(OMRALIB_HANDLE hdl, OMRALIB_PROGRESS_FUNC pfunc, void *parg);

/* Ends the invocation that runs, or waits for its turn, on `hdl`, from any thread and while `hdl`
 * is in use: it answers OMRALIB_ERR_CANCELLED, and hosts drop what they have not begun. Success
 * also when none runs. */
int Omralib_cancel_invoke(OMRALIB_HANDLE hdl);

/* Hosts --------------------------------------------------------------------------------------- */

/* A host that refuses a request for the moment is asked again, with pauses from 10 ms to 1 s; after
 * eight of them another host gets the request, as it does at once when the host is gone or refuses
 * for good. A host is given up as silent when half of the time that an invocation had left at the
 * sending has passed without a word, the others have taken less than half as long, and one of them
 * has nothing to do; without a time-out it is waited for until it is declared gone. What another
 * host has taken over may be evaluated twice; it counts once. Objects that no host takes count as
 * failed. */

/* Declares a host gone: its requests are given to other hosts, what it did for them does not count,
 * and it gets no new ones. In the embedded engine hosts are numbered from 1 and their objects stay
 * readable. OMRALIB_ERR_BAD_ARGS for a host that there is not. */
int Omralib_declare_host_gone(unsigned int host_id);

/* Events -------------------------------------------------------------------------------------- */

/* Event codes of the event callbacks. The event reaches the process that handles the object's app
 * id, after the object has gone. */
#define OMRALIB_EVENT_EXPIRED 1u

/* Figures ------------------------------------------------------------------------------------- */

/* Since the process started, of all handles together; each is exact once the calls that it counts
 * have returned. */
typedef struct OMRALIB_STATS {
    ULONGLONG num_objects;             /* stored now */
    ULONGLONG num_bytes;               /* of their contents */
    ULONGLONG num_reads;               /* successful reads of objects, locked ones included */
    ULONGLONG num_invocations;         /* finished */
    ULONGLONG num_invocations_running; /* now, waiting ones included */
    ULONGLONG num_evaluated;           /* objects, successfully or not */
    ULONGLONG num_folds;               /* merge requests that counted */
    ULONGLONG num_refusals;            /* requests that a host refused */
    ULONGLONG num_retries;             /* requests sent once more, to the same host or another */
    ULONGLONG num_lock_waits;          /* reads under lock that had to wait */
    ULONGLONG num_expired;             /* objects */
    ULONGLONG invocation_us;           /* spent by finished invocations, microseconds */
    ULONGLONG num_invocation_bytes;    /* now, of this process's memory: keys, descriptors, results
                                        * that nobody has freed, and what is kept for the next */
} OMRALIB_STATS;

int Omralib_get_stats(OMRALIB_STATS *pstats_out);

typedef struct OMRALIB_APP_STATS {
    ULONGLONG num_objects;
    ULONGLONG num_bytes; /* of their contents */
} OMRALIB_APP_STATS;

/* OMRALIB_ALL_APP_IDS: of all ordinary app ids. */
int Omralib_get_app_stats(unsigned int app_id, OMRALIB_APP_STATS *pstats_out);

#ifdef __cplusplus
}
#endif
