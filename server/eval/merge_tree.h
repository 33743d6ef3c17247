// The merge tree of an eval request: one slot a key, rooted at slot 0. A slot that holds its own
// key's result and those of all its successors is merged into its predecessor by the thread that
// completed it, so no thread ever waits for another.
#pragma once

#include "common/records.h"

// The shape of the tree; see util.h. A slot other than 0 has a predecessor.
unsigned int Omrapmi_get_pred_index(unsigned int index);
unsigned int Omrapmi_get_pred_mask(unsigned int index);
unsigned int Omrapmi_get_succ_mask(unsigned int index, unsigned int num_indexes);

// Prepares the slot of the key `index`, one of `num_indexes`.
void Omrapmi_init_sdsc(OMRAPMI_IDSC *pidsc, unsigned int index, unsigned int num_indexes);

// Enters the evaluated key's result, which is in its work descriptor, into the tree and climbs as
// far as slots are complete. The thread that completes slot 0 also merges the result into the store
// and completes the request.
void Omrapmi_merge_tree(OMRALIB_HANDLE hdl, OMRAPMI_WDSC *pwdsc, BOOLEAN eval_success);
