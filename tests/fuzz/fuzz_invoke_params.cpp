// Any OMRALIB_INVOKE_PARAMS into the module's invoke callback, and what becomes of it: counts that
// are negative or huge, parameters packed with any length, any function ids, any flags.
#include "fuzzed_store.h"

namespace {

int draw_num_keys(FuzzedDataProvider &data) {
    static constexpr int numbers[] = {-1, INT32_MIN, INT32_MAX, 65, 100'000, 20'000'000};
    switch (data.ConsumeIntegralInRange<int>(0, 3)) {
    case 0:
        return data.PickValueInArray(numbers);
    case 1:
        return data.ConsumeIntegral<int>();
    default:
        return data.ConsumeIntegralInRange<int>(0, 20);
    }
}

ULONGLONG draw_op(FuzzedDataProvider &data) {
    return data.ConsumeIntegralInRange<int>(0, 7) == 1
               ? data.ConsumeIntegral<ULONGLONG>()
               : data.ConsumeIntegralInRange<ULONGLONG>(0, 4);
}

OMRALIB_INVOKE_PARAMS draw_request(FuzzedDataProvider &data) {
    static constexpr unsigned int app_ids[] = {fuzzed_store::app, MGTI_APPID_INVOKE_ONCE, 0,
                                               0xFFFFFFFF};
    OMRALIB_INVOKE_PARAMS request = {};
    request.app_id = data.PickValueInArray(app_ids);
    request.invoke_op = draw_op(data);
    request.merge_op = draw_op(data);
    request.num_keys = draw_num_keys(data);
    request.context = data.ConsumeIntegral<unsigned int>();
    request.invoke_timeout = data.ConsumeIntegral<unsigned int>();
    request.svr_host_id = data.ConsumeIntegral<unsigned int>();
    request.params_key = fuzzed_store::draw_key(data);
    request.results_key = fuzzed_store::draw_key(data);
    request.exceptions_key = fuzzed_store::draw_key(data);
    request.immediate_params = data.ConsumeIntegral<UCHAR>();
    request.merge_request = data.ConsumeBool() ? data.ConsumeIntegral<UCHAR>() : 0;
    request.verno_supplied = data.ConsumeIntegral<UCHAR>();
    if (data.ConsumeBool()) { // else hardly any request would find its functions
        request.params_key.app_id = fuzzed_store::app;
    }
    return request;
}

} // namespace

void fuzzed_store::use(FuzzedDataProvider &data) {
    const OMRALIB_INVOKE_PARAMS request = draw_request(data);
    static constexpr char other_guid[OMRALIB_GUID_LEN] = "somebody else";
    const int which = data.ConsumeIntegralInRange<int>(0, 7);
    fuzzed_store::deliver(which == 7   ? nullptr
                          : which == 6 ? other_guid
                                       : fuzzed_store::guid,
                          which == 5 ? nullptr : &request);
}
