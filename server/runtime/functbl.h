// The table of user functions, indexed by function id.
#pragma once

#include "common/records.h"

int Omrapmi_worker_register_func(void *pfunc, unsigned int func_id, unsigned int app_id,
                                 OMRAPMI_FUNC_TYPE type);

// Sets the table up once; called first by the two operations below.
int Omrapmi_func_table_init(void);

// Fills a free slot, or confirms that the slot holds just this function.
int Omrapmi_func_table_add(void *pfunc, unsigned int func_id, unsigned int app_id,
                           OMRAPMI_FUNC_TYPE type);

// The function registered under `func_id`, if its type and, for an eval function, its app id are
// those asked for. `*ppfunc_out` is written on success only.
int Omrapmi_func_table_get(unsigned int func_id, unsigned int app_id, OMRAPMI_FUNC_TYPE type,
                           void **ppfunc_out);
