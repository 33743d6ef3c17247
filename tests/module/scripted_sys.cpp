#include "doubles.h"

#include "common/records.h"

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

namespace {

// Worker threads outlive main, and so do the things that they use.
std::mutex &mutex = *new std::mutex;
std::condition_variable &changed = *new std::condition_variable;

std::size_t *free_count(const QUEUE *pq) {
    if (pq == &omrapmi_worker_state.idsc_freeq) {
        return &sys::script.free_idscs;
    }
    return pq == &omrapmi_worker_state.wdsc_freeq ? &sys::script.free_wdscs : nullptr;
}

// True when this call is the one that is to fail.
bool count_down(unsigned int &countdown) {
    bool fails = false;
    sys::with_lock([&] { fails = countdown != 0 && --countdown == 0; });
    return fails;
}

std::string take(std::string &text) {
    std::string result;
    sys::with_lock([&] { result = std::exchange(text, {}); });
    return result;
}

} // namespace

namespace sys {

Script &script = *new Script;

void with_lock(const std::function<void()> &change) {
    {
        std::lock_guard lock(mutex);
        change();
    }
    changed.notify_all();
}

void wait_for(const char *what, const std::function<bool()> &condition) {
    std::unique_lock lock(mutex);
    if (!changed.wait_for(lock, std::chrono::seconds(100), condition)) {
        std::fprintf(stderr, "waited in vain for %s\n", what);
        std::abort();
    }
}

void wait_pools(std::size_t num_idscs, std::size_t num_wdscs) {
    wait_for("the descriptors to be back",
             [=] { return script.free_idscs == num_idscs && script.free_wdscs == num_wdscs; });
}

void wait_idle_workers(unsigned int num_thrds) {
    wait_for("idle workers", [=] { return script.idle_workers == num_thrds; });
}

std::string take_traces() {
    return take(script.traces);
}
std::string take_asserts() {
    return take(script.asserts);
}

} // namespace sys

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the linker's
extern "C" {

void *__real_Sys_malloc(size_t size, unsigned int tag);
void *__wrap_Sys_malloc(size_t size, unsigned int tag) {
    return count_down(sys::script.malloc_countdown.at(tag)) ? nullptr
                                                            : __real_Sys_malloc(size, tag);
}

THREADID __real_Thread_fork(void *(*pfunc)(void *), void *parg);
THREADID __wrap_Thread_fork(void *(*pfunc)(void *), void *parg) {
    sys::with_lock([&] { sys::script.forks.emplace_back(pfunc, parg); });
    if (count_down(sys::script.fork_countdown)) {
        return NULLTHREADID;
    }
    return sys::script.threads_held ? 1 : __real_Thread_fork(pfunc, parg);
}

void __real_Thread_end(void);
void __wrap_Thread_end(void) {
    sys::with_lock([] { sys::script.num_thread_ends += 1; });
    if (!sys::script.threads_held) {
        __real_Thread_end();
    }
}

int __real_Thread_datap_set(void *pdata);
int __wrap_Thread_datap_set(void *pdata) {
    const int result = sys::script.datap_result;
    return result == SYS_RET_SUCCESS ? __real_Thread_datap_set(pdata) : result;
}

unsigned int __wrap_Sys_get_num_lprocs(void) {
    return sys::script.num_lprocs;
}
unsigned int __wrap_Sys_get_pid(void) {
    return 0x10001;
}
void __wrap_Thread_sleep(unsigned int duration_ms) {
    sys::script.on_sleep(duration_ms);
}

void __wrap_Sys_trace_int(const char *format, ...) {
    char line[512];
    va_list args;
    va_start(args, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start has just set it
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    std::string text(line);
    if (text.rfind("Tr [pmi-", 0) == 0) {
        text.erase(0, 7).front() = '[';
    }
    text = text.back() == '\n' ? text.substr(0, text.size() - 1) : text + "(no newline)";
    sys::with_lock([&] { sys::script.traces += (sys::script.traces.empty() ? "" : "|") + text; });
}

void __wrap_Sys_log_assert(const char *file, int line, const char *expression) {
    const bool well_formed = file == std::string("server/pmicli") && line > 0;
    sys::with_lock([&] {
        sys::script.asserts += sys::script.asserts.empty() ? "" : "|";
        sys::script.asserts += well_formed ? expression : "not as the module reports";
    });
}

void __real_Queue_enq(QUEUE *pq, LINK *plink);
void __wrap_Queue_enq(QUEUE *pq, LINK *plink) {
    __real_Queue_enq(pq, plink);
    if (std::size_t *pcount = free_count(pq)) {
        sys::with_lock([&] { *pcount += 1; });
    }
}

LINK *__real_Queue_deq(QUEUE *pq);
LINK *__wrap_Queue_deq(QUEUE *pq) {
    LINK *plink = __real_Queue_deq(pq);
    std::size_t *pcount = free_count(pq);
    if (plink != nullptr && pcount != nullptr) {
        sys::with_lock([&] { *pcount -= 1; });
    }
    return plink;
}

LINK *__real_Blockq_deq(BLOCKQ *pbq, unsigned int timeout_ms);
LINK *__wrap_Blockq_deq(BLOCKQ *pbq, unsigned int timeout_ms) {
    const unsigned int worker = pbq == &omrapmi_worker_state.wdsc_blockq ? 1 : 0;
    sys::with_lock([&] { sys::script.idle_workers += worker; });
    LINK *plink = __real_Blockq_deq(pbq, timeout_ms);
    sys::with_lock([&] { sys::script.idle_workers -= worker; });
    return plink;
}

void __wrap_srand(unsigned int seed) {
    sys::script.seed += seed;
}

// A time beyond 32 bits: only its low half may count.
time_t __wrap_time(time_t *) {
    return 0x100000003;
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
