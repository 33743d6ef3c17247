// Store objects read into buffers, and objects made or locked for a change.
//
// Every read follows the same pattern: the store reports a length and keeps the bytes pending on
// the handle, then they are fetched into a buffer of that length, or dropped when there is no
// memory. Whoever calls decides what a failure means; nothing here is tried again except a lock
// that another holder has.
#include "objects/objects.h"

#include "common/trace.h"

int Omrapmi_read_get_obj(OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pkey, BOOLEAN log_not_exist,
                         char **ppdata_out, unsigned int *pdata_len_out) {
    OMRAPMI_ASSERT(hdl != OMRALIB_NULL_HANDLE);
    OMRAPMI_ASSERT(pkey != NULL);

    unsigned int data_len = 0;
    int ret = Omralib_read_obj(hdl, 0, &data_len, *pkey);
    if (ret == OMRALIB_ERR_OBJ_NOT_FOUND && !log_not_exist) {
        return ret;
    }
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-rgo 0] %d\n", ret);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_ARGS);
        return ret;
    }
    if (data_len == 0) {
        *ppdata_out = NULL;
        *pdata_len_out = 0;
        return OMRALIB_RET_SUCCESS;
    }

    char *pdata = static_cast<char *>(Sys_malloc(data_len, OMRAPMI_TAG_OBJECT));
    if (pdata == NULL) {
        OMRAPMI_TRACE("Tr [pmi-rgo 1]\n");
        Omralib_flush_read_data(hdl);
        return OMRAPMI_ERR_NO_OBJECT_MEMORY;
    }
    ret = Omralib_get_read_data(hdl, pdata, data_len);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-rgo 2] %d\n", ret);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_ARGS);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_NOT_READING);
        Sys_free(pdata);
        return ret;
    }
    *ppdata_out = pdata;
    *pdata_len_out = data_len;
    return OMRALIB_RET_SUCCESS;
}

int Omrapmi_read_get_delete_obj(OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pkey, char **ppdata_out,
                                unsigned int *pdata_len_out) {
    OMRAPMI_ASSERT(hdl != OMRALIB_NULL_HANDLE);

    char *pdata = NULL;
    unsigned int data_len = 0;
    int ret = Omrapmi_read_get_obj(hdl, pkey, TRUE, &pdata, &data_len);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-rgdo 0] %d\n", ret);
        return ret;
    }
    ret = Omralib_remove_obj(hdl, 0, *pkey);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-rgdo 1] %d\n", ret);
        Sys_free(pdata);
        return ret;
    }
    *ppdata_out = pdata;
    *pdata_len_out = data_len;
    return OMRALIB_RET_SUCCESS;
}

// Locks and reads the object as soon as no other holder has it: a lock ticket or a negative code.
static int read_and_lock_when_free(OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pkey,
                                   unsigned int *pdata_len_out) {
    unsigned int rounds = 1;
    for (;;) {
        const int lock_tkt = Omralib_read_and_lock_obj(hdl, 0, 0, pdata_len_out, *pkey);
        if (lock_tkt != OMRALIB_ERR_OBJ_LOCKED) {
            return lock_tkt;
        }
        Thread_sleep(10);
        if (rounds <= OMRAPMI_MAX_ROUNDS) {
            ++rounds;
        }
        if (rounds > OMRAPMI_MAX_ROUNDS) {
            OMRAPMI_ASSERT(FALSE);
        }
    }
}

// Fetches the pending bytes of a locked object into a new buffer with room for `extra_data_len`
// more.
static int get_locked_data(OMRALIB_HANDLE hdl, unsigned int data_len, unsigned int extra_data_len,
                           char **ppdata_out) {
    const unsigned int room_len = data_len + extra_data_len;
    char *pdata = NULL;
    if (room_len >= data_len) { // else more than an object can hold
        pdata = static_cast<char *>(Sys_malloc(room_len, OMRAPMI_TAG_LOCKED_OBJECT));
    }
    if (pdata == NULL) {
        OMRAPMI_TRACE("Tr [pmi-rgocalo 2]\n");
        Omralib_flush_read_data(hdl);
        return OMRAPMI_ERR_NO_OBJECT_MEMORY;
    }
    const int ret = Omralib_get_read_data(hdl, pdata, data_len);
    if (ret != OMRALIB_RET_SUCCESS) {
        OMRAPMI_TRACE("Tr [pmi-rgocalo 3] %d\n", ret);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_BAD_ARGS);
        OMRAPMI_ASSERT(ret != OMRALIB_ERR_NOT_READING);
        Sys_free(pdata);
        return ret;
    }
    *ppdata_out = pdata;
    return OMRALIB_RET_SUCCESS;
}

int Omrapmi_read_get_or_create_and_lock_obj(OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pkey,
                                            const char **ppdata_out, unsigned int *pdata_len_out,
                                            unsigned int extra_data_len, const char *pdefault_data,
                                            unsigned int default_data_len,
                                            unsigned int default_timeout_s) {
    OMRAPMI_ASSERT(hdl != OMRALIB_NULL_HANDLE);
    OMRAPMI_ASSERT(pkey != NULL);
    OMRAPMI_ASSERT(pdefault_data != NULL);
    OMRAPMI_ASSERT(default_data_len != 0);

    const unsigned int timeout_m = Util_convert_timeout_s_to_m(
        Omrapmi_obj_timeout_s(default_timeout_s), OMRAPMI_MAX_OBJ_TIMEOUT_M);
    int ret = Omralib_store_obj(hdl, 0, pdefault_data, default_data_len, timeout_m, *pkey);
    if (ret == OMRALIB_RET_SUCCESS) {
        *ppdata_out = pdefault_data;
        *pdata_len_out = default_data_len;
        return OMRALIB_RET_SUCCESS;
    }
    if (ret != OMRALIB_ERR_OBJ_EXISTS) {
        OMRAPMI_TRACE("Tr [pmi-rgocalo 1] %d\n", ret);
        return ret;
    }

    unsigned int data_len = 0;
    const int lock_tkt = read_and_lock_when_free(hdl, pkey, &data_len);
    if (lock_tkt < 0) {
        OMRAPMI_TRACE("Tr [pmi-rgocalo 0] %d\n", lock_tkt);
        return lock_tkt;
    }
    OMRAPMI_ASSERT(lock_tkt != OMRALIB_NULL_LOCK_TKT);

    if (data_len == 0) {
        ret =
            Omralib_update_locked_obj(hdl, lock_tkt, 1, 0, pdefault_data, default_data_len, *pkey);
        if (ret != OMRALIB_RET_SUCCESS) {
            OMRAPMI_TRACE("Tr [pmi-rgocalo 4] %d\n", ret);
            goto unlock;
        }
        *ppdata_out = pdefault_data;
        *pdata_len_out = default_data_len;
        return OMRALIB_RET_SUCCESS;
    }

    char *pdata;
    ret = get_locked_data(hdl, data_len, extra_data_len, &pdata);
    if (ret != OMRALIB_RET_SUCCESS) {
        goto unlock;
    }
    *ppdata_out = pdata;
    *pdata_len_out = data_len;
    return lock_tkt;

unlock:
    Omralib_unlock_obj(hdl, lock_tkt, 0, *pkey);
    return ret;
}
