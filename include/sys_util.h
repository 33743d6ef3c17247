/* System utilities: memory, threads, queues, locks, traces and assertion reports.
 *
 * A record is set up once, by its _init operation, at the place where it is used: it holds pointers
 * to itself and is neither copied nor moved. What is called machinery belongs to the library; of a
 * queue's only the size is known here. */
#pragma once

#include <pthread.h>
#include <semaphore.h>
#ifndef __cplusplus
#include <stdalign.h>
#endif
#include <stddef.h>

#include "sys_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define SYS_RET_SUCCESS 1
#define SYS_WAIT_FOREVER 0xFFFFFFFFu

#if defined(__GNUC__)
#define SYS_PRINTF_CHECKED(format_arg, first_arg)                                                  \
    __attribute__((format(printf, format_arg, first_arg)))
/* A compiler takes what leads to such a call for unlikely, and keeps it apart from the rest. */
#define SYS_COLD __attribute__((cold))
#else
#define SYS_PRINTF_CHECKED(format_arg, first_arg)
#define SYS_COLD
#endif

typedef unsigned long THREADID;
#define NULLTHREADID 0ul

/* A mutex. */
typedef struct THREADLOCK {
    ULONG state;  /* machinery */
    THREADID tid; /* the owner */
} THREADLOCK;

/* A short critical section. */
typedef struct SYS_CSECT {
    ULONG code;
    pthread_mutex_t cs;
} SYS_CSECT;

/* A counting semaphore. */
typedef struct THREADSEM {
    ULONG code;
    sem_t sem;
} THREADSEM;

/* The link that makes a record an item of an intrusive queue. An item is on at most one queue. */
typedef struct LINK {
    struct LINK *forw;
    struct LINK *back;
    struct LINK *qp; /* the owning queue's link; NULL while free */
    ULONG code;
    SYS_CSECT *csp;
} LINK;

#define SYS_CACHE_LINE 64
#define SYS_QUEUE_MACHINERY_SIZE 2176

/* An intrusive queue; its operations are atomic with respect to each other. All its items are
 * counted by Sys_get_queue_count of sysapp.h. It stands at the start of a cache line, which a block
 * of Sys_malloc does not. */
typedef struct QUEUE {
    LINK link; /* the list head */
    ULONG id;
    ULONG count; /* of the items in the list; others may be at hand for single threads */
    SYS_CSECT *csp;
    alignas(SYS_CACHE_LINE) UCHAR machinery[SYS_QUEUE_MACHINERY_SIZE];
} QUEUE;

/* A queue whose readers wait for items. */
typedef struct BLOCKQ {
    QUEUE itemq;
    THREADSEM sem;
    SYS_CSECT *csp;
    ULONG code;
    ULONG id;
} BLOCKQ;

/* A lock that is held for a few instructions only. */
typedef struct THREADSPINL {
    ULONG code;
    ULONG id;
    int depth;
    ULONG cur_id;
    ULONG ch_id;
    THREADID tid; /* the owner */
    struct THREADSPINL *child;
    SYS_CSECT cs;
    SYS_CSECT *csp;
    ULONG state; /* machinery */
} THREADSPINL;

/* Sets the library up once; cheap afterwards. 1 on success. */
int Sys_util_init(void);

/* Memory -------------------------------------------------------------------------------------- */

/* An uninitialised block of `size` bytes, aligned for any object, accounted under `tag` (0 to 255),
 * or NULL when memory is exhausted. A size of 0 gives a block too. Any other tag is reported as a
 * failed condition and gives NULL. */
void *Sys_malloc(size_t size, unsigned int tag);

/* Releases a block of Sys_malloc; NULL does nothing. Any thread may release any block. A block
 * whose header is damaged, or which shows that it was released before, is reported as a failed
 * condition and not touched. */
void Sys_free(void *ptr);

/* Threads ------------------------------------------------------------------------------------- */

/* Runs `pfunc(parg)` on a new detached thread. 0: not started. */
THREADID Thread_fork(void *(*pfunc)(void *), void *parg);

/* Ends the calling thread. */
void Thread_end(void);

THREADID Thread_myid(void);
void Thread_sleep(unsigned int duration_ms);

/* The calling thread's data pointer, NULL until it is set. 1 on success. */
int Thread_datap_set(void *pdata);
void *Thread_datap_get(void);

/* Processors that this process may run on; at least 1. */
unsigned int Sys_get_num_lprocs(void);
unsigned int Sys_get_pid(void);

/* Queues -------------------------------------------------------------------------------------- */

void Link_init(LINK *plink);
BOOLEAN Link_inuse(LINK *plink);

/* Threads that use a queue heavily do not meet there: up to 255 items that a thread has added wait
 * aside until there are enough to be worth the trip, and as many are fetched at once. Whoever finds
 * nothing else takes what waits aside, so an item is never out of reach. What one thread adds keeps
 * its order as long as one thread takes it; items of several threads may overtake each other. */
void Queue_init(QUEUE *pq, unsigned int id);
/* Appends at the tail. A link that is on a queue is reported as a failed condition and stays where
 * it is; the same holds for Blockq_enq. */
void Queue_enq(QUEUE *pq, LINK *plink);
LINK *Queue_deq(QUEUE *pq); /* from the head; NULL when empty */

/* Items wait aside here as well, until a reader has nothing else to do. One that is quick fetches
 * up to 256 at once and takes them one by one; while it is busy with one, readers with nothing else
 * to do, and after a while also busy ones, take the rest from the front. */
void Blockq_init(BLOCKQ *pbq, unsigned int id);
void Blockq_enq(BLOCKQ *pbq, LINK *plink); /* at the tail; wakes one waiting reader */

/* The item at the head; waits up to `timeout_ms` milliseconds for one, SYS_WAIT_FOREVER without
 * limit. NULL when the time is over. */
LINK *Blockq_deq(BLOCKQ *pbq, unsigned int timeout_ms);

/* Locks --------------------------------------------------------------------------------------- */

void Lock_init(THREADLOCK *plock);

/* 1 when the mutex is held, 0 when `timeout_ms` (SYS_WAIT_FOREVER: no limit) passed first or the
 * calling thread holds it already. */
int Lock_enter(THREADLOCK *plock, unsigned int timeout_ms);

/* 1 when released, 0 when the calling thread does not hold it. */
int Lock_exit(THREADLOCK *plock);

/* Not recursive: its owner entering it once more, and its release by another thread, are reported
 * as failed conditions. The former is counted and needs one exit more, the latter does nothing. */
void Spinlock_init(THREADSPINL *pslock, unsigned int id, unsigned int options);
void Spinlock_enter(THREADSPINL *pslock);
void Spinlock_exit(THREADSPINL *pslock);

/* The one critical section of the process, for once-only flags. */
void Enter_cs(void);
void Exit_cs(void);

/* Traces and assertion reports ---------------------------------------------------------------- */

/* Below 0: no trace lines. A caller tests it before it computes a line's arguments. It starts from
 * the environment variable SYS_TRACE_LEVEL (-1 when that is not set or no whole number, the latter
 * reported on standard error), read when the library is loaded. */
extern int sys_trace_level;

/* Writes one trace line, whatever the level. */
void Sys_trace_int(const char *format, ...) SYS_PRINTF_CHECKED(1, 2) SYS_COLD;

/* Reports a failed internal condition and returns; see sysapp.h. */
void Sys_log_assert(const char *file, int line, const char *expression) SYS_COLD;

#ifdef __cplusplus
}
#endif
