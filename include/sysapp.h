/* What these system utilities give a program beyond sys_util.h: memory accounts, the length
 * of a queue, the trace's destination, the count of assertion reports and the end of threads. All
 * operations may be called from any thread. */
#pragma once

#include <stddef.h>

#include "sys_util.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Live blocks of one memory tag, and the bytes that their callers asked for. */
typedef struct SYS_MEM_USE {
    size_t blocks;
    size_t bytes;
} SYS_MEM_USE;

/* The memory now allocated under `tag` (0 to 255; any other is reported as a failed condition and
 * has none). Exact when no thread is allocating or releasing; otherwise it may miss some of the
 * allocations and releases made during the call. */
SYS_MEM_USE Sys_get_mem_use(unsigned int tag);

/* The items on a queue: exact when no thread is using it. */
size_t Sys_get_queue_count(QUEUE *pq);

/* Sends trace lines to `pfunc` (NULL: to standard error again) instead. `line` ends with a newline
 * and is valid during the call; `pfunc` may be called by several threads at once. Assertion reports
 * go to standard error all the same. */
typedef void (*SYS_TRACE_FUNC)(const char *line);
void Sys_set_trace_func(SYS_TRACE_FUNC pfunc);

/* How many failed internal conditions were reported since the process started. With the environment
 * variable SYS_ASSERT_ABORT=1, read when the library is loaded, the first one stops the process. */
size_t Sys_get_assert_count(void);

/* `pfunc` (NULL: nothing) is called on every thread that ends by Thread_end, before it does; a
 * second call replaces it. The store library sets it when the store is opened, to take no more
 * requests once a thread for them is gone: a program that puts its own here gives that up. */
typedef void (*SYS_THREAD_END_FUNC)(void);
void Sys_set_thread_end_func(SYS_THREAD_END_FUNC pfunc);

#ifdef __cplusplus
}
#endif
