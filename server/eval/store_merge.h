// The end of a request on this host: its result goes into the results object, its exceptions into
// the exceptions object, its counts to the store, its memory and descriptor back to their owners.
//
// Both objects are shared by all hosts, which take turns under the store's object lock. The results
// object is opaque; the exceptions object is a packed array of OMRAPMI_EXCEPTION.
#pragma once

#include "common/records.h"

// Merges a result (which stays the caller's; NULL and 0: nothing to do) into the results object.
int Omrapmi_worker_merge_to_store(OMRALIB_HANDLE hdl, OMRAPMI_IDSC *pidsc, char *presults_obj_src,
                                  unsigned int results_obj_len_src);

// Appends the exceptions, if there are any, to the exceptions object.
int Omrapmi_save_user_exceptions(OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pexceptions_key,
                                 unsigned int timeout_s, OMRAPMI_USER_EXCEPTIONS *puser_exceptions);

// Completes the request, whose result is already in the store. `pidsc` is back in its pool
// afterwards.
void Omrapmi_worker_complete_invoke(OMRALIB_HANDLE hdl, OMRAPMI_IDSC *pidsc);
