/* What the shipped store gives applications beyond storlib.h: objects with index values, replacing,
 * listing and counting, and figures about the store's work. The conventions of storlib.h hold. */
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

/* Writes the number of objects of `app_id`, which may be OMRALIB_ALL_APP_IDS, to `*pcount_out`. */
int Omralib_count_objs(OMRALIB_HANDLE hdl, unsigned int app_id, ULONGLONG *pcount_out);

/* Calls `pfunc` with the key of every object of `app_id`, which may be OMRALIB_ALL_APP_IDS, in key
 * order, until it returns non-zero. Key order goes by the fields as they stand in the record; an id
 * counts as two numbers, u64_comp[0] first. Listing renews no time-out. The keys are those of one
 * moment; objects may have gone since. `pfunc` runs on the calling thread with no lock held and may
 * use the store, but not `hdl`. */
typedef int (*OMRALIB_KEY_FUNC)(const OMRA_OBJKEY *pkey, void *parg);
int Omralib_list_objs(OMRALIB_HANDLE hdl, unsigned int app_id, OMRALIB_KEY_FUNC pfunc, void *parg);

/* Figures since the process started, of all handles together; each is exact once the calls that it
 * counts have returned. */
typedef struct OMRALIB_STATS {
    ULONGLONG num_objects;     /* stored now */
    ULONGLONG num_bytes;       /* of their contents */
    ULONGLONG num_reads;       /* successful reads of objects, locked ones included */
    ULONGLONG num_invocations; /* finished */
} OMRALIB_STATS;

int Omralib_get_stats(OMRALIB_STATS *pstats_out);

#ifdef __cplusplus
}
#endif
