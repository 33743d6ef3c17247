// What becomes of a request: whether it can run, what evals and merges leave in the store, and in
// which order. There is one worker thread; what holds in every order of threads is for the
// schedules to find, and what becomes of failures everywhere for the fault sweeps.
#include "module_test.h"

#include "sysapp.h"

#include <sstream>

namespace {

using interposer::take_log;
using set_functions::script;

class Request_test : public Module_test {
protected:
    void SetUp() override {
        Module_test::SetUp();
        ASSERT_EQ(Omrapmi_worker_init_ext(1), 1);
        ASSERT_TRUE(set_functions::register_all(world::app));
        Sys_set_trace_func([](const char *line) { trace += line; });
        run(eval_request(4), {}); // starts the threads
    }
    // Runs a request until nothing of it is left, and removes what it leaves in the store. Answers
    // how many were successful and how many failed; the objects in the result, or that it is empty;
    // each exception's code, with the number of the object whose eval or read failed; the reports.
    static std::string run(const OMRALIB_INVOKE_PARAMS &params, const Keys &keys) {
        take_log();
        trace.clear();
        const Completion done = run_request(params, keys);
        wait_until([] { return interposer::ledger() == interposer::Ledger{}; });
        std::ostringstream text;
        text << done.num_successful << '/' << done.num_failed;
        const std::string bytes = world::bytes(900), reports = interposer::take_reports();
        text << (bytes.empty() ? " empty" : "");
        for (unsigned int object = 0; object < set_functions::max_objects; ++object) {
            if (bytes.size() == sizeof(set_functions::Result) &&
                reinterpret_cast<const set_functions::Result *>(bytes.data())->objects[object]) {
                text << ' ' << object;
            }
        }
        for (const OMRAPMI_EXCEPTION &each : exceptions()) {
            const std::string number = std::to_string(each.key.obj_id.u64_comp[0]);
            text << ' ' << each.code << (each.is_eval ? ":" + number : "");
        }
        text << (reports.empty() ? "" : " [" + reports + "]");
        world::remove(900);
        world::remove(901);
        script() = {};
        return text.str();
    }
    static std::string eval(unsigned int num_keys) {
        return run(eval_request(5), put_objects(num_keys));
    }
    static void put_result(const std::vector<unsigned int> &objects, unsigned int number = 900) {
        world::put(number, set_functions::result_bytes(set_functions::set_of(objects)));
    }

    static inline std::string trace; // of the last request
};

TEST_F(Request_test, ThoseThatCannotRunAreCompletedAsFailed) {
    const Keys keys = put_objects(3);
    OMRALIB_INVOKE_PARAMS bad_eval = eval_request(5), unknown_eval = bad_eval,
                          other_eval = bad_eval, foreign_eval = bad_eval, other_merge = bad_eval,
                          merge_by_unknown = merge_request(0);
    bad_eval.invoke_op = 64;
    unknown_eval.invoke_op = 9;
    other_eval.invoke_op = set_functions::merge_id;
    params_ext(foreign_eval).event_app_id = 8;
    other_merge.merge_op = set_functions::eval_id;
    merge_by_unknown.merge_op = 9;
    world::put(50, "seven b"); // less than the header of parameters
    for (const OMRALIB_INVOKE_PARAMS &params : {unknown_eval, other_eval, foreign_eval, other_merge,
                                                merge_request(50, 0), merge_request(51, 0)}) {
        EXPECT_EQ(run(params, keys), "0/3");
    }
    EXPECT_EQ(run(bad_eval, keys), "0/3 [func_id < OMRAPMI_NUM_FUNC_IDS]");
    EXPECT_EQ(run(merge_request(51), {}), "0/1");
    EXPECT_EQ(run(merge_by_unknown, {}), "0/1");
    // One that has no keys is completed, too.
    EXPECT_EQ(run(eval_request(5), {}), "0/0 [num_keys > 0|num_keys != 0]");
    // An invoke-once eval for several keys would be completed for each of them.
    EXPECT_EQ(run(eval_request(5, "", MGTI_APPID_INVOKE_ONCE), keys).find("0/3 ["), 0u);
    // A descriptor that is used again has kept nothing of the parameters.
    EXPECT_EQ(run(merge_request(51, 0), keys), "0/3");
    EXPECT_EQ(trace, "Tr [pmi-rgo 0] -109\nTr [pmi-d 0] -109\nTr [pmi-td 2]\n"
                     "Omrapmi worker: completed eval invreq 5 after failure.\n");
}

TEST_F(Request_test, ParametersReachTheEvals) {
    for (const std::string params : {"", "some parameters"}) {
        world::put(50, std::string("\7\0\0\0\0\0\0\0", 8) + params);
        for (const auto &request : {eval_request(5, params), merge_request(50, 0)}) {
            script().params = params;
            EXPECT_EQ(run(request, put_objects(2)), "2/0 0 1");
        }
    }
    OMRALIB_INVOKE_PARAMS too_long = eval_request(5, "some parameters");
    params_ext(too_long).immediate_params_len = 200; // more than the key holds
    script().params = "some parameters" + std::string(17, '\0');
    EXPECT_EQ(run(too_long, put_objects(1)),
              "1/0 0 [*pparams_obj_len <= OMRAPMI_MAX_IMMEDIATE_PARAMS_LEN]");
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
    interposer::script({{"read_obj", -103, "1879048199/1"}, {"get_read_data", -110}});
    EXPECT_EQ(run(params, keys), "5/2 4999 -103:1 -110:2 [ret != OMRALIB_ERR_NOT_READING]");
    EXPECT_EQ(take_log().find("get_invoke_keys 5 7|read_obj 1879048199/0|read_obj 1879048199/1|"
                              "read_obj 1879048199/2|get_read_data 4|read_obj 1879048199/3|"
                              "read_obj 2147483646/1|read_obj 268435455/1|read_obj 3489660929/1"),
              0u);
    EXPECT_EQ(trace, "Omrapmi worker: accepting eval invreq 5 for app id 7.\n"
                     "Tr [pmi-rgo 0] -103\nTr [pmi-we 0] -103\n"
                     "Tr [pmi-rgo 2] -110\nTr [pmi-we 0] -110\n"
                     "Omrapmi worker: completed eval invreq 5 for app id 7.\n");
}

// Results, then exceptions, then the completion; how long the objects live.
TEST_F(Request_test, TheEnd) {
    const auto fails = [](unsigned int object, unsigned int) { return object == 1 || object == 2; };
    script().fails = fails;
    EXPECT_EQ(eval(4), "2/2 0 3 1001:1 1002:2");
    EXPECT_TRUE(
        take_log().ends_with("|store_obj 640 2 900|store_obj 96 2 901|complete_invoke 5 2 2"));
    put_result({40, 41});
    world::put(901, std::string(48, '\0'));
    script().fails = fails;
    const interposer::Answer elsewhere{"read_and_lock_obj", OMRALIB_ERR_OBJ_LOCKED};
    interposer::script({elsewhere, elsewhere, elsewhere}); // one waits for the lock
    EXPECT_EQ(eval(4), "2/2 0 3 40 41 0 1001:1 1002:2");
    world::put(901, std::string(48, '\0'));
    script().fails = fails;
    interposer::script({{"update_locked_obj", -123, "901"}});
    EXPECT_EQ(eval(4), "2/2 0 3 0");
    world::put(900, ""); // created, but not filled
    EXPECT_EQ(eval(1), "1/0 0");
    world::put(900, "");
    interposer::script({{"update_locked_obj", -123, "900"}});
    EXPECT_EQ(eval(1), "0/1 empty");
    // A failing user function leaves the results as they were, and the host's counts stand.
    put_result({40});
    script().merge_fails = [](const auto &, const auto &) { return true; };
    EXPECT_EQ(eval(4), "1/3 40 77 77 77 77"); // as many as there are keys
    // One that hands out no block, or its source, is reported, and nothing is freed twice.
    for (const auto &[is_source, outcome] :
         {std::pair(false, "1/0 empty [*presults_obj_len_dst_out == 0]"),
          std::pair(true, "1/0 0 [*ppresults_obj_dst_out != presults_obj_src]")}) {
        put_result({40});
        script().spoil = [is_source = is_source](const char *, const char *psrc, char **pout,
                                                 unsigned int *) {
            if (psrc != nullptr) {
                Omrapmi_free(std::exchange(*pout, is_source ? const_cast<char *>(psrc) : nullptr));
            }
        };
        EXPECT_EQ(eval(1), outcome);
    }
}

// Without an object, and merge requests: functions know no key, not even an old one.
TEST_F(Request_test, WithoutKeys) {
    const auto always = [](const auto &...) { return true; };
    const auto run_keyless = [](const OMRALIB_INVOKE_PARAMS &params, const Keys &keys) {
        script().has_keys = false;
        put_result({0});
        return run(params, keys);
    };
    const OMRALIB_INVOKE_PARAMS once = eval_request(5, "", MGTI_APPID_INVOKE_ONCE);
    EXPECT_EQ(eval(3), "3/0 0 1 2");
    EXPECT_EQ(run_keyless(once, {{}}), "1/0 0 4999");
    script().fails = always;
    EXPECT_EQ(run_keyless(once, {{}}), "0/1 0 5999:0");

    put_result({1}, 50);
    EXPECT_EQ(run_keyless(merge_request(50), {}), "1/0 0 1");
    // A failing user function loses the source but fails nothing.
    script().merge_fails = always;
    EXPECT_EQ(run_keyless(merge_request(50), {}), "1/0 0 77");
    world::put(50, ""); // no result
    EXPECT_EQ(run_keyless(merge_request(50), {}), "1/0 0");
}

TEST_F(Request_test, RefusalsSayWhatIsMissing) {
    const Keys keys = put_objects(2);
    interposer::script({{"get_invoke_keys", -109}});
    EXPECT_EQ(deliver(eval_request(5), keys), -3);
    for (const OMRALIB_INVOKE_PARAMS &params : {eval_request(5), merge_request(0)}) {
        interposer::script({{"Sys_malloc", 0, std::to_string(OMRAPMI_TAG_REQUEST)}});
        EXPECT_EQ(deliver(params, params.merge_request ? Keys() : keys), -4);
    }
    OMRALIB_INVOKE_PARAMS negative = eval_request(5);
    negative.num_keys = -1;
    EXPECT_EQ(Omrapmi_invoke_ext_cb("pmicli\0\0\0\0\0\0\0\0\0", &negative), -4);
}

} // namespace
