// How this library reports that one of its callers broke a rule.
#pragma once

#include "exported.h"

// Whether the condition holds; if not, it is reported and the caller backs out.
#define SYS_CHECK(condition)                                                                       \
    ((condition) || (Sys_log_assert(__FILE_NAME__, __LINE__, #condition), false))
