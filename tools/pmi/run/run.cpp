// Registering the functions of a plug-in, starting the worker, and one call of the module under a
// supervisor. An invocation that fails, or is cancelled, is an exception.
#include "run/run.h"

#include <algorithm>
#include <chrono>

#include <fmt/format.h>

#include "cli/error.h"
#include "cli/keys.h"
#include "run/supervisor.h"

namespace pmi_cli {

namespace {

int register_function(const Function &function, unsigned int app_id) {
    switch (function.kind) {
    case OMRAPMI_FUNC_MERGE:
        return Omrapmi_worker_register_merge_func(function.merge, function.id, app_id);
    case OMRAPMI_FUNC_EVAL:
        return Omrapmi_worker_register_eval_func(function.eval, function.id, app_id);
    default:
        return Omrapmi_worker_register_invoke_once_eval_func(function.eval, function.id, app_id);
    }
}

// An invoke-once function is asked for under an app id of its own and runs on no object.
OMRAPMI_INVOKE_ARGS make_args(const Function &eval, const Function &merge,
                              const OMRAPMI_QUERY_SPEC &terms, const Options &options,
                              unsigned int app_id) {
    OMRAPMI_INVOKE_ARGS args{};
    args.app_id = eval.kind == OMRAPMI_FUNC_INVOKE_ONCE_EVAL ? MGTI_APPID_INVOKE_ONCE : app_id;
    args.func_id_eval = eval.id;
    args.func_id_merge = merge.id;
    args.pparams_obj = options.params.empty() ? nullptr : options.params.data();
    args.params_obj_len = static_cast<ULONG>(options.params.size());
    if (options.query) {
        args.use_query_spec = OMRAPMI_QUERY_PASS_THROUGH;
        args.pquery_spec = options.query->data();
        args.query_spec_len = static_cast<ULONG>(options.query->size());
    } else if (terms.num_index_specs != 0) {
        args.use_query_spec = OMRAPMI_QUERY_INDEX;
        args.pquery_spec = &terms;
        args.query_spec_len = sizeof terms;
    }
    args.timeout_s = options.timeout_s;
    args.use_exceptions = TRUE; // they are counted even where none is to be named
    return args;
}

// Returns what became of --lose-host.
std::string invoke(const StoreHandle &handle, OMRAPMI_INVOKE_ARGS &args, const Options &options,
                   const Objects &objects) {
    OMRAPMI_INVOKE_EXT_ARGS ext{};
    ext.event_app_id = objects.app_id();
    ext.ignore_sliding_timeouts = objects.are_temporary() ? TRUE : FALSE;
    const InvocationSupervisor supervisor(handle, options.lost_host);
    const int status = Omrapmi_invoke_ext(handle.get(), &args, &ext);
    if (status == OMRALIB_ERR_CANCELLED) {
        throw Cancelled(fmt::format("cancelled: {} done, {} failed", supervisor.objects_done(),
                                    supervisor.progress().num_failed));
    }
    check_status(status, "the invocation failed");
    return supervisor.lost_host_text();
}

} // namespace

void start_worker(const Plugin &plugin, const Options &options, unsigned int app_id) {
    for (const Function &function : plugin.functions) {
        check_status(register_function(function, app_id),
                     fmt::format("function '{}' cannot be registered", function.name));
    }
    check_status(Omrapmi_worker_init_ext(options.threads), "the worker cannot be set up");
    check_status(Omrapmi_worker_start(app_id), "the worker cannot be started");
}

Outcome run_invocation(const StoreHandle &handle, const Function &eval, const Function &merge,
                       const OMRAPMI_QUERY_SPEC &terms, const Options &options,
                       const Objects &objects) {
    OMRAPMI_INVOKE_ARGS args = make_args(eval, merge, terms, options, objects.app_id());
    Outcome outcome;
    const auto start = std::chrono::steady_clock::now();
    outcome.lost_host = invoke(handle, args, options, objects);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    Omralib_get_stats(&outcome.stats);
    outcome.result.reset(args.presults_obj_out);
    outcome.result_len = args.results_obj_len_out;
    outcome.num_successful = args.num_successful_out;
    outcome.num_failed = args.num_failed_out;
    outcome.seconds = elapsed.count();
    const std::unique_ptr<OMRAPMI_EXCEPTION, ModuleFree> exceptions(args.pexceptions_out);
    outcome.exceptions.assign(args.pexceptions_out, args.pexceptions_out + args.num_exceptions_out);
    std::stable_sort(outcome.exceptions.begin(), outcome.exceptions.end(),
                     [](const OMRAPMI_EXCEPTION &a, const OMRAPMI_EXCEPTION &b) {
                         return key_order(a.key, b.key) < 0;
                     });
    return outcome;
}

} // namespace pmi_cli
