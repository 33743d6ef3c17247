// Evaluation, the merge tree and the end of a request. Most tests run the work themselves, in every
// order; the last ones let real worker threads run.
#include "module_test.h"

#include "eval/exceptions.h"
#include "eval/store_merge.h"
#include "eval/worker_thread.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <semaphore>

namespace {

using Order = std::vector<unsigned int>;

Order in_order(unsigned int len) {
    Order order(len);
    std::iota(order.begin(), order.end(), 0u);
    return order;
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
        EXPECT_TRUE(sys::script.free_idscs == 8 && sys::script.free_wdscs == 64);
        return store::wait_complete(params.context);
    }
    store::Completion eval(unsigned int num_keys, const Order &order) {
        return eval(eval_request(5), put_objects(num_keys), order);
    }
    store::Completion eval(unsigned int num_keys) { return eval(num_keys, in_order(num_keys)); }

    // The results and exceptions of a request are gone for the next one.
    static void clear() {
        store::script.objects.erase(store::key(900));
        store::script.objects.erase(store::key(901));
        user::script() = {};
    }
};

const std::string accepting = "Omrapmi worker: accepting eval invreq 5 for app id 7.|";
const std::string completed = "Omrapmi worker: completed eval invreq 5 for app id 7.";

store::Completion counts(unsigned int num_successful, unsigned int num_failed) {
    return {num_successful, num_failed};
}

// Each success is in the result just once, whatever the order: bits that meet are found by the
// user functions. Merges happen only where two results meet.
TEST_F(Eval_test, EveryOrderGivesTheSameResult) {
    sys_trace_level = -1;
    for (unsigned int n = 1; n <= 6; ++n) {
        Order order = in_order(n);
        do {
            ASSERT_EQ(eval(n, order), counts(n, 0)) << testing::PrintToString(order);
            ASSERT_EQ(store::bytes(900), user::bits(in_order(n)));
            ASSERT_EQ(user::script().num_merges, n - 1);
            ASSERT_EQ(store::bytes(901), "none");
            clear();
        } while (std::next_permutation(order.begin(), order.end()));
    }
}

TEST_F(Eval_test, EveryOrderWithEveryChoiceOfFailingAndSilentEvals) {
    sys_trace_level = -1;
    constexpr unsigned int n = 4;
    for (unsigned int choice = 0; choice < 81; ++choice) { // 3 outcomes for each of 4 keys
        Order order = in_order(n);
        do {
            Order with_result;
            unsigned int digits = choice;
            for (unsigned int i = 0; i < n; ++i, digits /= 3) {
                if (digits % 3 == 0) {
                    with_result.push_back(i);
                } else if (digits % 3 == 1) {
                    user::script().eval_codes[i] = 70 + static_cast<int>(i);
                } else {
                    user::script().silent.insert(i);
                }
            }
            const auto num_failed = static_cast<unsigned int>(user::script().eval_codes.size());
            ASSERT_EQ(eval(n, order), counts(n - num_failed, num_failed));
            ASSERT_EQ(exceptions().size(), num_failed);
            ASSERT_EQ(store::bytes(900), with_result.empty() ? "none" : user::bits(with_result));
            ASSERT_EQ(user::script().num_merges, with_result.empty() ? 0 : with_result.size() - 1);
            clear();
        } while (std::next_permutation(order.begin(), order.end()));
    }
}

// A lost result takes its whole subtree along: what is counted as successful is what is in the
// result.
TEST_F(Eval_test, EveryOrderWithEveryFailingMerge) {
    sys_trace_level = -1;
    constexpr unsigned int n = 5;
    for (unsigned int choice = 1; choice < 1u << (n - 1); ++choice) {
        Order order = in_order(n);
        do {
            for (unsigned int merge = 1; merge < n; ++merge) {
                if ((choice >> (merge - 1)) % 2 != 0) {
                    user::script().failing_merges.insert(merge);
                }
            }
            const store::Completion done = eval(n, order);
            const ULONGLONG result = user::number(store::bytes(900));
            ASSERT_EQ(done.num_successful, static_cast<unsigned int>(__builtin_popcountll(result)));
            ASSERT_EQ(done.num_successful + done.num_failed, n);
            ASSERT_EQ(user::script().num_merges, n - 1);
            ASSERT_EQ(exceptions().size(), user::script().failing_merges.size());
            clear();
        } while (std::next_permutation(order.begin(), order.end()));
    }
}

TEST_F(Eval_test, RandomOrdersOfManyKeys) {
    sys_trace_level = -1;
    std::mt19937 random(20);
    for (unsigned int n = 7; n <= 60; ++n) {
        Order order = in_order(n);
        std::shuffle(order.begin(), order.end(), random);
        user::script().failing_merges = {2 + static_cast<unsigned int>(random()) % n};
        user::script().eval_codes[static_cast<unsigned int>(random()) % n] = 9;
        const store::Completion done = eval(n, order);
        const ULONGLONG result = user::number(store::bytes(900));
        EXPECT_EQ(done.num_successful, static_cast<unsigned int>(__builtin_popcountll(result)));
        EXPECT_EQ(done.num_successful + done.num_failed, n);
        clear();
    }
}

TEST_F(Eval_test, AFailedMergeCountsTheWholeSubtree) {
    // Slot 4 holds 4, 5, 6 and 7, of which 6 failed; it is lost when it meets slot 0.
    user::script().eval_codes[6] = 66;
    user::script().failing_merges = {3};
    EXPECT_EQ(eval(8, {0, 5, 4, 7, 6, 1, 2, 3}), counts(4, 4));
    EXPECT_EQ(store::bytes(900), user::bits({0, 1, 2, 3}));
    EXPECT_EQ(store::script.objects.at(store::key(900)).timeout_m, 2u); // 30 and 60 seconds
    EXPECT_EQ(store::script.objects.at(store::key(901)).timeout_m, 2u);
    const std::vector<OMRAPMI_EXCEPTION> records = exceptions();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_TRUE(records[0].code == 66 && records[0].is_eval == 1 &&
                same_key(records[0].key, store::key(6)));
    EXPECT_TRUE(records[1].code == 503 && records[1].is_eval == 0 &&
                same_key(records[1].key, OMRA_OBJKEY{}));
}

TEST_F(Eval_test, AsManyExceptionsAsKeys) {
    store::put(900, user::bits({40}));
    user::script().failing_merges = {1, 2, 3, 4};
    EXPECT_EQ(eval(4), counts(1, 3)); // the last merge is the store's, whose counts stand
    EXPECT_EQ(store::bytes(900), user::bits({40}));
    EXPECT_EQ(exceptions().size(), 4u);
    EXPECT_EQ(exceptions()[3].code, 504);
}

TEST_F(Eval_test, ReadsOfObjects) {
    const std::vector<OMRA_OBJKEY> keys = put_objects(4);
    store::script.objects.erase(keys[0]); // gone: counts as successful, silently
    store::script.answers.push_back({"read_obj", -103, 1});
    store::script.answers.push_back({"get_read_data", -110});
    store::put(3, ""); // an eval without data
    OMRALIB_INVOKE_PARAMS params = eval_request(5);
    params_ext(params).ignore_sliding_timeouts = 1;
    EXPECT_EQ(eval(params, keys, {0, 1, 2, 3}), counts(2, 2));
    EXPECT_EQ(store::bytes(900), user::bits({user::no_object}));
    EXPECT_EQ(sys::take_traces(),
              accepting + "[rgo 0] -103|[we 0] -103|[rgo 2] -110|[we 0] -110|" + completed);
    EXPECT_EQ(sys::take_asserts(), "ret != OMRALIB_ERR_NOT_READING");
    const std::vector<OMRAPMI_EXCEPTION> records = exceptions();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_TRUE(records[0].code == -103 && records[0].is_eval == 1 &&
                same_key(records[0].key, store::key(1, 0x70000007)));
    EXPECT_EQ(records[1].code, -110);
    EXPECT_NE(store::take_log().find("read_obj 1879048199/1"), std::string::npos);
}

// The store merge --------------------------------------------------------------------------------

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

TEST_F(Eval_test, FailuresOfTheStoreAtTheEnd) {
    struct Case {
        store::Answer answer;
        store::Completion expected;
        const char *traces;
    };
    const Case cases[] = {
        {{"store_obj", -123, 900}, {0, 5}, "[rgocalo 1] -123|[wmts 0] -123|[we 1] -123|"},
        {{"update_locked_obj", -123, 900}, {0, 5}, "[wmts 1] -123|[we 1] -123|"},
        {{"read_and_lock_obj", -109, 901}, {4, 1}, "[rgocalo 0] -109|[sue 0] -109|[wci 0] -109|"},
        {{"update_locked_obj", -122, 901}, {4, 1}, "[sue 1] -122|[wci 0] -122|"},
        {{"complete_invoke", -102}, {0, 0, true}, "[wci 1] -102|[wci 2] 1|"},
    };
    for (const Case &c : cases) {
        store::put(900, user::bits({40}));
        store::put(901, std::string(48, 'x'));
        user::script().eval_codes = {{1, 11}};
        store::script.answers = {c.answer};
        EXPECT_EQ(eval(5), c.expected) << c.traces;
        EXPECT_EQ(sys::take_traces(), std::string(accepting).append(c.traces).append(completed));
        EXPECT_EQ(store::faults(), "");
        clear();
    }
}

// The other kinds of work ------------------------------------------------------------------------

TEST_F(Eval_test, InvokeOnce) {
    const std::vector<OMRA_OBJKEY> keys = {OMRA_OBJKEY{}};
    const auto once = [&] {
        Omrapmi_worker_eval_invoke_once(hdl, dispatch(once_request(5), keys).at(0));
        return store::wait_complete(5);
    };
    EXPECT_EQ(once(), counts(1, 0));
    EXPECT_EQ(store::bytes(900), user::bits({user::no_object}));
    clear();
    user::script().silent = {user::no_object};
    EXPECT_EQ(once(), counts(1, 0));
    EXPECT_EQ(store::bytes(900), "none");
    clear();
    user::script().eval_codes = {{user::no_object, 9}};
    EXPECT_EQ(once(), counts(0, 1));
    EXPECT_EQ(store::bytes(900), "none");
    ASSERT_EQ(exceptions().size(), 1u);
    EXPECT_TRUE(exceptions()[0].code == 9 && exceptions()[0].is_eval == 1 &&
                same_key(exceptions()[0].key, OMRA_OBJKEY{}));
    EXPECT_EQ(sys::take_traces().find("[weio"), std::string::npos);
    clear();
    store::script.answers.push_back({"store_obj", -123, 900});
    EXPECT_EQ(once(), counts(0, 1));
    EXPECT_NE(sys::take_traces().find("|[weio 1] -123|"), std::string::npos);
    EXPECT_EQ(sys::script.free_wdscs, 64u);
}

TEST_F(Eval_test, MergeRequest) {
    store::put(50, user::bits({1}));
    const auto merge = [&] {
        Omrapmi_worker_merge(hdl, dispatch(merge_request(5, 50), {}).at(0));
        return store::wait_complete(5);
    };
    store::put(900, user::bits({0}));
    EXPECT_EQ(merge(), counts(1, 0));
    EXPECT_EQ(store::bytes(900), user::bits({0, 1}));
    EXPECT_EQ(store::bytes(50), user::bits({1}));
    store::put(900, user::bits({0}));
    store::script.answers.push_back({"read_and_lock_obj", -123, 900});
    EXPECT_EQ(merge(), counts(0, 1));
    EXPECT_NE(sys::take_traces().find("|[wm 0] -123|"), std::string::npos);
    // A failing user function loses the source but fails nothing.
    user::script().failing_merges = {2};
    EXPECT_EQ(merge(), counts(1, 0));
    EXPECT_EQ(store::bytes(900), user::bits({0}));
    EXPECT_TRUE(exceptions().size() == 1 && exceptions()[0].code == 502);
    // An empty source is no result.
    clear();
    store::put(50, "");
    EXPECT_EQ(merge(), counts(1, 0));
    EXPECT_EQ(store::bytes(900), "none");
    EXPECT_EQ(sys::script.free_wdscs, 64u);
}

TEST_F(Eval_test, TheExceptionListIsBoundedAndClean) {
    OMRAPMI_IDSC &idsc = omrapmi_worker_state.idsc_list[0];
    OMRAPMI_USER_EXCEPTIONS &list = idsc.user_exceptions;
    OMRAPMI_EXCEPTION records[3];
    std::memset(records, 0xEE, sizeof records);
    list.plist = records;
    list.max_num = 2;
    OMRA_OBJKEY key = store::key(4);
    Omrapmi_log_user_exception(&list, 7, FALSE, &key);
    Omrapmi_log_user_exception(&list, -8, TRUE, nullptr);
    Omrapmi_log_user_exception(&list, 9, FALSE, &key);
    EXPECT_EQ(sys::take_asserts(), "puser_exceptions->num < puser_exceptions->max_num");
    EXPECT_EQ(list.num, 2u);
    const OMRAPMI_EXCEPTION expected[2] = {{7, 1, 0, 0, key}, {-8, 0, 0, 0, {}}};
    EXPECT_EQ(std::memcmp(records, expected, sizeof expected), 0);
    EXPECT_EQ(static_cast<ULONG>(records[2].code), 0xEEEEEEEE);
}

// Real threads -----------------------------------------------------------------------------------

using Eval_live_test = Live_test;

TEST_F(Eval_live_test, UserFunctionsKnowWhereTheyAre) {
    static std::binary_semaphore gates[] = {std::binary_semaphore(0), std::binary_semaphore(0),
                                            std::binary_semaphore(0), std::binary_semaphore(0)};
    static std::vector<std::string> &seen = *new std::vector<std::string>;
    const auto note = [](const std::string &what) {
        OMRA_OBJKEY key = {};
        unsigned int host_id = 0;
        EXPECT_EQ(Omrapmi_get_key(&key), 1);
        EXPECT_EQ(Omrapmi_worker_get_svr_host_id(&host_id), 1);
        EXPECT_EQ(host_id, 0xABCu);
        const int index = Omrapmi_get_worker_thread_index();
        EXPECT_TRUE(index >= 0 && index < 4) << index;
        sys::with_lock([&] { seen.push_back(what + std::to_string(key.obj_id.u64_comp[0])); });
    };
    user::script().on_eval = [=](unsigned int object) {
        note("eval ");
        if (object < 4) {
            gates[object].acquire(); // until the test lets it go on
        }
    };
    user::script().on_merge = [=](unsigned int) { note("merge "); };
    const std::vector<OMRA_OBJKEY> keys = put_objects(4);
    ASSERT_EQ(store::deliver(eval_request(5), keys), 3);
    sys::wait_for("all evals", [] { return seen.size() == 4; });
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<std::string>{"eval 0", "eval 1", "eval 2", "eval 3"}));
    seen.clear();
    unsigned int num_idle = 0;
    for (const unsigned int index : {0u, 2u, 1u, 3u}) {
        gates[index].release();
        sys::wait_idle_workers(++num_idle);
    }
    EXPECT_EQ(store::wait_complete(5), counts(4, 0));
    // The last thread climbs on after its own descriptor went back.
    EXPECT_EQ(seen, (std::vector<std::string>{"merge 1", "merge 3", "merge 3"}));
    seen.clear();

    run(once_request(6), {OMRA_OBJKEY{}});
    store::put(60, user::bits({50}));
    run(merge_request(7, 60), {});
    // No key: all zero. The invoke-once result met the others in the store.
    EXPECT_EQ(seen, (std::vector<std::string>{"eval 0", "merge 0", "merge 0"}));
    sys::wait_pools(8, 64);
}

// Several store threads deliver requests that all fold into the same objects.
TEST_F(Eval_live_test, ManyRequestsAtOnce) {
    sys_trace_level = -1;
    constexpr unsigned int num_thrds = 3;
    constexpr unsigned int num_rounds = 20;
    user::script().eval_codes = {{10, 100}, {20, 200}};
    const std::vector<OMRA_OBJKEY> keys = put_objects(40);
    std::vector<std::thread> thrds;
    for (unsigned int thrd = 0; thrd < num_thrds; ++thrd) {
        thrds.emplace_back([&, thrd] {
            for (unsigned int round = 0; round < num_rounds; ++round) {
                OMRALIB_INVOKE_PARAMS params = eval_request(thrd * 100 + round);
                params.results_key = store::key(1000 + params.context);
                EXPECT_EQ(store::deliver(params, keys), 3);
            }
        });
    }
    for (std::thread &thrd : thrds) {
        thrd.join();
    }
    Order successful = in_order(40);
    successful.erase(successful.begin() + 20);
    successful.erase(successful.begin() + 10);
    for (unsigned int i = 0; i < num_thrds * num_rounds; ++i) {
        const unsigned int context = i / num_rounds * 100 + i % num_rounds;
        EXPECT_EQ(store::wait_complete(context), counts(38, 2));
        EXPECT_EQ(store::bytes(1000 + context), user::bits(successful));
    }
    EXPECT_EQ(exceptions().size(), 2 * num_thrds * num_rounds);
    sys::wait_idle_workers(4);
    // Every descriptor is back; the pools have grown by whole batches.
    EXPECT_EQ(sys::script.free_idscs % 16, 8u);
    EXPECT_EQ(sys::script.free_wdscs % 128, 64u);
}

} // namespace
