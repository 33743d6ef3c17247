// The dispatcher: from a delivered request to its work in the queue, or to its completion as
// failed; and threads that cannot start.
#include "module_test.h"

#include "dispatch/dispatcher.h"
#include "eval/store_merge.h"
#include "eval/worker_thread.h"
#include "runtime/descriptors.h"

namespace {

using interposer::script;
using interposer::take_reports;
using interposer::take_traces;

class Dispatch_test : public Stepped_test {
protected:
    // Ends a request without running its work.
    void finish(OMRAPMI_IDSC *pidsc, const std::vector<OMRAPMI_WDSC *> &work = {}) const {
        const unsigned int context = pidsc->params.context;
        for (OMRAPMI_WDSC *pwdsc : work) {
            Omrapmi_free_wdsc(pwdsc);
        }
        Omrapmi_worker_complete_invoke(hdl, pidsc);
        wait_complete(context);
    }
};

TEST_F(Dispatch_test, WorkIsInKeyOrderAndIgnoringTimeoutsMarksOrdinaryKeys) {
    const std::vector<OMRA_OBJKEY> keys = {world::key(1, 5), world::key(1, 0x0FFFFFFE),
                                           world::key(1, 0x0FFFFFFF), world::key(1, 0xD0000001)};
    OMRALIB_INVOKE_PARAMS params = eval_request(5);
    for (const bool ignores : {false, true}) {
        params_ext(params).ignore_sliding_timeouts = ignores;
        const std::vector<OMRAPMI_WDSC *> work = dispatch(params, keys);
        ASSERT_EQ(work.size(), 4u);
        OMRAPMI_IDSC *pidsc = work[0]->pidsc;
        for (unsigned int i = 0; i < 4; ++i) {
            EXPECT_TRUE(work[i] == pidsc->ppwdsc_list[i] && work[i]->index == i);
            const ULONG mark = ignores && i < 2 ? 0x70000000 : 0;
            EXPECT_EQ(pidsc->pdata_key_list[i].app_id, keys[i].app_id | mark);
        }
        finish(pidsc, work);
    }
}

using Dispatch_live_test = Live_test;

TEST_F(Dispatch_live_test, RequestsThatCannotRunAreCompletedAsFailed) {
    const std::vector<OMRA_OBJKEY> keys = put_objects(10);
    OMRALIB_INVOKE_PARAMS unknown_eval = eval_request(5), foreign_eval = unknown_eval,
                          unknown_merge = unknown_eval, merge_unknown = merge_request(5, 0);
    unknown_eval.invoke_op = 64;
    params_ext(foreign_eval).event_app_id = 8;
    unknown_merge.merge_op = set_functions::eval_id;
    merge_unknown.merge_op = 9;
    struct Case {
        OMRALIB_INVOKE_PARAMS params;
        const char *params_obj, *trace;
    };
    const Case cases[] = {
        {stored_params_request(5), nullptr, "[d 0] -109"},
        {stored_params_request(5), "seven b", "[d 0] -1351"},
        {stored_params_request(5), "", "[d 0] -1351"},
        {unknown_eval, nullptr, "[d 2] -1309"},
        {foreign_eval, nullptr,
         "eval function id 1 for app id 8, but was registered for app id 7|[d 2] -1353"},
        {unknown_merge, nullptr,
         "function id 1 of type 0, but was registered as type 1|[d 3] -1354"},
        {merge_request(5, 51), nullptr, "[d 0] -109"},
        {merge_unknown, nullptr, "unregistered function id 9|[d 3] -1352"},
    };
    run(eval_request(4), keys); // starts the threads
    EXPECT_EQ(interposer::num_forks(), 5u);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.trace);
        if (c.params_obj != nullptr) {
            world::put(50, c.params_obj);
        }
        take_traces();
        const bool merges = c.params.merge_request != 0;
        EXPECT_EQ(run(c.params, merges ? std::vector<OMRA_OBJKEY>{} : keys),
                  (Completion{0, merges ? 1u : 10u}));
        EXPECT_NE(take_traces().find(std::string(c.trace) + "|[td 2]|"), std::string::npos);
    }
    EXPECT_EQ(take_reports(), "func_id < OMRAPMI_NUM_FUNC_IDS");
    // One that has no keys is completed, too.
    EXPECT_EQ(run(eval_request(5), {}), (Completion{0, 0}));
    EXPECT_EQ(take_reports(), "num_keys > 0|num_keys != 0");
    // An invoke-once eval for several keys would be completed for each of them.
    EXPECT_EQ(run(once_request(5), keys), (Completion{0, 10}));
    EXPECT_NE(take_reports().find("|num_keys == 1"), std::string::npos);
    EXPECT_EQ(world::bytes(901), "none");
}

// A dispatcher that cannot start up ends and leaves its request alone.
TEST_F(Dispatch_test, ThreadsThatCannotStartUp) {
    const std::pair<interposer::Answer, const char *> cases[] = {
        {{"open_ext", OMRALIB_NULL_HANDLE}, "[td 0]"},
        {{"Thread_fork", 0}, "[td 1] 0"},
    };
    for (const auto &[answer, trace] : cases) {
        ASSERT_EQ(deliver(merge_request(5, 1), {}), 3);
        OMRAPMI_IDSC *pidsc = next_request();
        Blockq_enq(&omrapmi_worker_state.idsc_blockq, &pidsc->link);
        script({answer});
        EXPECT_EQ(Omrapmi_thrd_dispatcher(nullptr), nullptr);
        EXPECT_EQ(take_traces(), std::string("Omrapmi worker: starting.|") + trace);
        finish(pidsc);
        take_traces();
    }
    // The last of the worker threads says that there is none.
    const std::pair<unsigned int, const char *> ends[] = {
        {1, "[tw 0] 0"},
        {0, "[tw 1]|Omrapmi worker: Warning: no worker thread could be started."},
    };
    script({{"open_ext", OMRALIB_NULL_HANDLE}, {"Thread_datap_set", 0}});
    for (const auto &[index, trace] : ends) {
        EXPECT_EQ(Omrapmi_thrd_worker(&omrapmi_worker_state.pworker_thrd_st[index]), nullptr);
        EXPECT_EQ(take_traces(), trace);
    }
}

} // namespace
