// What evals and merges leave in the store, and in which order. The test runs the work itself; what
// holds in every order of threads is for the schedules to find.
#include "module_test.h"

#include "eval/exceptions.h"
#include "eval/worker_thread.h"

#include <algorithm>

namespace {

using interposer::script;
using interposer::take_reports;
using set_functions::result_bytes;
using set_functions::set_of;

Completion counts(unsigned int num_successful, unsigned int num_failed) {
    return {num_successful, num_failed};
}

class Eval_test : public Stepped_test {
protected:
    Completion eval(const OMRALIB_INVOKE_PARAMS &params, const std::vector<OMRA_OBJKEY> &keys) {
        for (OMRAPMI_WDSC *pwdsc : dispatch(params, keys)) {
            Omrapmi_worker_eval(hdl, pwdsc);
        }
        EXPECT_EQ(interposer::ledger().descriptors, 0);
        return wait_complete(params.context);
    }
    Completion eval(unsigned int num_keys) { return eval(eval_request(5), put_objects(num_keys)); }
    Completion eval_once() {
        Omrapmi_worker_eval_invoke_once(hdl, dispatch(once_request(5), {OMRA_OBJKEY{}}).at(0));
        EXPECT_EQ(interposer::ledger().descriptors, 0);
        return wait_complete(5);
    }
    Completion merge_object_50() {
        Omrapmi_worker_merge(hdl, dispatch(merge_request(5, 50), {}).at(0));
        EXPECT_EQ(interposer::ledger().descriptors, 0);
        return wait_complete(5);
    }

    // The results, exceptions and failures of a request are gone for the next one.
    static void clear() {
        world::remove(900);
        world::remove(901);
        set_functions::reset();
        set_functions::script().ask = false;
    }
    static void expect_exception(std::size_t index, int code, bool is_eval,
                                 const OMRA_OBJKEY &key) {
        const std::vector<OMRAPMI_EXCEPTION> list = exceptions();
        ASSERT_LT(index, list.size());
        EXPECT_TRUE(list[index].code == code && list[index].is_eval == is_eval &&
                    world::same_key(list[index].key, key))
            << list[index].code;
    }
};

TEST_F(Eval_test, ParametersReachTheEvals) {
    const std::string header("\7\0\0\0\0\0\0\0", 8);
    for (const std::string params : {"", "some parameters"}) {
        for (const bool stored : {false, true}) {
            world::put(50, header + params);
            EXPECT_EQ(
                eval(stored ? stored_params_request(5) : eval_request(5, params), put_objects(2)),
                counts(2, 0));
            EXPECT_EQ(set_functions::seen().params, params);
            clear();
        }
    }
}

// Each is reported, and only what is there is read, stored and freed.
TEST_F(Eval_test, NonsenseFromUserFunctions) {
    const auto length_alone = [](char **pout, unsigned int *) {
        Omrapmi_free(*pout);
        *pout = nullptr;
    };
    const auto block_alone = [](char **, unsigned int *plen) { *plen = 0; };
    const auto merged_length_alone = [](const char *, char **pout, unsigned int *) {
        Omrapmi_free(*pout);
        *pout = nullptr;
    };
    const auto merged_block_alone = [](const char *, char **, unsigned int *plen) { *plen = 0; };
    const auto source = [](const char *psrc, char **pout, unsigned int *) {
        Omrapmi_free(*pout);
        *pout = const_cast<char *>(psrc);
    };
    const auto other_length_in_place = [](const char *, char **, unsigned int *plen) {
        *plen = *plen == 3 ? 4 : 3;
    };
    struct Case {
        std::function<void(char **, unsigned int *)> spoil_eval;
        std::function<void(const char *, char **, unsigned int *)> spoil_merge;
        unsigned int num_keys;
        bool is_stored; // a result is there already
        std::string reports, result;
    };
    const auto bits = [](const std::vector<unsigned int> &set) {
        return result_bytes(set_of(set));
    };
    const Case cases[] = {
        {length_alone, {}, 2, false, "results_obj_len_src == 0|results_obj_len_src == 0", "none"},
        {block_alone, {}, 1, false, "default_data_len != 0", ""},
        {{}, source, 2, false, "*ppresults_obj_dst_out != presults_obj_src", bits({1})},
        {{}, source, 1, true, "*ppresults_obj_dst_out != presults_obj_src", bits({0})},
        {{}, merged_length_alone, 2, false, "*presults_obj_len_dst_out == 0", "none"},
        {{}, merged_length_alone, 1, true, "*presults_obj_len_dst_out == 0", ""},
        {{}, merged_block_alone, 2, false, "default_data_len != 0", ""},
        {{}, merged_block_alone, 1, true, "", ""},
    };
    for (const Case &spoilt : cases) {
        SCOPED_TRACE(&spoilt - cases);
        if (spoilt.is_stored) {
            world::put(900, bits({40}));
        }
        set_functions::script().spoil_eval = spoilt.spoil_eval;
        set_functions::script().spoil_merge = spoilt.spoil_merge;
        EXPECT_EQ(eval(spoilt.num_keys), counts(spoilt.num_keys, 0));
        EXPECT_EQ(take_reports(), spoilt.reports);
        EXPECT_EQ(world::bytes(900), spoilt.result);
        clear();
    }
    // Three are merged in place at last.
    world::put(900, bits({40, 41}));
    set_functions::script().spoil_merge = other_length_in_place;
    EXPECT_EQ(eval(1), counts(1, 0));
    EXPECT_EQ(take_reports(), "results_obj_len_out == *presults_obj_len_dst_out");
    EXPECT_EQ(world::bytes(900), bits({0, 40, 41}));
}

TEST_F(Eval_test, ReadsOfObjects) {
    const std::vector<OMRA_OBJKEY> keys = put_objects(4);
    world::remove(0); // gone: counts as successful, silently
    script({{"read_obj", -103, "1879048199/1"}, {"get_read_data", -110}});
    world::put(3, ""); // an eval without data
    OMRALIB_INVOKE_PARAMS params = eval_request(5);
    params_ext(params).ignore_sliding_timeouts = 1; // marks the app id
    EXPECT_EQ(eval(params, keys), counts(2, 2));
    EXPECT_EQ(world::bytes(900), result_bytes(set_of({set_functions::no_object})));
    EXPECT_EQ(interposer::take_traces(), "Omrapmi worker: accepting eval invreq 5 for app id 7.|"
                                         "[rgo 0] -103|[we 0] -103|[rgo 2] -110|[we 0] -110|"
                                         "Omrapmi worker: completed eval invreq 5 for app id 7.");
    EXPECT_EQ(take_reports(), "ret != OMRALIB_ERR_NOT_READING");
    EXPECT_EQ(exceptions().size(), 2u);
    expect_exception(0, -103, true, world::key(1, 0x70000007));
    expect_exception(1, -110, true, world::key(2, 0x70000007));
}

// Results, then exceptions, then the completion; a failure before it changes the counts, or is one
// of the exceptions alone.
TEST_F(Eval_test, TheEndOfARequest) {
    const std::string ending =
        "store_obj 640 2 900|read_and_lock_obj 900|get_read_data 640|update_locked_obj 1 640 900|"
        "store_obj 96 2 901|read_and_lock_obj 901|get_read_data 144|update_locked_obj 1 240 901|"
        "complete_invoke 5 ";
    const std::pair<std::vector<interposer::Answer>, Completion> cases[] = {
        {{}, counts(2, 2)},
        {{{"store_obj", -123, "900"}}, counts(0, 4)},
        {{{"update_locked_obj", -123, "900"}}, counts(0, 4)},
        {{{"update_locked_obj", -122, "901"}}, counts(2, 2)},
        {{{"complete_invoke", -102}}, {0, 0, true}},
    };
    for (const auto &[answers, expected] : cases) {
        world::put(900, result_bytes(set_of({40, 41})));
        world::put(901, std::string(144, 'x'));
        set_functions::script().fails = [](unsigned int object, unsigned int) {
            return object == 1 || object == 2;
        };
        script(answers);
        interposer::take_log();
        EXPECT_EQ(eval(4), expected) << testing::PrintToString(expected.num_failed);
        if (answers.empty()) {
            EXPECT_EQ(world::bytes(900), result_bytes(set_of({0, 3, 40, 41})));
            EXPECT_EQ(exceptions().size(), 5u);
            expect_exception(4, 1002, true, world::key(2));
            const std::string log = interposer::take_log();
            EXPECT_EQ(log.substr(log.find("store_obj")), ending + "2 2");
        }
        clear();
    }
    // A failing user function leaves the results as they were, and the host's counts stand.
    world::put(900, result_bytes(set_of({40})));
    set_functions::script().merge_fails = [](const auto &, const auto &) { return true; };
    EXPECT_EQ(eval(4), counts(1, 3));
    EXPECT_EQ(world::bytes(900), result_bytes(set_of({40})));
    EXPECT_EQ(exceptions().size(), 4u); // as many as there are keys
    expect_exception(3, set_functions::merge_failure, false, OMRA_OBJKEY{});
}

TEST_F(Eval_test, InvokeOnce) {
    const auto always = [](auto...) { return true; };
    EXPECT_EQ(eval_once(), counts(1, 0));
    EXPECT_EQ(world::bytes(900), result_bytes(set_of({set_functions::no_object})));
    clear();
    set_functions::script().is_silent = always;
    EXPECT_EQ(eval_once(), counts(1, 0));
    EXPECT_EQ(world::bytes(900), "none");
    set_functions::script().fails = always;
    EXPECT_EQ(eval_once(), counts(0, 1));
    EXPECT_EQ(world::bytes(900), "none");
    expect_exception(0, set_functions::eval_failure + set_functions::no_object, true,
                     OMRA_OBJKEY{});
    clear();
    script({{"store_obj", -123, "900"}});
    EXPECT_EQ(eval_once(), counts(0, 1));
}

TEST_F(Eval_test, MergeRequest) {
    world::put(50, result_bytes(set_of({1})));
    world::put(900, result_bytes(set_of({0})));
    EXPECT_EQ(merge_object_50(), counts(1, 0));
    EXPECT_EQ(world::bytes(900), result_bytes(set_of({0, 1})));
    EXPECT_EQ(world::bytes(50), result_bytes(set_of({1})));
    script({{"read_and_lock_obj", -123, "900"}});
    EXPECT_EQ(merge_object_50(), counts(0, 1));
    // A failing user function loses the source but fails nothing.
    world::put(900, result_bytes(set_of({0})));
    set_functions::script().merge_fails = [](const auto &, const auto &) { return true; };
    EXPECT_EQ(merge_object_50(), counts(1, 0));
    EXPECT_EQ(world::bytes(900), result_bytes(set_of({0})));
    EXPECT_EQ(exceptions().size(), 1u);
    expect_exception(0, set_functions::merge_failure, false, OMRA_OBJKEY{});
    // An empty source is no result.
    clear();
    world::put(50, "");
    EXPECT_EQ(merge_object_50(), counts(1, 0));
    EXPECT_EQ(world::bytes(900), "none");
}

TEST_F(Eval_test, TheExceptionListIsBounded) {
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
