#include "run.h"

#include <algorithm>
#include <chrono>

#include <fmt/format.h>

#include "error.h"
#include "progress.h"

namespace pmi_cli {

namespace {

std::uint64_t num_reads() {
    OMRALIB_STATS stats{};
    Omralib_get_stats(&stats);
    return stats.num_reads;
}

int register_function(const Function &function) {
    switch (function.kind) {
    case OMRAPMI_FUNC_MERGE:
        return Omrapmi_worker_register_merge_func(function.merge, function.id, kAppId);
    case OMRAPMI_FUNC_EVAL:
        return Omrapmi_worker_register_eval_func(function.eval, function.id, kAppId);
    default:
        return Omrapmi_worker_register_invoke_once_eval_func(function.eval, function.id, kAppId);
    }
}

// An invoke-once function is asked for under an app id of its own and runs on no object.
int invoke(const StoreHandle &handle, const Function &eval, OMRAPMI_INVOKE_ARGS &args,
           std::uint64_t num_objects) {
    const bool once = eval.kind == OMRAPMI_FUNC_INVOKE_ONCE_EVAL;
    OMRAPMI_INVOKE_EXT_ARGS ext{};
    ext.event_app_id = kAppId;
    args.app_id = once ? MGTI_APPID_INVOKE_ONCE : kAppId;
    const std::uint64_t reads_before = num_reads();
    const ProgressWatch watch("evaluated", [=] {
        // Parameters and results are objects, too.
        return std::min(num_reads() - reads_before, num_objects);
    });
    return Omrapmi_invoke_ext(handle.get(), &args, &ext);
}

} // namespace

void start_worker(const Plugin &plugin, const Options &options) {
    for (const Function &function : plugin.functions) {
        check_status(register_function(function),
                     fmt::format("function '{}' cannot be registered", function.name));
    }
    check_status(Omrapmi_worker_init_ext(options.threads), "the worker cannot be set up");
    check_status(Omrapmi_worker_start(kAppId), "the worker cannot be started");
}

Outcome run_invocation(const StoreHandle &handle, const Function &eval, const Function &merge,
                       const OMRAPMI_QUERY_SPEC &query, const Options &options,
                       const Objects &objects) {
    OMRAPMI_INVOKE_ARGS args{};
    args.func_id_eval = eval.id;
    args.func_id_merge = merge.id;
    args.pparams_obj = options.params.empty() ? nullptr : options.params.data();
    args.params_obj_len = static_cast<ULONG>(options.params.size());
    if (query.num_index_specs != 0) {
        args.use_query_spec = OMRAPMI_QUERY_INDEX;
        args.pquery_spec = &query;
        args.query_spec_len = sizeof query;
    }
    args.timeout_s = options.timeout_s;
    args.use_exceptions = options.num_exceptions == 0 ? FALSE : TRUE;

    const auto start = std::chrono::steady_clock::now();
    check_status(invoke(handle, eval, args, objects.size()), "the invocation failed");
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;

    Outcome outcome;
    outcome.result.reset(args.presults_obj_out);
    outcome.result_len = args.results_obj_len_out;
    outcome.num_successful = args.num_successful_out;
    outcome.num_failed = args.num_failed_out;
    outcome.seconds = elapsed.count();
    const std::unique_ptr<OMRAPMI_EXCEPTION, ModuleFree> exceptions(args.pexceptions_out);
    outcome.exceptions.assign(args.pexceptions_out, args.pexceptions_out + args.num_exceptions_out);
    std::stable_sort(outcome.exceptions.begin(), outcome.exceptions.end(),
                     [&objects](const OMRAPMI_EXCEPTION &a, const OMRAPMI_EXCEPTION &b) {
                         return objects.number(a.key) < objects.number(b.key);
                     });
    return outcome;
}

} // namespace pmi_cli
