/* What the store has done so far. */
#include "client/calls.h"
#include "sysapp.h"

using namespace store;

namespace {

/* Everything that is allocated by tags belongs to invocations. */
std::size_t num_invocation_bytes() {
    std::size_t num_bytes = 0;
    for (unsigned int tag = 0; tag <= UINT8_MAX; ++tag) {
        num_bytes += Sys_get_mem_use(tag).bytes;
    }
    return num_bytes;
}

} // namespace

int Omralib_get_stats(OMRALIB_STATS *pstats_out) {
    return with_store([&](Store &store) -> int {
        if (pstats_out == nullptr) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        Totals totals;
        Activity activity;
        Status status = store.objects().totals(totals);
        if (status == OMRALIB_RET_SUCCESS) {
            status = store.objects().activity(activity);
        }
        if (status != OMRALIB_RET_SUCCESS) {
            return status;
        }
        pstats_out->num_objects = totals.num_objects;
        pstats_out->num_bytes = totals.num_bytes;
        pstats_out->num_reads = store.handles.num_reads();
        pstats_out->num_lock_waits = activity.num_lock_waits;
        pstats_out->num_expired = activity.num_expired;
        const InvocationFigures &invocations = store.invocations.figures();
        pstats_out->num_invocations = invocations.num_finished;
        pstats_out->num_invocations_running = invocations.num_running;
        pstats_out->num_evaluated = invocations.num_evaluated;
        pstats_out->num_folds = invocations.num_folds;
        pstats_out->num_refusals = invocations.num_refusals;
        pstats_out->num_retries = invocations.num_retries;
        pstats_out->invocation_us = invocations.time_us;
        pstats_out->num_invocation_bytes = num_invocation_bytes();
        return OMRALIB_RET_SUCCESS;
    });
}

int Omralib_get_app_stats(unsigned int app_id, OMRALIB_APP_STATS *pstats_out) {
    return with_store([&](Store &store) -> int {
        if (pstats_out == nullptr) {
            return OMRALIB_ERR_BAD_ARGS;
        }
        Totals totals;
        const Status status = store.objects().totals_of(app_id, totals);
        if (status == OMRALIB_RET_SUCCESS) {
            *pstats_out = {totals.num_objects, totals.num_bytes};
        }
        return status;
    });
}
