// Every call fails once: a scenario is run with its 1st, 2nd, 3rd... call failing, each time in a
// new process, until none fails; then with every pair of calls. After each run the module must have
// kept nothing and work as if nothing had happened. A scenario is a way of using a store of 3 hosts
// with a few objects, and a module that works for it.
//
// FAULT_POINTS replays what a failure has printed, in this process, for example
//   FAULT_POINTS='12 0 0' test_faults --gtest_filter=*Singles*/EvalWith2
#include "fault_points.h"

#include "common/records.h"
#include "runtime/descriptors.h"
#include "storapp.h"
#include "support/set_functions.h"
#include "support/world.h"
#include "sysapp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using faults::Extent;
using faults::Mode;
using world::app;
using Plan = std::vector<faults::Point>;

constexpr unsigned int num_hosts = 3, num_objects = 7;
constexpr unsigned int failing_object = 3; // its eval fails
constexpr unsigned int unmergeable = 5;    // merging fails when this alone is the source
// By a clock a hundred times as fast as the wall's. The first is for runs in which one call after
// the other fails, and so may never come to their end; the other is never reached.
constexpr unsigned int hasty_timeout_s = 30, patient_timeout_s = 100'000;

// Written by the processes of a sweep, read when they have ended.
struct Report {
    faults::Seen seen;
    const char *stage; // of this program's text
    char complaints[1000];
};
Report &report = *static_cast<Report *>(
    mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
std::mutex lock; // of the complaints
std::atomic<bool> worker_side_lost{false};

void expect(bool holds, const std::string &text) {
    const std::lock_guard guard(lock);
    const std::size_t len = std::strlen(report.complaints);
    if (!holds && std::strstr(report.complaints, text.c_str()) == nullptr) {
        (text + "; ").copy(report.complaints + len, sizeof report.complaints - len - 1);
    }
}

struct Scenario {
    const char *name;
    bool starts_up; // the module's set-up is a part of it, so that points are armed before
    void (*run)();  // while points are armed
};

// The present run.
Scenario scenario;
unsigned int num_workers = 0;
Plan plan;

bool is_lone() { // no more than one call fails
    return plan.empty() || (plan.size() == 1 && plan[0].extent == Extent::once);
}

// Invocations -------------------------------------------------------------------------------------

struct Request {
    bool once = false;
    bool singleton = false;
    unsigned int params_len = 4;
};

// What a run comes to that nothing disturbs.
set_functions::Invocation calm(const Request &request) {
    set_functions::Invocation result{request.once
                                         ? set_functions::set_of({set_functions::no_object})
                                         : set_functions::first_objects(num_objects)};
    result.fails = [](unsigned int object) {
        return set_functions::script().fails && object == failing_object;
    };
    result.merges_may_fail = static_cast<bool>(set_functions::script().merge_fails);
    // The hosts are one process, which runs one singleton at a time and refuses the others.
    result.objects_may_be_lost = request.singleton;
    return result;
}

// Invokes once; the status, after the outputs have been checked.
int invoke(const Request &request, const set_functions::Invocation &expected,
           unsigned int timeout_s) {
    static const std::string params(64, 'p');
    OMRAPMI_INVOKE_ARGS args;
    std::memset(&args, 0xEE, sizeof args); // in the padding too
    args.app_id = request.once ? MGTI_APPID_INVOKE_ONCE : app;
    args.func_id_eval = request.once ? set_functions::once_id : set_functions::eval_id;
    args.func_id_merge = set_functions::merge_id;
    args.pparams_obj = params.data();
    args.params_obj_len = request.params_len;
    args.use_query_spec = OMRAPMI_QUERY_NONE;
    args.pquery_spec = nullptr;
    args.query_spec_len = 0;
    args.timeout_s = timeout_s;
    args.use_exceptions = TRUE;
    OMRAPMI_INVOKE_ARGS before;
    std::memcpy(&before, &args, sizeof args);
    OMRAPMI_INVOKE_EXT_ARGS args_ext{app, FALSE, request.singleton};
    const int status = Omrapmi_invoke_ext(world::handle(), &args, &args_ext);
    if (status != OMRALIB_RET_SUCCESS) {
        // Padding counts: nothing at all is written.
        // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
        expect(std::memcmp(&args, &before, sizeof args) == 0, "an error touched the outputs");
        return status;
    }
    const std::string wrong = set_functions::check_answer(args, expected);
    expect(wrong.empty(), wrong);
    Omrapmi_free(args.presults_obj_out);
    Omrapmi_free(args.pexceptions_out);
    return status;
}

// What the invocation comes to when this is the only call that fails, and on the invoking side.
int status_after(const std::string &failed) {
    return failed.empty()             ? OMRALIB_RET_SUCCESS
           : failed == "Omralib_init" ? OMRALIB_ERR_CANT_INIT
           : failed == "Sys_malloc"   ? OMRAPMI_ERR_NO_INVOKER_MEMORY
                                      : faults::connection_lost;
}

void invoke_armed(const Request &request) {
    faults::take_failed();
    set_functions::Invocation expected = calm(request);
    expected.objects_may_be_lost |= !plan.empty();
    expected.answers_may_be_lost =
        std::ranges::count(plan, Mode::reply_lost, &faults::Point::mode) != 0;
    const int status = invoke(request, expected, is_lone() ? patient_timeout_s : hasty_timeout_s);
    const std::string failed = faults::take_failed();
    if (is_lone() && !worker_side_lost) {
        expect(status == status_after(failed) ||
                   (failed.empty() && scenario.starts_up && status != OMRALIB_ERR_INVOKE_TIMEOUT),
               "the invocation ended with " + std::to_string(status) + " after " + failed);
    }
}

void set_up_module() {
    set_functions::register_all(app);
    Omrapmi_worker_init_ext(num_workers);
    Omrapmi_worker_start(app);
}

const Scenario scenarios[] = {
    {"Eval", false, [] { invoke_armed({}); }},
    {"StoredParams", false, [] { invoke_armed({.params_len = 40}); }},
    {"InvokeOnce", false, [] { invoke_armed({.once = true}); }},
    {"Singletons", false,
     [] {
         const std::jthread other([] { invoke_armed({.singleton = true}); });
         invoke_armed({.singleton = true});
     }},
    {"StartAndStop", false, [] { Omrapmi_worker_stop(app), Omrapmi_worker_start(app); }},
    {"FirstInvocation", true, [] { set_up_module(), invoke_armed({.once = true}); }},
    {"FirstInvoke", true,
     [] {
         unsigned int host_id = 0;
         invoke_armed({}), Omrapmi_worker_init_ext(num_workers);
         Omrapmi_worker_get_svr_host_id(&host_id), set_up_module();
     }},
};

// A run -------------------------------------------------------------------------------------------

TestClock *pclock = nullptr;

// Lives as long as the process: the module's threads are never told to end.
void open_world() {
    pclock = new TestClock(100);
    world::open(*pclock, {num_hosts, platform::millis_per_minute, 5});
    for (unsigned int object = 0; object < num_objects; ++object) {
        world::put(object, set_functions::object_bytes(object));
    }
    interposer::before = faults::fail_by_number;
    interposer::instead<Thread_sleep> = [](unsigned int duration_ms) { usleep(duration_ms); };
}

// The module tells the operator when a thread for requests cannot go on. Nobody serves any more.
void listen(const char *line) {
    if (std::getenv("FAULT_POINTS") != nullptr) {
        std::fputs(line, stderr);
    }
    for (const char *text : {"Tr [pmi-td 0]", "Tr [pmi-td 1]", "Tr [pmi-tw 0]", "Tr [pmi-tw 1]"}) {
        if (std::strstr(line, text) != nullptr) {
            worker_side_lost = true;
        }
    }
}

// Whatever the module still works on comes to its end.
void wait_until_idle() {
    while (!worker_side_lost &&
           (interposer::num_blocks() != 0 || interposer::ledger() != interposer::Ledger{})) {
        usleep(200);
    }
}

// No user function fails. Where they run is not judged: a thread whose read failed has an object's
// key without having evaluated it.
void be_calm() {
    set_functions::script() = {};
    set_functions::script().ask = false;
}

// An invocation that nothing disturbs gives the exact answer and leaves no object.
void check_invocation(const Request &request) {
    OMRALIB_STATS before{}, after{};
    Omralib_get_stats(&before);
    const int status = invoke(request, calm(request), patient_timeout_s);
    expect(status == OMRALIB_RET_SUCCESS,
           "an undisturbed invocation failed with " + std::to_string(status));
    Omralib_get_stats(&after);
    expect(before.num_refusals == after.num_refusals, "an undisturbed invocation was refused");
    expect(before.num_objects >= after.num_objects, "an undisturbed invocation left objects");
}

void expect_nothing_wrong() {
    for (const std::string &wrong : {set_functions::take_complaints(), interposer::take_misuse(),
                                     interposer::take_reports()}) {
        expect(wrong.empty(), wrong);
    }
}

// Everything is as before, and what could not be removed expires.
void check_afterwards() {
    report.stage = "in the next invocations";
    be_calm();
    check_invocation({.params_len = 40});
    check_invocation({.once = true});
    check_invocation({.singleton = true});
    report.stage = "while what could not be removed is to expire";
    wait_until_idle();
    OMRALIB_STATS stats{};
    do {
        pclock->advance(patient_timeout_s * platform::millis_per_second);
        Omralib_get_stats(&stats);
    } while (stats.num_objects != num_objects);
    expect_nothing_wrong();
}

// Runs the scenario with these points armed.
void play(const Plan &points) {
    sys_trace_level = 0;
    Sys_set_trace_func(listen);
    open_world();
    plan = points;
    be_calm();
    // The pools' first descriptors, so that the module needs memory for more.
    std::vector<OMRAPMI_IDSC *> idscs;
    std::vector<OMRAPMI_WDSC *> wdscs;
    if (!scenario.starts_up) {
        report.stage = "before anything fails";
        set_up_module();
        check_invocation({});
        wait_until_idle();
        expect_nothing_wrong();
        std::generate_n(std::back_inserter(idscs), OMRAPMI_NUM_BUILT_IN_IDSCS - 1,
                        Omrapmi_get_idsc);
        std::generate_n(std::back_inserter(wdscs), OMRAPMI_NUM_BUILT_IN_WDSCS - 1,
                        Omrapmi_get_wdsc);
    }
    set_functions::script().fails = [](unsigned int object, unsigned int) {
        return object == failing_object;
    };
    set_functions::script().merge_fails = [](const set_functions::Result &,
                                             const set_functions::Result &src) {
        return src.objects == set_functions::set_of({unmergeable});
    };
    report.stage = "in the scenario";
    faults::arm(plan, num_workers == 1);
    scenario.run();
    report.seen = faults::disarm();
    std::ranges::for_each(idscs, Omrapmi_free_idsc);
    std::ranges::for_each(wdscs, Omrapmi_free_wdsc);
    report.stage = "while the module is to give back what it has taken";
    set_up_module();
    wait_until_idle();
    if (report.seen.num_fired != 0) {
        interposer::take_reports(); // a code that no store has given before breaks conditions
    }
    expect_nothing_wrong();
    expect(report.seen.num_fired != 0 || !worker_side_lost, "no worker is left");
    if (!worker_side_lost) {
        check_afterwards();
    }
}

// A sweep -----------------------------------------------------------------------------------------

// By scenario and number of worker threads.
class Sweep : public testing::TestWithParam<std::tuple<Scenario, unsigned int>> {
protected:
    void SetUp() override {
        std::tie(scenario, num_workers) = GetParam();
        if (const char *text = std::getenv("FAULT_POINTS")) {
            play(faults::to_points(text));
            ASSERT_STREQ("", report.complaints);
            GTEST_SKIP() << "the one run is right";
        }
        calm = run({});
        ASSERT_NE(0u, calm.num_calls);
    }

    // Runs the scenario in a new process.
    static faults::Seen run(const Plan &points) {
        report = {};
        const pid_t child = fork();
        if (child == 0) {
            alarm(60);
            play(points);
            _exit(report.complaints[0] == '\0' ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0) << "FAULT_POINTS='" << faults::to_text(points)
                             << "': " << report.complaints
                             << (WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : "") << " "
                             << (report.stage ? report.stage : "at the start");
        return report.seen;
    }

    faults::Seen calm; // what happens without failures
};

// Each call alone, in every mode and extent.
using Singles = Sweep;
constexpr std::pair<Mode, Extent> ways[] = {
    {Mode::refused, Extent::once},      {Mode::refused, Extent::all},
    {Mode::reply_lost, Extent::once},   {Mode::reply_lost, Extent::all},
    {Mode::refused, Extent::operation}, {Mode::reply_lost, Extent::operation},
};

TEST_P(Singles, Sweep) {
    for (const auto &[mode, extent] : ways) {
        const unsigned int num_calls =
            mode == Mode::refused ? calm.num_calls : calm.num_store_calls;
        faults::Seen seen;
        for (unsigned int number = 1; (number <= num_calls || seen.num_fired != 0) && !HasFailure();
             ++number) {
            seen = run({{number, mode, extent}});
        }
    }
}

// Every two calls refused once, for scenarios of up to 200 calls; in short ones also failing in
// other ways: a pair of modes, another one for each neighbour.
using Pairs = Sweep;

TEST_P(Pairs, Sweep) {
    ASSERT_GE(200u, calm.num_calls);
    for (unsigned int first = 1; first <= calm.num_calls; ++first) {
        for (unsigned int second = first + 1; second <= calm.num_calls && !HasFailure(); ++second) {
            run({{first}, {second}});
            if (calm.num_calls <= 60) {
                const unsigned int turn = 1 + (first + second) % 3;
                run({{first, Mode{turn / 2}}, {second, Mode{turn % 2}}});
            }
        }
    }
}

std::string name_of(const testing::TestParamInfo<Sweep::ParamType> &info) {
    return std::get<0>(info.param).name + ("With" + std::to_string(std::get<1>(info.param)));
}

INSTANTIATE_TEST_SUITE_P(Faults, Singles,
                         testing::Combine(testing::ValuesIn(scenarios), testing::Values(1, 2, 8)),
                         name_of);
INSTANTIATE_TEST_SUITE_P(Faults, Pairs,
                         testing::Combine(testing::ValuesIn(scenarios), testing::Values(2)),
                         name_of);

} // namespace
