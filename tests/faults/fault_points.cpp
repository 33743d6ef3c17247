#include "fault_points.h"

#include "common/records.h"
#include "runtime/descriptors.h"
#include "storapp.h"
#include "sysapp.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sstream>
#include <unistd.h>
#include <utility>

namespace faults {
namespace {

// A code that no table has, as if from a network underneath.
constexpr int connection_lost = -199;

struct Armed {
    std::vector<Point> points;        // empty: nothing is numbered
    std::vector<std::string> started; // by point: the operation that it began with
    Seen seen;
    bool one_worker = true;
};

// Worker threads outlive main, and so do the things that they use.
std::mutex &mutex = *new std::mutex;
Armed &armed = *new Armed; // guarded by mutex
std::atomic<bool> is_armed{false};

std::atomic<int> locks_held{0}, mutexes_held{0}, idscs_pooled{0}, wdscs_pooled{0},
    threads_starting{0};

// The calling thread is past its start.
void note_thread() {
    static thread_local bool noted = false;
    threads_starting -= std::exchange(noted, true) ? 0 : 1;
}

constexpr std::array mode_names = {"refused", "reply_lost", "host_1_dies", "host_2_dies",
                                   "host_3_dies"};
constexpr std::array extent_names = {"once", "operation", "all"};

enum class Outcome { goes_on, refused, reply_lost, host_1_dies, host_2_dies, host_3_dies };

bool applies(const Point &point, std::string &started, const char *operation, bool is_store) {
    if (point.mode != Mode::refused && !is_store) {
        return false;
    }
    const unsigned int number =
        point.mode == Mode::refused ? armed.seen.num_calls : armed.seen.num_store_calls;
    if (number == point.number) {
        started = operation;
        return true;
    }
    return number > point.number && (point.extent == Extent::all ||
                                     (point.extent == Extent::operation && started == operation));
}

// Numbers a call and tells what becomes of it.
Outcome next_call(const char *operation, bool is_store) {
    if (!is_armed.load(std::memory_order_acquire)) {
        return Outcome::goes_on;
    }
    const std::lock_guard guard(mutex);
    armed.seen.num_calls += 1;
    armed.seen.num_store_calls += is_store ? 1 : 0;
    for (std::size_t i = 0; i < armed.points.size(); ++i) {
        if (applies(armed.points[i], armed.started[i], operation, is_store)) {
            armed.seen.num_fired += 1;
            return static_cast<Outcome>(static_cast<int>(armed.points[i].mode) + 1);
        }
    }
    return Outcome::goes_on;
}

bool is_refused(const char *operation) {
    return next_call(operation, false) == Outcome::refused;
}

// A call of the store. `undo` puts right what a client library would when the answer to a call that
// was carried out does not arrive.
template <class Call, class Undo>
int store_call(const char *operation, int failure, Call call, Undo undo) {
    const Outcome outcome = next_call(operation, true);
    if (outcome == Outcome::refused) {
        return failure;
    }
    const int result = call();
    if (outcome == Outcome::reply_lost) {
        undo(result);
        return failure;
    }
    if (outcome >= Outcome::host_1_dies) {
        Omralib_declare_host_gone(static_cast<unsigned int>(outcome) -
                                  static_cast<unsigned int>(Outcome::host_1_dies) + 1);
    }
    return result;
}

template <class Call>
int store_call(const char *operation, Call call) {
    return store_call(operation, connection_lost, call, [](int) {});
}

template <std::size_t size>
int find(const std::array<const char *, size> &names, const std::string &name) {
    for (std::size_t i = 0; i < size; ++i) {
        if (name == names[i]) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

} // namespace

std::string to_text(const std::vector<Point> &points) {
    std::ostringstream text;
    for (const Point &point : points) {
        text << (&point == &points.front() ? "" : ",") << point.number << ':'
             << mode_names.at(static_cast<std::size_t>(point.mode)) << ':'
             << extent_names.at(static_cast<std::size_t>(point.extent));
    }
    return text.str();
}

std::vector<Point> to_points(const std::string &text) {
    std::vector<Point> points;
    std::istringstream list(text);
    for (std::string item; std::getline(list, item, ',');) {
        std::istringstream fields(item);
        Point point{};
        std::string mode, extent;
        char colon = 0;
        fields >> point.number >> colon;
        std::getline(fields, mode, ':');
        std::getline(fields, extent);
        const int mode_index = find(mode_names, mode), extent_index = find(extent_names, extent);
        if (point.number == 0 || mode_index < 0 || extent_index < 0) {
            return {};
        }
        point.mode = static_cast<Mode>(mode_index);
        point.extent = static_cast<Extent>(extent_index);
        points.push_back(point);
    }
    return points;
}

void arm(const std::vector<Point> &points, bool one_worker) {
    const std::lock_guard guard(mutex);
    armed = {points, std::vector<std::string>(points.size()), {}, one_worker};
    is_armed.store(true, std::memory_order_release);
}

Seen disarm() {
    const std::lock_guard guard(mutex);
    is_armed.store(false, std::memory_order_release);
    return armed.seen;
}

Ledger ledger() {
    const auto made = [](unsigned int tag, unsigned int built_in, unsigned int batch_len) {
        return static_cast<int>(built_in + Sys_get_mem_use(tag).blocks * batch_len);
    };
    const bool set_up = omrapmi_worker_state.code == OMRAPMI_WORKER_STATE_CODE;
    const int idscs =
        set_up ? made(OMRAPMI_TAG_IDSC_BATCH, OMRAPMI_NUM_BUILT_IN_IDSCS, OMRAPMI_IDSC_BATCH_LEN)
               : 0;
    const int wdscs =
        set_up ? made(OMRAPMI_TAG_WDSC_BATCH, OMRAPMI_NUM_BUILT_IN_WDSCS, OMRAPMI_WDSC_BATCH_LEN)
               : 0;
    return {locks_held, mutexes_held, idscs + wdscs - idscs_pooled - wdscs_pooled,
            threads_starting};
}

} // namespace faults

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the linker's
extern "C" {

using namespace faults;

void *__real_Sys_malloc(size_t size, unsigned int tag);
void *__wrap_Sys_malloc(size_t size, unsigned int tag) {
    static const std::array<std::string, 256> &names = *[] {
        auto *result = new std::array<std::string, 256>;
        for (std::size_t i = 0; i < result->size(); ++i) {
            (*result)[i] = "malloc " + std::to_string(i);
        }
        return result;
    }();
    return is_refused(names.at(tag).c_str()) ? nullptr : __real_Sys_malloc(size, tag);
}

THREADID __real_Thread_fork(void *(*pfunc)(void *), void *parg);
THREADID __wrap_Thread_fork(void *(*pfunc)(void *), void *parg) {
    if (is_refused("Thread_fork")) {
        return NULLTHREADID;
    }
    threads_starting += 1;
    return __real_Thread_fork(pfunc, parg);
}

void __real_Thread_end(void);
void __wrap_Thread_end(void) {
    note_thread();
    __real_Thread_end();
}

LINK *__real_Blockq_deq(BLOCKQ *pbq, unsigned int timeout_ms);
LINK *__wrap_Blockq_deq(BLOCKQ *pbq, unsigned int timeout_ms) {
    note_thread();
    return __real_Blockq_deq(pbq, timeout_ms);
}

int __real_Thread_datap_set(void *pdata);
int __wrap_Thread_datap_set(void *pdata) {
    return is_refused("Thread_datap_set") ? 0 : __real_Thread_datap_set(pdata);
}

void __wrap_Thread_sleep(unsigned int duration_ms) {
    usleep(duration_ms);
}

int __real_Lock_enter(THREADLOCK *plock, unsigned int timeout_ms);
int __wrap_Lock_enter(THREADLOCK *plock, unsigned int timeout_ms) {
    const bool refused = is_refused("Lock_enter");
    if (refused && armed.one_worker) {
        return 0;
    }
    const int result = __real_Lock_enter(plock, timeout_ms);
    mutexes_held += result;
    return refused ? 0 : result;
}

int __real_Lock_exit(THREADLOCK *plock);
int __wrap_Lock_exit(THREADLOCK *plock) {
    const int result = __real_Lock_exit(plock);
    mutexes_held -= result;
    return result;
}

// The pools are counted from outside, whatever a queue keeps of itself.
void __real_Queue_enq(QUEUE *pq, LINK *plink);
void __wrap_Queue_enq(QUEUE *pq, LINK *plink) {
    (pq == &omrapmi_worker_state.idsc_freeq ? idscs_pooled : wdscs_pooled) += 1;
    __real_Queue_enq(pq, plink);
}

LINK *__real_Queue_deq(QUEUE *pq);
LINK *__wrap_Queue_deq(QUEUE *pq) {
    LINK *plink = __real_Queue_deq(pq);
    (pq == &omrapmi_worker_state.idsc_freeq ? idscs_pooled : wdscs_pooled) -= plink ? 1 : 0;
    return plink;
}

// A code that no store has given before breaks invariants: reported, and of no further interest.
void __wrap_Sys_log_assert(const char *, int, const char *) {}

#define STORE_CALL(name, parameters, arguments)                                                    \
    int __real_Omralib_##name parameters;                                                          \
    int __wrap_Omralib_##name parameters {                                                         \
        return store_call(#name, [&] { return __real_Omralib_##name arguments; });                 \
    }

STORE_CALL(close, (OMRALIB_HANDLE hdl), (hdl))
STORE_CALL(handle_ready, (OMRALIB_HANDLE hdl), (hdl))
STORE_CALL(register_cb, (unsigned int cb_type, OMRALIB_CB cb), (cb_type, cb))
STORE_CALL(register_appname_hdl,
           (OMRALIB_HANDLE hdl, const char *name, unsigned int name_len, unsigned int *papp_id_out),
           (hdl, name, name_len, papp_id_out))
STORE_CALL(start_app_event_handling, (OMRALIB_HANDLE hdl, unsigned int event_app_id),
           (hdl, event_app_id))
STORE_CALL(stop_app_event_handling, (OMRALIB_HANDLE hdl, unsigned int event_app_id),
           (hdl, event_app_id))
STORE_CALL(store_obj,
           (OMRALIB_HANDLE hdl, unsigned int options, const void *pdata, unsigned int data_len,
            unsigned int timeout_m, OMRA_OBJKEY key),
           (hdl, options, pdata, data_len, timeout_m, key))
STORE_CALL(remove_obj, (OMRALIB_HANDLE hdl, unsigned int options, OMRA_OBJKEY key),
           (hdl, options, key))
STORE_CALL(get_invoke_keys, (unsigned int context, OMRA_OBJKEY *pkeys, unsigned int num_keys),
           (context, pkeys, num_keys))
STORE_CALL(complete_invoke,
           (OMRALIB_HANDLE hdl, unsigned int context, unsigned int num_successful,
            unsigned int num_failed),
           (hdl, context, num_successful, num_failed))
STORE_CALL(flush_invoke, (unsigned int context), (context))
#undef STORE_CALL

int __real_Omralib_init(void);
int __wrap_Omralib_init(void) {
    return store_call("init", OMRALIB_ERR_CANT_INIT, __real_Omralib_init, [](int) {});
}

OMRALIB_HANDLE __real_Omralib_open_ext(const char *pguid);
OMRALIB_HANDLE __wrap_Omralib_open_ext(const char *pguid) {
    const auto open = [&] { return static_cast<int>(__real_Omralib_open_ext(pguid)); };
    const auto close = [](int hdl) { __real_Omralib_close(static_cast<OMRALIB_HANDLE>(hdl)); };
    return static_cast<OMRALIB_HANDLE>(
        store_call("open_ext", static_cast<int>(OMRALIB_NULL_HANDLE), open, close));
}

} // extern "C"

OMRALIB_HANDLE faults::open_handle() {
    return __real_Omralib_open_ext(nullptr);
}

extern "C" {

// A read whose answer is lost leaves nothing pending; nor does a fetch or a flush that fails, since
// pending bytes are on this side of the network.
int __real_Omralib_flush_read_data(OMRALIB_HANDLE hdl);
int __wrap_Omralib_flush_read_data(OMRALIB_HANDLE hdl) {
    const int result =
        store_call("flush_read_data", [&] { return __real_Omralib_flush_read_data(hdl); });
    if (result == connection_lost) {
        __real_Omralib_flush_read_data(hdl);
    }
    return result;
}

int __real_Omralib_read_obj(OMRALIB_HANDLE hdl, unsigned int options, unsigned int *pdata_len_out,
                            OMRA_OBJKEY key);
int __wrap_Omralib_read_obj(OMRALIB_HANDLE hdl, unsigned int options, unsigned int *pdata_len_out,
                            OMRA_OBJKEY key) {
    return store_call(
        "read_obj", connection_lost,
        [&] { return __real_Omralib_read_obj(hdl, options, pdata_len_out, key); },
        [&](int) { __real_Omralib_flush_read_data(hdl); });
}

int __real_Omralib_get_read_data(OMRALIB_HANDLE hdl, void *pbuf, unsigned int len);
int __wrap_Omralib_get_read_data(OMRALIB_HANDLE hdl, void *pbuf, unsigned int len) {
    const int result = store_call(
        "get_read_data", connection_lost,
        [&] { return __real_Omralib_get_read_data(hdl, pbuf, len); }, [](int) {});
    if (result == connection_lost) {
        __real_Omralib_flush_read_data(hdl);
    }
    return result;
}

int __real_Omralib_invoke(OMRALIB_HANDLE hdl, unsigned int options, const void *preq,
                          unsigned int req_len, unsigned int *presult_len_out);
int __wrap_Omralib_invoke(OMRALIB_HANDLE hdl, unsigned int options, const void *preq,
                          unsigned int req_len, unsigned int *presult_len_out) {
    return store_call(
        "invoke", connection_lost,
        [&] { return __real_Omralib_invoke(hdl, options, preq, req_len, presult_len_out); },
        [&](int) { __real_Omralib_flush_read_data(hdl); });
}

// A lock whose ticket is lost stays until its lease is over.
int __real_Omralib_read_and_lock_obj(OMRALIB_HANDLE hdl, unsigned int options,
                                     unsigned int lock_options, unsigned int *pdata_len_out,
                                     OMRA_OBJKEY key);
int __wrap_Omralib_read_and_lock_obj(OMRALIB_HANDLE hdl, unsigned int options,
                                     unsigned int lock_options, unsigned int *pdata_len_out,
                                     OMRA_OBJKEY key) {
    const int result = store_call(
        "read_and_lock_obj", connection_lost,
        [&] {
            return __real_Omralib_read_and_lock_obj(hdl, options, lock_options, pdata_len_out, key);
        },
        [&](int) { __real_Omralib_flush_read_data(hdl); });
    locks_held += result > 0 ? 1 : 0;
    return result;
}

int __real_Omralib_update_locked_obj(OMRALIB_HANDLE hdl, int lock_tkt, unsigned int unlock,
                                     unsigned int options, const void *pdata, unsigned int data_len,
                                     OMRA_OBJKEY key);
int __wrap_Omralib_update_locked_obj(OMRALIB_HANDLE hdl, int lock_tkt, unsigned int unlock,
                                     unsigned int options, const void *pdata, unsigned int data_len,
                                     OMRA_OBJKEY key) {
    const int result = store_call("update_locked_obj", [&] {
        return __real_Omralib_update_locked_obj(hdl, lock_tkt, unlock, options, pdata, data_len,
                                                key);
    });
    locks_held -= result == OMRALIB_RET_SUCCESS && unlock == 1 ? 1 : 0;
    return result;
}

// Releasing a lock is trying to: more cannot be asked.
int __real_Omralib_unlock_obj(OMRALIB_HANDLE hdl, int lock_tkt, unsigned int options,
                              OMRA_OBJKEY key);
int __wrap_Omralib_unlock_obj(OMRALIB_HANDLE hdl, int lock_tkt, unsigned int options,
                              OMRA_OBJKEY key) {
    locks_held -= 1;
    return store_call("unlock_obj",
                      [&] { return __real_Omralib_unlock_obj(hdl, lock_tkt, options, key); });
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
