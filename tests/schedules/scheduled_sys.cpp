#include "scheduled_sys.h"

#include "module/doubles.h"
#include "scheduler.h"

#include "common/records.h"
#include "sysapp.h"

#include <set>

namespace schedules {

Planted planted;
Failures failures;

namespace {

std::set<const void *> held; // locks of all kinds
unsigned int forks = 0;
int process_cs;

void enter(const void *lock, bool excludes) {
    scheduler.point();
    scheduler.wait_until([=] { return !excludes || held.count(lock) == 0; });
    held.insert(lock);
}

void leave(const void *lock) {
    held.erase(lock);
    scheduler.point();
}

} // namespace

unsigned int num_forks() {
    return forks;
}

} // namespace schedules

using schedules::scheduler;

// The part of the doubles that the scripted store and the user functions of the tests use.
namespace sys {

Script &script = *new Script;

void with_lock(const std::function<void()> &change) {
    scheduler.point();
    change();
}

void wait_for(const char *, const std::function<bool()> &condition) {
    scheduler.wait_until(condition);
}

std::string take_asserts() {
    return std::exchange(script.asserts, {});
}
void watch_traces() {}
std::string take_traces() {
    return {};
}
std::pair<unsigned int, unsigned int> free_descriptors() {
    return {Sys_get_queue_count(&omrapmi_worker_state.idsc_freeq),
            Sys_get_queue_count(&omrapmi_worker_state.wdsc_freeq)};
}

} // namespace sys

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the linker's
extern "C" {

void *__real_Sys_malloc(size_t size, unsigned int tag);
void *__wrap_Sys_malloc(size_t size, unsigned int tag) {
    scheduler.point();
    if (schedules::failures.malloc_tag == tag && tag != 0) {
        schedules::failures.malloc_tag = 0;
        return nullptr;
    }
    return __real_Sys_malloc(size, tag);
}

void __real_Sys_free(void *ptr);
void __wrap_Sys_free(void *ptr) {
    scheduler.point();
    __real_Sys_free(ptr);
}

THREADID __wrap_Thread_fork(void *(*pfunc)(void *), void *parg) {
    scheduler.point();
    if (std::exchange(schedules::failures.thread_fork, false)) {
        return NULLTHREADID;
    }
    ++schedules::forks;
    return scheduler.start([=] { pfunc(parg); });
}

void __wrap_Thread_end(void) {
    scheduler.end();
}
THREADID __wrap_Thread_myid(void) {
    return scheduler.current();
}
void __wrap_Thread_sleep(unsigned int) {
    scheduler.point();
}
int __wrap_Thread_datap_set(void *pdata) {
    scheduler.datap() = pdata;
    return 1;
}
void *__wrap_Thread_datap_get(void) {
    return scheduler.datap();
}
unsigned int __wrap_Sys_get_num_lprocs(void) {
    return 2;
}
void __wrap_Sys_log_assert(const char *, int, const char *expression) {
    sys::script.asserts.append(expression).append("|");
}

void __real_Queue_enq(QUEUE *pq, LINK *plink);
void __wrap_Queue_enq(QUEUE *pq, LINK *plink) {
    scheduler.point();
    __real_Queue_enq(pq, plink);
}

LINK *__real_Queue_deq(QUEUE *pq);
LINK *__wrap_Queue_deq(QUEUE *pq) {
    scheduler.point();
    return __real_Queue_deq(pq);
}

void __real_Blockq_enq(BLOCKQ *pbq, LINK *plink);
void __wrap_Blockq_enq(BLOCKQ *pbq, LINK *plink) {
    scheduler.point();
    __real_Blockq_enq(pbq, plink);
}

LINK *__real_Blockq_deq(BLOCKQ *pbq, unsigned int timeout_ms);
LINK *__wrap_Blockq_deq(BLOCKQ *pbq, unsigned int) {
    LINK *plink = nullptr;
    scheduler.point();
    scheduler.wait_until([&] {
        plink = __real_Blockq_deq(pbq, 0);
        return plink != nullptr;
    });
    return plink;
}

void __wrap_Lock_init(THREADLOCK *) {}
int __wrap_Lock_enter(THREADLOCK *plock, unsigned int) {
    schedules::enter(plock, !schedules::planted.open_mutexes);
    return 1;
}
int __wrap_Lock_exit(THREADLOCK *plock) {
    schedules::leave(plock);
    return 1;
}

void __wrap_Spinlock_enter(THREADSPINL *pslock) {
    schedules::enter(pslock, true);
}
void __wrap_Spinlock_exit(THREADSPINL *pslock) {
    schedules::leave(pslock);
}

void __wrap_Enter_cs(void) {
    schedules::enter(&schedules::process_cs, !schedules::planted.open_process_cs);
}
void __wrap_Exit_cs(void) {
    schedules::leave(&schedules::process_cs);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
