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
#include <numeric>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using schedules::scheduler;
using set_functions::first_objects;
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
        set_functions::reset();
    }
};

// The merge tree ----------------------------------------------------------------------------------

class MergeTree : public Schedules {
protected:
    void SetUp() override {
        Schedules::SetUp();
        set_up_workers();
        all_keys = put_objects(9);
    }

    // One request of 2 to 9 keys, with failing and silent functions. Each function knows where it
    // runs, also when it merges for another key than its thread has evaluated.
    static void run_one(Seed seed) {
        Rng rng(seed);
        const auto n = static_cast<unsigned int>(2 + rng() % 8);
        // The objects that fail and that are silent, and the merges that fail, one bit each.
        Seed failing = 0, silent = 0, failing_merges = 0;
        if (chance(rng, 2)) {
            failing = rng() & rng();
            silent = rng() & rng();
            failing_merges = rng() & rng() & rng();
        }
        const auto in = [](Seed set) {
            return [=](unsigned int object, auto...) { return (set >> object & 1) != 0; };
        };
        script().fails = in(failing);
        script().is_silent = in(silent);
        script().merge_fails = [=, nth = 0u](const auto &, const auto &) mutable {
            return (failing_merges >> nth++ & 1) != 0;
        };
        script().is_sender = [](unsigned int host_id, unsigned int) {
            return host_id == 0xABC + 5;
        };
        if (chance(rng, 2)) { // evals go on in this order of their objects only
            std::vector<unsigned int> order(n);
            std::iota(order.begin(), order.end(), 0u);
            std::shuffle(order.begin(), order.end(), rng);
            script().on_eval = [order, turn = std::size_t{0}](unsigned int object) mutable {
                scheduler.wait_until([&] { return order[turn] == object; });
                ++turn;
            };
        }
        Completion done{};
        const Keys keys(all_keys.begin(), all_keys.begin() + n);
        ASSERT_TRUE(
            scheduler.run(seed, {[&] { done = run_request(eval_request(5), keys); }}, 40 * n));
        const set_functions::Seen seen = set_functions::seen();
        ASSERT_EQ(seen.num_keyless_merges, 0u);
        check_outcome(done, {.asked = first_objects(n),
                             .fails = in(failing),
                             .is_silent = in(silent),
                             .merges_may_fail = true,
                             .num_failed_merges = seen.num_failed_merges});
        check_quiet();
    }

    static inline Keys all_keys;
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
    // Runs two requests with four objects each. As those of two hosts may, both merge into the same
    // results and exceptions objects; or they are of two invocations.
    static void run_both(Seed seed, bool is_shared, BOOLEAN is_singleton, Completion (&done)[2]) {
        script().is_sender = [=](unsigned int host_id, unsigned int label) {
            return is_shared || host_id == 0xABC + label;
        };
        const auto run_half = [&](unsigned int half) {
            const unsigned int context = 5 + half, own = is_shared ? 0 : half;
            OMRALIB_INVOKE_PARAMS params =
                eval_request(context, set_functions::object_bytes(is_shared ? 0 : context));
            params_ext(params).is_singleton = is_singleton;
            params.results_key = world::key(900 + 2 * own);
            params.exceptions_key = world::key(901 + 2 * own);
            const auto first = all_keys.begin() + 4 * half;
            done[half] = run_request(params, {first, first + 4});
        };
        ASSERT_TRUE(scheduler.run(seed, {[&] { run_half(0); }, [&] { run_half(1); }}));
        ASSERT_EQ(set_functions::seen().num_keyless_merges, 0u);
    }
    static void check_half(unsigned int half, const Completion &done,
                           set_functions::Invocation its) {
        its.asked = first_objects(4) << 4 * half;
        check_outcome(done, its, 900 + 2 * half, 901 + 2 * half);
    }

    static void run_with_failures(Seed seed) {
        const auto fails = [](unsigned int object, auto...) { return object == 2 || object == 5; };
        script().fails = fails;
        Completion done[2] = {};
        run_both(seed, seed % 2 == 0, FALSE, done);
        if (seed % 2 == 0) {
            ASSERT_TRUE(done[0] == (Completion{3, 1}) && done[1] == done[0]);
            check_outcome({6, 2}, {.asked = first_objects(8), .fails = fails});
        } else {
            check_half(0, done[0], {.asked = {}, .fails = fails});
            check_half(1, done[1], {.asked = {}, .fails = fails});
        }
        check_quiet();
    }

    // Only one of them runs while the other has the place; a refused one fails as a whole, and
    // leaves the place to the other. Whoever is told that one is complete may start the next: the
    // place is free by then.
    static void run_singletons(Seed seed) {
        static OMRAPMI_IDSC *const &place = omrapmi_worker_state.singleton_state.pidsc_singleton;
        unsigned int num_running[2] = {}, num_evals = 0, num_run = 0;
        on_complete = [&](unsigned int context) {
            const bool runs = num_running[0] + num_running[1] != 0;
            EXPECT_TRUE(place == nullptr ? !runs : place->params.context != context);
        };
        script().on_eval = [&](unsigned int object) {
            ++num_running[object / 4], ++num_evals;
            EXPECT_TRUE(num_running[0] == 0 || num_running[1] == 0) << "two singletons at once";
            scheduler.point();
            --num_running[object / 4];
        };
        Completion done[2] = {};
        run_both(seed, false, TRUE, done);
        ASSERT_EQ(place, nullptr);
        for (const unsigned int half : {0u, 1u}) {
            if (done[half] != Completion{0, 4}) {
                check_half(half, done[half], {.asked = {}});
                ++num_run;
            }
        }
        ASSERT_NE(num_run, 0u);
        ASSERT_EQ(num_evals, 4 * num_run);
        on_complete = {};
        check_quiet();
    }
};

TEST_F(TwoRequests, ShareWhatTheyNeed) {
    explore(60'000 / share, run_with_failures);
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
        using namespace set_functions;
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
