// Evaluation, the merge tree and the end of a request. Most tests run the work themselves, in every
// order; the last ones let real worker threads run.
#include "module_test.h"

#include "eval/exceptions.h"
#include "eval/store_merge.h"
#include "eval/worker_thread.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <semaphore>

namespace {

using Order = std::vector<unsigned int>;

Order in_order(unsigned int len) {
    Order order(len);
    std::iota(order.begin(), order.end(), 0u);
    return order;
}

store::Completion counts(unsigned int num_successful, unsigned int num_failed) {
    return {num_successful, num_failed};
}

unsigned int num_bits(const std::string &result) {
    return static_cast<unsigned int>(__builtin_popcountll(user::number(result)));
}

void expect_exception(const OMRAPMI_EXCEPTION &exception, int code, bool is_eval,
                      const OMRA_OBJKEY &key) {
    EXPECT_TRUE(exception.code == code && exception.is_eval == is_eval &&
                same_key(exception.key, key))
        << exception.code;
}

class Eval_test : public Stepped_test {
protected:
    // Evaluates the keys in this order on this thread.
    store::Completion eval(const OMRALIB_INVOKE_PARAMS &params,
                           const std::vector<OMRA_OBJKEY> &keys, const Order &order) {
        const std::vector<OMRAPMI_WDSC *> work = dispatch(params, keys);
        for (const unsigned int index : order) {
            Omrapmi_worker_eval(hdl, work.at(index));
        }
        EXPECT_EQ(sys::free_descriptors(), sys::all_free);
        return store::wait_complete(params.context);
    }
    store::Completion eval(unsigned int num_keys, const Order &order) {
        return eval(eval_request(5), put_objects(num_keys), order);
    }
    store::Completion eval(unsigned int num_keys) { return eval(num_keys, in_order(num_keys)); }
    store::Completion eval_once() {
        Omrapmi_worker_eval_invoke_once(hdl, dispatch(once_request(5), {OMRA_OBJKEY{}}).at(0));
        EXPECT_EQ(sys::free_descriptors(), sys::all_free);
        return store::wait_complete(5);
    }
    store::Completion merge_object_50() {
        Omrapmi_worker_merge(hdl, dispatch(merge_request(5, 50), {}).at(0));
        EXPECT_EQ(sys::free_descriptors(), sys::all_free);
        return store::wait_complete(5);
    }

    // Evaluates n keys in every order, for every choice that `arrange` sets the script up for.
    void sweep(unsigned int n, unsigned int num_choices,
               const std::function<void(unsigned int choice)> &arrange,
               const std::function<void(const store::Completion &)> &check) {
        sys_trace_level = -1;
        for (unsigned int choice = 0; choice < num_choices; ++choice) {
            Order order = in_order(n);
            do {
                SCOPED_TRACE(testing::PrintToString(order) + std::to_string(choice));
                arrange(choice);
                const store::Completion done = eval(n, order);
                ASSERT_EQ(done.num_successful + done.num_failed, n);
                check(done);
                clear();
            } while (std::next_permutation(order.begin(), order.end()) && !HasFailure());
        }
    }

    // The results and exceptions of a request are gone for the next one.
    static void clear() {
        store::script.objects.erase("900");
        store::script.objects.erase("901");
        user::script() = {};
    }
};

// Each success is in the result just once, whatever the order: bits that meet are found by the
// user functions. Merges happen only where two results meet.
TEST_F(Eval_test, EveryOrderWithEveryChoiceOfFailingAndSilentEvals) {
    for (unsigned int n = 1; n <= 6; ++n) {
        Order with_result;
        const auto arrange = [&](unsigned int choice) {
            with_result.clear();
            for (unsigned int i = 0; i < n; ++i, choice /= 3) { // 3 outcomes for each key
                if (choice % 3 == 0) {
                    with_result.push_back(i);
                } else if (choice % 3 == 1) {
                    user::script().eval_codes[i] = 70 + static_cast<int>(i);
                } else {
                    user::script().silent.insert(i);
                }
            }
        };
        sweep(n, n == 4 ? 81 : 1, arrange, [&](const store::Completion &done) {
            ASSERT_EQ(done.num_failed, user::script().eval_codes.size());
            ASSERT_EQ(exceptions().size(), done.num_failed);
            ASSERT_EQ(store::bytes(900), with_result.empty() ? "none" : user::bits(with_result));
            ASSERT_EQ(user::script().num_merges, with_result.empty() ? 0 : with_result.size() - 1);
        });
    }
}

// A lost result takes its whole subtree along: what is counted as successful is what is in the
// result.
TEST_F(Eval_test, EveryOrderWithEveryFailingMerge) {
    const auto arrange = [](unsigned int choice) {
        for (unsigned int merge = 1; merge <= 4; ++merge, choice /= 2) {
            if (choice % 2 != 0) {
                user::script().failing_merges.insert(merge);
            }
        }
    };
    sweep(5, 16, arrange, [](const store::Completion &done) {
        ASSERT_EQ(done.num_successful, num_bits(store::bytes(900)));
        ASSERT_EQ(user::script().num_merges, 4u);
        ASSERT_EQ(exceptions().size(), user::script().failing_merges.size());
    });
}

TEST_F(Eval_test, ParametersReachTheEvals) {
    const std::string header("\7\0\0\0\0\0\0\0", 8);
    for (const std::string params : {"", "some parameters"}) {
        for (const bool stored : {false, true}) {
            store::put(50, header + params);
            user::script().params = "none";
            EXPECT_EQ(eval(stored ? stored_params_request(5) : eval_request(5, params),
                           put_objects(2), {0, 1}),
                      counts(2, 0));
            EXPECT_EQ(user::script().params, params);
            clear();
        }
    }
}

TEST_F(Eval_test, AFailedMergeCountsTheWholeSubtree) {
    // Slot 4 holds 4, 5, 6 and 7, of which 6 failed; it is lost when it meets slot 0.
    user::script().eval_codes[6] = 66;
    user::script().failing_merges = {3};
    EXPECT_EQ(eval(8, {0, 5, 4, 7, 6, 1, 2, 3}), counts(4, 4));
    EXPECT_EQ(store::bytes(900), user::bits({0, 1, 2, 3}));
    EXPECT_EQ(store::script.objects.at("900").timeout_m, 2u); // 30 and 60 seconds
    EXPECT_EQ(store::script.objects.at("901").timeout_m, 2u);
    const std::vector<OMRAPMI_EXCEPTION> records = exceptions();
    ASSERT_EQ(records.size(), 2u);
    expect_exception(records[0], 66, true, store::key(6));
    expect_exception(records[1], 503, false, OMRA_OBJKEY{});
}

TEST_F(Eval_test, AMergeInPlaceMayNotChangeTheLength) {
    user::script().merged_len = 3;
    EXPECT_EQ(eval(2), counts(2, 0));
    EXPECT_EQ(sys::take_asserts(), "results_obj_len_out == *presults_obj_len_dst_out");
    EXPECT_EQ(store::bytes(900), user::bits({0, 1}));
}

// Each is reported, and only what is there is read, stored and freed.
TEST_F(Eval_test, NonsenseFromUserFunctions) {
    const auto length_alone = [](char **pout, unsigned int *) {
        Omrapmi_free(*pout);
        *pout = nullptr;
    };
    const auto block_alone = [](char **, unsigned int *plen) { *plen = 0; };
    const auto merged_length_alone = [](const char *, char **pout, unsigned int *) {
        *pout = nullptr;
    };
    const auto merged_block_alone = [](const char *, char **pout, unsigned int *plen) {
        *pout = static_cast<char *>(Omrapmi_malloc(8));
        *plen = 0;
    };
    const auto source = [](const char *psrc, char **pout, unsigned int *) {
        *pout = const_cast<char *>(psrc);
    };
    struct Case {
        std::function<void(char **, unsigned int *)> spoil_eval;
        std::function<void(const char *, char **, unsigned int *)> spoil_merge;
        unsigned int num_keys;
        bool is_stored; // a result is there already
        std::string reports, result;
    };
    const Case cases[] = {
        {length_alone, {}, 2, false, "results_obj_len_src == 0|results_obj_len_src == 0", "none"},
        {block_alone, {}, 1, false, "default_data_len != 0", ""},
        {{}, source, 2, false, "*ppresults_obj_dst_out != presults_obj_src", user::bits({1})},
        {{}, source, 1, true, "*ppresults_obj_dst_out != presults_obj_src", user::bits({0})},
        {{}, merged_length_alone, 2, false, "*presults_obj_len_dst_out == 0", "none"},
        {{}, merged_length_alone, 1, true, "*presults_obj_len_dst_out == 0", ""},
        {{}, merged_block_alone, 2, false, "default_data_len != 0", ""},
        {{}, merged_block_alone, 1, true, "", ""},
    };
    for (const Case &spoilt : cases) {
        SCOPED_TRACE(&spoilt - cases);
        if (spoilt.is_stored) {
            store::put(900, user::bits({40}));
        }
        user::script().spoil_eval = spoilt.spoil_eval;
        user::script().spoil_merge = spoilt.spoil_merge;
        EXPECT_EQ(eval(spoilt.num_keys), counts(spoilt.num_keys, 0));
        EXPECT_EQ(sys::take_asserts(), spoilt.reports);
        EXPECT_EQ(store::bytes(900), spoilt.result);
        clear();
    }
}

TEST_F(Eval_test, ReadsOfObjects) {
    const std::vector<OMRA_OBJKEY> keys = put_objects(4);
    store::script.objects.erase("0"); // gone: counts as successful, silently
    store::script.answers = {{"read_obj", -103, "1879048199/1"}, {"get_read_data", -110}};
    store::put(3, ""); // an eval without data
    OMRALIB_INVOKE_PARAMS params = eval_request(5);
    params_ext(params).ignore_sliding_timeouts = 1; // marks the app id
    EXPECT_EQ(eval(params, keys, {0, 1, 2, 3}), counts(2, 2));
    EXPECT_EQ(store::bytes(900), user::bits({user::no_object}));
    EXPECT_EQ(sys::take_traces(), "Omrapmi worker: accepting eval invreq 5 for app id 7.|"
                                  "[rgo 0] -103|[we 0] -103|[rgo 2] -110|[we 0] -110|"
                                  "Omrapmi worker: completed eval invreq 5 for app id 7.");
    EXPECT_EQ(sys::take_asserts(), "ret != OMRALIB_ERR_NOT_READING");
    const std::vector<OMRAPMI_EXCEPTION> records = exceptions();
    ASSERT_EQ(records.size(), 2u);
    expect_exception(records[0], -103, true, store::key(1, 0x70000007));
    expect_exception(records[1], -110, true, store::key(2, 0x70000007));
}

TEST_F(Eval_test, LaterHostsMergeIntoTheResults) {
    store::put(900, user::bits({40, 41}));
    store::put(901, std::string(144, 'x'));
    user::script().eval_codes = {{1, 11}, {2, 22}};
    EXPECT_EQ(eval(4), counts(2, 2));
    EXPECT_EQ(store::bytes(900), user::bits({0, 3, 40, 41}));
    const std::vector<OMRAPMI_EXCEPTION> records = exceptions();
    ASSERT_EQ(records.size(), 5u);
    EXPECT_EQ(records[2].code, 0x78787878);
    EXPECT_EQ(records[3].code, 11);
    EXPECT_EQ(records[4].code, 22);
    // Results, then exceptions, then the completion.
    const std::string log = store::take_log();
    EXPECT_EQ(log.substr(log.find("store_obj")),
              "store_obj 900|read_and_lock_obj 900|get_read_data 8|update_locked_obj 900|"
              "store_obj 901|read_and_lock_obj 901|get_read_data 144|update_locked_obj 901|"
              "complete_invoke 5");
}

TEST_F(Eval_test, FailuresAtTheEnd) {
    const std::pair<store::Answer, store::Completion> cases[] = {
        {{"store_obj", -123, "900"}, counts(0, 5)},
        {{"update_locked_obj", -123, "900"}, counts(0, 5)},
        {{"read_and_lock_obj", -109, "901"}, counts(4, 1)},
        {{"update_locked_obj", -122, "901"}, counts(4, 1)},
        {{"complete_invoke", -102}, {0, 0, true}},
    };
    for (const auto &[answer, expected] : cases) {
        store::put(900, user::bits({40}));
        store::put(901, std::string(48, 'x'));
        user::script().eval_codes = {{1, 11}};
        store::script.answers = {answer};
        EXPECT_EQ(eval(5), expected) << answer.op << answer.about;
        EXPECT_EQ(store::faults(), "");
        clear();
    }
    // A failing user function leaves the results as they were, and the host's counts stand.
    store::put(900, user::bits({40}));
    user::script().failing_merges = {1, 2, 3, 4};
    EXPECT_EQ(eval(4), counts(1, 3));
    EXPECT_EQ(store::bytes(900), user::bits({40}));
    ASSERT_EQ(exceptions().size(), 4u); // as many as there are keys
    EXPECT_EQ(exceptions()[3].code, 504);
}

TEST_F(Eval_test, InvokeOnce) {
    EXPECT_EQ(eval_once(), counts(1, 0));
    EXPECT_EQ(store::bytes(900), user::bits({user::no_object}));
    clear();
    user::script().silent = {user::no_object};
    EXPECT_EQ(eval_once(), counts(1, 0));
    EXPECT_EQ(store::bytes(900), "none");
    clear();
    user::script().eval_codes = {{user::no_object, 9}};
    EXPECT_EQ(eval_once(), counts(0, 1));
    EXPECT_EQ(store::bytes(900), "none");
    ASSERT_EQ(exceptions().size(), 1u);
    expect_exception(exceptions()[0], 9, true, OMRA_OBJKEY{});
    clear();
    store::script.answers = {{"store_obj", -123, "900"}};
    EXPECT_EQ(eval_once(), counts(0, 1));
}

TEST_F(Eval_test, MergeRequest) {
    store::put(50, user::bits({1}));
    store::put(900, user::bits({0}));
    EXPECT_EQ(merge_object_50(), counts(1, 0));
    EXPECT_EQ(store::bytes(900), user::bits({0, 1}));
    EXPECT_EQ(store::bytes(50), user::bits({1}));
    store::script.answers = {{"read_and_lock_obj", -123, "900"}};
    EXPECT_EQ(merge_object_50(), counts(0, 1));
    // A failing user function loses the source but fails nothing.
    store::put(900, user::bits({0}));
    user::script().failing_merges = {2};
    EXPECT_EQ(merge_object_50(), counts(1, 0));
    EXPECT_EQ(store::bytes(900), user::bits({0}));
    ASSERT_EQ(exceptions().size(), 1u);
    expect_exception(exceptions()[0], 502, false, OMRA_OBJKEY{});
    // An empty source is no result.
    clear();
    store::put(50, "");
    EXPECT_EQ(merge_object_50(), counts(1, 0));
    EXPECT_EQ(store::bytes(900), "none");
}

TEST_F(Eval_test, TheExceptionListIsBounded) {
    OMRAPMI_USER_EXCEPTIONS &list = omrapmi_worker_state.idsc_list[0].user_exceptions;
    OMRAPMI_EXCEPTION records[2] = {};
    list.plist = records;
    list.max_num = 1;
    Omrapmi_log_user_exception(&list, -8, TRUE, nullptr);
    Omrapmi_log_user_exception(&list, 9, TRUE, nullptr);
    EXPECT_EQ(sys::take_asserts(), "puser_exceptions->num < puser_exceptions->max_num");
    EXPECT_TRUE(list.num == 1 && records[0].code == -8 && records[1].code == 0);
}

// Real threads -----------------------------------------------------------------------------------

using Eval_live_test = Live_test;

TEST_F(Eval_live_test, UserFunctionsKnowWhereTheyAre) {
    static std::counting_semaphore<> gates[] = {
        std::counting_semaphore<>(0), std::counting_semaphore<>(0), std::counting_semaphore<>(0),
        std::counting_semaphore<>(0)};
    static std::set<std::string> &seen = *new std::set<std::string>;
    const auto note = [](const std::string &what) {
        OMRA_OBJKEY key = {};
        unsigned int host_id = 0;
        EXPECT_EQ(Omrapmi_get_key(&key), 1);
        EXPECT_EQ(Omrapmi_worker_get_svr_host_id(&host_id), 1);
        EXPECT_EQ(host_id, 0xABCu);
        EXPECT_LT(static_cast<unsigned int>(Omrapmi_get_worker_thread_index()), 4u);
        sys::with_lock([&] { seen.insert(what + std::to_string(key.obj_id.u64_comp[0])); });
    };
    user::script().on_eval = [=](unsigned int object) {
        note("eval ");
        if (object < 4) {
            gates[object].acquire(); // until the test lets it go on
        }
    };
    user::script().on_merge = [=](unsigned int) { note("merge "); };
    ASSERT_EQ(store::deliver(eval_request(5), put_objects(4)), 3);
    sys::wait_for("all evals", [] { return seen.size() == 4; });
    unsigned int num_idle = 0;
    for (const unsigned int index : {0u, 2u, 1u, 3u}) {
        gates[index].release();
        sys::wait_idle_workers(++num_idle);
    }
    EXPECT_EQ(store::wait_complete(5), counts(4, 0));
    // The last thread climbs on after its own descriptor went back.
    const std::set<std::string> of_evals = {"eval 0", "eval 1",  "eval 2",
                                            "eval 3", "merge 1", "merge 3"};
    EXPECT_EQ(std::exchange(seen, {}), of_evals);
    // No key: all zero. The invoke-once result meets the others in the store.
    run(once_request(6), {OMRA_OBJKEY{}});
    store::put(60, user::bits({50}));
    run(merge_request(7, 60), {});
    EXPECT_EQ(seen, (std::set<std::string>{"eval 0", "merge 0"}));
}

// Several store threads deliver requests that all fold into the same objects.
TEST_F(Eval_live_test, ManyRequestsAtOnce) {
    sys_trace_level = -1;
    constexpr unsigned int num_thrds = 3;
    constexpr unsigned int num_rounds = 20;
    Order successful;
    for (unsigned int i = 0; i < 40; ++i) { // neighbours fail at the same time
        if (i % 4 < 2) {
            successful.push_back(i);
        } else {
            user::script().eval_codes[i] = 100;
        }
    }
    const std::vector<OMRA_OBJKEY> keys = put_objects(40);
    std::vector<std::thread> thrds;
    for (unsigned int thrd = 0; thrd < num_thrds; ++thrd) {
        thrds.emplace_back([&, thrd] {
            for (unsigned int round = 0; round < num_rounds; ++round) {
                OMRALIB_INVOKE_PARAMS params = eval_request(thrd * num_rounds + round);
                params.results_key = store::key(1000 + params.context);
                EXPECT_EQ(store::deliver(params, keys), 3);
            }
        });
    }
    for (std::thread &thrd : thrds) {
        thrd.join();
    }
    for (unsigned int context = 0; context < num_thrds * num_rounds; ++context) {
        EXPECT_EQ(store::wait_complete(context), counts(20, 20));
        EXPECT_EQ(store::bytes(1000 + context), user::bits(successful));
    }
    EXPECT_EQ(exceptions().size(), 20 * num_thrds * num_rounds);
    sys::wait_idle_workers(4);
    // Every descriptor is back; the pools have grown by whole batches.
    EXPECT_EQ(sys::free_descriptors().first % 16, 8u);
    EXPECT_EQ(sys::free_descriptors().second % 128, 64u);
}

} // namespace
