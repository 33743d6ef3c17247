// The only place where a user merge function is called.
#pragma once

#include "common/records.h"

// Merges the source result into the destination result; either may be absent (NULL and 0). The
// source is taken over, whatever the result. FALSE when the user function failed, which is then
// recorded; the destination is as that function left it.
BOOLEAN Omrapmi_worker_merge_in_mem(OMRAPMI_MERGE_FUNCP pfunc_merge,
                                    OMRAPMI_USER_EXCEPTIONS *puser_exceptions,
                                    char **ppresults_obj_dst_out,
                                    unsigned int *presults_obj_len_dst_out, char *presults_obj_src,
                                    unsigned int results_obj_len_src);

// The same for two results that are both present; the source stays the caller's.
BOOLEAN Omrapmi_worker_merge_wrapper(OMRAPMI_MERGE_FUNCP pfunc_merge,
                                     OMRAPMI_USER_EXCEPTIONS *puser_exceptions,
                                     char **ppresults_obj_dst_out,
                                     unsigned int *presults_obj_len_dst_out, char *presults_obj_src,
                                     unsigned int results_obj_len_src);
