#include "scenarios.h"

#include "client/store.h"
#include "common/records.h"
#include "hasty_clock.h"
#include "runtime/descriptors.h"
#include "storapp.h"
#include "sysapp.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bitset>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>

namespace scenarios {
namespace {

using faults::Point;

constexpr unsigned int app = 7;
constexpr unsigned int num_hosts = 3, num_objects = 7;
enum FuncId : unsigned int { eval_id, merge_id, once_id, fold_only_id };

constexpr int eval_failure = 40, merge_failure = 41, no_memory = 42;
constexpr unsigned int failing_object = 3;   // its eval fails
constexpr unsigned int unmergeable = 5;      // merging fails when this alone is the source
constexpr unsigned int once_object = 20;     // stands for what an invoke-once eval returns
constexpr unsigned int hasty_timeout_s = 30; // 30 ms of the wall's time
constexpr unsigned int lone_timeout_s = 2000;
constexpr unsigned int patient_timeout_s = 20'000;

// A result is a set of objects, one bit each.
using Objects = ULONGLONG;

std::string complaints; // guarded by complaints_lock
std::mutex complaints_lock;
std::atomic<bool> worker_side_lost{false};
unsigned int timeout_s = hasty_timeout_s;          // of the scenario's invocations
std::atomic<unsigned int> failing{failing_object}; // none of the objects: no user function fails

void complain(const std::string &text) {
    const std::lock_guard guard(complaints_lock);
    if (complaints.find(text) == std::string::npos) {
        complaints += (complaints.empty() ? "" : "; ") + text;
    }
}

void expect(bool holds, const std::string &text) {
    if (!holds) {
        complain(text);
    }
}

// User functions ----------------------------------------------------------------------------------

int give(Objects objects, char **presult_out, unsigned int *plen_out) {
    *presult_out = static_cast<char *>(Omrapmi_malloc(sizeof objects));
    if (*presult_out == nullptr) {
        return no_memory;
    }
    std::memcpy(*presult_out, &objects, sizeof objects);
    *plen_out = sizeof objects;
    return 0;
}

int eval(const char *pdata, unsigned int, const char *, unsigned int, char **presult_out,
         unsigned int *plen_out) {
    const auto object = static_cast<unsigned int>(*pdata);
    return object == failing ? eval_failure : give(1ull << object, presult_out, plen_out);
}

int once(const char *, unsigned int, const char *, unsigned int, char **presult_out,
         unsigned int *plen_out) {
    return give(1ull << once_object, presult_out, plen_out);
}

// Merges small sets in place and gives back a new block for larger ones.
int merge(char *pdst, unsigned int dst_len, const char *psrc, unsigned int src_len, char **pout,
          unsigned int *plen_out) {
    Objects dst = 0, src = 0;
    expect(dst_len == sizeof dst && src_len == sizeof src, "a merge of another length");
    std::memcpy(&dst, pdst, sizeof dst);
    std::memcpy(&src, psrc, sizeof src);
    expect((dst & src) == 0, "an object was merged twice");
    if (failing == failing_object && src == 1ull << unmergeable) {
        return merge_failure;
    }
    dst |= src;
    if (std::bitset<64>(dst).count() > 3) {
        return give(dst, pout, plen_out);
    }
    std::memcpy(pdst, &dst, sizeof dst);
    *pout = pdst;
    *plen_out = dst_len;
    return 0;
}

// Invocations -------------------------------------------------------------------------------------

struct Request {
    bool once = false;
    bool singleton = false;
    unsigned int params_len = 4;
    unsigned int timeout_s = scenarios::timeout_s;
};

unsigned int matched(const Request &request) {
    return request.once ? 1 : num_objects;
}

void check_untouched(const OMRAPMI_INVOKE_ARGS &args, const OMRAPMI_INVOKE_ARGS &before) {
    expect(std::memcmp(&args, &before, sizeof args) == 0, "an error touched the output fields");
}

// An answer is right when every object is accounted for once, and the result holds just what the
// counts and the exceptions say. A successful object may be missing only behind a failed merge; one
// more may be there when the store did what it said it had not done.
void check_answer(const OMRAPMI_INVOKE_ARGS &args, const Request &request, bool replies_lost) {
    const Objects all =
        request.once ? 1ull << once_object
                     : ((1ull << num_objects) - 1) & ~(failing < num_objects ? 1ull << failing : 0);
    Objects result = 0;
    expect(args.results_obj_len_out == (args.presults_obj_out != nullptr ? sizeof result : 0),
           "a result of another length");
    if (args.presults_obj_out != nullptr) {
        std::memcpy(&result, args.presults_obj_out, sizeof result);
    }
    expect((result & ~all) == 0, "a result from an object that gives none");
    expect(args.num_successful_out + args.num_failed_out == matched(request),
           "counts do not add up");

    bool merge_failed = false;
    Objects excepted = 0;
    for (unsigned int i = 0; i < args.num_exceptions_out; ++i) {
        const OMRAPMI_EXCEPTION &exception = args.pexceptions_out[i];
        if (!exception.is_eval) {
            merge_failed = true;
            continue;
        }
        const Objects bit = 1ull << (request.once ? once_object : exception.key.obj_id.u64_comp[0]);
        expect((excepted & bit) == 0, "two exceptions for an object");
        expect((result & bit) == 0, "an exception for an object that is in the result");
        excepted |= bit;
    }
    expect(std::bitset<64>(excepted).count() <= args.num_failed_out,
           "more exceptions than failures");
    const auto num_in_result = static_cast<unsigned int>(std::bitset<64>(result).count());
    expect(merge_failed || args.num_successful_out <= num_in_result,
           "a successful object is not in the result");
    expect(replies_lost || args.num_successful_out >= num_in_result,
           "a failed object is in the result");
}

// Invokes once; the status, after the outputs have been checked.
int invoke(OMRALIB_HANDLE hdl, const Request &request, bool replies_lost) {
    static const std::string params(64, 'p');
    OMRAPMI_INVOKE_ARGS args;
    std::memset(&args, 0xEE, sizeof args); // in the padding too
    args.app_id = request.once ? MGTI_APPID_INVOKE_ONCE : app;
    args.func_id_eval = request.once ? once_id : eval_id;
    args.func_id_merge = merge_id;
    args.pparams_obj = params.data();
    args.params_obj_len = request.params_len;
    args.use_query_spec = OMRAPMI_QUERY_NONE;
    args.pquery_spec = nullptr;
    args.query_spec_len = 0;
    args.timeout_s = request.timeout_s;
    args.use_exceptions = TRUE;
    OMRAPMI_INVOKE_ARGS before;
    std::memcpy(&before, &args, sizeof args);
    OMRAPMI_INVOKE_EXT_ARGS args_ext{app, FALSE, request.singleton};
    const int status = Omrapmi_invoke_ext(hdl, &args, &args_ext);
    if (status != OMRALIB_RET_SUCCESS) {
        check_untouched(args, before);
        return status;
    }
    check_answer(args, request, replies_lost);
    Omrapmi_free(args.presults_obj_out);
    Omrapmi_free(args.pexceptions_out);
    return status;
}

OMRALIB_HANDLE application_handle() {
    static thread_local const OMRALIB_HANDLE hdl = faults::open_handle();
    return hdl;
}

bool may_lose_replies = true; // while points are armed

bool may_time_out = true; // when one call after the other fails

void invoke_armed(const Request &request) {
    const int status = invoke(application_handle(), request, may_lose_replies);
    expect(may_time_out || worker_side_lost || status != OMRALIB_ERR_INVOKE_TIMEOUT,
           "one failure kept the answer back");
}

// Every function of the module that a program may call first.
const std::array<std::function<int()>, 12> entries = {
    [] { return Omrapmi_worker_register_eval_func(eval, eval_id, app); },
    [] { return Omrapmi_worker_register_merge_func(merge, merge_id, app); },
    [] { return Omrapmi_worker_register_invoke_once_eval_func(once, once_id, app); },
    [] { return Omrapmi_worker_init(app); },
    [] { return Omrapmi_worker_start(app); },
    [] { return Omrapmi_worker_stop(app); },
    [] { return Omrapmi_get_worker_thread_count(); },
    [] { return Omrapmi_get_worker_thread_index(); },
    [] {
        OMRA_OBJKEY key;
        return Omrapmi_get_key(&key);
    },
    [] {
        unsigned int host = 0;
        return Omrapmi_worker_get_svr_host_id(&host);
    },
    [] {
        Omrapmi_free(Omrapmi_malloc(5));
        return OMRALIB_RET_SUCCESS;
    },
    [] { return invoke(application_handle(), {}, may_lose_replies); },
};

unsigned int chosen_num_workers = 1;

void set_up_module() {
    entries[0]();
    entries[1]();
    entries[2]();
    Omrapmi_worker_init_ext(chosen_num_workers);
    Omrapmi_worker_start(app);
}

template <std::size_t first>
void first_use() {
    Omrapmi_worker_init_ext(chosen_num_workers);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        entries[(first + i) % entries.size()]();
    }
}

void singleton_pair() {
    const Request request{.singleton = true};
    std::thread other([&] { invoke_armed(request); });
    invoke_armed(request);
    other.join();
}

} // namespace

const std::vector<Scenario> all = {
    {"Eval", false, [] { invoke_armed({}); }},
    {"StoredParams", false, [] { invoke_armed({.params_len = 40}); }},
    {"InvokeOnce", false, [] { invoke_armed({.once = true}); }},
    {"Singletons", false, singleton_pair},
    {"StartAndStop", false,
     [] {
         Omrapmi_worker_stop(app);
         Omrapmi_worker_start(app);
     }},
    {"FirstInvocation", true,
     [] {
         set_up_module();
         invoke_armed({.once = true});
     }},
    {"FirstRegistration", true, first_use<0>},
    {"FirstStart", true, first_use<4>},
    {"FirstQuery", true, first_use<6>},
    {"FirstInvoke", true, first_use<11>},
};

namespace {

// The world -----------------------------------------------------------------------------------

// Lives as long as the process: the module's threads are never told to end.
struct World {
    HastyClock clock;
    store::Store store;
    OMRALIB_HANDLE hdl = OMRALIB_NULL_HANDLE;

    static store::Configuration configuration() {
        store::Configuration result;
        result.num_hosts = num_hosts;
        result.lock_lease = 5 * store::millis_per_second;
        return result;
    }

    World()
        : store(store::engine_kinds().front().make(clock, configuration()), clock,
                configuration()) {
        hdl = application_handle();
        for (unsigned int i = 0; i < num_objects; ++i) {
            OMRA_OBJKEY key{};
            key.app_id = app;
            key.obj_id.u64_comp[0] = i;
            const auto byte = static_cast<char>(i);
            Omralib_store_obj(hdl, 0, &byte, 1, 0, key);
        }
    }
};

// The module tells the operator when no worker will ever run; nothing can work afterwards.
void listen(const char *line) {
    if (std::getenv("FAULT_POINTS") != nullptr) {
        std::fputs(line, stderr);
    }
    for (const char *text :
         {"Tr [pmi-td 0]", "Tr [pmi-td 1]", "no worker thread could be started"}) {
        if (std::strstr(line, text) != nullptr) {
            worker_side_lost = true;
        }
    }
}

// The pools' first descriptors, so that the module needs memory for more.
class HeldDescriptors {
public:
    HeldDescriptors() {
        for (OMRAPMI_IDSC *&pidsc : idscs_) {
            pidsc = Omrapmi_get_idsc();
        }
        for (OMRAPMI_WDSC *&pwdsc : wdscs_) {
            pwdsc = Omrapmi_get_wdsc();
        }
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

// Whatever the module still works on comes to its end; a hang ends the process.
void wait_until_idle() {
    const auto is_idle = [] {
        if (worker_side_lost) {
            return true;
        }
        for (const unsigned int tag :
             {OMRAPMI_TAG_NEW_OBJECT, OMRAPMI_TAG_OBJECT, OMRAPMI_TAG_LOCKED_OBJECT,
              OMRAPMI_TAG_REQUEST, OMRAPMI_TAG_USER}) {
            if (Sys_get_mem_use(tag).blocks != 0) {
                return false;
            }
        }
        const faults::Ledger left = faults::ledger();
        return left.descriptors == 0 && left.mutexes == 0 && left.object_locks == 0 &&
               left.threads == 0;
    };
    for (unsigned int looks = 0; !is_idle(); ++looks) {
        if (looks > 8'000) {
            const faults::Ledger left = faults::ledger();
            complain("kept for ever: " + std::to_string(left.descriptors) + " descriptors, " +
                     std::to_string(left.mutexes) + " mutexes, " +
                     std::to_string(left.object_locks) + " object locks, request blocks " +
                     std::to_string(Sys_get_mem_use(OMRAPMI_TAG_REQUEST).blocks) +
                     ", user blocks " + std::to_string(Sys_get_mem_use(OMRAPMI_TAG_USER).blocks));
            return;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

// An invocation that nothing disturbs gives the exact answer.
void check_invocation(const Request &request) {
    OMRALIB_STATS before{}, after{};
    Omralib_get_stats(&before);
    const int status = invoke(application_handle(), request, false);
    expect(status == OMRALIB_RET_SUCCESS,
           "the next invocation failed with " + std::to_string(status));
    Omralib_get_stats(&after);
    expect(before.num_refusals == after.num_refusals, "the next invocation was refused");
    expect(before.num_objects >= after.num_objects, "the next invocation left objects");
}

void check_afterwards(World &world) {
    set_up_module();
    failing = num_objects; // nothing may fail any more
    wait_until_idle();
    if (worker_side_lost) {
        return;
    }
    check_invocation({.params_len = 40, .timeout_s = patient_timeout_s});
    check_invocation({.once = true, .timeout_s = patient_timeout_s});
    check_invocation({.singleton = true, .timeout_s = patient_timeout_s});
    wait_until_idle();
    // What could not be removed has a time-out.
    OMRALIB_STATS stats{};
    for (unsigned int looks = 0; looks < 1000; ++looks) {
        world.clock.jump(patient_timeout_s * store::millis_per_second);
        Omralib_get_stats(&stats);
        if (stats.num_objects == num_objects) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    complain("objects stay: " + std::to_string(stats.num_objects - num_objects));
}

} // namespace

faults::Seen run(const Scenario &scenario, unsigned int num_workers,
                 const std::vector<Point> &points, std::string &complaint_out) {
    sys_trace_level = 0;
    Sys_set_trace_func(listen);
    World &world = *new World;
    chosen_num_workers = num_workers;
    may_lose_replies = std::any_of(points.begin(), points.end(), [](const Point &point) {
        return point.mode == faults::Mode::reply_lost;
    });
    std::optional<HeldDescriptors> held;
    may_time_out = points.size() != 1 || points[0].extent != faults::Extent::once;
    timeout_s = may_time_out ? hasty_timeout_s : lone_timeout_s;
    if (!scenario.starts_up) {
        set_up_module();
        failing = num_objects;
        check_invocation({.timeout_s = patient_timeout_s});
        failing = failing_object;
        wait_until_idle();
        held.emplace();
    }
    faults::arm(points, num_workers == 1);
    scenario.run();
    const faults::Seen seen = faults::disarm();
    held.reset();
    check_afterwards(world);
    complaint_out = complaints;
    return seen;
}

} // namespace scenarios
