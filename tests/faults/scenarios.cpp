#include "scenarios.h"

#include "common/records.h"
#include "runtime/descriptors.h"
#include "storapp.h"
#include "support/set_functions.h"
#include "support/world.h"
#include "sysapp.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include <unistd.h>

namespace scenarios {
namespace {

using faults::Extent;
using faults::Point;
using world::app;

constexpr unsigned int num_hosts = 3, num_objects = 7;
constexpr unsigned int failing_object = 3; // its eval fails
constexpr unsigned int unmergeable = 5;    // merging fails when this alone is the source
// By a clock a hundred times as fast as the wall's. The first is for runs in which one call after
// the other fails, and so may never come to their end; the other is never reached.
constexpr unsigned int hasty_timeout_s = 30, patient_timeout_s = 100'000;

std::mutex lock;
std::string complaints; // guarded by lock
std::atomic<bool> worker_side_lost{false};

// What holds for the run's invocations, while points are armed.
struct Conditions {
    unsigned int num_workers = 1;
    unsigned int timeout_s = hasty_timeout_s;
    bool lone = false; // no more than one call fails
    bool starts_up = false;
    bool calls_fail = true;
    bool replies_may_be_lost = true;
};
Conditions conditions;

void expect(bool holds, const std::string &text) {
    const std::lock_guard guard(lock);
    if (!holds && complaints.find(text) == std::string::npos) {
        complaints += (complaints.empty() ? "" : "; ") + text;
    }
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
std::optional<int> status_after(const std::string &failed) {
    static const std::map<std::string, int> statuses = {
        {"Omralib_init", OMRALIB_ERR_CANT_INIT},
        {"Omralib_handle_ready", faults::connection_lost},
        {"Omralib_store_obj", faults::connection_lost},
        {"Omralib_invoke", faults::connection_lost},
        {"Omralib_read_obj", faults::connection_lost},
        {"Omralib_get_read_data", faults::connection_lost},
        {"Omralib_remove_obj", faults::connection_lost},
        {"Sys_malloc", OMRAPMI_ERR_NO_INVOKER_MEMORY},
    };
    const auto found = statuses.find(failed);
    return found == statuses.end() ? std::nullopt : std::optional(found->second);
}

void invoke_armed(const Request &request) {
    faults::take_failed();
    set_functions::Invocation expected = calm(request);
    expected.objects_may_be_lost |= conditions.calls_fail;
    expected.answers_may_be_lost = conditions.replies_may_be_lost;
    const int status = invoke(request, expected, conditions.timeout_s);
    const std::string failed = faults::take_failed();
    const auto right = failed.empty() ? OMRALIB_RET_SUCCESS : status_after(failed);
    if (conditions.lone && !worker_side_lost) {
        expect(status == right ||
                   (failed.empty() && conditions.starts_up && status != OMRALIB_ERR_INVOKE_TIMEOUT),
               "the invocation ended with " + std::to_string(status) + " after " + failed);
    }
}

void set_up_module() {
    set_functions::register_all(app);
    Omrapmi_worker_init_ext(conditions.num_workers);
    Omrapmi_worker_start(app);
}

// What a program may call first, one of them the first and the others behind it.
template <std::size_t first>
void first_use() {
    static constexpr std::array<void (*)(), 7> entries = {
        [] { set_functions::register_all(app); },
        [] { Omrapmi_worker_init(app); },
        [] { Omrapmi_worker_start(app); },
        [] { Omrapmi_worker_stop(app); },
        [] {
            OMRA_OBJKEY key;
            unsigned int host = 0;
            Omrapmi_get_worker_thread_count();
            Omrapmi_get_worker_thread_index();
            Omrapmi_get_key(&key);
            Omrapmi_worker_get_svr_host_id(&host);
        },
        [] { Omrapmi_free(Omrapmi_malloc(5)); },
        [] { invoke_armed({}); },
    };
    Omrapmi_worker_init_ext(conditions.num_workers);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        entries[(first + i) % entries.size()]();
    }
}

template <Request request>
void invoke_one() {
    invoke_armed(request);
}

} // namespace

const std::vector<Scenario> all = {
    {"Eval", false, invoke_one<Request{}>},
    {"StoredParams", false, invoke_one<Request{.params_len = 40}>},
    {"InvokeOnce", false, invoke_one<Request{.once = true}>},
    {"Singletons", false,
     [] {
         const std::jthread other(invoke_one<Request{.singleton = true}>);
         invoke_one<Request{.singleton = true}>();
     }},
    {"StartAndStop", false,
     [] {
         Omrapmi_worker_stop(app);
         Omrapmi_worker_start(app);
     }},
    {"FirstInvocation", true,
     [] {
         set_up_module();
         invoke_one<Request{.once = true}>();
     }},
    {"FirstRegistration", true, first_use<0>},
    {"FirstStart", true, first_use<2>},
    {"FirstQuery", true, first_use<4>},
    {"FirstInvoke", true, first_use<6>},
};

namespace {

// The world -----------------------------------------------------------------------------------

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

// The module tells the operator when no worker will ever run. Nothing can work afterwards, so from
// then on time flies.
void listen(const char *line) {
    if (std::getenv("FAULT_POINTS") != nullptr) {
        std::fputs(line, stderr);
    }
    for (const char *text :
         {"Tr [pmi-td 0]", "Tr [pmi-td 1]", "no worker thread could be started"}) {
        if (std::strstr(line, text) != nullptr && !worker_side_lost.exchange(true)) {
            std::thread([] {
                for (;; usleep(1000)) {
                    pclock->advance(patient_timeout_s * platform::millis_per_second);
                }
            }).detach();
        }
    }
}

// The pools' first descriptors, so that the module needs memory for more.
class HeldDescriptors {
public:
    HeldDescriptors() {
        std::generate(idscs_.begin(), idscs_.end(), Omrapmi_get_idsc);
        std::generate(wdscs_.begin(), wdscs_.end(), Omrapmi_get_wdsc);
    }
    HeldDescriptors(const HeldDescriptors &) = delete;
    HeldDescriptors &operator=(const HeldDescriptors &) = delete;
    ~HeldDescriptors() {
        std::for_each(idscs_.begin(), idscs_.end(), Omrapmi_free_idsc);
        std::for_each(wdscs_.begin(), wdscs_.end(), Omrapmi_free_wdsc);
    }

private:
    std::array<OMRAPMI_IDSC *, OMRAPMI_NUM_BUILT_IN_IDSCS - 1> idscs_{};
    std::array<OMRAPMI_WDSC *, OMRAPMI_NUM_BUILT_IN_WDSCS - 1> wdscs_{};
};

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
void check_afterwards(const char *&stage_out) {
    stage_out = "in the next invocations";
    be_calm();
    check_invocation({.params_len = 40});
    check_invocation({.once = true});
    check_invocation({.singleton = true});
    stage_out = "while what could not be removed is to expire";
    wait_until_idle();
    OMRALIB_STATS stats{};
    do {
        pclock->advance(patient_timeout_s * platform::millis_per_second);
        Omralib_get_stats(&stats);
    } while (stats.num_objects != num_objects);
    expect_nothing_wrong();
}

} // namespace

faults::Seen run(const Scenario &scenario, unsigned int num_workers,
                 const std::vector<Point> &points, std::string &complaint_out,
                 const char *&stage_out) {
    sys_trace_level = 0;
    Sys_set_trace_func(listen);
    open_world();
    const bool lone = points.size() <= 1 && (points.empty() || points[0].extent == Extent::once);
    conditions = {num_workers,
                  lone ? patient_timeout_s : hasty_timeout_s,
                  lone,
                  scenario.starts_up,
                  !points.empty(),
                  std::any_of(points.begin(), points.end(), [](const Point &point) {
                      return point.mode == faults::Mode::reply_lost;
                  })};
    std::optional<HeldDescriptors> held;
    be_calm();
    if (!scenario.starts_up) {
        stage_out = "before anything fails";
        set_up_module();
        check_invocation({});
        wait_until_idle();
        expect_nothing_wrong();
        held.emplace();
    }
    set_functions::script().fails = [](unsigned int object, unsigned int) {
        return object == failing_object;
    };
    set_functions::script().merge_fails = [](const set_functions::Result &,
                                             const set_functions::Result &src) {
        return src.objects == set_functions::set_of({unmergeable});
    };
    stage_out = "in the scenario";
    faults::arm(points, num_workers == 1);
    scenario.run();
    const faults::Seen seen = faults::disarm();
    held.reset();
    stage_out = "while the module is to give back what it has taken";
    set_up_module();
    wait_until_idle();
    if (seen.num_fired != 0) {
        interposer::take_reports(); // a code that no store has given before breaks conditions
    }
    expect_nothing_wrong();
    expect(seen.num_fired != 0 || !worker_side_lost, "no worker is left");
    if (!worker_side_lost) {
        check_afterwards(stage_out);
    }
    complaint_out = complaints;
    return seen;
}

} // namespace scenarios
