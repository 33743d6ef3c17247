// Parameters packed into the parameters key or stored as an object, and unpacked again by a worker.
//
// The invoker calls Omrapmi_invoker_pre before it sends its request; the object that it may store
// is removed when the results are collected. Workers unpack a key in place with
// Omrapmi_immediate_params_get; they read an object as any other.
#include "runtime/params.h"

#include <stdlib.h>
#include <string.h>

#include "common/trace.h"
#include "objects/objects.h"

// The id of every parameters object has this in its middle; the rest is random.
static constexpr ULONG PARAMS_APP_ID = 0x30000000;
static constexpr UCHAR PARAMS_KEY_FLAGS = 2;
static constexpr ULONGLONG PARAMS_OBJ_ID_MARK = 0x00000003BDBD2121;

// The parameter area of a key starts behind the header.
static constexpr size_t PARAMS_OFFSET = sizeof(OMRAPMI_PARAMS_EXT);
static_assert(PARAMS_OFFSET + OMRAPMI_MAX_IMMEDIATE_PARAMS_LEN == sizeof(OMRA_OBJKEY));

void Omrapmi_immediate_params_set(OMRA_OBJKEY *pparams_key, const OMRAPMI_PARAMS_EXT *pparams_ext,
                                  const char *pparams_obj, unsigned int params_obj_len) {
    OMRAPMI_ASSERT(pparams_obj != NULL || params_obj_len == 0);

    char *pbytes = reinterpret_cast<char *>(pparams_key);
    memset(pbytes, 0, sizeof *pparams_key);
    memcpy(pbytes, pparams_ext, sizeof *pparams_ext);
    if (params_obj_len != 0) {
        memcpy(pbytes + PARAMS_OFFSET, pparams_obj, params_obj_len);
    }
}

void Omrapmi_immediate_params_get(const OMRA_OBJKEY *pparams_key, OMRAPMI_PARAMS_EXT **ppparams_ext,
                                  char **ppparams_obj, unsigned int *pparams_obj_len) {
    char *pbytes = reinterpret_cast<char *>(const_cast<OMRA_OBJKEY *>(pparams_key));
    *ppparams_ext = reinterpret_cast<OMRAPMI_PARAMS_EXT *>(pbytes);
    *pparams_obj_len = (*ppparams_ext)->immediate_params_len;
    *ppparams_obj = NULL;
    if (*pparams_obj_len != 0) {
        OMRAPMI_ASSERT(*pparams_obj_len <= OMRAPMI_MAX_IMMEDIATE_PARAMS_LEN);
        if (*pparams_obj_len > OMRAPMI_MAX_IMMEDIATE_PARAMS_LEN) {
            *pparams_obj_len = OMRAPMI_MAX_IMMEDIATE_PARAMS_LEN;
        }
        *ppparams_obj = pbytes + PARAMS_OFFSET;
    }
}

int Omrapmi_create_obj(OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pkey, unsigned int timeout_s,
                       const char *pdata0, unsigned int data0_len, const char *pdata1,
                       unsigned int data1_len) {
    OMRAPMI_ASSERT(hdl != OMRALIB_NULL_HANDLE);
    OMRAPMI_ASSERT(pdata1 != NULL || data1_len == 0);

    const unsigned int timeout_m =
        Util_convert_timeout_s_to_m(timeout_s, OMRAPMI_MAX_OBJ_TIMEOUT_M);
    const unsigned int data_len = data0_len + data1_len;
    char *pdata = NULL;
    if (data_len >= data0_len) { // else more than an object can hold
        pdata = static_cast<char *>(Sys_malloc(data_len, OMRAPMI_TAG_NEW_OBJECT));
    }
    if (pdata == NULL) {
        OMRAPMI_TRACE("Tr [pmi-co 0]\n");
        return OMRAPMI_ERR_NO_OBJECT_MEMORY;
    }
    memcpy(pdata, pdata0, data0_len);
    if (data1_len != 0) {
        memcpy(pdata + data0_len, pdata1, data1_len);
    }
    const int ret = Omralib_store_obj(hdl, 0, pdata, data_len, timeout_m, *pkey);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-co 1] %d\n", ret);
    }
    Sys_free(pdata);
    return ret;
}

// Gives the key new random ids. rand is shared by the whole process: two invokers may draw the same
// key, and the store tells them apart.
static void draw_params_key(OMRA_OBJKEY *pkey) {
    for (unsigned int i = 0; i < 4; ++i) {
        pkey->ext_obj_id.u32_comp[i] = static_cast<ULONG>(rand());
        pkey->obj_id.u32_comp[i] = static_cast<ULONG>(rand());
    }
    pkey->obj_id.u64_comp[0] = PARAMS_OBJ_ID_MARK;
}

// Stores the parameters under a key that no object has yet.
static int store_params(OMRALIB_HANDLE hdl, OMRA_OBJKEY *pparams_key,
                        const OMRAPMI_PARAMS_EXT *pparams_ext, const char *pparams_obj,
                        unsigned int params_obj_len, unsigned int timeout_s) {
    memset(pparams_key, 0, sizeof *pparams_key);
    pparams_key->app_id = PARAMS_APP_ID;
    pparams_key->flags = PARAMS_KEY_FLAGS;

    unsigned int attempts = 1;
    for (;;) {
        draw_params_key(pparams_key);
        const int ret = Omrapmi_create_obj(hdl, pparams_key, Omrapmi_obj_timeout_s(timeout_s),
                                           reinterpret_cast<const char *>(pparams_ext),
                                           sizeof *pparams_ext, pparams_obj, params_obj_len);
        if (ret == OMRALIB_RET_SUCCESS) {
            return ret;
        }
        OMRAPMI_TRACE("Tr [pmi-ipr 0] %d\n", ret);
        if (ret == OMRALIB_ERR_OBJ_EXISTS) {
            if (attempts <= OMRAPMI_MAX_ROUNDS) {
                ++attempts;
            }
            if (attempts > OMRAPMI_MAX_ROUNDS) {
                OMRAPMI_ASSERT(FALSE);
            }
            continue;
        }
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_KEY);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_ARGS);
        return ret == OMRAPMI_ERR_NO_OBJECT_MEMORY ? OMRAPMI_ERR_NO_INVOKER_MEMORY : ret;
    }
}

int Omrapmi_invoker_pre(OMRALIB_HANDLE hdl, OMRA_OBJKEY *pparams_key,
                        OMRAPMI_PARAMS_EXT *pparams_ext, const char *pparams_obj,
                        unsigned int params_obj_len, unsigned int timeout_s,
                        BOOLEAN *pimmediate_params) {
    if (params_obj_len <= OMRAPMI_MAX_IMMEDIATE_PARAMS_LEN) {
        pparams_ext->immediate_params_len = static_cast<UCHAR>(params_obj_len);
        Omrapmi_immediate_params_set(pparams_key, pparams_ext, pparams_obj, params_obj_len);
        *pimmediate_params = TRUE;
        return OMRALIB_RET_SUCCESS;
    }
    const int ret =
        store_params(hdl, pparams_key, pparams_ext, pparams_obj, params_obj_len, timeout_s);
    if (ret == OMRALIB_RET_SUCCESS) {
        *pimmediate_params = FALSE;
    }
    return ret;
}
