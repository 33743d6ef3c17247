#include "doubles.h"

#include "common/records.h"
#include "sysapp.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace {

// Worker threads outlive main, and so do the things that they use.
std::mutex &mutex = *new std::mutex;

// True when this call is the one that is to fail.
bool count_down(unsigned int &countdown) {
    bool fails = false;
    sys::with_lock([&] { fails = countdown != 0 && --countdown == 0; });
    return fails;
}

void append(std::string &lines, const std::string &line) {
    sys::with_lock([&] { lines.append(lines.empty() ? "" : "|").append(line); });
}

std::string take(std::string &lines) {
    std::string result;
    sys::with_lock([&] { result = std::exchange(lines, {}); });
    return result;
}

void collect_trace(const char *line) {
    std::string text(line);
    text.pop_back(); // the newline
    if (text.rfind("Tr [pmi-", 0) == 0) {
        text.erase(0, 7).front() = '[';
    }
    append(sys::script.traces, text);
}

} // namespace

namespace sys {

Script &script = *new Script;

void with_lock(const std::function<void()> &change) {
    const std::lock_guard lock(mutex);
    change();
}

void wait_for(const char *what, const std::function<bool()> &condition) {
    for (unsigned int looks = 0; looks < 100'000; ++looks) {
        bool holds = false;
        with_lock([&] { holds = condition(); });
        if (holds) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::fprintf(stderr, "waited in vain for %s\n", what);
    std::abort();
}

void wait_idle_workers(unsigned int num_thrds) {
    wait_for("idle workers", [=] { return script.idle_workers == num_thrds; });
}

std::pair<unsigned int, unsigned int> free_descriptors() {
    return {Sys_get_queue_count(&omrapmi_worker_state.idsc_freeq),
            Sys_get_queue_count(&omrapmi_worker_state.wdsc_freeq)};
}

void watch_traces() {
    sys_trace_level = 0;
    Sys_set_trace_func(collect_trace);
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
    if (!sys::script.threads_held) {
        __real_Thread_end();
    }
}

unsigned int __wrap_Sys_get_num_lprocs(void) {
    return sys::script.num_lprocs;
}
void __wrap_Thread_sleep(unsigned int duration_ms) {
    sys::script.on_sleep(duration_ms);
}

void __wrap_Sys_log_assert(const char *, int, const char *expression) {
    append(sys::script.asserts, expression);
}

LINK *__real_Blockq_deq(BLOCKQ *pbq, unsigned int timeout_ms);
LINK *__wrap_Blockq_deq(BLOCKQ *pbq, unsigned int timeout_ms) {
    const unsigned int worker = pbq == &omrapmi_worker_state.wdsc_blockq ? 1 : 0;
    sys::with_lock([&] { sys::script.idle_workers += worker; });
    LINK *plink = __real_Blockq_deq(pbq, timeout_ms);
    sys::with_lock([&] { sys::script.idle_workers -= worker; });
    return plink;
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
