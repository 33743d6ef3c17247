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

// Runs `body` in a process of its own. False when it ended in any way but well.
bool passes_apart(const std::function<void()> &body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
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
        wait_until = [](const auto &condition) { schedules::wait_until(condition); };
        schedules::schedule_calls();
    }

    using Run = std::function<void(Seed)>;

    // Runs seed after seed until one fails. What the number is comes from the environment.
    static void explore(Seed num_seeds, const Run &run) {
        const auto number = [](const char *name, Seed otherwise) {
            const char *text = std::getenv(name);
            return text ? std::strtoull(text, nullptr, 10) : otherwise;
        };
        const Seed only = number("SCHEDULE_SEED", 0);
        const Seed first = only ? only : 1, last = only ? only : number("SCHEDULES", num_seeds);
        for (Seed seed = first; seed <= last; ++seed) {
            run(seed);
            ASSERT_FALSE(HasFailure()) << "SCHEDULE_SEED=" << seed;
        }
    }

    // The threads are there before the first seed, so that each seed meets the same ones.
    static void set_up_workers() {
        const auto body = [] {
            EXPECT_EQ(Omrapmi_worker_init_ext(num_workers), 1);
            EXPECT_TRUE(set_functions::register_all(world::app));
            check_outcome(run_request(eval_request(1), put_objects(1)),
                          {.asked = first_objects(1)});
        };
        ASSERT_TRUE(schedules::run(0, {body}));
    }

    // What holds after every run, whatever happened in it.
    static void check_quiet() {
        check_nothing_left();
        ASSERT_EQ(interposer::ledger(), interposer::Ledger{});
        script() = {};
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
        if (rng() % 2 == 0) {
            failing = rng() & rng();
            silent = rng() & rng();
            failing_merges = rng() & rng() & rng();
        }
        const auto in = [](Seed set) {
            return [=](unsigned int object, auto...) { return (set >> object & 1) != 0; };
        };
        script().fails = in(failing);
        script().is_silent = in(silent);
        unsigned int num_merges = 0, num_failed_merges = 0;
        script().merge_fails = [&](const auto &, const auto &) {
            const bool fails = (failing_merges >> num_merges++ & 1) != 0;
            num_failed_merges += fails ? 1 : 0;
            return fails;
        };
        script().is_sender = [](unsigned int host_id, unsigned int) {
            return host_id == 0xABC + 5;
        };
        if (rng() % 2 == 0) { // evals go on in this order of their objects only
            std::vector<unsigned int> order(n);
            std::iota(order.begin(), order.end(), 0u);
            std::shuffle(order.begin(), order.end(), rng);
            script().on_eval = [order, turn = std::size_t{0}](unsigned int object) mutable {
                schedules::wait_until([&] { return order[turn] == object; });
                ++turn;
            };
        }
        Completion done{};
        const Keys keys(all_keys.begin(), all_keys.begin() + n);
        ASSERT_TRUE(
            schedules::run(seed, {[&] { done = run_request(eval_request(5), keys); }}, 60 * n));
        check_outcome(done, {.asked = first_objects(n),
                             .fails = in(failing),
                             .is_silent = in(silent),
                             .merges_may_fail = true,
                             .num_failed_merges = num_failed_merges});
        check_quiet();
    }

    static inline Keys all_keys;
};

TEST_F(MergeTree, IsExactInEveryOrder) {
    explore(100'000 / share, run_one);
}

// Requests beside each other ----------------------------------------------------------------------

class TwoRequests : public MergeTree {
protected:
    // Two requests with four objects each. As those of two hosts may, both merge into the same
    // results and exceptions objects; or they are of two invocations; or of two singletons. Only
    // one of these runs while the other has the place; a refused one fails as a whole, and leaves
    // the place to the other. Whoever is told that one is complete may start the next: the place is
    // free by then.
    static void run_two(Seed seed) {
        static OMRAPMI_IDSC *const &place = omrapmi_worker_state.singleton_state.pidsc_singleton;
        const bool is_shared = seed % 3 == 0, are_singletons = seed % 3 == 1;
        const auto fails = [](unsigned int object, auto...) { return object == 2 || object == 5; };
        unsigned int num_running[2] = {}, num_evals = 0, num_refused = 0;
        on_complete = [&](unsigned int context) {
            const bool runs = are_singletons && num_running[0] + num_running[1] != 0;
            EXPECT_TRUE(place == nullptr ? !runs : place->params.context != context);
        };
        script().fails = fails;
        script().is_sender = [=](unsigned int host_id, unsigned int label) {
            return is_shared || host_id == 0xABC + label;
        };
        script().on_eval = [&](unsigned int object) {
            ++num_running[object / 4], ++num_evals;
            EXPECT_TRUE(!are_singletons || num_running[0] == 0 || num_running[1] == 0);
            schedules::point();
            --num_running[object / 4];
        };
        Completion done[2] = {};
        const auto run_half = [&](unsigned int half) {
            const unsigned int context = 5 + half, own = is_shared ? 0 : half;
            OMRALIB_INVOKE_PARAMS params =
                eval_request(context, set_functions::object_bytes(is_shared ? 0 : context));
            params_ext(params).is_singleton = are_singletons;
            params.results_key = world::key(900 + 2 * own);
            params.exceptions_key = world::key(901 + 2 * own);
            const auto first = all_keys.begin() + 4l * half;
            done[half] = run_request(params, {first, first + 4});
        };
        ASSERT_TRUE(schedules::run(seed, {[&] { run_half(0); }, [&] { run_half(1); }}));
        ASSERT_EQ(place, nullptr);
        for (const unsigned int half : {0u, 1u}) {
            if (are_singletons && done[half] == Completion{0, 4}) {
                ++num_refused;
                continue;
            }
            ASSERT_EQ(done[half], (Completion{3, 1}));
            if (!is_shared) {
                check_outcome(done[half], {.asked = first_objects(4) << 4ul * half, .fails = fails},
                              900 + 2 * half, 901 + 2 * half);
            }
        }
        if (is_shared) {
            check_outcome({6, 2}, {.asked = first_objects(8), .fails = fails});
        }
        ASSERT_LE(num_refused, 1u);
        ASSERT_EQ(num_evals, 8 - 4 * num_refused);
        on_complete = {};
        check_quiet();
    }
};

TEST_F(TwoRequests, AreExactInEveryOrder) {
    explore(90'000 / share, run_two);
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
        };
        schedules::schedule_calls(true);
        if (const Seed failure = rng() % 6; failure < std::size(failures)) {
            interposer::script(failures[failure]);
        }
        int status[5] = {};
        const Keys keys = put_objects(2);
        Completion early = {0, 2};
        const std::vector<std::function<void()>> bodies = {
            [&] { status[0] = Omrapmi_worker_init_ext(3); },
            [&] { status[1] = Omrapmi_worker_start(world::app); },
            [&] { status[2] = Omrapmi_worker_register_merge_func(merge, merge_id, world::app); },
            [&] { status[3] = Omrapmi_worker_register_eval_func(eval, eval_id, world::app); },
            [&] { status[4] = Omrapmi_get_worker_thread_count() > 0 ? 1 : -1; },
            [&] { // the store has the callback when it delivers
                schedules::wait_until([&] { return status[1] != 0; });
                if (status[1] == 1) {
                    early = run_request(eval_request(5), keys);
                }
            },
        };
        ASSERT_TRUE(schedules::run(seed, bodies, 150));
        ASSERT_GE(std::ranges::count(status, 1), 4) << "one failure failed several calls";
        ASSERT_TRUE(early == (Completion{2, 0}) || early == (Completion{0, 2}));

        world::remove(900);
        const auto again = [&] {
            EXPECT_TRUE(set_functions::register_all(world::app));
            EXPECT_EQ(Omrapmi_worker_start(world::app), 1);
            check_outcome(run_request(eval_request(6), keys), {.asked = first_objects(2)});
        };
        ASSERT_TRUE(schedules::run(seed, {again}));
        ASSERT_EQ(interposer::num_forks(), 1u + 3u);
        ASSERT_EQ(Sys_get_mem_use(OMRAPMI_TAG_FUNCTBL).blocks, 1u);
        ASSERT_EQ(Sys_get_mem_use(OMRAPMI_TAG_WORKER_THRDS).blocks, 1u);
        check_quiet();
    }
};

TEST_F(FirstCalls, SetUpOnce) {
    explore(6'000 / share, [](Seed seed) { ASSERT_TRUE(passes_apart([=] { race(seed); })); });
}

} // namespace
