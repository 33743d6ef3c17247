// Parameters, and the source of a merge, that are an object of any bytes, as a worker reads them;
// the request itself is in order.
#include "fuzzed_store.h"

void fuzzed_store::use(FuzzedDataProvider &data) {
    const bool is_once = data.ConsumeBool();
    const bool is_merge = !is_once && data.ConsumeBool();
    const int num_keys = is_merge ? 0 : is_once ? 1 : data.ConsumeIntegralInRange<int>(1, 9);
    OMRALIB_INVOKE_PARAMS request = fuzzed_store::good_request(num_keys);
    request.immediate_params = 0;
    request.merge_request = is_merge ? 1 : 0;
    if (is_once) {
        request.app_id = MGTI_APPID_INVOKE_ONCE;
        request.invoke_op = fuzzed_store::once_id;
    }
    fuzzed_store::deliver(fuzzed_store::guid, &request);
}
