// Any bytes at the doors of the module: a request as it arrives, parameters and exceptions as they
// are stored, and the reply to an invocation. The first byte of the input chooses the door.
//
// Behind the door, a policy of the interposer draws the status of every operation of the store, and
// what is read has drawn bytes and any length; an input that is used up gives success and empty
// objects, so that every run comes to an end. The module's calls are held to the rules of
// storlib.h, and it may report only conditions that an input can break.
#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "common/records.h"
#include "eval/exceptions.h"
#include "eval/store_merge.h"
#include "fuzz.h"
#include "invoker/collect.h"
#include "support/interposer.h"
#include "support/set_functions.h"
#include "support/world.h"
#include "sysapp.h"

namespace {

using fuzz::check;
using interposer::instead;
using set_functions::eval_id, set_functions::merge_id, set_functions::once_id;
using world::app;

constexpr int success = OMRALIB_RET_SUCCESS;

struct State {
    std::mutex lock;
    std::condition_variable changed;
    // Guarded by lock. Draws are made by whichever thread is at work; there is one at a time.
    FuzzedDataProvider *data = nullptr;
    std::string pending;          // bytes of the read that is open
    unsigned int pending_len = 0; // as it was reported
    bool is_open = false;         // a request is being worked on
    unsigned int context = 0;
};
State &state = *new State; // the module's threads outlive main
using Guard = std::lock_guard<std::mutex>;

// The store --------------------------------------------------------------------------------------

// Success is first and most frequent.
interposer::Verdict draw_status(const interposer::Call &call) {
    static constexpr std::string_view operations[] = {
        "store_obj",  "read_obj",   "get_read_data",   "read_and_lock_obj", "update_locked_obj",
        "unlock_obj", "remove_obj", "get_invoke_keys", "complete_invoke",   "invoke"};
    static constexpr int statuses[] = {1,    1,    1,    1,    1,    1,    1,    1,    1,    1,
                                       1,    -101, -102, -103, -105, -106, -108, -109, -110, -112,
                                       -116, -119, -120, -121, -122, -123, -124, -1,   -2,   -1351};
    if (!call.is_store() || std::ranges::count(operations, call.name.substr(8)) == 0) {
        return {};
    }
    const Guard guard(state.lock);
    const int status = state.data != nullptr ? state.data->PickValueInArray(statuses) : success;
    return status == success ? interposer::Verdict{}
                             : interposer::Verdict{interposer::Verdict::refused, status};
}

OMRA_OBJKEY draw_key(FuzzedDataProvider &data) {
    OMRA_OBJKEY key = {};
    if (data.ConsumeBool()) {
        data.ConsumeData(&key, sizeof key);
    }
    return key;
}

// Lengths that a length check might get wrong are as frequent as all others.
int open_read(unsigned int *plen_out) {
    static constexpr unsigned int lens[] = {
        0,  1,  7,          8,          9,          40,         47,        48,
        49, 96, 0x7FFFFFFF, 0x80000000, 0xFFFFFFD0, 0xFFFFFFF8, 0xFFFFFFFF};
    const Guard guard(state.lock);
    *plen_out = state.data->ConsumeBool()
                    ? state.data->ConsumeIntegralInRange<unsigned int>(0, 4096)
                    : state.data->PickValueInArray(lens);
    state.pending = *plen_out != 0 ? state.data->ConsumeRandomLengthString(256) : "";
    state.pending_len = *plen_out;
    return success;
}

// The bytes that were drawn, again and again.
int fill(OMRALIB_HANDLE, void *pbuf, unsigned int len) {
    const Guard guard(state.lock);
    if (len != state.pending_len || len == 0) {
        return len == 0 ? OMRALIB_ERR_NOT_READING : OMRALIB_ERR_BAD_ARGS;
    }
    for (std::size_t i = 0; i < len; ++i) {
        static_cast<char *>(pbuf)[i] =
            state.pending.empty() ? '\0' : state.pending[i % state.pending.size()];
    }
    return success;
}

int reply(OMRALIB_HANDLE, unsigned int, const void *preq, unsigned int req_len,
          unsigned int *presult_len_out) {
    fuzz::touch(preq, req_len);
    const Guard guard(state.lock);
    FuzzedDataProvider &data = *state.data;
    OMRA_INVOKE_RESULT result = {};
    result.reserved = OMRALIB_INDEX_OP_INVOKE;
    result.num_successful = data.ConsumeIntegral<ULONG>();
    result.num_failed = data.ConsumeIntegral<ULONG>();
    result.results_key = draw_key(data);
    result.exceptions_key = draw_key(data);
    state.pending.assign(reinterpret_cast<const char *>(&result), sizeof result);
    if (data.ConsumeIntegralInRange<int>(0, 3) == 1) { // or anything at all
        state.pending = data.ConsumeRandomLengthString(200);
    }
    *presult_len_out = state.pending_len = static_cast<unsigned int>(state.pending.size());
    return success;
}

// As a store does, it compares the number with that of the keys that it has.
int draw_keys(unsigned int context, OMRA_OBJKEY *pkeys, unsigned int num_keys) {
    const Guard guard(state.lock);
    check(state.is_open && state.context == context, "the keys of another request");
    if (num_keys > 64) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    std::generate_n(pkeys, num_keys, [] { return draw_key(*state.data); });
    return success;
}

int end_request(unsigned int context) {
    const Guard guard(state.lock);
    check(state.is_open && state.context == context, "a request completed twice, or unknown");
    state.is_open = false;
    state.changed.notify_all();
    return success;
}

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
           std::ranges::count(expressions, expression) != 0;
}

void set_up_store() {
    world::open(*new TestClock);
    interposer::before = draw_status;
    instead<Omralib_store_obj> = [](auto, auto, const void *pdata, unsigned int len, auto, auto) {
        fuzz::touch(pdata, len);
        return success;
    };
    instead<Omralib_read_obj> = [](auto, auto, auto *plen_out, auto) {
        return open_read(plen_out);
    };
    instead<Omralib_read_and_lock_obj> = [](auto, auto, auto, auto *plen_out, auto) {
        open_read(plen_out);
        const Guard guard(state.lock);
        return state.data->ConsumeIntegralInRange<int>(1, INT32_MAX);
    };
    instead<Omralib_update_locked_obj> = [](auto, auto, auto, auto, const void *pdata,
                                            unsigned int len, auto) {
        fuzz::touch(pdata, len);
        return success;
    };
    instead<Omralib_unlock_obj> = [](auto...) { return success; };
    instead<Omralib_remove_obj> = [](auto...) { return success; };
    instead<Omralib_get_read_data> = fill;
    instead<Omralib_flush_read_data> = [](auto) { return success; };
    instead<Omralib_invoke> = reply;
    instead<Omralib_get_invoke_keys> = draw_keys;
    instead<Omralib_complete_invoke> = [](auto, unsigned int context, auto, auto) {
        return end_request(context);
    };
    instead<Omralib_flush_invoke> = end_request;
    instead<Thread_sleep> = [](auto) {};
    instead<Sys_log_assert> = [](const char *file, auto, const char *expression) {
        check(std::string_view(file) == "server/pmicli" && is_up_to_input(expression), expression);
    };
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

// Doors ------------------------------------------------------------------------------------------

constexpr char guid[OMRALIB_GUID_LEN] = "pmicli"; // with which the worker's handles are open

// Delivers the request, and waits until it has been completed if it was accepted.
void deliver(const char *pguid, const OMRALIB_INVOKE_PARAMS &params) {
    {
        const Guard guard(state.lock);
        state.is_open = true;
        state.context = params.context;
    }
    auto own = std::make_unique<OMRALIB_INVOKE_PARAMS>(params);
    const int answer = Omrapmi_invoke_ext_cb(pguid, own.get());
    own.reset(); // the module must have made its own copy
    std::unique_lock lock(state.lock);
    state.changed.wait(lock, [&] { return answer != OMRALIB_INVOKE_ACCEPTED || !state.is_open; });
    state.is_open = false;
}

// Counts that are negative or huge, parameters packed with any length, any ids, any flags.
void send_any_request(FuzzedDataProvider &data) {
    static constexpr unsigned int app_ids[] = {app, MGTI_APPID_INVOKE_ONCE, 0, 0xFFFFFFFF};
    static constexpr int numbers[] = {-1, INT32_MIN, INT32_MAX, 65, 100'000, 20'000'000};
    static constexpr char other_guid[OMRALIB_GUID_LEN] = "somebody else";
    const auto draw_op = [&]() -> ULONGLONG {
        return data.ConsumeIntegralInRange<int>(0, 7) == 1
                   ? data.ConsumeIntegral<ULONGLONG>()
                   : data.ConsumeIntegralInRange<ULONGLONG>(0, 4);
    };
    OMRALIB_INVOKE_PARAMS request = {};
    request.app_id = data.PickValueInArray(app_ids);
    request.invoke_op = draw_op();
    request.merge_op = draw_op();
    const int kind = data.ConsumeIntegralInRange<int>(0, 3);
    request.num_keys = kind == 0   ? data.PickValueInArray(numbers)
                       : kind == 1 ? data.ConsumeIntegral<int>()
                                   : data.ConsumeIntegralInRange<int>(0, 20);
    request.context = data.ConsumeIntegral<unsigned int>();
    request.invoke_timeout = data.ConsumeIntegral<unsigned int>();
    request.svr_host_id = data.ConsumeIntegral<unsigned int>();
    request.params_key = draw_key(data);
    request.results_key = draw_key(data);
    request.exceptions_key = draw_key(data);
    request.immediate_params = data.ConsumeIntegral<UCHAR>();
    request.merge_request = data.ConsumeBool() ? data.ConsumeIntegral<UCHAR>() : 0;
    request.verno_supplied = data.ConsumeIntegral<UCHAR>();
    if (data.ConsumeBool()) { // else hardly any request would find its functions
        request.params_key.app_id = app;
    }
    switch (data.ConsumeIntegralInRange<int>(0, 7)) {
    case 5:
        check(Omrapmi_invoke_ext_cb(guid, nullptr) != OMRALIB_INVOKE_ACCEPTED, "NULL accepted");
        break;
    case 6:
        deliver(other_guid, request);
        break;
    case 7:
        deliver(nullptr, request);
        break;
    default:
        deliver(guid, request);
    }
}

// A request that is in order; its parameters, or the source of a merge, are any object.
void send_with_any_object(FuzzedDataProvider &data) {
    const bool is_once = data.ConsumeBool();
    const bool is_merge = !is_once && data.ConsumeBool();
    OMRALIB_INVOKE_PARAMS request = {};
    request.app_id = is_once ? MGTI_APPID_INVOKE_ONCE : app;
    request.invoke_op = is_once ? once_id : eval_id;
    request.merge_op = merge_id;
    request.num_keys = is_merge ? 0 : is_once ? 1 : data.ConsumeIntegralInRange<int>(1, 9);
    request.context = 1;
    request.invoke_timeout = 30;
    request.params_key.app_id = request.results_key.app_id = request.exceptions_key.app_id = app;
    request.merge_request = is_merge ? 1 : 0;
    deliver(guid, request);
}

// An exceptions object of any bytes, as a worker finds it when it has exceptions to append...
void append_exceptions(FuzzedDataProvider &data) {
    constexpr ULONG most = 0xFFFFFFFF;
    std::vector<OMRAPMI_EXCEPTION> list(data.ConsumeIntegralInRange<std::size_t>(0, 20));
    OMRAPMI_USER_EXCEPTIONS exceptions = {};
    exceptions.plist = list.data();
    exceptions.max_num = static_cast<ULONG>(list.size());
    Spinlock_init(&exceptions.slock, OMRAPMI_EXCEPTIONS_SLOCK_ID, 0);
    for (std::size_t i = 0; i < list.size(); ++i) {
        Omrapmi_log_user_exception(&exceptions, 1, TRUE, nullptr);
    }
    if (data.ConsumeIntegralInRange<int>(0, 15) == 1) { // more than an object can hold
        exceptions.num = data.ConsumeIntegralInRange<ULONG>(most / sizeof list[0] + 1, most);
    }
    const OMRA_OBJKEY key = draw_key(data);
    Omrapmi_save_user_exceptions(world::handle(), &key, data.ConsumeIntegral<unsigned int>(),
                                 &exceptions);
}

// ... and as the invoker collects it.
void collect_exceptions(FuzzedDataProvider &data) {
    OMRA_INVOKE_RESULT result = {};
    result.num_failed = data.ConsumeIntegral<ULONG>();
    result.exceptions_key = draw_key(data);
    OMRA_OBJKEY params_key = {};
    char *presults = nullptr;
    OMRAPMI_EXCEPTION *pexceptions = nullptr;
    unsigned int results_len = 0, num_exceptions = 0;
    Omrapmi_invoker_post(world::handle(), &params_key, TRUE, &result, &presults, &results_len,
                         &pexceptions, &num_exceptions);
    fuzz::touch(pexceptions, std::size_t{num_exceptions} * sizeof *pexceptions);
    Omrapmi_free(pexceptions);
}

// Arguments that are in order, and any reply.
void invoke(FuzzedDataProvider &data) {
    const std::vector<char> params(data.ConsumeIntegralInRange<std::size_t>(0, 40), 'p');
    OMRAPMI_QUERY_SPEC spec = {};
    OMRAPMI_INVOKE_ARGS args = {};
    args.app_id = app;
    args.func_id_eval = eval_id;
    args.func_id_merge = merge_id;
    args.pparams_obj = params.empty() ? nullptr : params.data();
    args.params_obj_len = static_cast<ULONG>(params.size());
    args.timeout_s = data.ConsumeIntegral<ULONG>();
    args.use_query_spec = data.ConsumeIntegralInRange<UCHAR>(0, 2);
    args.use_exceptions = data.ConsumeBool() ? TRUE : FALSE;
    if (args.use_query_spec == OMRAPMI_QUERY_INDEX) {
        spec.num_index_specs = data.ConsumeIntegralInRange<ULONG>(0, 9);
        args.pquery_spec = &spec;
        args.query_spec_len = sizeof spec;
    } else if (args.use_query_spec == OMRAPMI_QUERY_PASS_THROUGH) {
        args.pquery_spec = "size > 1";
        args.query_spec_len = 8;
    }
    char untouched = 0;
    args.presults_obj_out = &untouched;
    args.num_exceptions_out = args.num_failed_out = args.num_successful_out = 77;
    OMRAPMI_INVOKE_EXT_ARGS args_ext{app, FALSE, FALSE};
    if (Omrapmi_invoke_ext(world::handle(), &args, &args_ext) != success) {
        check(args.presults_obj_out == &untouched && args.num_exceptions_out == 77 &&
                  args.num_failed_out == 77 && args.num_successful_out == 77,
              "outputs after a failure");
        return;
    }
    check((args.presults_obj_out == nullptr) == (args.results_obj_len_out == 0), "its length");
    fuzz::touch(args.presults_obj_out, args.results_obj_len_out);
    if (args.use_exceptions) {
        fuzz::touch(args.pexceptions_out,
                    std::size_t{args.num_exceptions_out} * sizeof *args.pexceptions_out);
        Omrapmi_free(args.pexceptions_out);
    } else {
        check(args.pexceptions_out == nullptr, "exceptions that nobody asked for");
    }
    Omrapmi_free(args.presults_obj_out);
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***) {
    sys_trace_level = 0; // so that trace lines are put together
    Sys_set_trace_func([](const char *) {});
    set_up_store();
    Omrapmi_worker_register_eval_func(eval, eval_id, app);
    Omrapmi_worker_register_merge_func(merge, merge_id, app);
    Omrapmi_worker_register_invoke_once_eval_func(eval, once_id, app);
    check(Omrapmi_worker_init_ext(1) == success, "no worker");
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *pdata, std::size_t size) {
    static constexpr void (*doors[])(FuzzedDataProvider &) = {
        send_any_request, send_with_any_object, append_exceptions, collect_exceptions, invoke};
    if (size == 0) {
        return 0;
    }
    FuzzedDataProvider data(pdata + 1, size - 1);
    const auto begin = [](FuzzedDataProvider *pdata_now) {
        const Guard guard(state.lock);
        state.data = pdata_now;
    };
    begin(&data);
    doors[*pdata % std::size(doors)](data);
    // A worker gives its last blocks back after it has reported the request.
    while (interposer::num_blocks() != 0 || interposer::ledger() != interposer::Ledger{}) {
        std::this_thread::yield();
    }
    begin(nullptr);
    const std::string misuse = interposer::take_misuse();
    const bool is_fetch_of_nothing = misuse == "no read is pending" && state.pending_len == 0;
    check(misuse.empty() || is_fetch_of_nothing, misuse.c_str());
    check(omrapmi_worker_state.singleton_state.pidsc_singleton == NULL, "a singleton left");
    return 0;
}
