// The dispatcher thread: turns accepted requests into work for the worker threads.
#pragma once

#include "common/records.h"

// The thread function; `f_args` is NULL. It returns NULL, only when it cannot start up.
void *Omrapmi_thrd_dispatcher(void *f_args);

// Queues the work of one request. FALSE when the request cannot be worked on and is to be completed
// as failed; no work descriptor is then out.
BOOLEAN Omrapmi_dispatcher(OMRALIB_HANDLE hdl, OMRAPMI_IDSC *pidsc);
