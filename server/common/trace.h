// Trace lines and internal conditions, the two ways in which the module speaks of itself.
#pragma once

#include "sys_util.h"

// Computes nothing while tracing is off.
#define OMRAPMI_TRACE(...)                                                                         \
    do {                                                                                           \
        if (sys_trace_level >= 0) {                                                                \
            Sys_trace_int(__VA_ARGS__);                                                            \
        }                                                                                          \
    } while (0)

// Reports a condition that does not hold, under its own text, and goes on. A static analyzer
// follows the sound paths alone: behind a report it would only find again what the report is about.
#ifdef __clang_analyzer__
#define OMRAPMI_ASSERT(condition) ((condition) ? (void)0 : __builtin_unreachable())
#else
#define OMRAPMI_ASSERT(condition)                                                                  \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            Sys_log_assert("server/pmicli", __LINE__, #condition);                                 \
        }                                                                                          \
    } while (0)
#endif
