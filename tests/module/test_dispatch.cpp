// The dispatcher: from a delivered request to its work in the queue, or to its completion as
// failed; and the start of the threads.
#include "module_test.h"

#include "dispatch/descriptors.h"
#include "dispatch/dispatcher.h"
#include "eval/store_merge.h"
#include "eval/worker_thread.h"

#include <cstring>

namespace {

class Dispatch_test : public Stepped_test {
protected:
    // Ends a request without running its work.
    void finish(const std::vector<OMRAPMI_WDSC *> &work) const {
        OMRAPMI_IDSC *pidsc = work.at(0)->pidsc;
        const unsigned int context = pidsc->params.context;
        for (OMRAPMI_WDSC *pwdsc : work) {
            Omrapmi_free_wdsc(pwdsc);
        }
        Omrapmi_worker_complete_invoke(hdl, pidsc);
        store::wait_complete(context);
    }
};

TEST_F(Dispatch_test, AnEvalRequestBecomesWorkInKeyOrder) {
    const std::vector<OMRA_OBJKEY> keys = put_objects(6);
    const OMRALIB_INVOKE_PARAMS params = eval_request(5, "parameters");
    const std::vector<OMRAPMI_WDSC *> work = dispatch(params, keys);
    ASSERT_EQ(work.size(), 6u);
    const OMRAPMI_IDSC &idsc = *work[0]->pidsc;
    EXPECT_EQ(std::memcmp(&idsc.params.context, &params.context, 163 - 28), 0);
    EXPECT_EQ(std::memcmp(idsc.pdata_key_list, keys.data(), 6 * sizeof keys[0]), 0);
    EXPECT_EQ(std::string(idsc.pparams_obj, idsc.params_obj_len), "parameters");
    EXPECT_EQ(idsc.user_exceptions.max_num, 6u);
    const ULONG succ_masks[] = {7, 0, 1, 0, 1, 0};
    for (unsigned int i = 0; i < 6; ++i) {
        EXPECT_TRUE(work[i] == idsc.ppwdsc_list[i] && work[i]->index == i && !work[i]->is_merge &&
                    !work[i]->is_invoke_once);
        EXPECT_EQ(idsc.psdsc_list[i].succ_mask, succ_masks[i]);
    }
    finish(work);
}

TEST_F(Dispatch_test, StoredParameters) {
    OMRALIB_INVOKE_PARAMS params = eval_request(5);
    params.immediate_params = 0;
    params.params_key = store::key(50);
    for (const std::string text : {"", "some parameters"}) {
        store::put(50, std::string("\7\0\0\0\0\0\0\0", 8) + text);
        const std::vector<OMRAPMI_WDSC *> work = dispatch(params, put_objects(1));
        const OMRAPMI_IDSC &idsc = *work.at(0)->pidsc;
        EXPECT_EQ(idsc.pparams_obj == nullptr, text.empty());
        EXPECT_EQ(std::string(idsc.pparams_obj ? idsc.pparams_obj : "", idsc.params_obj_len), text);
        finish(work);
    }
}

TEST_F(Dispatch_test, IgnoringTimeoutsMarksOrdinaryKeys) {
    const std::vector<OMRA_OBJKEY> keys = {store::key(1, 5), store::key(1, 0x0FFFFFFE),
                                           store::key(1, 0x0FFFFFFF), store::key(1, 0xD0000001)};
    OMRALIB_INVOKE_PARAMS params = eval_request(5);
    for (const bool ignores : {false, true}) {
        params_ext(params).ignore_sliding_timeouts = ignores;
        const std::vector<OMRAPMI_WDSC *> work = dispatch(params, keys);
        const OMRA_OBJKEY *pkeys = work.at(0)->pidsc->pdata_key_list;
        EXPECT_EQ(pkeys[0].app_id, ignores ? 0x70000005u : 5u);
        EXPECT_EQ(pkeys[1].app_id, ignores ? 0x7FFFFFFEu : 0x0FFFFFFEu);
        EXPECT_TRUE(pkeys[2].app_id == 0x0FFFFFFF && pkeys[3].app_id == 0xD0000001);
        finish(work);
    }
}

TEST_F(Dispatch_test, OneSingletonAtATime) {
    const std::vector<OMRA_OBJKEY> keys = put_objects(1);
    const auto singleton = [](unsigned int context) {
        OMRALIB_INVOKE_PARAMS params = eval_request(context);
        params_ext(params).is_singleton = 1;
        return params;
    };
    OMRAPMI_IDSC *&pidsc_singleton = omrapmi_worker_state.singleton_state.pidsc_singleton;
    const std::vector<OMRAPMI_WDSC *> first = dispatch(singleton(1), keys);
    const std::vector<OMRAPMI_WDSC *> ordinary = dispatch(eval_request(2), keys);
    sys::take_traces();
    ASSERT_EQ(store::deliver(singleton(3), keys), 3);
    OMRAPMI_IDSC *pidsc = next_request();
    EXPECT_FALSE(Omrapmi_dispatcher(hdl, pidsc));
    EXPECT_EQ(sys::take_traces(), "[d 1]");
    // Neither the refused one nor an ordinary one frees the place of the first.
    Omrapmi_worker_complete_invoke(hdl, pidsc);
    store::wait_complete(3);
    finish(ordinary);
    EXPECT_EQ(pidsc_singleton, first.at(0)->pidsc);
    finish(first);
    finish(dispatch(singleton(4), keys));
}

TEST_F(Dispatch_test, WithoutMemoryForWorkNothingIsQueued) {
    const std::vector<OMRAPMI_WDSC *> work = dispatch(eval_request(5), put_objects(60));
    ASSERT_EQ(store::deliver(eval_request(6), put_objects(60)), 3);
    OMRAPMI_IDSC *pidsc = next_request();
    sys::script.malloc_countdown[OMRAPMI_TAG_WDSC_BATCH] = 1;
    EXPECT_FALSE(Omrapmi_dispatcher(hdl, pidsc));
    EXPECT_EQ(sys::take_asserts().substr(0, 13), "pwdsc != NULL");
    EXPECT_EQ(sys::script.free_wdscs, 4u);
    EXPECT_EQ(next_work(), nullptr);
    Omrapmi_worker_complete_invoke(hdl, pidsc);
    store::wait_complete(6);
    finish(work);
}

using Dispatch_live_test = Live_test;

TEST_F(Dispatch_live_test, RequestsThatCannotRunAreCompletedAsFailed) {
    const std::vector<OMRA_OBJKEY> keys = put_objects(10);
    OMRALIB_INVOKE_PARAMS stored = eval_request(5);
    stored.immediate_params = 0;
    stored.params_key = store::key(50);
    OMRALIB_INVOKE_PARAMS unknown_eval = eval_request(5), foreign_eval = unknown_eval,
                          unknown_merge = unknown_eval, merge_unknown = merge_request(5, 0);
    unknown_eval.invoke_op = 64;
    params_ext(foreign_eval).event_app_id = 8;
    unknown_merge.merge_op = user::eval_id;
    merge_unknown.merge_op = 9;
    const std::string warning = "|Omrapmi worker: Warning: received ";
    const std::string accepting = "Omrapmi worker: accepting eval invreq 5 for app id 7.";
    const std::string failed = "|[td 2]|Omrapmi worker: completed eval invreq 5 for app id 7.";
    const std::string after = "|[td 2]|Omrapmi worker: completed eval invreq 5 after failure.";
    struct Case {
        OMRALIB_INVOKE_PARAMS params;
        const char *params_obj;
        std::string traces;
    };
    const std::vector<Case> cases = {
        {stored, nullptr, "[rgo 0] -109|[d 0] -109" + after},
        {stored, "seven b", "[d 0] -1351" + after},
        {stored, "", "[d 0] -1351" + after},
        {unknown_eval, nullptr, accepting + "|[d 2] -1309" + failed},
        {foreign_eval, nullptr,
         accepting + warning + "eval function id 1 for app id 8, but was registered for app id 7" +
             "|[d 2] -1353" + failed},
        {unknown_merge, nullptr,
         accepting + warning + "function id 1 of type 0, but was registered as type 1" +
             "|[d 3] -1354" + failed},
        {merge_request(5, 51), nullptr,
         "[rgo 0] -109|[d 0] -109|[td 2]|Omrapmi worker: completed merge invreq 5 after failure."},
        {merge_unknown, nullptr,
         "Omrapmi worker: accepting merge invreq 5 for app id 7." + warning +
             "unregistered function id 9|[d 3] -1352|[td 2]|"
             "Omrapmi worker: completed merge invreq 5 for app id 7."},
    };
    run(eval_request(4), keys); // starts the threads
    sys::take_traces();
    for (const Case &c : cases) {
        if (c.params_obj != nullptr) {
            store::put(50, c.params_obj);
        }
        const bool merges = c.params.merge_request != 0;
        EXPECT_EQ(run(c.params, merges ? std::vector<OMRA_OBJKEY>{} : keys),
                  (store::Completion{0, merges ? 1u : 10u}));
        EXPECT_EQ(sys::take_traces(), c.traces);
    }
    EXPECT_EQ(sys::take_asserts(), "func_id < OMRAPMI_NUM_FUNC_IDS");
    // One that has no keys is completed, too.
    EXPECT_EQ(run(eval_request(5), {}), (store::Completion{0, 0}));
    EXPECT_EQ(sys::take_asserts(), "num_keys > 0|num_keys != 0");
    EXPECT_EQ(store::bytes(901), "none");
}

TEST_F(Dispatch_live_test, TheFirstRequestStartsTheThreads) {
    EXPECT_EQ(sys::script.forks.size(), 1u);
    EXPECT_EQ(store::script.num_calls["open_ext"], 0u);
    run(eval_request(5), put_objects(1));
    run(once_request(6), {OMRA_OBJKEY{}});
    sys::wait_idle_workers(4); // all have opened their handles
    ASSERT_EQ(sys::script.forks.size(), 5u);
    for (unsigned int i = 0; i < 4; ++i) {
        void *const precord = &omrapmi_worker_state.pworker_thrd_st[i];
        EXPECT_EQ(sys::script.forks[i + 1], std::pair(&Omrapmi_thrd_worker, precord));
    }
    EXPECT_EQ(store::script.num_calls["open_ext"], 5u);
}

// A dispatcher that cannot start up ends and leaves its request alone.
TEST_F(Dispatch_test, ThreadsThatCannotStartUp) {
    for (const bool no_handle : {true, false}) {
        ASSERT_EQ(store::deliver(merge_request(5, 1), {}), 3);
        OMRAPMI_IDSC *pidsc = next_request();
        Blockq_enq(&omrapmi_worker_state.idsc_blockq, &pidsc->link);
        store::script.answers = {{no_handle ? "open_ext" : "none", 0}};
        sys::script.fork_countdown = 2;
        EXPECT_EQ(Omrapmi_thrd_dispatcher(nullptr), nullptr);
        EXPECT_EQ(sys::take_traces(),
                  std::string("Omrapmi worker: starting.") + (no_handle ? "|[td 0]" : "|[td 1] 1"));
        EXPECT_EQ(store::faults(), "a request left open|");
        Omralib_flush_invoke(5);
        store::wait_complete(5);
        Sys_free(pidsc->pfree0);
    }
    // The last of the worker threads says that there is none.
    sys::script.datap_result = -7;
    EXPECT_EQ(Omrapmi_thrd_worker(&omrapmi_worker_state.pworker_thrd_st[0]), nullptr);
    EXPECT_EQ(sys::take_traces(), "[tw 0] -7");
    sys::script.datap_result = 1;
    store::script.answers = {{"open_ext", 0}};
    EXPECT_EQ(Omrapmi_thrd_worker(&omrapmi_worker_state.pworker_thrd_st[1]), nullptr);
    EXPECT_EQ(sys::take_traces(),
              "[tw 1]|Omrapmi worker: Warning: no worker thread could be started.");
    EXPECT_EQ(sys::script.num_thread_ends, 4u);
}

} // namespace
