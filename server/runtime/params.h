// The two forms in which parameters travel to the workers: packed into the parameters key (up to 32
// bytes), or as an object stored under a random key.
//
// Packed: key bytes 0 to 7 are the OMRAPMI_PARAMS_EXT, 8 onward the parameters, then zeros.
// Stored: the object's first 8 bytes are the OMRAPMI_PARAMS_EXT, the parameters follow.
#pragma once

#include "common/records.h"

// Chooses the form, fills `*pparams_key` and sets `*pimmediate_params` and the header's
// immediate_params_len. After a failure nothing is stored.
int Omrapmi_invoker_pre(OMRALIB_HANDLE hdl, OMRA_OBJKEY *pparams_key,
                        OMRAPMI_PARAMS_EXT *pparams_ext, const char *pparams_obj,
                        unsigned int params_obj_len, unsigned int timeout_s,
                        BOOLEAN *pimmediate_params);

// Stores a new object made of two pieces, the second of which may be empty.
int Omrapmi_create_obj(OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pkey, unsigned int timeout_s,
                       const char *pdata0, unsigned int data0_len, const char *pdata1,
                       unsigned int data1_len);

// Packs parameters of at most 32 bytes, whose length is already in the header.
void Omrapmi_immediate_params_set(OMRA_OBJKEY *pparams_key, const OMRAPMI_PARAMS_EXT *pparams_ext,
                                  const char *pparams_obj, unsigned int params_obj_len);

// Points the outputs into the key; `*ppparams_obj` is NULL when there are no parameters.
void Omrapmi_immediate_params_get(const OMRA_OBJKEY *pparams_key, OMRAPMI_PARAMS_EXT **ppparams_ext,
                                  char **ppparams_obj, unsigned int *pparams_obj_len);
