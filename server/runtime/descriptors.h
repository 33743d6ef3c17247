// The pools of invocation and work descriptors. A descriptor on a free queue is reset; the pools
// grow by batches and never shrink. Any thread may call these operations.
#pragma once

#include "common/records.h"

inline constexpr unsigned int OMRAPMI_IDSC_BATCH_LEN = 16;
inline constexpr unsigned int OMRAPMI_WDSC_BATCH_LEN = 128;

// Resets a descriptor's contents; memory without the mark gets its link and locks first.
void Omrapmi_init_idsc(OMRAPMI_IDSC *pidsc);
void Omrapmi_init_wdsc(OMRAPMI_WDSC *pwdsc);

// A reset descriptor, or NULL when there is no memory for a batch.
OMRAPMI_IDSC *Omrapmi_get_idsc(void);
OMRAPMI_WDSC *Omrapmi_get_wdsc(void);

// Resets a descriptor and gives it back. The buffers it pointed to are the caller's to release.
void Omrapmi_free_idsc(OMRAPMI_IDSC *pidsc);
void Omrapmi_free_wdsc(OMRAPMI_WDSC *pwdsc);
