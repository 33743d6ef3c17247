// An exceptions object of any bytes and any length: as a worker finds it when it has exceptions to
// append, and as the invoker collects it.
#include <vector>

#include "eval/exceptions.h"
#include "eval/store_merge.h"
#include "fuzzed_store.h"
#include "invoker/collect.h"

namespace {

void append(FuzzedDataProvider &data) {
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
    const OMRA_OBJKEY key = fuzzed_store::draw_key(data);
    Omrapmi_save_user_exceptions(1, &key, data.ConsumeIntegral<unsigned int>(), &exceptions);
}

void collect(FuzzedDataProvider &data) {
    OMRA_INVOKE_RESULT result = {};
    result.num_failed = data.ConsumeIntegral<ULONG>();
    result.exceptions_key = fuzzed_store::draw_key(data);
    OMRA_OBJKEY params_key = {};
    char *presults = nullptr;
    unsigned int results_len = 0;
    OMRAPMI_EXCEPTION *pexceptions = nullptr;
    unsigned int num_exceptions = 0;
    Omrapmi_invoker_post(1, &params_key, TRUE, &result, &presults, &results_len, &pexceptions,
                         &num_exceptions);
    fuzz::touch(pexceptions, std::size_t{num_exceptions} * sizeof *pexceptions);
    Omrapmi_free(pexceptions);
}

} // namespace

void fuzzed_store::use(FuzzedDataProvider &data) {
    if (data.ConsumeBool()) {
        append(data);
    } else {
        collect(data);
    }
}
