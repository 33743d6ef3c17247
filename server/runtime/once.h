// What is set up once in the life of the process, on first use, by any number of threads.
//
// There are two stages. The quick one cannot fail and runs inside the process-wide critical
// section; it makes the lock of the slow one, which may fail and is then tried again by the next
// call. Nothing is ever torn down.
#pragma once

#include "common/records.h"

struct OMRAPMI_ONCE {
    // Constant.
    void (*pquick)(void); // NULL: there is no quick stage
    int (*pslow)(unsigned int arg);
    THREADLOCK *plock; // of the slow stage
    // Guarded by the critical section.
    BOOLEAN init = FALSE;
    BOOLEAN fast_init = FALSE;
    // Guarded by *plock.
    BOOLEAN slow_init = FALSE;
};

// Runs the stages that are still to be run; `arg` is for the slow one, whose failure it returns.
int Omrapmi_do_once(OMRAPMI_ONCE *ponce, unsigned int arg);
