// The worker's set-up, its attachment to the store, the function table, and the queries of threads
// that are no worker threads.
#include "module_test.h"

#include "sysapp.h"

namespace {

using interposer::instead;
using interposer::script;
using interposer::take_log;
using interposer::take_reports;

class Init_test : public Module_test {
protected:
    void SetUp() override {
        Module_test::SetUp();
        instead<Thread_fork> = [](void *(*)(void *), void *) { return THREADID{1}; };
    }
};

// By the processors, the argument and whether the module is inside a service, in a process each.
TEST_F(Init_test, TheNumberOfThreadsIsChosenOnce) {
    const struct {
        unsigned int num_lprocs, argument;
        BOOLEAN in_svc;
        int expected;
    } cases[] = {{31, 0, 0, 32}, {40, 0, 0, 32}, {~0u, 0, 0, 2}, {1, 100, 0, 100}, {7, 8, 1, 1}};
    for (const auto &each : cases) {
        const auto set_up = [&] {
            instead<Sys_get_num_lprocs> = [&] { return each.num_lprocs; };
            omrapmi_in_svc = each.in_svc;
            EXPECT_EQ(Omrapmi_worker_init_ext(each.argument), 1);
            EXPECT_EQ(Omrapmi_worker_init_ext(4), 1);
            EXPECT_EQ(interposer::num_forks(), 1u); // the dispatcher
            EXPECT_EQ(Omrapmi_get_worker_thread_count(), each.expected);
            std::exit(HasFailure() ? 1 : 0);
        };
        EXPECT_EXIT(set_up(), testing::ExitedWithCode(0), "");
    }
}

TEST_F(Init_test, StartAndStopTellTheStore) {
    for (const unsigned int app_id : {0x10000000u, 0x40000001u, ~0u}) {
        EXPECT_TRUE(Omrapmi_worker_start(app_id) == -1307 && Omrapmi_worker_stop(app_id) == -1307);
    }
    for (const char *type : {"3", "4"}) { // and then both are registered again
        script({{"register_cb", -101, type}});
        EXPECT_EQ(Omrapmi_worker_start(7), -101);
    }
    EXPECT_EQ(Omrapmi_worker_init(0x30000002), 1);
    EXPECT_EQ(take_log(), "register_cb 3|register_cb 3|register_cb 4|register_cb 3|register_cb 4|"
                          "open_ext pmicli|register_appname_hdl __OMRA_appname_system_backrest 30|"
                          "start_app_event_handling 805306370|close");
    EXPECT_TRUE(Omrapmi_worker_start(0x0FFFFFFF) == 1 && Omrapmi_worker_stop(0x0FFFFFFF) == 1);
    EXPECT_EQ(take_log(), "open_ext pmicli|start_app_event_handling 268435455|close|"
                          "open_ext pmicli|stop_app_event_handling 268435455|close");
    // Bound already, or not to be bound.
    script({{"register_appname_hdl", -111}, {"register_appname_hdl", -103}});
    EXPECT_EQ(Omrapmi_worker_register_app_name(hdl, 0x40000001), 1);
    EXPECT_EQ(take_log(), "register_appname_hdl __OMRA_appname_invoke_once 26");
    EXPECT_EQ(Omrapmi_worker_register_app_name(hdl, 0x40000001), -103);
    // Every step is tried; the first failure of starting decides, and stopping reports success.
    script({{"register_appname_hdl", -197}, {"start_app_event_handling", -198}, {"close", -199}});
    EXPECT_EQ(Omrapmi_worker_start(0x30000002), -197);
    script({{"start_app_event_handling", -198}, {"stop_app_event_handling", -198}});
    EXPECT_TRUE(Omrapmi_worker_start(7) == -198 && Omrapmi_worker_stop(7) == 1);
    script({{"open_ext", -1}, {"open_ext", -1}});
    EXPECT_TRUE(Omrapmi_worker_start(7) == -1304 && Omrapmi_worker_stop(7) == -1304);
}

TEST_F(Init_test, AFunctionIdIsTakenOnce) {
    const OMRAPMI_EVAL_FUNCP eval = set_functions::eval;
    EXPECT_EQ(Omrapmi_worker_register_eval_func(nullptr, 64, 7), -1306);
    EXPECT_EQ(Omrapmi_worker_register_eval_func(eval, 64, 7), -1309);
    EXPECT_EQ(Omrapmi_worker_register_eval_func(eval, 63, 7), 1);
    EXPECT_EQ(Omrapmi_worker_register_eval_func(eval, 63, 7), 1);
    EXPECT_EQ(Omrapmi_worker_register_eval_func(eval, 63, 8), -1305);
    EXPECT_EQ(Omrapmi_worker_register_invoke_once_eval_func(eval, 63, 7), -1305);
}

TEST_F(Init_test, OnlyWorkerThreadsGetAnswers) {
    ASSERT_EQ(Omrapmi_worker_init_ext(2), 1);
    OMRA_OBJKEY key = world::key(5);
    unsigned int host_id = 5;
    EXPECT_EQ(Omrapmi_get_key(nullptr), -1306);
    EXPECT_EQ(Omrapmi_worker_get_svr_host_id(nullptr), -1306);

    // No record, one that is none, or not this thread's: by its index another one, another
    // thread's.
    OMRAPMI_WORKER_THRD_STATE *const records = omrapmi_worker_state.pworker_thrd_st;
    records[0].tmyid = Thread_myid();
    records[0].index = 1;
    for (void *pdata :
         std::initializer_list<void *>{nullptr, reinterpret_cast<char *>(records) - 1, records + 2,
                                       &records[0].tid, &records[0], &records[1]}) {
        Thread_datap_set(pdata);
        EXPECT_EQ(Omrapmi_get_key(&key), -1312);
        EXPECT_EQ(Omrapmi_get_worker_thread_index(), -1312);
    }
    EXPECT_EQ(key.obj_id.u64_comp[0], 5u);

    // A worker thread between two pieces of work.
    records[1].tmyid = Thread_myid();
    EXPECT_EQ(Omrapmi_get_key(&key), 1);
    EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(key));
    EXPECT_EQ(Omrapmi_get_worker_thread_index(), 1);
    EXPECT_EQ(Omrapmi_worker_get_svr_host_id(&host_id), -1312);
    EXPECT_EQ(host_id, 5u);
    EXPECT_EQ(take_reports(), "pworker_thrd_st->pwdsc != NULL");
}

} // namespace
