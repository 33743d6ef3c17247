// The entry of an invocation; its public operations are in pmicli.h.
#pragma once

#include "common/records.h"

// Initialises the store library and, once per process, seeds the random generator.
int Omrapmi_invoker_init(void);
