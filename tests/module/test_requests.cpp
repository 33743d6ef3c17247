// What becomes of a request: whether it can run, what evals and merges leave in the store, and in
// which order. There is one worker thread; what holds in every order of threads is for the
// schedules to find, and what becomes of failures everywhere for the fault sweeps.
#include "module_test.h"

#include "eval/exceptions.h"
#include "objects/objects.h"

namespace {

using interposer::Answer;
using interposer::instead;
using interposer::real;
using interposer::script;
using interposer::take_log;
using interposer::take_reports;
using interposer::take_traces;
using set_functions::result_bytes;
using set_functions::set_of;

class Request_test : public Module_test {
protected:
    void SetUp() override {
        Module_test::SetUp();
        ASSERT_EQ(Omrapmi_worker_init_ext(1), 1);
        ASSERT_TRUE(set_functions::register_all(world::app));
        run(eval_request(4), {}); // starts the threads
        take_reports();
        take_traces();
    }
    // Runs a request until nothing of it is left.
    static Completion run(const OMRALIB_INVOKE_PARAMS &params, const Keys &keys) {
        take_log();
        const Completion completion = run_request(params, keys);
        wait_until([] { return interposer::ledger() == interposer::Ledger{}; });
        return completion;
    }
    static Completion eval(unsigned int num_keys) {
        return run(eval_request(5), put_objects(num_keys));
    }
    static void put_result(const std::vector<unsigned int> &objects) {
        world::put(900, result_bytes(set_of(objects)));
    }
    static void expect_result(const std::vector<unsigned int> &objects) {
        EXPECT_EQ(world::bytes(900), result_bytes(set_of(objects)));
    }
    // The last of so many exceptions.
    static void expect_exceptions(std::size_t num, int code, bool is_eval, const OMRA_OBJKEY &key) {
        const std::vector<OMRAPMI_EXCEPTION> list = exceptions();
        ASSERT_EQ(list.size(), num);
        EXPECT_TRUE(list.back().code == code && list.back().is_eval == is_eval);
        EXPECT_TRUE(world::same_key(list.back().key, key));
    }
    // The results, exceptions and failures of a request are gone for the next one.
    static void clear() {
        world::remove(900);
        world::remove(901);
        set_functions::reset();
    }
};

TEST_F(Request_test, ThoseThatCannotRunAreCompletedAsFailed) {
    const Keys keys = put_objects(10);
    OMRALIB_INVOKE_PARAMS unknown_eval = eval_request(5), foreign_eval = unknown_eval,
                          unknown_merge = unknown_eval, merge_unknown = merge_request(0);
    unknown_eval.invoke_op = 64;
    params_ext(foreign_eval).event_app_id = 8;
    unknown_merge.merge_op = set_functions::eval_id;
    merge_unknown.merge_op = 9;
    const struct {
        OMRALIB_INVOKE_PARAMS params;
        const char *object, *trace;
    } cases[] = {
        {merge_request(50, 0), nullptr, "[d 0] -109"},
        {merge_request(50, 0), "seven b", "[d 0] -1351"},
        {merge_request(50, 0), "", "[d 0] -1351"},
        {unknown_eval, nullptr, "[d 2] -1309"},
        {foreign_eval, nullptr,
         "eval function id 1 for app id 8, but was registered for app id 7|[d 2] -1353"},
        {unknown_merge, nullptr, "id 1 of type 0, but was registered as type 1|[d 3] -1354"},
        {merge_request(51), nullptr, "[d 0] -109"},
        {merge_unknown, nullptr, "unregistered function id 9|[d 3] -1352"},
    };
    for (const auto &[params, object, trace] : cases) {
        if (object != nullptr) {
            world::put(50, object);
        }
        EXPECT_EQ(run(params, params.merge_request ? Keys() : keys),
                  (Completion{0, params.merge_request ? 1u : 10u}));
        const std::string traces = take_traces();
        EXPECT_NE(traces.find(std::string(trace) + "|[td 2]|"), std::string::npos) << traces;
    }
    EXPECT_EQ(take_reports(), "func_id < OMRAPMI_NUM_FUNC_IDS");
    // One that has no keys is completed, too.
    EXPECT_EQ(run(eval_request(5), {}), (Completion{0, 0}));
    EXPECT_EQ(take_reports(), "num_keys > 0|num_keys != 0");
    // An invoke-once eval for several keys would be completed for each of them.
    EXPECT_EQ(run(eval_request(5, "", MGTI_APPID_INVOKE_ONCE), keys), (Completion{0, 10}));
    EXPECT_NE(take_reports().find("|num_keys == 1"), std::string::npos);
}

TEST_F(Request_test, ParametersReachTheEvals) {
    for (const std::string params : {"", "some parameters"}) {
        for (const bool stored : {false, true}) {
            world::put(50, std::string("\7\0\0\0\0\0\0\0", 8) + params);
            EXPECT_EQ(run(stored ? merge_request(50, 0) : eval_request(5, params), put_objects(2)),
                      (Completion{2, 0}));
            EXPECT_EQ(set_functions::seen().params, params);
            clear();
        }
    }
    OMRALIB_INVOKE_PARAMS too_long = eval_request(5, "some parameters");
    params_ext(too_long).immediate_params_len = 200; // more than the key holds
    run(too_long, put_objects(1));
    EXPECT_EQ(set_functions::seen().params.size(), 32u);
    EXPECT_EQ(take_reports(), "*pparams_obj_len <= OMRAPMI_MAX_IMMEDIATE_PARAMS_LEN");
}

TEST_F(Request_test, ReadsOfObjects) {
    Keys keys = put_objects(4);
    world::remove(0);  // gone: counts as successful, silently
    world::put(3, ""); // an eval without data
    for (const unsigned int app_id : {0x0FFFFFFEu, 0x0FFFFFFFu, 0xD0000001u}) {
        keys.push_back(world::key(1, app_id)); // gone, too
    }
    // Ignoring time-outs marks the keys of ordinary objects.
    OMRALIB_INVOKE_PARAMS params = eval_request(5);
    params_ext(params).ignore_sliding_timeouts = 1;
    script({{"read_obj", -103, "1879048199/1"}, {"get_read_data", -110}});
    EXPECT_EQ(run(params, keys), (Completion{5, 2}));
    EXPECT_EQ(take_log().find("get_invoke_keys 5 7|read_obj 1879048199/0|read_obj 1879048199/1|"
                              "read_obj 1879048199/2|get_read_data 4|read_obj 1879048199/3|"
                              "read_obj 2147483646/1|read_obj 268435455/1|read_obj 3489660929/1"),
              0u);
    EXPECT_EQ(take_traces(), "Omrapmi worker: accepting eval invreq 5 for app id 7.|"
                             "[rgo 0] -103|[we 0] -103|[rgo 2] -110|[we 0] -110|"
                             "Omrapmi worker: completed eval invreq 5 for app id 7.");
    EXPECT_EQ(take_reports(), "ret != OMRALIB_ERR_NOT_READING");
    expect_result({set_functions::no_object});
    EXPECT_EQ(exceptions().at(0).code, -103);
    expect_exceptions(2, -110, true, world::key(2, 0x70000007));
}

// Each is reported, and only what is there is read, stored and freed.
TEST_F(Request_test, NonsenseFromUserFunctions) {
    const auto no_block = [](const char *, char **pout, unsigned int *) {
        Omrapmi_free(*pout);
        *pout = nullptr;
    };
    const auto source = [=](const char *psrc, char **pout, unsigned int *) {
        Omrapmi_free(*pout);
        *pout = const_cast<char *>(psrc);
    };
    const auto other_len = [](const char *, char **, unsigned int *plen) { *plen = 0; };
    const struct {
        bool of_eval;
        std::function<void(const char *, char **, unsigned int *)> spoil;
        unsigned int num_keys;
        std::vector<unsigned int> stored; // a result that is there already
        const char *reports;
        std::string result;
    } cases[] = {
        {true, no_block, 2, {}, "results_obj_len_src == 0|results_obj_len_src == 0", "none"},
        {true, other_len, 1, {}, "default_data_len != 0", ""},
        {false,
         source,
         2,
         {},
         "*ppresults_obj_dst_out != presults_obj_src",
         result_bytes(set_of({1}))},
        {false,
         source,
         1,
         {40},
         "*ppresults_obj_dst_out != presults_obj_src",
         result_bytes(set_of({0}))},
        {false, no_block, 2, {}, "*presults_obj_len_dst_out == 0", "none"},
        {false, no_block, 1, {40}, "*presults_obj_len_dst_out == 0", ""},
        {false, other_len, 2, {}, "default_data_len != 0", ""},
        {false, other_len, 1, {40}, "", ""},
        {false,
         other_len,
         1,
         {40, 41},
         "results_obj_len_out == *presults_obj_len_dst_out",
         result_bytes(set_of({0, 40, 41}))}, // three are merged in place
    };
    for (const auto &spoilt : cases) {
        SCOPED_TRACE(&spoilt - cases);
        if (!spoilt.stored.empty()) {
            put_result(spoilt.stored);
        }
        (spoilt.of_eval ? set_functions::script().spoil_eval
                        : set_functions::script().spoil_merge) = spoilt.spoil;
        EXPECT_EQ(eval(spoilt.num_keys), (Completion{spoilt.num_keys, 0}));
        EXPECT_EQ(take_reports(), spoilt.reports);
        EXPECT_EQ(world::bytes(900), spoilt.result);
        clear();
    }
}

// Created when it is missing or empty, and else merged under its lock, for which one waits.
TEST_F(Request_test, TheResultsObject) {
    const std::string store = "store_obj 640 2 900", locked = store + "|read_and_lock_obj 900|";
    unsigned int len = 0;
    const auto ends_with = [](const std::string &calls) {
        return take_log().find(calls + "|complete_invoke 5 ") != std::string::npos;
    };
    EXPECT_EQ(eval(1), (Completion{1, 0}));
    EXPECT_TRUE(ends_with(store));
    expect_result({0});
    world::put(900, "");
    script({{"update_locked_obj", -123}});
    EXPECT_EQ(eval(1), (Completion{0, 1}));
    EXPECT_TRUE(ends_with(locked + "update_locked_obj 1 640 900|unlock_obj 900"));
    EXPECT_EQ(eval(1), (Completion{1, 0}));
    EXPECT_TRUE(ends_with(locked + "update_locked_obj 1 640 900"));
    expect_result({0});

    put_result({1});
    const int elsewhere = real<Omralib_read_and_lock_obj>(hdl, 0, 0, &len, world::key(900));
    real<Omralib_flush_read_data>(hdl);
    int num_sleeps = 0;
    instead<Thread_sleep> = [&](unsigned int duration_ms) {
        EXPECT_EQ(duration_ms, 10u);
        if (++num_sleeps == 3) {
            real<Omralib_unlock_obj>(hdl, elsewhere, 0, world::key(900));
        }
    };
    EXPECT_EQ(eval(1), (Completion{1, 0}));
    EXPECT_EQ(num_sleeps, 3);
    expect_result({0, 1});
    clear();
    OMRALIB_INVOKE_PARAMS params = eval_request(5);
    params.invoke_timeout = 0xFFFFFFFF;
    run(params, put_objects(1));
    EXPECT_NE(take_log().find("|store_obj 640 65535 900|"), std::string::npos);
    // With more room than an object can have.
    const char *pdata = nullptr;
    const OMRA_OBJKEY key = world::key(900);
    EXPECT_EQ(
        Omrapmi_read_get_or_create_and_lock_obj(hdl, &key, &pdata, &len, 0xFFFFFFFF, "x", 1, 0),
        -1351);
}

// Results, then exceptions, then the completion; a failure before it changes the counts, or is one
// of the exceptions alone.
TEST_F(Request_test, TheEnd) {
    const std::pair<std::vector<Answer>, Completion> cases[] = {
        {{}, {2, 2}},
        {{{"store_obj", -123, "900"}}, {0, 4}},
        {{{"update_locked_obj", -123, "900"}}, {0, 4}},
        {{{"update_locked_obj", -122, "901"}}, {2, 2}},
        {{{"complete_invoke", -102}}, {0, 0, true}},
    };
    for (const auto &[answers, expected] : cases) {
        put_result({40, 41});
        world::put(901, std::string(144, 'x'));
        set_functions::script().fails = [](unsigned int object, unsigned int) {
            return object == 1 || object == 2;
        };
        script(answers);
        EXPECT_EQ(eval(4), expected);
        if (answers.empty()) {
            const std::string log = take_log();
            EXPECT_EQ(log.substr(log.find("store_obj")),
                      "store_obj 640 2 900|read_and_lock_obj 900|get_read_data 640|"
                      "update_locked_obj 1 640 900|store_obj 96 2 901|read_and_lock_obj 901|"
                      "get_read_data 144|update_locked_obj 1 240 901|complete_invoke 5 2 2");
            expect_result({0, 3, 40, 41});
            expect_exceptions(5, 1002, true, world::key(2));
        }
        clear();
    }
    // A failing user function leaves the results as they were, and the host's counts stand.
    put_result({40});
    set_functions::script().merge_fails = [](const auto &, const auto &) { return true; };
    EXPECT_EQ(eval(4), (Completion{1, 3}));
    expect_result({40});
    expect_exceptions(4, set_functions::merge_failure, false, {}); // as many as there are keys
}

// Without an object, and merge requests: functions know no key.
TEST_F(Request_test, WithoutKeys) {
    const OMRALIB_INVOKE_PARAMS once = eval_request(5, "", MGTI_APPID_INVOKE_ONCE);
    const auto always = [](auto...) { return true; };
    EXPECT_EQ(eval(3), (Completion{3, 0})); // leaves no key behind
    set_functions::reset();
    put_result({1});
    EXPECT_EQ(run(once, {{}}), (Completion{1, 0}));
    expect_result({1, set_functions::no_object});
    EXPECT_EQ(set_functions::seen().num_keyless_merges, 1u);
    script({{"store_obj", -123, "900"}});
    EXPECT_EQ(run(once, {{}}), (Completion{0, 1}));
    set_functions::script().fails = always;
    EXPECT_EQ(run(once, {{}}), (Completion{0, 1}));
    expect_exceptions(1, set_functions::eval_failure + set_functions::no_object, true, {});
    clear();

    EXPECT_EQ(eval(3), (Completion{3, 0}));
    set_functions::reset();
    put_result({0});
    world::put(50, result_bytes(set_of({1})));
    EXPECT_EQ(run(merge_request(50), {}), (Completion{1, 0}));
    expect_result({0, 1});
    EXPECT_EQ(world::bytes(50), result_bytes(set_of({1})));
    EXPECT_EQ(set_functions::seen().num_keyless_merges, 1u);
    script({{"read_and_lock_obj", -123, "900"}});
    EXPECT_EQ(run(merge_request(50), {}), (Completion{0, 1}));
    // A failing user function loses the source but fails nothing.
    put_result({0});
    set_functions::script().merge_fails = always;
    EXPECT_EQ(run(merge_request(50), {}), (Completion{1, 0}));
    expect_result({0});
    expect_exceptions(1, set_functions::merge_failure, false, {});
    clear();
    world::put(50, ""); // no result
    EXPECT_EQ(run(merge_request(50), {}), (Completion{1, 0}));
    EXPECT_EQ(world::bytes(900), "none");
}

TEST_F(Request_test, ARefusalLeavesNothingBehind) {
    const Keys keys = put_objects(2);
    const std::string no_block = std::to_string(OMRAPMI_TAG_REQUEST);
    script({{"get_invoke_keys", -109}});
    EXPECT_EQ(deliver(eval_request(5), keys), -3);
    for (const OMRALIB_INVOKE_PARAMS &params : {eval_request(5), merge_request(0)}) {
        script({{"Sys_malloc", 0, no_block}});
        EXPECT_EQ(deliver(params, params.merge_request ? Keys() : keys), -4);
    }
    OMRALIB_INVOKE_PARAMS negative = eval_request(5);
    negative.num_keys = -1;
    EXPECT_EQ(Omrapmi_invoke_ext_cb("pmicli\0\0\0\0\0\0\0\0\0", &negative), -4);
    EXPECT_EQ(interposer::ledger(), interposer::Ledger{});
    EXPECT_EQ(take_traces(), "[ic 2] -109|[ic 1]|[ic 1]|[ic 1]");
}

TEST_F(Request_test, TheExceptionListIsBounded) {
    OMRAPMI_USER_EXCEPTIONS &list = omrapmi_worker_state.idsc_list[0].user_exceptions;
    OMRAPMI_EXCEPTION records[2] = {};
    list.plist = records;
    list.max_num = 1;
    Omrapmi_log_user_exception(&list, -8, TRUE, nullptr);
    Omrapmi_log_user_exception(&list, 9, TRUE, nullptr);
    EXPECT_EQ(take_reports(), "puser_exceptions->num < puser_exceptions->max_num");
    EXPECT_TRUE(list.num == 1 && records[0].code == -8 && records[1].code == 0);
}

} // namespace
