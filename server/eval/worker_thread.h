// The worker threads, and the only place where a user eval function is called.
#pragma once

#include "common/records.h"

// The thread function; its argument is the thread's OMRAPMI_WORKER_THRD_STATE. It returns NULL,
// only when it cannot start up.
void *Omrapmi_thrd_worker(void *f_pworker_thrd_st);

// One function for each kind of work. They dispose of the work descriptor.
void Omrapmi_worker_eval(OMRALIB_HANDLE hdl, OMRAPMI_WDSC *pwdsc);
void Omrapmi_worker_eval_invoke_once(OMRALIB_HANDLE hdl, OMRAPMI_WDSC *pwdsc);
void Omrapmi_worker_merge(OMRALIB_HANDLE hdl, OMRAPMI_WDSC *pwdsc);

// Calls a user eval function. TRUE when it succeeded: the outputs then hold its result. A failure
// is recorded with the key, which is NULL for an invoke-once eval.
BOOLEAN Omrapmi_worker_eval_wrapper(OMRAPMI_EVAL_FUNCP pfunc_eval,
                                    OMRAPMI_USER_EXCEPTIONS *puser_exceptions,
                                    OMRA_OBJKEY *pdata_key, char *pdata_obj,
                                    unsigned int data_obj_len, char *pparams_obj,
                                    unsigned int params_obj_len, char **ppresults_obj_out,
                                    unsigned int *presults_obj_len_out);
