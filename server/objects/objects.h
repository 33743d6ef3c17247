// Reading, deleting and creating-or-locking stored objects, each as one operation. They keep no
// state: any thread calls them with a handle of its own. After a failure the outputs are untouched,
// no buffer is left allocated and no lock held.
#pragma once

#include "common/records.h"
#include "util.h"

// The longest time-out that the module gives an object, in minutes.
inline constexpr unsigned int OMRAPMI_MAX_OBJ_TIMEOUT_M = 0xFFFF;

// The time-out in seconds of an object that belongs to an invocation: a minute more than its own.
inline unsigned int Omrapmi_obj_timeout_s(unsigned int invoke_timeout_s) {
    return invoke_timeout_s > 0xFFFFFFFFu - 60 ? 0xFFFFFFFFu : invoke_timeout_s + 60;
}

// Reads the object into a new buffer (tag 0xD2) that the caller releases with Sys_free; NULL and 0
// for an empty object. A missing object is traced only when `log_not_exist` is TRUE.
int Omrapmi_read_get_obj(OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pkey, BOOLEAN log_not_exist,
                         char **ppdata_out, unsigned int *pdata_len_out);

// The same, and removes the object. It is handed out only if both succeed.
int Omrapmi_read_get_delete_obj(OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pkey, char **ppdata_out,
                                unsigned int *pdata_len_out);

// Makes sure that the object exists with contents. If it was missing or empty it now holds the
// default data, is not locked, and `*ppdata_out` is `pdefault_data`; the result is 1. Otherwise the
// result is a lock ticket (which can be 1 as well: compare the pointer), and `*ppdata_out` is a new
// buffer (tag 0xD3) of `*pdata_len_out` bytes with room for `extra_data_len` more; the caller
// updates or unlocks the object and releases the buffer. Waits for other holders of the lock
// without a limit. A created object's time-out is `default_timeout_s` plus 60 seconds.
int Omrapmi_read_get_or_create_and_lock_obj(OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pkey,
                                            const char **ppdata_out, unsigned int *pdata_len_out,
                                            unsigned int extra_data_len, const char *pdefault_data,
                                            unsigned int default_data_len,
                                            unsigned int default_timeout_s);
