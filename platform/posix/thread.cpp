// Threads and the process: Thread_*, Sys_util_init, Sys_get_num_lprocs, Sys_get_pid.
//
// A THREADID is the thread's POSIX id. Threads are detached: nobody waits for one through this
// library, and an id means nothing once its thread has ended.
#include <array>
#include <atomic>
#include <chrono>
#include <sched.h>
#include <thread>
#include <unistd.h>

#include "exported.h"
#include "sysapp.h"

namespace {

[[gnu::tls_model("initial-exec")]] constinit thread_local void *thread_data = nullptr;
constinit std::atomic<SYS_THREAD_END_FUNC> thread_end_func{nullptr};

} // namespace

// The traces read the environment when the library is loaded, and everything else is ready without
// being set up.
int Sys_util_init(void) {
    return SYS_RET_SUCCESS;
}

THREADID Thread_fork(void *(*pfunc)(void *), void *parg) {
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0)
        return NULLTHREADID;
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t tid = NULLTHREADID;
    const int ret = pthread_create(&tid, &attr, pfunc, parg);
    pthread_attr_destroy(&attr);
    return ret == 0 ? tid : NULLTHREADID;
}

void Thread_end(void) {
    if (const SYS_THREAD_END_FUNC pfunc = thread_end_func) {
        pfunc();
    }
    pthread_exit(nullptr);
}

void Sys_set_thread_end_func(SYS_THREAD_END_FUNC pfunc) {
    thread_end_func = pfunc;
}

THREADID Thread_myid(void) {
    return pthread_self();
}

void Thread_sleep(unsigned int duration_ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(duration_ms));
}

int Thread_datap_set(void *pdata) {
    thread_data = pdata;
    return SYS_RET_SUCCESS;
}

void *Thread_datap_get(void) {
    return thread_data;
}

unsigned int Sys_get_num_lprocs(void) {
    // The kernel refuses a set that is smaller than its own, and one cpu_set_t holds 1024 only.
    std::array<cpu_set_t, 16> allowed{};
    if (sched_getaffinity(0, sizeof(allowed), allowed.data()) != 0)
        return 1;
    return static_cast<unsigned int>(CPU_COUNT_S(sizeof(allowed), allowed.data()));
}

unsigned int Sys_get_pid(void) {
    return static_cast<unsigned int>(getpid());
}
