/* The records that name, index and describe stored objects.
 *
 * All of them cross a process or a wire: little-endian, the sizes and offsets asserted here,
 * padding included. Whoever sends one writes its padding as zeros. */
#pragma once

#include <stddef.h>

#include "sys_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Sixteen bytes of an object id, seen three ways. */
typedef union OMRA_OBJID {
    ULONGLONG u64_comp[2];
    ULONG u32_comp[4];
    UCHAR u8_comp[16];
} OMRA_OBJID;

/* The key of one stored object. `flags`, `type_index` and `reserved` are carried unchanged. */
typedef struct OMRA_OBJKEY {
    ULONG app_id; /* the application namespace of the object */
    UCHAR flags;
    UCHAR type_index;
    USHORT reserved;
    OMRA_OBJID ext_obj_id;
    OMRA_OBJID obj_id;
} OMRA_OBJKEY;

static_assert(sizeof(OMRA_OBJKEY) == 40, "an object key has 40 bytes");
static_assert(offsetof(OMRA_OBJKEY, ext_obj_id) == 8, "OMRA_OBJKEY.ext_obj_id");
static_assert(offsetof(OMRA_OBJKEY, obj_id) == 24, "OMRA_OBJKEY.obj_id");

/* Whether a key names no object; `type_index` and `reserved` do not count. Takes an lvalue. */
#define OMRA_OBJKEY_IS_NULL(key)                                                                   \
    ((key).app_id == 0 && (key).flags == 0 && (key).ext_obj_id.u64_comp[0] == 0 &&                 \
     (key).ext_obj_id.u64_comp[1] == 0 && (key).obj_id.u64_comp[0] == 0 &&                         \
     (key).obj_id.u64_comp[1] == 0)

/* How many indexes an object can have, numbered from 0. */
#define OMRA_NUM_INDEXES 8u

/* The value of one index of an object. */
typedef struct OMRA_INDEX_VALUE {
    ULONGLONG u64_comp[4];
} OMRA_INDEX_VALUE;

static_assert(sizeof(OMRA_INDEX_VALUE) == 32, "an index value has 32 bytes");

/* One term of an index query. With `flags` 0 it matches the objects whose index has the value, with
 * `flags` 1 all others. */
typedef struct OMRA_INDEX_SPEC {
    USHORT index; /* 0 to 7 */
    USHORT flags; /* 0 or 1 */
    OMRA_INDEX_VALUE value;
} OMRA_INDEX_SPEC;

static_assert(sizeof(OMRA_INDEX_SPEC) == 40, "an index term has 40 bytes");
static_assert(offsetof(OMRA_INDEX_SPEC, value) == 8, "OMRA_INDEX_SPEC.value");

/* Request and result kind of an invocation. */
#define OMRALIB_INDEX_OP_INVOKE 2u

/* `reserved1` of a request that carries pass-through query bytes. */
#define OMRALIB_QUERY_PASS_THROUGH 2u

/* The header of the request that starts an invocation. The query follows it directly: `num_index`
 * terms of 40 bytes (`reserved1` is then 1 when all terms must match, 0 when any may), or
 * `num_index` query bytes (`reserved1` is then OMRALIB_QUERY_PASS_THROUGH), or nothing (both 0). */
typedef struct OMRA_INDEX_HDR {
    ULONG reserved; /* OMRALIB_INDEX_OP_INVOKE */
    ULONG app_id;
    ULONG num_index;
    ULONG reserved1;
    ULONGLONG invoke_op;  /* eval function id */
    ULONGLONG merge_op;   /* merge function id */
    ULONG invoke_timeout; /* seconds */
    ULONG reserved2;      /* the app id whose workers handle the request */
    UCHAR immediate_params;
    BOOLEAN immediate_qry_spec;
    USHORT num_result_objs;
    ULONG reserved5;
    OMRA_OBJKEY params_key;
    ULONG invgrid_id;
    USHORT reserved3;
    USHORT reserved4;
    BOOLEAN req_verno;
    UCHAR req_special;
    USHORT reserved7;
} OMRA_INDEX_HDR;

static_assert(sizeof(OMRA_INDEX_HDR) == 104, "a request header has 104 bytes");
static_assert(offsetof(OMRA_INDEX_HDR, invoke_op) == 16, "OMRA_INDEX_HDR.invoke_op");
static_assert(offsetof(OMRA_INDEX_HDR, merge_op) == 24, "OMRA_INDEX_HDR.merge_op");
static_assert(offsetof(OMRA_INDEX_HDR, invoke_timeout) == 32, "OMRA_INDEX_HDR.invoke_timeout");
static_assert(offsetof(OMRA_INDEX_HDR, reserved2) == 36, "OMRA_INDEX_HDR.reserved2");
static_assert(offsetof(OMRA_INDEX_HDR, immediate_params) == 40, "OMRA_INDEX_HDR.immediate_params");
static_assert(offsetof(OMRA_INDEX_HDR, num_result_objs) == 42, "OMRA_INDEX_HDR.num_result_objs");
static_assert(offsetof(OMRA_INDEX_HDR, reserved5) == 44, "OMRA_INDEX_HDR.reserved5");
static_assert(offsetof(OMRA_INDEX_HDR, params_key) == 48, "OMRA_INDEX_HDR.params_key");
static_assert(offsetof(OMRA_INDEX_HDR, invgrid_id) == 88, "OMRA_INDEX_HDR.invgrid_id");
static_assert(offsetof(OMRA_INDEX_HDR, reserved3) == 92, "OMRA_INDEX_HDR.reserved3");
static_assert(offsetof(OMRA_INDEX_HDR, req_verno) == 96, "OMRA_INDEX_HDR.req_verno");
static_assert(offsetof(OMRA_INDEX_HDR, reserved7) == 98, "OMRA_INDEX_HDR.reserved7");

/* The outcome of an invocation. A null key says that there is no such object. */
typedef struct OMRA_INVOKE_RESULT {
    ULONG reserved; /* OMRALIB_INDEX_OP_INVOKE */
    ULONG num_successful;
    ULONG num_failed;
    ULONG reserved1;
    OMRA_OBJKEY results_key;
    OMRA_OBJKEY exceptions_key;
} OMRA_INVOKE_RESULT;

static_assert(sizeof(OMRA_INVOKE_RESULT) == 96, "an invoke result has 96 bytes");
static_assert(offsetof(OMRA_INVOKE_RESULT, results_key) == 16, "OMRA_INVOKE_RESULT.results_key");
static_assert(offsetof(OMRA_INVOKE_RESULT, exceptions_key) == 56,
              "OMRA_INVOKE_RESULT.exceptions_key");

#ifdef __cplusplus
}
#endif
