// Any bytes at the doors of the module: a request as it arrives, or the reply to an invocation, and
// then whatever is read from the store: parameters, results, exceptions.
//
// A policy of the interposer draws the status of every operation of the store, and what is read has
// drawn bytes and any length; an input that is used up gives success and empty objects, so that
// every run comes to an end. The module's calls are held to the rules of storlib.h, and it may
// report only conditions that an input can break.
#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "common/records.h"
#include "fuzz.h"
#include "support/interposer.h"
#include "support/set_functions.h"
#include "support/world.h"
#include "sysapp.h"

namespace {

using interposer::instead, interposer::Verdict;
using world::app;

constexpr int success = OMRALIB_RET_SUCCESS;

// Threads take turns: the worker is at work on a request, or else the main one is.
std::string pending;                     // bytes of the read that is open, again and again
unsigned int pending_len;                // as it was reported
std::optional<unsigned int> own_context; // of the request that is not completed yet
std::string written;                     // last, to the store or to the user

// The store --------------------------------------------------------------------------------------

Verdict draw_status(const interposer::Call &call) {
    // That an object exists already leads on, so it is more frequent.
    static constexpr int failures[] = {-108, -108, -108, -101, -102, -103, -105, -106, -109, -110,
                                       -112, -116, -119, -120, -121, -122, -123, -124, -125, -1351};
    if (pinput == nullptr || !call.is_store() || call.name.starts_with("Omralib_flush") ||
        call.name == "Omralib_open_ext" || !happens(3)) {
        return {};
    }
    return {Verdict::refused, pinput->PickValueInArray(failures)};
}

// Reads every byte, so that a block that is shorter than was said is found.
int write(const void *pbytes, std::size_t len) {
    written.assign(static_cast<const char *>(pbytes), len);
    return success;
}

// Begins a read of any length.
int serve(unsigned int *plen_out,
          const std::string &bytes = pinput->ConsumeRandomLengthString(256)) {
    pending = bytes + '\0';
    pending_len = static_cast<unsigned int>(bytes.size());
    if (happens(4)) { // what a length check might get wrong, or that of a result
        pending_len = pinput->PickValueInArray({95u, 97u, 640u, 0x7FFFFFFFu, 0xFFFFFFD0u, ~0u});
    }
    *plen_out = pending_len;
    return success;
}

int fill(OMRALIB_HANDLE, void *pbuf, unsigned int len) {
    if (len == 0 || len != pending_len) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    for (std::size_t i = 0; i < len; ++i) {
        static_cast<char *>(pbuf)[i] = pending[i % pending.size()];
    }
    return success;
}

int reply(OMRALIB_HANDLE, unsigned int, const void *preq, unsigned int req_len,
          unsigned int *presult_len_out) {
    write(preq, req_len);
    OMRA_INVOKE_RESULT result = {OMRALIB_INDEX_OP_INVOKE, 9, 9, 0, world::key(1), world::key(2)};
    overwrite(&result, sizeof result);
    return serve(presult_len_out, {reinterpret_cast<const char *>(&result), sizeof result});
}

// As a store does, it compares the number with that of the keys that it has.
int draw_keys(unsigned int context, OMRA_OBJKEY *pkeys, unsigned int num_keys) {
    check(own_context == context, "the keys of another request");
    if (num_keys > 64) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    std::fill_n(pkeys, num_keys, world::key(1));
    overwrite(pkeys, num_keys * sizeof *pkeys);
    return success;
}

int end(unsigned int context) {
    check(own_context == context, "a request completed twice, or unknown");
    own_context.reset();
    return success;
}

// A function hands out no block, a merge's source, or less than it has made.
void spoil(const char *pdst, const char *psrc, char **pout, unsigned int *plen_out) {
    if (pdst == nullptr && happens(8)) {
        const bool is_source = happens(2) && psrc != nullptr;
        Omrapmi_free(std::exchange(*pout, is_source ? const_cast<char *>(psrc) : nullptr));
        *plen_out = is_source ? 1 : *plen_out; // a source may be that short
    }
    *plen_out = happens(8) ? pinput->ConsumeIntegralInRange(0u, *plen_out) : *plen_out;
}

// Those that a request, an object, a reply or a function can break; no input breaks any other.
void check_report(std::string_view condition) {
    static constexpr std::string_view up_to_input[] = {
        // the request as it arrives
        "pguid ", "0 == memcmp(pguid, ", "pparams != NULL", "pparams->merge_request || ",
        "num_keys ", "pwdsc->pidsc->params.num_keys == 0", "func_id < ", "OMRA_OBJKEY_IS_NULL(",
        "!(OMRA_OBJKEY_IS_NULL(",
        // its parameters
        "*pparams_obj_len <= ", "pidsc->pparams_ext->is_singleton == ",
        // what the store answers
        "inv_result", "exceptions_obj_len % ", "ret != OMRALIB_ERR_",
        // what a user function hands out
        "results_obj_len_src == 0", "default_data_len != 0",
        "*ppresults_obj_dst_out != ", "*presults_obj_len_dst_out == 0", "results_obj_len_out == "};
    const auto begins = [=](auto text) { return condition.starts_with(text); };
    check(std::ranges::any_of(up_to_input, begins), condition.data());
}

// Doors ------------------------------------------------------------------------------------------

// An eval, a merge or an invoke-once, in order but for what is overwritten.
void send() {
    const bool is_once = pinput->ConsumeBool(), is_merge = !is_once && pinput->ConsumeBool();
    const auto prequest = std::make_unique<OMRALIB_INVOKE_PARAMS>();
    prequest->app_id = is_once ? MGTI_APPID_INVOKE_ONCE : app;
    prequest->invoke_op = is_once ? set_functions::once_id : set_functions::eval_id;
    prequest->merge_op = set_functions::merge_id;
    prequest->num_keys = is_merge ? 0 : is_once ? 1 : pinput->ConsumeIntegralInRange(1, 65);
    prequest->params_key = prequest->results_key = prequest->exceptions_key = world::key(0);
    prequest->merge_request = is_merge ? 1 : 0;
    overwrite(prequest.get(), sizeof *prequest);
    own_context = prequest->context;
    const char *pguid = happens(16)   ? nullptr
                        : happens(16) ? "somebody else's guid"
                                      : omrapmi_worker_state.pguid;
    if (Omrapmi_invoke_ext_cb(pguid, happens(16) ? nullptr : prequest.get()) !=
        OMRALIB_INVOKE_ACCEPTED) {
        own_context.reset();
    }
} // the module must have made its own copy

// Arguments that are in order, and any reply.
void invoke() {
    const std::string params(pinput->ConsumeIntegralInRange<std::size_t>(0, 40), 'p');
    char untouched = 0;
    OMRAPMI_INVOKE_ARGS args = {};
    args.app_id = app;
    args.func_id_eval = set_functions::eval_id;
    args.func_id_merge = set_functions::merge_id;
    args.pparams_obj = params.empty() ? nullptr : params.data();
    args.params_obj_len = static_cast<ULONG>(params.size());
    args.timeout_s = pinput->ConsumeIntegral<ULONG>();
    args.use_exceptions = pinput->ConsumeBool() ? TRUE : FALSE;
    args.presults_obj_out = &untouched;
    const OMRAPMI_INVOKE_ARGS before = args;
    OMRAPMI_INVOKE_EXT_ARGS args_ext{app, FALSE, FALSE};
    if (Omrapmi_invoke_ext(world::handle(), &args, &args_ext) != success) {
        check(std::memcmp(&args, &before, sizeof args) == 0, "outputs after a failure");
        return;
    }
    check((args.presults_obj_out == nullptr) == (args.results_obj_len_out == 0), "its length");
    check(args.use_exceptions || args.pexceptions_out == nullptr, "unwanted exceptions");
    const std::size_t num_exceptions = args.use_exceptions ? args.num_exceptions_out : 0;
    write(args.presults_obj_out, args.results_obj_len_out);
    write(args.pexceptions_out, num_exceptions * sizeof *args.pexceptions_out);
    Omrapmi_free(args.presults_obj_out);
    Omrapmi_free(args.pexceptions_out);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    sys_trace_level = 0; // so that trace lines are put together
    Sys_set_trace_func([](const char *) {});
    world::open(*new TestClock);
    interposer::before = draw_status;
    instead<Omralib_store_obj> = [](auto, auto, auto *p, auto n, auto...) { return write(p, n); };
    instead<Omralib_update_locked_obj> = [](auto, auto, auto, auto, auto *p, auto len, auto) {
        return write(p, len);
    };
    instead<Omralib_read_obj> = [](auto, auto, auto *p, auto) { return serve(p); };
    instead<Omralib_read_and_lock_obj> = [](auto, auto, auto, auto *p, auto) { return serve(p); };
    instead<Omralib_unlock_obj> = [](auto...) { return success; };
    instead<Omralib_remove_obj> = [](auto...) { return success; };
    instead<Omralib_flush_read_data> = [](auto) { return success; };
    instead<Omralib_get_read_data> = fill;
    instead<Omralib_invoke> = reply;
    instead<Omralib_get_invoke_keys> = draw_keys;
    instead<Omralib_complete_invoke> = [](auto, auto context, auto...) { return end(context); };
    instead<Omralib_flush_invoke> = end;
    instead<Thread_sleep> = [](auto) {};
    instead<Sys_log_assert> = [](auto, auto, auto *condition) { check_report(condition); };
    set_functions::Script &functions = set_functions::script();
    functions.fails = [](auto...) { return happens(8); };
    functions.is_silent = [](auto...) { return happens(8); };
    functions.merge_fails = [](auto &...) { return happens(8); };
    functions.spoil = spoil;
    check(set_functions::register_all(app) && Omrapmi_worker_init_ext(1) == success, "no worker");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pdata, std::size_t size) {
    FuzzedDataProvider input(pdata, size);
    pinput = &input;
    input.ConsumeBool() ? invoke() : send();
    // A worker gives its last blocks back after it has reported the request.
    while (interposer::ledger() != interposer::Ledger{}) {
        std::this_thread::yield();
    }
    check(!own_context, "a request that is not completed");
    check(interposer::num_blocks() == 0, "memory left");
    const std::string misuse = interposer::take_misuse();
    check(misuse.empty(), misuse.c_str());
    check(omrapmi_worker_state.singleton_state.pidsc_singleton == NULL, "a singleton left");
    return 0;
}
