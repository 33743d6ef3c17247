// The dispatcher: from a delivered request to its work in the queue, or to its completion as
// failed; and the start of the threads.
#include "module_test.h"

#include "dispatch/dispatcher.h"
#include "eval/store_merge.h"
#include "eval/worker_thread.h"
#include "runtime/descriptors.h"

#include <cstring>

namespace {

class Dispatch_test : public Stepped_test {
protected:
    // Ends a request without running its work.
    void finish(const std::vector<OMRAPMI_WDSC *> &work) const {
        OMRAPMI_IDSC *pidsc = work.at(0)->pidsc;
        for (OMRAPMI_WDSC *pwdsc : work) {
            Omrapmi_free_wdsc(pwdsc);
        }
        finish(pidsc);
    }
    void finish(OMRAPMI_IDSC *pidsc) const {
        const unsigned int context = pidsc->params.context;
        Omrapmi_worker_complete_invoke(hdl, pidsc);
        store::wait_complete(context);
    }
    // A request that the dispatcher must refuse to start.
    OMRAPMI_IDSC *refuse(const OMRALIB_INVOKE_PARAMS &params,
                         const std::vector<OMRA_OBJKEY> &keys) const {
        EXPECT_EQ(store::deliver(params, keys), 3);
        OMRAPMI_IDSC *pidsc = next_request();
        EXPECT_FALSE(Omrapmi_dispatcher(hdl, pidsc));
        EXPECT_EQ(next_work(), nullptr);
        return pidsc;
    }
};

TEST_F(Dispatch_test, AnEvalRequestBecomesWorkInKeyOrder) {
    const std::vector<OMRA_OBJKEY> keys = put_objects(6);
    const std::vector<OMRAPMI_WDSC *> work = dispatch(eval_request(5), keys);
    ASSERT_EQ(work.size(), 6u);
    EXPECT_EQ(std::memcmp(work[0]->pidsc->pdata_key_list, keys.data(), 6 * sizeof keys[0]), 0);
    for (unsigned int i = 0; i < 6; ++i) {
        EXPECT_TRUE(work[i] == work[0]->pidsc->ppwdsc_list[i] && work[i]->index == i);
    }
    finish(work);
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
    OMRAPMI_IDSC *pidsc_refused = refuse(singleton(3), keys);
    // Neither the refused one nor an ordinary one frees the place of the first.
    finish(pidsc_refused);
    finish(ordinary);
    EXPECT_EQ(pidsc_singleton, first.at(0)->pidsc);
    // Whoever is told that it is complete may start the next one.
    store::script.on_complete = [&] { EXPECT_EQ(pidsc_singleton, nullptr); };
    finish(first);
    finish(dispatch(singleton(4), keys));
}

TEST_F(Dispatch_test, WithoutMemoryForWorkNothingIsQueued) {
    const std::vector<OMRAPMI_WDSC *> work = dispatch(eval_request(5), put_objects(60));
    sys::script.malloc_countdown[OMRAPMI_TAG_WDSC_BATCH] = 1;
    OMRAPMI_IDSC *pidsc = refuse(eval_request(6), put_objects(60));
    EXPECT_EQ(sys::take_asserts(), "pwdsc != NULL|pwdsc != NULL");
    EXPECT_EQ(sys::free_descriptors().second, 4u);
    finish(pidsc);
    finish(work);
}

using Dispatch_live_test = Live_test;

TEST_F(Dispatch_live_test, RequestsThatCannotRunAreCompletedAsFailed) {
    const std::vector<OMRA_OBJKEY> keys = put_objects(10);
    OMRALIB_INVOKE_PARAMS unknown_eval = eval_request(5), foreign_eval = unknown_eval,
                          unknown_merge = unknown_eval, merge_unknown = merge_request(5, 0);
    unknown_eval.invoke_op = 64;
    params_ext(foreign_eval).event_app_id = 8;
    unknown_merge.merge_op = user::eval_id;
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
    for (const Case &c : cases) {
        SCOPED_TRACE(c.trace);
        if (c.params_obj != nullptr) {
            store::put(50, c.params_obj);
        }
        sys::take_traces();
        const bool merges = c.params.merge_request != 0;
        EXPECT_EQ(run(c.params, merges ? std::vector<OMRA_OBJKEY>{} : keys),
                  (store::Completion{0, merges ? 1u : 10u}));
        EXPECT_NE(sys::take_traces().find(std::string(c.trace) + "|[td 2]|"), std::string::npos);
    }
    EXPECT_EQ(sys::take_asserts(), "func_id < OMRAPMI_NUM_FUNC_IDS");
    // One that has no keys is completed, too.
    EXPECT_EQ(run(eval_request(5), {}), (store::Completion{0, 0}));
    EXPECT_EQ(sys::take_asserts(), "num_keys > 0|num_keys != 0");
    // An invoke-once eval for several keys would be completed for each of them.
    EXPECT_EQ(run(once_request(5), keys), (store::Completion{0, 10}));
    EXPECT_NE(sys::take_asserts().find("|num_keys == 1"), std::string::npos);
    EXPECT_EQ(store::bytes(901), "none");
}

TEST_F(Dispatch_live_test, TheFirstRequestStartsTheThreads) {
    EXPECT_EQ(sys::script.forks.size(), 1u);
    run(eval_request(5), put_objects(1));
    run(once_request(6), {OMRA_OBJKEY{}});
    sys::wait_idle_workers(4); // all have opened their handles
    EXPECT_EQ(sys::script.forks.size(), 5u);
    EXPECT_EQ(store::script.num_calls["open_ext"], 6u); // the test's own among them
}

// A dispatcher that cannot start up ends and leaves its request alone.
TEST_F(Dispatch_test, ThreadsThatCannotStartUp) {
    for (const bool no_handle : {true, false}) {
        ASSERT_EQ(store::deliver(merge_request(5, 1), {}), 3);
        OMRAPMI_IDSC *pidsc = next_request();
        Blockq_enq(&omrapmi_worker_state.idsc_blockq, &pidsc->link);
        if (no_handle) {
            store::script.answers = {{"open_ext", -1}};
        }
        sys::script.fork_countdown = 2;
        EXPECT_EQ(Omrapmi_thrd_dispatcher(nullptr), nullptr);
        EXPECT_EQ(sys::take_traces(),
                  std::string("Omrapmi worker: starting.") + (no_handle ? "|[td 0]" : "|[td 1] 1"));
        EXPECT_EQ(store::faults(), "a request left open|");
        finish(pidsc);
        sys::take_traces();
    }
    // The last of the worker threads says that there is none.
    for (unsigned int i = 0; i < 2; ++i) {
        store::script.answers = {{"open_ext", -1}};
        EXPECT_EQ(Omrapmi_thrd_worker(&omrapmi_worker_state.pworker_thrd_st[i]), nullptr);
    }
    EXPECT_EQ(sys::take_traces(),
              "[tw 1]|[tw 1]|Omrapmi worker: Warning: no worker thread could be started.");
}

} // namespace
