// At most one singleton invocation runs in a worker process. There is no waiting: the second fails.
#pragma once

#include "common/records.h"

// TRUE when `pidsc` now is the running singleton invocation, FALSE when another one is.
BOOLEAN Omrapmi_singleton_acquire(OMRAPMI_IDSC *pidsc);

// Frees the place if `pidsc` has it.
void Omrapmi_singleton_release(OMRAPMI_IDSC *pidsc);
