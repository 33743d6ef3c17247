// What remains to be done in the store after an invocation: the parameters object is removed, the
// results and exceptions objects are read and removed.
#pragma once

#include "common/records.h"

// Hands out the results and the exceptions, each NULL when there are none, in the buffers that the
// reads filled. Every step is tried; the first failure decides the result, and nothing is then
// handed out.
int Omrapmi_invoker_post(OMRALIB_HANDLE hdl, OMRA_OBJKEY *pparams_key, BOOLEAN immediate_params,
                         const OMRA_INVOKE_RESULT *pinv_result, char **ppresults_obj,
                         unsigned int *presults_obj_len, OMRAPMI_EXCEPTION **ppexceptions,
                         unsigned int *pnum_exceptions);
