// What a store answers to an invocation, of any bytes and any length, as the invoker reads it, with
// the objects that it names.
#include <string>
#include <vector>

#include "fuzzed_store.h"

void fuzzed_store::use(FuzzedDataProvider &data) {
    const std::vector<char> params(data.ConsumeIntegralInRange<std::size_t>(0, 40), 'p');
    OMRAPMI_QUERY_SPEC spec = {};
    OMRAPMI_INVOKE_ARGS args = {};
    args.app_id = fuzzed_store::app;
    args.func_id_eval = fuzzed_store::eval_id;
    args.func_id_merge = fuzzed_store::merge_id;
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
    fuzzed_store::invoke(args);
}
