#include "fuzzed_store.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/records.h"
#include "sysapp.h"

namespace {

using fuzz::check;

constexpr int success = OMRALIB_RET_SUCCESS;

// Which of its operations a store may refuse, and how. Success is first and most frequent.
constexpr int statuses[] = {1,    1,    1,    1,    1,    1,    1,    1,    1,    1,
                            1,    -101, -102, -103, -105, -106, -108, -109, -110, -112,
                            -116, -119, -120, -121, -122, -123, -124, -1,   -2,   -1351};

struct State {
    std::mutex lock;
    std::condition_variable changed;
    // Guarded by lock.
    FuzzedDataProvider *data = nullptr;
    std::optional<std::string> pending; // the one read that a well-behaved caller has open
    unsigned int pending_len = 0;       // as it was reported
    bool is_locked = false;
    OMRA_OBJKEY locked_key = {};
    int ticket = 0;
    bool is_open = false; // a request is being worked on
    unsigned int context = 0;
};

// The module's threads outlive main.
State &state = *new State;

// Draws are made by whichever thread of the module is at work; there is one at a time.
using Guard = std::lock_guard<std::mutex>;

int draw_status() {
    return state.data == nullptr ? success : state.data->PickValueInArray(statuses);
}

// Lengths that a length check might get wrong are as frequent as all others.
unsigned int draw_len() {
    static constexpr unsigned int lens[] = {
        0,  1,  7,          8,          9,          40,         47,        48,
        49, 96, 0x7FFFFFFF, 0x80000000, 0xFFFFFFD0, 0xFFFFFFF8, 0xFFFFFFFF};
    if (state.data == nullptr) {
        return 0;
    }
    return state.data->ConsumeBool() ? state.data->ConsumeIntegralInRange<unsigned int>(0, 4096)
                                     : state.data->PickValueInArray(lens);
}

// Opens a read of an object with drawn bytes; it repeats what the input has.
void open_read(unsigned int *plen_out) {
    check(!state.pending, "a read while one is pending");
    const unsigned int len = draw_len();
    *plen_out = len;
    if (len != 0) {
        state.pending = state.data->ConsumeRandomLengthString(256);
        state.pending_len = len;
    }
}

void fill(char *pbuf, std::size_t len, std::string_view bytes) {
    for (std::size_t i = 0; i < len; ++i) {
        pbuf[i] = bytes.empty() ? '\0' : bytes[i % bytes.size()];
    }
}

bool same_key(const OMRA_OBJKEY &a, const OMRA_OBJKEY &b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

void release(const OMRA_OBJKEY &key, int lock_tkt) {
    check(state.is_locked && state.ticket == lock_tkt && same_key(state.locked_key, key),
          "a lock that is not held");
    state.is_locked = false;
}

int end_request(unsigned int context) {
    check(state.is_open && state.context == context, "a request completed twice, or unknown");
    state.is_open = false;
    state.changed.notify_all();
    return success;
}

// User functions ---------------------------------------------------------------------------------

int draw_result(char **ppresult_out, unsigned int *presult_len_out) {
    const Guard guard(state.lock);
    const unsigned int len = state.data->ConsumeIntegralInRange<unsigned int>(0, 100);
    if (state.data->ConsumeIntegralInRange<int>(0, 7) == 1) {
        return state.data->ConsumeIntegralInRange<int>(1, 255);
    }
    if (len != 0) {
        *ppresult_out = static_cast<char *>(Omrapmi_malloc(len));
        *presult_len_out = len;
        std::memset(*ppresult_out, 'r', len);
    }
    return 0;
}

int eval(const char *pdata, unsigned int data_len, const char *pparams, unsigned int params_len,
         char **ppresult_out, unsigned int *presult_len_out) {
    fuzz::touch(pdata, data_len);
    fuzz::touch(pparams, params_len);
    OMRA_OBJKEY key;
    check(Omrapmi_get_key(&key) == success, "an eval without a key");
    return draw_result(ppresult_out, presult_len_out);
}

int merge(char *pdst, unsigned int dst_len, const char *psrc, unsigned int src_len,
          char **ppmerged_out, unsigned int *pmerged_len_out) {
    fuzz::touch(pdst, dst_len);
    fuzz::touch(psrc, src_len);
    const int code = draw_result(ppmerged_out, pmerged_len_out);
    if (code == 0 && *ppmerged_out == nullptr) {
        *ppmerged_out = pdst;
        *pmerged_len_out = dst_len;
    }
    return code;
}

// Conditions of the module -----------------------------------------------------------------------

// Those that a request, an object or a reply can break; no input breaks any other.
bool is_up_to_input(std::string_view expression) {
    static constexpr std::string_view expressions[] = {
        // the request as it arrives
        "pguid != NULL", "0 == memcmp(pguid, omrapmi_worker_state.pguid, OMRALIB_GUID_LEN)",
        "pparams != NULL",
        "pparams->merge_request || pparams->app_id != MGTI_APPID_INVOKE_ONCE || "
        "pparams->num_keys == 1",
        "num_keys == 0", "num_keys > 0", "num_keys != 0", "num_keys == 1",
        "pwdsc->pidsc->params.num_keys == 0", "func_id < OMRAPMI_NUM_FUNC_IDS",
        "OMRA_OBJKEY_IS_NULL(pidsc->pdata_key_list[0])", "!(OMRA_OBJKEY_IS_NULL(*pkey))",
        // its parameters
        "*pparams_obj_len <= OMRAPMI_MAX_IMMEDIATE_PARAMS_LEN",
        "pidsc->pparams_ext->is_singleton == TRUE",
        // what the store answers
        "inv_result_len == sizeof inv_result", "inv_result.reserved == OMRALIB_INDEX_OP_INVOKE",
        "exceptions_obj_len % sizeof *pexceptions == 0"};
    return expression.starts_with("ret != OMRALIB_ERR_") ||
           std::find(std::begin(expressions), std::end(expressions), expression) !=
               std::end(expressions);
}

bool nothing_allocated() {
    const unsigned int tags[] = {OMRAPMI_TAG_NEW_OBJECT, OMRAPMI_TAG_OBJECT,
                                 OMRAPMI_TAG_LOCKED_OBJECT, OMRAPMI_TAG_REQUEST, OMRAPMI_TAG_USER};
    return std::all_of(std::begin(tags), std::end(tags),
                       [](unsigned int tag) { return Sys_get_mem_use(tag).blocks == 0; });
}

} // namespace

namespace fuzzed_store {

namespace {

void set_up() {
    sys_trace_level = 0; // so that trace lines are put together
    Sys_set_trace_func([](const char *) {});
    Omrapmi_worker_register_eval_func(eval, eval_id, app);
    Omrapmi_worker_register_merge_func(merge, merge_id, app);
    Omrapmi_worker_register_invoke_once_eval_func(eval, once_id, app);
    check(Omrapmi_worker_init_ext(1) == success, "no worker");
}

void begin(FuzzedDataProvider &data) {
    const Guard guard(state.lock);
    state.data = &data;
}

void end() {
    // A worker gives its last blocks back after it has reported the request.
    while (!nothing_allocated()) {
        std::this_thread::yield();
    }
    const Guard guard(state.lock);
    check(!state.pending, "a read left pending");
    check(!state.is_locked, "a lock left held");
    check(omrapmi_worker_state.singleton_state.pidsc_singleton == NULL, "a singleton left");
    state.data = nullptr;
}

} // namespace

void deliver(const char *pguid, const OMRALIB_INVOKE_PARAMS *pparams) {
    if (pparams == nullptr) {
        check(Omrapmi_invoke_ext_cb(pguid, nullptr) != OMRALIB_INVOKE_ACCEPTED, "NULL accepted");
        return;
    }
    {
        const Guard guard(state.lock);
        state.is_open = true;
        state.context = pparams->context;
    }
    auto params = std::make_unique<OMRALIB_INVOKE_PARAMS>(*pparams);
    const int answer = Omrapmi_invoke_ext_cb(pguid, params.get());
    params.reset(); // the module must have made its own copy
    std::unique_lock lock(state.lock);
    if (answer == OMRALIB_INVOKE_ACCEPTED) {
        state.changed.wait(lock, [] { return !state.is_open; });
    }
    state.is_open = false;
}

OMRALIB_INVOKE_PARAMS good_request(int num_keys) {
    OMRALIB_INVOKE_PARAMS request = {};
    request.app_id = app;
    request.invoke_op = eval_id;
    request.merge_op = merge_id;
    request.num_keys = num_keys;
    request.context = 1;
    request.invoke_timeout = 30;
    request.params_key.app_id = app; // and no packed parameters
    request.results_key.app_id = app;
    request.exceptions_key.app_id = app;
    request.immediate_params = 1;
    return request;
}

void invoke(OMRAPMI_INVOKE_ARGS &args) {
    char untouched = 0;
    args.presults_obj_out = &untouched;
    args.num_exceptions_out = args.num_failed_out = args.num_successful_out = 77;
    OMRAPMI_INVOKE_EXT_ARGS args_ext{app, FALSE, FALSE};
    const int ret = Omrapmi_invoke_ext(1, &args, &args_ext);
    if (ret != success) {
        check(args.presults_obj_out == &untouched && args.num_exceptions_out == 77 &&
                  args.num_failed_out == 77 && args.num_successful_out == 77,
              "outputs after a failure");
        return;
    }
    check((args.presults_obj_out == nullptr) == (args.results_obj_len_out == 0),
          "a result's length");
    fuzz::touch(args.presults_obj_out, args.results_obj_len_out);
    if (args.use_exceptions) {
        check(args.pexceptions_out != nullptr || args.num_exceptions_out == 0, "no exceptions");
        fuzz::touch(args.pexceptions_out,
                    std::size_t{args.num_exceptions_out} * sizeof *args.pexceptions_out);
        Omrapmi_free(args.pexceptions_out);
    } else {
        check(args.pexceptions_out == nullptr, "exceptions that nobody asked for");
    }
    Omrapmi_free(args.presults_obj_out);
}

OMRA_OBJKEY draw_key(FuzzedDataProvider &data) {
    OMRA_OBJKEY key = {};
    if (data.ConsumeBool()) {
        data.ConsumeData(&key, sizeof key);
    }
    return key;
}

} // namespace fuzzed_store

int LLVMFuzzerInitialize(int *, char ***) {
    fuzzed_store::set_up();
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *pdata, std::size_t size) {
    FuzzedDataProvider data(pdata, size);
    fuzzed_store::begin(data);
    fuzzed_store::use(data);
    fuzzed_store::end();
    return 0;
}

// The store --------------------------------------------------------------------------------------

int Omralib_init(void) {
    return success;
}

void Omralib_use_large_keys(void) {}

OMRALIB_HANDLE Omralib_open_ext(const char *) {
    return 1;
}

int Omralib_close(OMRALIB_HANDLE) {
    return success;
}

int Omralib_handle_ready(OMRALIB_HANDLE) {
    const Guard guard(state.lock);
    return state.pending ? OMRALIB_ERR_OBJ_READING : success;
}

unsigned int Omralib_get_host_addr(void) {
    return 1;
}

int Omralib_register_cb(unsigned int, OMRALIB_CB) {
    return success;
}

int Omralib_register_appname_hdl(OMRALIB_HANDLE, const char *, unsigned int, unsigned int *) {
    return success;
}

int Omralib_start_app_event_handling(OMRALIB_HANDLE, unsigned int) {
    return success;
}

int Omralib_stop_app_event_handling(OMRALIB_HANDLE, unsigned int) {
    return success;
}

int Omralib_store_obj(OMRALIB_HANDLE, unsigned int, const void *pdata, unsigned int data_len,
                      unsigned int, OMRA_OBJKEY) {
    fuzz::touch(pdata, data_len);
    const Guard guard(state.lock);
    return draw_status();
}

int Omralib_read_obj(OMRALIB_HANDLE, unsigned int, unsigned int *pdata_len_out, OMRA_OBJKEY) {
    const Guard guard(state.lock);
    const int status = draw_status();
    if (status == success) {
        open_read(pdata_len_out);
    }
    return status;
}

int Omralib_get_read_data(OMRALIB_HANDLE, void *pbuf, unsigned int len) {
    const Guard guard(state.lock);
    if (!state.pending) {
        return OMRALIB_ERR_NOT_READING;
    }
    if (len != state.pending_len) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    fill(static_cast<char *>(pbuf), len, *state.pending);
    state.pending.reset();
    return draw_status();
}

int Omralib_flush_read_data(OMRALIB_HANDLE) {
    const Guard guard(state.lock);
    check(state.pending.has_value(), "nothing to flush");
    state.pending.reset();
    return success;
}

int Omralib_read_and_lock_obj(OMRALIB_HANDLE, unsigned int, unsigned int,
                              unsigned int *pdata_len_out, OMRA_OBJKEY key) {
    const Guard guard(state.lock);
    const int status = draw_status();
    if (status != success) {
        return status;
    }
    check(!state.is_locked, "a second lock");
    open_read(pdata_len_out);
    state.is_locked = true;
    state.locked_key = key;
    state.ticket = state.data->ConsumeIntegralInRange<int>(1, INT32_MAX);
    return state.ticket;
}

int Omralib_update_locked_obj(OMRALIB_HANDLE, int lock_tkt, unsigned int unlock, unsigned int,
                              const void *pdata, unsigned int data_len, OMRA_OBJKEY key) {
    fuzz::touch(pdata, data_len);
    const Guard guard(state.lock);
    const int status = draw_status();
    if (status == success && unlock == 1) {
        release(key, lock_tkt);
    }
    return status;
}

int Omralib_unlock_obj(OMRALIB_HANDLE, int lock_tkt, unsigned int, OMRA_OBJKEY key) {
    const Guard guard(state.lock);
    release(key, lock_tkt);
    return draw_status();
}

int Omralib_remove_obj(OMRALIB_HANDLE, unsigned int, OMRA_OBJKEY) {
    const Guard guard(state.lock);
    return draw_status();
}

int Omralib_invoke(OMRALIB_HANDLE, unsigned int, const void *preq, unsigned int req_len,
                   unsigned int *presult_len_out) {
    fuzz::touch(preq, req_len);
    const Guard guard(state.lock);
    const int status = draw_status();
    if (status != success) {
        return status;
    }
    OMRA_INVOKE_RESULT result = {};
    result.reserved = OMRALIB_INDEX_OP_INVOKE;
    result.num_successful = state.data->ConsumeIntegral<ULONG>();
    result.num_failed = state.data->ConsumeIntegral<ULONG>();
    result.results_key = fuzzed_store::draw_key(*state.data);
    result.exceptions_key = fuzzed_store::draw_key(*state.data);
    std::string reply(reinterpret_cast<const char *>(&result), sizeof result);
    if (state.data->ConsumeIntegralInRange<int>(0, 3) == 1) { // or anything at all
        reply = state.data->ConsumeRandomLengthString(200);
    }
    *presult_len_out = static_cast<unsigned int>(reply.size());
    if (!reply.empty()) {
        state.pending_len = *presult_len_out;
        state.pending = std::move(reply);
    }
    return status;
}

// As a store does, it compares the number with that of the keys that it has.
int Omralib_get_invoke_keys(unsigned int context, OMRA_OBJKEY *pkeys, unsigned int num_keys) {
    constexpr unsigned int max_keys = 64;
    const Guard guard(state.lock);
    check(state.is_open && state.context == context, "the keys of another request");
    if (num_keys > max_keys) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    for (unsigned int i = 0; i < num_keys; ++i) {
        pkeys[i] = fuzzed_store::draw_key(*state.data);
    }
    return draw_status();
}

int Omralib_complete_invoke(OMRALIB_HANDLE, unsigned int context, unsigned int, unsigned int) {
    const Guard guard(state.lock);
    const int status = draw_status();
    return status == success ? end_request(context) : status;
}

int Omralib_flush_invoke(unsigned int context) {
    const Guard guard(state.lock);
    return end_request(context);
}

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the linker's and the sanitizer's
extern "C" {

void __wrap_Sys_log_assert(const char *file, int, const char *expression) {
    if (std::string_view(file) != "server/pmicli" || !is_up_to_input(expression)) {
        fuzz::fail(expression);
    }
}

void __wrap_Thread_sleep(unsigned int) {}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
