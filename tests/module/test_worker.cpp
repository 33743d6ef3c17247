// The worker's set-up, its attachment to the store, the function table, the descriptor pools, and
// the queries of threads that are no worker threads.
#include "module_test.h"

#include "dispatch/dispatcher.h"
#include "runtime/descriptors.h"
#include "runtime/functbl.h"
#include "sysapp.h"

#include <cstring>

namespace {

class Init_test : public Module_test {
protected:
    void SetUp() override {
        Module_test::SetUp();
        sys::script.threads_held = true;
    }
};

struct Count_case {
    unsigned int num_lprocs, argument;
    BOOLEAN in_svc;
    int expected;
};
class Thread_count_test : public Init_test, public testing::WithParamInterface<Count_case> {};

TEST_P(Thread_count_test, IsChosenOnce) {
    const Count_case &c = GetParam();
    sys::script.num_lprocs = c.num_lprocs;
    omrapmi_in_svc = c.in_svc;
    EXPECT_EQ(Omrapmi_worker_init_ext(c.argument), 1);
    EXPECT_EQ(Omrapmi_worker_init_ext(4), 1);
    EXPECT_EQ(Omrapmi_get_worker_thread_count(), c.expected);
    EXPECT_EQ(sys::take_traces(), "Omrapmi worker: initialized for use with " +
                                      std::to_string(c.expected) + " worker thread(s).");
    // The dispatcher was started, and no worker thread yet.
    ASSERT_EQ(sys::script.forks.size(), 1u);
    EXPECT_EQ(sys::script.forks[0].first, &Omrapmi_thrd_dispatcher);
}

INSTANTIATE_TEST_SUITE_P(Rules, Thread_count_test,
                         testing::Values(Count_case{31, 0, 0, 32}, Count_case{40, 0, 0, 32},
                                         Count_case{~0u, 0, 0, 2}, Count_case{1, 100, 0, 100},
                                         Count_case{7, 8, 1, 1}));

TEST_F(Init_test, AFailedAttemptIsRepeatedCleanly) {
    store::script.answers = {{"init", -101}};
    EXPECT_EQ(Omrapmi_get_worker_thread_count(), -101);
    sys::script.malloc_countdown[OMRAPMI_TAG_WORKER_THRDS] = 1;
    EXPECT_EQ(Omrapmi_worker_init_ext(3), -1302);
    sys::script.fork_countdown = 1;
    EXPECT_EQ(Omrapmi_worker_init_ext(4), -1301);
    EXPECT_EQ(sys::take_traces(), "[wie 0] -101|[gwtc 0] -101|[wie 1]|[wie 2]");
    EXPECT_EQ(Sys_get_mem_use(OMRAPMI_TAG_WORKER_THRDS).blocks, 0u);
    EXPECT_EQ(Omrapmi_worker_init_ext(5), 1);
    EXPECT_EQ(Omrapmi_get_worker_thread_count(), 5);
    EXPECT_EQ(sys::free_descriptors(), sys::all_free);

    sys::script.malloc_countdown[OMRAPMI_TAG_FUNCTBL] = 1;
    EXPECT_EQ(Omrapmi_worker_register_eval_func(user::eval_func, 1, 7), -1302);
    EXPECT_EQ(Omrapmi_worker_register_eval_func(user::eval_func, 1, 7), 1);
}

TEST_F(Init_test, AllThreadsMayComeFirst) {
    std::vector<std::thread> thrds;
    for (unsigned int i = 0; i < 4; ++i) {
        thrds.emplace_back([] {
            EXPECT_EQ(Omrapmi_worker_start(7), 1);
            EXPECT_EQ(Omrapmi_worker_register_eval_func(user::eval_func, 1, 7), 1);
        });
    }
    for (std::thread &thrd : thrds) {
        thrd.join();
    }
    EXPECT_EQ(sys::script.forks.size(), 1u);
    EXPECT_EQ(store::script.num_calls["register_cb"], 2u);
    EXPECT_EQ(Sys_get_mem_use(OMRAPMI_TAG_FUNCTBL).blocks, 1u);
}

TEST_F(Init_test, StartAndStopTellTheStore) {
    for (const unsigned int app_id : {0x10000000u, 0x40000001u, ~0u}) {
        EXPECT_EQ(Omrapmi_worker_start(app_id), -1307);
        EXPECT_EQ(Omrapmi_worker_stop(app_id), -1307);
    }
    store::script.answers = {{"register_cb", -101, "4"}};
    EXPECT_EQ(Omrapmi_worker_start(7), -101); // and the callbacks are registered again
    EXPECT_EQ(store::take_log(), "register_cb 3|register_cb 4");
    EXPECT_EQ(Omrapmi_worker_start(0x30000002), 1);
    EXPECT_EQ(store::take_log(), "register_cb 3|register_cb 4|open_ext pmicli|register_appname_hdl "
                                 "__OMRA_appname_system_backrest|start 805306370|close");
    sys::take_traces();
    EXPECT_EQ(Omrapmi_worker_init(0x0FFFFFFF), 1);
    EXPECT_EQ(Omrapmi_worker_stop(0x0FFFFFFF), 1);
    EXPECT_EQ(store::take_log(),
              "open_ext pmicli|start 268435455|close|open_ext pmicli|stop 268435455|close");
    EXPECT_EQ(sys::take_traces(),
              "Omrapmi worker: started invocation handling for app id 268435455.|"
              "Omrapmi worker: stopped invocation handling for app id 268435455.");
    store::script.answers = {{"register_appname_hdl", -111}}; // bound already
    EXPECT_EQ(Omrapmi_worker_register_app_name(hdl, 0x40000001), 1);
    EXPECT_EQ(store::take_log(), "register_appname_hdl __OMRA_appname_invoke_once");

    store::script.answers = {{"register_appname_hdl", -103}};
    EXPECT_EQ(Omrapmi_worker_register_app_name(hdl, 0x40000001), -103);
    store::take_log();

    // Every step is tried; the first failure of starting decides, and stopping reports success.
    store::script.answers = {{"register_appname_hdl", -103}, {"start", -102}};
    EXPECT_EQ(Omrapmi_worker_start(0x30000002), -103);
    store::script.answers = {{"stop", -103}};
    EXPECT_EQ(Omrapmi_worker_stop(7), 1);
    store::script.answers = {{"open_ext", -1}};
    EXPECT_EQ(Omrapmi_worker_start(7), -1304);
    EXPECT_EQ(store::take_log(),
              "open_ext pmicli|register_appname_hdl __OMRA_appname_system_backrest|start 805306370|"
              "close|open_ext pmicli|stop 7|close|open_ext pmicli");
    EXPECT_EQ(sys::take_asserts(), "ret != OMRALIB_ERR_BAD_HANDLE|ret != OMRALIB_ERR_HANDLE_BUSY");
}

using Functbl_test = Module_test;

TEST_F(Functbl_test, AnIdIsTakenOnceAndLookUpChecksAppIdBeforeType) {
    const OMRAPMI_EVAL_FUNCP eval = user::eval_func;
    EXPECT_EQ(Omrapmi_worker_register_eval_func(nullptr, 64, 7), -1306);
    EXPECT_EQ(Omrapmi_worker_register_eval_func(eval, 64, 7), -1309);
    EXPECT_EQ(Omrapmi_worker_register_eval_func(eval, 0, 7), 1);
    EXPECT_EQ(Omrapmi_worker_register_eval_func(eval, 0, 7), 1);
    EXPECT_EQ(Omrapmi_worker_register_eval_func(eval, 0, 8), -1305);
    EXPECT_EQ(Omrapmi_worker_register_invoke_once_eval_func(eval, 0, 7), -1305);
    const OMRAPMI_MERGE_FUNCP merge = [](auto...) { return 0; };
    EXPECT_EQ(Omrapmi_worker_register_merge_func(merge, 63, 7), 1);

    const struct {
        unsigned int id, app_id;
        OMRAPMI_FUNC_TYPE type;
        int expected;
    } look_ups[] = {
        {0, 7, OMRAPMI_FUNC_EVAL, 1},      {63, 8, OMRAPMI_FUNC_MERGE, 1},
        {1, 7, OMRAPMI_FUNC_EVAL, -1352},  {0, 8, OMRAPMI_FUNC_INVOKE_ONCE_EVAL, -1353},
        {0, 8, OMRAPMI_FUNC_MERGE, -1354}, {0, 7, OMRAPMI_FUNC_INVOKE_ONCE_EVAL, -1354},
    };
    for (const auto &c : look_ups) {
        void *pfunc = &hdl;
        EXPECT_EQ(Omrapmi_func_table_get(c.id, c.app_id, c.type, &pfunc), c.expected);
        EXPECT_EQ(pfunc == &hdl, c.expected != 1);
    }
}

TEST_F(Init_test, PoolsGrowByBatchesAndReset) {
    ASSERT_EQ(Omrapmi_worker_init_ext(1), 1);
    std::vector<OMRAPMI_IDSC *> idscs;
    for (unsigned int i = 0; i < 65; ++i) {
        EXPECT_NE(Omrapmi_get_wdsc(), nullptr);
    }
    for (unsigned int i = 0; i < 9; ++i) {
        idscs.push_back(Omrapmi_get_idsc());
    }
    EXPECT_EQ(sys::free_descriptors(), std::pair(15u, 127u));

    // A used descriptor comes back as fresh as an unused one.
    OMRAPMI_EXCEPTION exception;
    OMRAPMI_IDSC &idsc = *idscs[8];
    idsc.params = merge_request(1, 2);
    idsc.pparams_ext = &params_ext(idsc.params);
    idsc.num_successful = idsc.num_failed = idsc.user_exceptions.num = 9;
    idsc.pfree1 = idsc.user_exceptions.plist = &exception;
    Omrapmi_free_idsc(&idsc);
    EXPECT_EQ(sys::free_descriptors(), std::pair(16u, 127u));
    const OMRALIB_INVOKE_PARAMS none = {};
    EXPECT_EQ(std::memcmp(&idsc.params, &none, 163), 0);
    EXPECT_TRUE(!idsc.pparams_ext && !idsc.pfree1 && !idsc.user_exceptions.plist &&
                idsc.user_exceptions.num == 0 && idsc.num_successful == 0 && idsc.num_failed == 0);
}

using Callback_test = Stepped_test;

TEST_F(Callback_test, ARefusalLeavesNothingBehind) {
    const std::vector<OMRA_OBJKEY> keys = put_objects(2);
    store::script.answers = {{"get_invoke_keys", -109}};
    EXPECT_EQ(store::deliver(eval_request(5), keys), -3);
    sys::script.malloc_countdown[OMRAPMI_TAG_REQUEST] = 1;
    EXPECT_EQ(store::deliver(eval_request(5), keys), -4);
    sys::script.malloc_countdown[OMRAPMI_TAG_REQUEST] = 1;
    EXPECT_EQ(store::deliver(merge_request(5, 0), {}), -4);
    OMRALIB_INVOKE_PARAMS negative = eval_request(5);
    negative.num_keys = -1;
    EXPECT_EQ(Omrapmi_invoke_ext_cb("pmicli\0\0\0\0\0\0\0\0\0", &negative), -4);
    EXPECT_EQ(sys::free_descriptors(), sys::all_free);
    while (sys::free_descriptors().first > 0) {
        Omrapmi_get_idsc();
    }
    sys::script.malloc_countdown[OMRAPMI_TAG_IDSC_BATCH] = 1;
    EXPECT_EQ(store::deliver(eval_request(5), keys), -4);
    EXPECT_EQ(sys::take_traces(), "[ic 2] -109|[ic 1]|[ic 1]|[ic 1]|[ic 0]");
    EXPECT_EQ(sys::take_asserts(), "pidsc != NULL");
    EXPECT_EQ(next_request(), nullptr);
}

using Context_test = Stepped_test;

TEST_F(Context_test, OnlyWorkerThreadsGetAnswers) {
    OMRA_OBJKEY key = store::key(5);
    unsigned int host_id = 5;
    EXPECT_EQ(Omrapmi_get_key(nullptr), -1306);
    EXPECT_EQ(Omrapmi_worker_get_svr_host_id(nullptr), -1306);
    EXPECT_EQ(Omrapmi_get_key(&key), -1312);
    EXPECT_EQ(Omrapmi_get_worker_thread_index(), -1312);

    // A record that is none, or not this thread's.
    OMRAPMI_WORKER_THRD_STATE *const records = omrapmi_worker_state.pworker_thrd_st;
    records[0].tmyid = Thread_myid();
    records[0].index = 1;
    const std::pair<void *, const char *> foreign[] = {
        {reinterpret_cast<char *>(records) - 1, "[wtsg 2]"},
        {records + 2, "[wtsg 3]"},
        {&records[0].tid, "[wtsg 4]"},
        {&records[0], "[wtsg 4] 0"}, // by its index another one
        {&records[1], "[wtsg 7] 0"}, // another thread's
    };
    for (const auto &[pdata, trace] : foreign) {
        Thread_datap_set(pdata);
        sys::take_traces();
        EXPECT_EQ(Omrapmi_get_key(&key), -1312);
        EXPECT_EQ(sys::take_traces().rfind(trace, 0), 0u) << trace;
    }
    EXPECT_TRUE(same_key(key, store::key(5)));

    // A worker thread between two pieces of work.
    records[1].tmyid = Thread_myid();
    EXPECT_EQ(Omrapmi_get_key(&key), 1);
    EXPECT_TRUE(same_key(key, OMRA_OBJKEY{}));
    EXPECT_EQ(Omrapmi_get_worker_thread_index(), 1);
    EXPECT_EQ(Omrapmi_worker_get_svr_host_id(&host_id), -1312);
    EXPECT_EQ(host_id, 5u);
    EXPECT_EQ(sys::take_asserts(), "pworker_thrd_st->pwdsc != NULL");
}

} // namespace
