// The list of failures that a request collects on this host.
#pragma once

#include "common/records.h"

// Appends one record. `code` is not 0; a merge failure has no key. Any thread of the request may
// call it; it never fails, and a list that is full stays as it is.
void Omrapmi_log_user_exception(OMRAPMI_USER_EXCEPTIONS *puser_exceptions, int code,
                                BOOLEAN is_merge, OMRA_OBJKEY *pkey);
