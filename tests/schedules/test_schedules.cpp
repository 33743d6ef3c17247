// Thread orders, searched: the module runs on threads that the scheduler plays, seed after seed,
// and every run must come out right.
//
// SCHEDULES=N runs N seeds a test instead of its own number; SCHEDULE_SEED=S runs the one that a
// failure has printed.
#include "module/module_test.h"
#include "scheduled_sys.h"
#include "scheduler.h"

#include "sysapp.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using schedules::scheduler;
using Seed = std::uint64_t;
using Rng = std::mt19937_64;

#if defined(__SANITIZE_ADDRESS__)
constexpr Seed share = 20; // of the seeds: everything takes longer
#else
constexpr Seed share = 1;
#endif

constexpr unsigned int num_workers = 9; // a thread for each key of the largest request

bool chance(Rng &rng, unsigned int one_in) {
    return rng() % one_in == 0;
}

// Runs `body` in a process of its own. False when it ended in any way but well.
bool passes_apart(const std::function<void()> &body, bool is_quiet) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (is_quiet) {
            std::freopen("/dev/null", "w", stdout);
            std::freopen("/dev/null", "w", stderr);
        }
        alarm(60);
        body();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status == 0;
}

class Schedules : public Module_test {
protected:
    using Run = std::function<void(Seed)>;

    // Runs seed after seed until one fails. What the number is comes from the environment.
    static void explore(Seed num_seeds, const Run &run) {
        if (const char *seed = std::getenv("SCHEDULE_SEED")) {
            run(std::strtoull(seed, nullptr, 10));
            return;
        }
        if (const char *num = std::getenv("SCHEDULES")) {
            num_seeds = std::strtoull(num, nullptr, 10);
        }
        Seed seed = 0;
        while (seed < num_seeds && !HasFailure()) {
            run(++seed);
        }
        RecordProperty("schedules", std::to_string(seed));
        if (HasFailure()) {
            ADD_FAILURE() << "SCHEDULE_SEED=" << seed;
        }
    }

    // The search finds what is planted: some seed of so many fails, however it does.
    static void expect_found(Seed num_seeds, const std::function<void()> &plant, const Run &run) {
        const auto search = [&] {
            plant();
            for (Seed seed = 1; seed <= num_seeds && !HasFailure(); ++seed) {
                run(seed);
            }
        };
        EXPECT_FALSE(passes_apart(search, true)) << "not found with " << num_seeds << " schedules";
    }

    // The threads are there before the first seed, so that each seed meets the same ones.
    static void set_up_workers() {
        ASSERT_TRUE(scheduler.run(0, {[] {
                                      ASSERT_EQ(Omrapmi_worker_init_ext(num_workers), 1);
                                      store::script.objects.erase("900");
                                      register_functions();
                                      run_request(eval_request(1), put_objects(1));
                                  }}));
    }

    // Delivers, in a fiber, and waits for the completion.
    static store::Completion run_request(const OMRALIB_INVOKE_PARAMS &params,
                                         const std::vector<OMRA_OBJKEY> &keys) {
        EXPECT_EQ(store::deliver(params, keys), OMRALIB_INVOKE_ACCEPTED);
        return store::wait_complete(params.context);
    }

    // What holds after every run, whatever happened in it.
    static void check_quiet() {
        ASSERT_EQ(sys::take_asserts(), "");
        ASSERT_EQ(store::faults(), "");
        ASSERT_EQ(Sys_get_mem_use(OMRAPMI_TAG_REQUEST).blocks, 0u);
        ASSERT_EQ(Sys_get_mem_use(OMRAPMI_TAG_USER).blocks, 0u);
        ASSERT_EQ(sys::free_descriptors(), sys::all_free);
        store::take_log();
        for (const char *left : {"900", "901"}) {
            store::script.objects.erase(left);
        }
        user::script() = {};
    }
};

unsigned int num_bits(const std::string &result) {
    return result == "none" ? 0
                            : static_cast<unsigned int>(__builtin_popcountll(user::number(result)));
}

// The merge tree ----------------------------------------------------------------------------------

// Lets evals go on in this order of their objects only.
void force_order(std::vector<unsigned int> order) {
    auto turn = std::make_shared<std::size_t>(0);
    user::script().on_eval = [order = std::move(order), turn](unsigned int object) {
        scheduler.wait_until([&] { return order[*turn] == object; });
        ++*turn;
    };
}

class MergeTree : public Schedules {
protected:
    void SetUp() override {
        Schedules::SetUp();
        set_up_workers();
        check_quiet();
    }

    // One request of 2 to 9 keys, with failing and silent functions.
    static void run_one(Seed seed) {
        Rng rng(seed);
        const unsigned int n = 2 + static_cast<unsigned int>(rng() % 8);
        user::Script &script = user::script();
        const bool may_fail = chance(rng, 2);
        for (unsigned int i = 0; i < n && may_fail; ++i) {
            if (chance(rng, 4)) {
                script.eval_codes[i] = 70 + static_cast<int>(i);
            } else if (chance(rng, 4)) {
                script.silent.insert(i);
            }
            if (chance(rng, 8)) {
                script.failing_merges.insert(i + 1);
            }
        }
        if (chance(rng, 2)) {
            std::vector<unsigned int> order(n);
            std::iota(order.begin(), order.end(), 0u);
            std::shuffle(order.begin(), order.end(), rng);
            force_order(order);
        }
        store::Completion done{};
        ASSERT_TRUE(scheduler.run(
            seed, {[&] { done = run_request(eval_request(5), put_objects(n)); }}, 40 * n));

        ASSERT_EQ(done.num_successful + done.num_failed, n);
        const unsigned int num_merged = num_bits(store::bytes(900));
        const auto num_silent = static_cast<unsigned int>(script.silent.size());
        ASSERT_LE(num_merged, done.num_successful);
        ASSERT_LE(done.num_successful, num_merged + num_silent);
        const auto num_merge_failures = static_cast<std::size_t>(
            std::count_if(script.failing_merges.begin(), script.failing_merges.end(),
                          [&](unsigned int nth) { return nth <= script.num_merges; }));
        ASSERT_EQ(exceptions().size(), script.eval_codes.size() + num_merge_failures);
        if (num_merge_failures == 0) {
            ASSERT_EQ(done.num_failed, script.eval_codes.size());
            ASSERT_EQ(num_merged, done.num_successful - num_silent);
        }
        check_quiet();
    }
};

TEST_F(MergeTree, IsExactInEveryOrder) {
    explore(100'000 / share, run_one);
}

TEST_F(MergeTree, WithoutItsLockIsFoundWrong) {
    expect_found(
        2'000, [] { schedules::planted.open_mutexes = true; }, run_one);
}

// Requests beside each other ----------------------------------------------------------------------

class TwoRequests : public MergeTree {
protected:
    // Both merge into the same results and exceptions objects, as those of two hosts may.
    static void run_both(Seed seed) {
        const std::vector<OMRA_OBJKEY> keys = put_objects(8);
        user::script().eval_codes[2] = 72;
        user::script().eval_codes[5] = 75;
        store::Completion done[2] = {};
        const auto run_half = [&](unsigned int half) {
            done[half] = run_request(eval_request(5 + half),
                                     {keys.begin() + 4 * half, keys.begin() + 4 * half + 4});
        };
        ASSERT_TRUE(scheduler.run(seed, {[&] { run_half(0); }, [&] { run_half(1); }}));
        for (const store::Completion &half : done) {
            ASSERT_EQ(half, (store::Completion{3, 1}));
        }
        ASSERT_EQ(store::bytes(900), user::bits({0, 1, 3, 4, 6, 7}));
        ASSERT_EQ(exceptions().size(), 2u);
        check_quiet();
    }

    // Only one of them runs while the other has the place; a refused one fails as a whole.
    static void run_singletons(Seed seed) {
        store::Completion done[2] = {};
        const auto run_one_of_two = [&](unsigned int which) {
            OMRALIB_INVOKE_PARAMS params = eval_request(5 + which);
            params_ext(params).is_singleton = 1;
            params.results_key = store::key(910 + which);
            done[which] = run_request(params, {store::key(which * 2), store::key(which * 2 + 1)});
        };
        put_objects(4);
        unsigned int num_running = 0, num_evals = 0;
        user::script().on_eval = [&](unsigned int object) {
            static unsigned int runs = 0; // the bit of a request that has a running eval
            const unsigned int bit = 1 + object / 2;
            if (num_running == 0) {
                runs = 0;
            }
            ++num_running, ++num_evals;
            runs |= bit;
            EXPECT_NE(runs, 3u) << "two singletons at once";
            scheduler.point();
            --num_running;
        };
        ASSERT_TRUE(scheduler.run(seed, {[&] { run_one_of_two(0); }, [&] { run_one_of_two(1); }}));
        ASSERT_EQ(omrapmi_worker_state.singleton_state.pidsc_singleton, nullptr);
        unsigned int num_successful = 0;
        for (const store::Completion &one : done) {
            ASSERT_EQ(one.num_successful + one.num_failed, 2u);
            ASSERT_NE(one.num_successful, 1u);
            num_successful += one.num_successful;
        }
        ASSERT_NE(num_successful, 0u);
        ASSERT_EQ(num_successful, num_evals);
        store::script.objects.erase("910");
        store::script.objects.erase("911");
        check_quiet();
    }
};

TEST_F(TwoRequests, ShareWhatTheyNeed) {
    explore(60'000 / share, run_both);
}

TEST_F(TwoRequests, SingletonsTakeTurns) {
    explore(30'000 / share, run_singletons);
}

// First calls
// ---------------------------------------------------------------------------------------

class FirstCalls : public Schedules {
protected:
    // Everything that sets something up, at once, with one of the set-ups failing perhaps; and a
    // request that comes while its functions are being registered. In a new process.
    static void race(Seed seed) {
        Rng rng(seed);
        switch (rng() % 6) {
        case 0:
            schedules::failures.malloc_tag = OMRAPMI_TAG_FUNCTBL;
            break;
        case 1:
            schedules::failures.malloc_tag = OMRAPMI_TAG_WORKER_THRDS;
            break;
        case 2:
            schedules::failures.thread_fork = true;
            break;
        case 3:
            store::script.answers = {{"register_cb", -199}};
            break;
        default:
            break;
        }
        int status[5] = {};
        const std::vector<OMRA_OBJKEY> keys = put_objects(2);
        store::Completion early = {0, 2};
        ASSERT_TRUE(scheduler.run(
            seed,
            {[&] { status[0] = Omrapmi_worker_init_ext(3); },
             [&] { status[1] = Omrapmi_worker_start(7); },
             [&] { status[2] = Omrapmi_worker_register_merge_func(user::merge_func, 2, 7); },
             [&] { status[3] = Omrapmi_worker_register_eval_func(user::eval_func, 1, 7); },
             [&] { status[4] = Omrapmi_get_worker_thread_count() > 0 ? 1 : -1; },
             [&] {
                 // The store has the callback when it delivers.
                 scheduler.wait_until([&] { return status[1] != 0; });
                 if (status[1] == 1) {
                     early = run_request(eval_request(5), keys);
                 }
             }},
            150));
        ASSERT_LE(
            std::count_if(std::begin(status), std::end(status), [](int one) { return one != 1; }),
            1)
            << "one failure failed several calls";
        ASSERT_TRUE(early == (store::Completion{2, 0}) || early == (store::Completion{0, 2}));

        ASSERT_TRUE(scheduler.run(
            seed, {[&] {
                store::script.objects.erase("900");
                register_functions();
                EXPECT_EQ(Omrapmi_worker_start(7), 1);
                EXPECT_EQ(run_request(eval_request(6), keys), (store::Completion{2, 0}));
            }}));
        ASSERT_EQ(schedules::num_forks(), 1u + 3u);
        ASSERT_EQ(Sys_get_mem_use(OMRAPMI_TAG_FUNCTBL).blocks, 1u);
        ASSERT_EQ(Sys_get_mem_use(OMRAPMI_TAG_WORKER_THRDS).blocks, 1u);
        store::script.answers.clear();
        check_quiet();
    }

    static void race_apart(Seed seed) {
        ASSERT_TRUE(passes_apart([=] { race(seed); }, false));
    }
};

TEST_F(FirstCalls, SetUpOnce) {
    explore(6'000 / share, race_apart);
}

TEST_F(FirstCalls, WithoutTheirLocksAreFoundWrong) {
    expect_found(
        1'000, [] { schedules::planted.open_process_cs = true; }, race_apart);
    expect_found(
        1'000, [] { schedules::planted.open_mutexes = true; }, race_apart);
}

} // namespace
