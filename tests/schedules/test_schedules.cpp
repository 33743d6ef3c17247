// Thread orders, searched: the module runs on threads that the scheduler plays, seed after seed,
// and every run must come out right.
//
// SCHEDULES=N runs N seeds a test instead of its own number; SCHEDULE_SEED=S runs the one that a
// failure has printed.
#include "module/module_test.h"
#include "scheduler.h"

#include "sysapp.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using schedules::scheduler;
using set_functions::Invocation;
using set_functions::script;
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
    void SetUp() override {
        Module_test::SetUp();
        sys_trace_level = -1;
        wait_until = [](const auto &condition) { scheduler.wait_until(condition); };
        schedules::schedule_calls();
    }

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
                                      ASSERT_TRUE(set_functions::register_all(world::app));
                                      run_request(eval_request(1), put_objects(1));
                                  }}));
        check_quiet();
    }

    // What holds after every run, whatever happened in it.
    static void check_quiet() {
        check_nothing_left();
        ASSERT_EQ(interposer::ledger(), interposer::Ledger{});
        world::remove(900);
        world::remove(901);
        set_functions::reset();
    }
};

// The merge tree ----------------------------------------------------------------------------------

// Lets evals go on in this order of their objects only.
void force_order(std::vector<unsigned int> order) {
    auto turn = std::make_shared<std::size_t>(0);
    script().on_eval = [order = std::move(order), turn](unsigned int object) {
        scheduler.wait_until([&] { return order[*turn] == object; });
        ++*turn;
    };
}

class MergeTree : public Schedules {
protected:
    void SetUp() override {
        Schedules::SetUp();
        set_up_workers();
        put_objects(9);
    }

    // One request of 2 to 9 keys, with failing and silent functions. Each function knows where it
    // runs, also when it merges for another key than its thread has evaluated.
    static void run_one(Seed seed) {
        Rng rng(seed);
        const unsigned int n = 2 + static_cast<unsigned int>(rng() % 8);
        const bool may_fail = chance(rng, 2);
        std::set<unsigned int> failing, silent, failing_merges;
        for (unsigned int i = 0; i < n && may_fail; ++i) {
            if (chance(rng, 4)) {
                failing.insert(i);
            } else if (chance(rng, 4)) {
                silent.insert(i);
            }
            if (chance(rng, 8)) {
                failing_merges.insert(i);
            }
        }
        if (chance(rng, 2)) {
            std::vector<unsigned int> order(n);
            std::iota(order.begin(), order.end(), 0u);
            std::shuffle(order.begin(), order.end(), rng);
            force_order(order);
        }
        script().fails = [&](unsigned int object, unsigned int) {
            return failing.contains(object);
        };
        script().is_silent = [&](unsigned int object) { return silent.contains(object); };
        script().merge_fails = [&, nth = 0u](const auto &, const auto &) mutable {
            return failing_merges.contains(nth++);
        };
        script().is_sender = [](unsigned int host_id, unsigned int) {
            return host_id == 0xABC + 5;
        };
        Completion done{};
        Keys keys(n);
        std::generate(keys.begin(), keys.end(), [i = 0ull]() mutable { return world::key(i++); });
        ASSERT_TRUE(
            scheduler.run(seed, {[&] { done = run_request(eval_request(5), keys); }}, 40 * n));
        const set_functions::Seen seen = set_functions::seen();
        ASSERT_EQ(seen.num_keyless_merges, 0u);
        check_outcome(done, {.asked = set_functions::first_objects(n),
                             .fails = [&](unsigned int object) { return failing.contains(object); },
                             .is_silent = script().is_silent,
                             .merges_may_fail = true,
                             .num_failed_merges = seen.num_failed_merges});
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
    // Two halves of eight objects, of which 2 and 5 fail. As those of two hosts may, both merge
    // into the same results and exceptions objects; or they are of two invocations.
    static void run_both(Seed seed) {
        const bool is_shared = seed % 2 == 0;
        const auto fails = [](unsigned int object) { return object == 2 || object == 5; };
        script().fails = [=](unsigned int object, unsigned int) { return fails(object); };
        script().is_sender = [=](unsigned int host_id, unsigned int label) {
            return is_shared || host_id == 0xABC + label;
        };
        Completion done[2] = {};
        const auto run_half = [&](unsigned int half) {
            const unsigned int label = is_shared ? 0 : 5 + half;
            OMRALIB_INVOKE_PARAMS params =
                eval_request(5 + half, set_functions::object_bytes(label));
            if (!is_shared) {
                params.results_key = world::key(910 + half);
                params.exceptions_key = world::key(920 + half);
            }
            Keys keys;
            for (unsigned int i = 0; i < 4; ++i) {
                keys.push_back(world::key(4 * half + i));
            }
            done[half] = run_request(params, keys);
        };
        ASSERT_TRUE(scheduler.run(seed, {[&] { run_half(0); }, [&] { run_half(1); }}));
        ASSERT_EQ(set_functions::seen().num_keyless_merges, 0u);
        for (const Completion &half : done) {
            ASSERT_EQ(half, (Completion{3, 1}));
        }
        if (is_shared) {
            check_outcome({6, 2}, {.asked = set_functions::first_objects(8), .fails = fails});
        } else {
            const set_functions::Objects first = set_functions::first_objects(4);
            check_outcome(done[0], {.asked = first, .fails = fails}, 910, 920);
            check_outcome(done[1], {.asked = first << 4, .fails = fails}, 911, 921);
        }
        check_quiet();
    }

    // Only one of them runs while the other has the place; a refused one fails as a whole. Whoever
    // is told that one is complete may start the next: the place is free by then.
    static void run_singletons(Seed seed) {
        static const OMRAPMI_IDSC *const &place =
            omrapmi_worker_state.singleton_state.pidsc_singleton;
        Completion done[2] = {};
        const auto run_one_of_two = [&](unsigned int which) {
            OMRALIB_INVOKE_PARAMS params = eval_request(5 + which);
            params_ext(params).is_singleton = 1;
            params.results_key = world::key(910 + which);
            done[which] = run_request(params, {world::key(which * 2), world::key(which * 2 + 1)});
        };
        on_complete = [](unsigned int context) {
            EXPECT_TRUE(place == nullptr || place->params.context != context);
        };
        unsigned int num_running = 0, num_evals = 0;
        script().on_eval = [&](unsigned int object) {
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
        ASSERT_EQ(place, nullptr);
        on_complete = {};
        unsigned int num_successful = 0;
        for (const Completion &one : done) {
            ASSERT_EQ(one.num_successful + one.num_failed, 2u);
            ASSERT_NE(one.num_successful, 1u);
            num_successful += one.num_successful;
        }
        ASSERT_NE(num_successful, 0u);
        ASSERT_EQ(num_successful, num_evals);
        world::remove(910);
        world::remove(911);
        check_quiet();
    }
};

TEST_F(TwoRequests, ShareWhatTheyNeed) {
    explore(60'000 / share, run_both);
}

TEST_F(TwoRequests, SingletonsTakeTurns) {
    explore(30'000 / share, run_singletons);
}

// First calls -------------------------------------------------------------------------------------

class FirstCalls : public Schedules {
protected:
    // Everything that sets something up, at once, with one of the set-ups failing perhaps; and a
    // request that comes while its functions are being registered. In a new process.
    static void race(Seed seed) {
        Rng rng(seed);
        const std::vector<interposer::Answer> failures[] = {
            {{"Sys_malloc", 0, std::to_string(OMRAPMI_TAG_FUNCTBL)}},
            {{"Sys_malloc", 0, std::to_string(OMRAPMI_TAG_WORKER_THRDS)}},
            {{"Thread_fork", 0}},
            {{"register_cb", -199}},
            {},
            {},
        };
        schedules::planted.follows_script = true;
        interposer::script(failures[rng() % std::size(failures)]);
        int status[5] = {};
        const Keys keys = put_objects(2);
        Completion early = {0, 2};
        ASSERT_TRUE(
            scheduler.run(seed,
                          {[&] { status[0] = Omrapmi_worker_init_ext(3); },
                           [&] { status[1] = Omrapmi_worker_start(world::app); },
                           [&] {
                               status[2] = Omrapmi_worker_register_merge_func(
                                   set_functions::merge, set_functions::merge_id, world::app);
                           },
                           [&] {
                               status[3] = Omrapmi_worker_register_eval_func(
                                   set_functions::eval, set_functions::eval_id, world::app);
                           },
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
        ASSERT_TRUE(early == (Completion{2, 0}) || early == (Completion{0, 2}));

        ASSERT_TRUE(
            scheduler.run(seed, {[&] {
                              world::remove(900);
                              EXPECT_TRUE(set_functions::register_all(world::app));
                              EXPECT_EQ(Omrapmi_worker_start(world::app), 1);
                              EXPECT_EQ(run_request(eval_request(6), keys), (Completion{2, 0}));
                          }}));
        ASSERT_EQ(interposer::num_forks(), 1u + 3u);
        ASSERT_EQ(Sys_get_mem_use(OMRAPMI_TAG_FUNCTBL).blocks, 1u);
        ASSERT_EQ(Sys_get_mem_use(OMRAPMI_TAG_WORKER_THRDS).blocks, 1u);
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
