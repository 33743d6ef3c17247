#include "module_test.h"

#include "sysapp.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

namespace {

using interposer::instead;

// The requests that are delivered and not taken notice of. Worker threads outlive main, and so does
// this.
struct Request {
    Keys keys;
    std::optional<Completion> completion;
};
std::mutex &lock = *new std::mutex;
auto &requests = *new std::map<unsigned int, Request>; // by context; guarded by lock

int get_keys(unsigned int context, OMRA_OBJKEY *pkeys, unsigned int num_keys) {
    const std::lock_guard guard(lock);
    const Keys &keys = requests.at(context).keys;
    EXPECT_EQ(keys.size(), num_keys);
    std::copy(keys.begin(), keys.end(), pkeys);
    return OMRALIB_RET_SUCCESS;
}

int complete(unsigned int context, const Completion &completion) {
    if (on_complete) {
        on_complete(context);
    }
    const std::lock_guard guard(lock);
    EXPECT_FALSE(std::exchange(requests.at(context).completion, completion)) << "completed twice";
    return OMRALIB_RET_SUCCESS;
}

} // namespace

std::function<void(const std::function<bool()> &)> &wait_until =
    *new auto(std::function([](const std::function<bool()> &condition) {
        while (!condition()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }));
std::function<void(unsigned int)> &on_complete = *new std::function<void(unsigned int)>;

int deliver(OMRALIB_INVOKE_PARAMS params, const Keys &keys) {
    const unsigned int context = params.context;
    params.num_keys = static_cast<int>(keys.size());
    std::unique_lock guard(lock);
    requests[context] = {keys, {}};
    guard.unlock();
    const int result = Omrapmi_invoke_ext_cb("pmicli\0\0\0\0\0\0\0\0\0", &params);
    std::memset(&params, 0xEE, sizeof params); // the module must have made its own copy
    guard.lock();
    if (result != OMRALIB_INVOKE_ACCEPTED) {
        requests.erase(context);
    }
    return result;
}

Completion run_request(const OMRALIB_INVOKE_PARAMS &params, const Keys &keys) {
    EXPECT_EQ(deliver(params, keys), OMRALIB_INVOKE_ACCEPTED);
    Completion result = {};
    wait_until([&] {
        const std::lock_guard guard(lock);
        const auto completion = requests.at(params.context).completion;
        result = completion.value_or(result);
        return completion && requests.erase(params.context) == 1;
    });
    return result;
}

OMRALIB_INVOKE_PARAMS eval_request(unsigned int context, std::string_view params,
                                   unsigned int app_id) {
    const bool is_once = app_id == MGTI_APPID_INVOKE_ONCE;
    OMRALIB_INVOKE_PARAMS request = {};
    request.app_id = app_id;
    request.invoke_op = is_once ? set_functions::once_id : set_functions::eval_id;
    request.merge_op = set_functions::merge_id;
    request.context = context;
    request.invoke_timeout = 30;
    request.svr_host_id = 0xABC + context;
    request.results_key = world::key(900);
    request.exceptions_key = world::key(901);
    request.immediate_params = 1;
    params_ext(request).event_app_id = world::app;
    params_ext(request).immediate_params_len = static_cast<UCHAR>(params.size());
    std::memcpy(reinterpret_cast<char *>(&request.params_key) + 8, params.data(), params.size());
    return request;
}

OMRALIB_INVOKE_PARAMS merge_request(unsigned long long object, UCHAR is_merge) {
    OMRALIB_INVOKE_PARAMS request = eval_request(5);
    request.immediate_params = 0;
    request.merge_request = is_merge;
    request.params_key = world::key(object);
    return request;
}

OMRAPMI_PARAMS_EXT &params_ext(OMRALIB_INVOKE_PARAMS &params) {
    return *reinterpret_cast<OMRAPMI_PARAMS_EXT *>(&params.params_key);
}

Keys put_objects(unsigned int num_objects) {
    Keys keys;
    for (unsigned int i = 0; i < num_objects; ++i) {
        keys.push_back(world::key(i));
        world::put(i, set_functions::object_bytes(i));
    }
    return keys;
}

std::vector<OMRAPMI_EXCEPTION> exceptions(unsigned long long object) {
    const std::string bytes = world::bytes(object);
    std::vector<OMRAPMI_EXCEPTION> list(bytes.size() / sizeof(OMRAPMI_EXCEPTION)); // none of "none"
    std::copy_n(bytes.data(), list.size() * sizeof list[0], reinterpret_cast<char *>(list.data()));
    return list;
}

void check_outcome(const Completion &done, const set_functions::Invocation &invocation,
                   unsigned long long results, unsigned long long exceptions_object) {
    std::string result = world::bytes(results);
    std::vector<OMRAPMI_EXCEPTION> list = exceptions(exceptions_object);
    OMRAPMI_INVOKE_ARGS answer = {};
    answer.use_exceptions = TRUE;
    answer.num_successful_out = done.num_successful;
    answer.num_failed_out = done.num_failed;
    answer.presults_obj_out = result == "none" ? nullptr : result.data();
    answer.results_obj_len_out = result == "none" ? 0 : static_cast<ULONG>(result.size());
    answer.pexceptions_out = list.data();
    answer.num_exceptions_out = static_cast<ULONG>(list.size());
    EXPECT_EQ(set_functions::check_answer(answer, invocation), "");
    world::remove(results);
    world::remove(exceptions_object);
}

// Fixtures ----------------------------------------------------------------------------------------

void check_nothing_left() {
    EXPECT_EQ(interposer::take_reports(), "");
    EXPECT_EQ(interposer::take_misuse(), "");
    EXPECT_EQ(set_functions::take_complaints(), "");
    const interposer::Ledger left = interposer::ledger();
    EXPECT_TRUE(left.reads == 0 && left.object_locks == 0 && left.mutexes == 0);
    EXPECT_EQ(interposer::num_blocks(), 0u);
    EXPECT_TRUE(requests.empty()) << "a request left open";
}

void Module_test::SetUp() {
    world::open(*new TestClock);
    instead<Omralib_get_invoke_keys> = get_keys;
    instead<Omralib_complete_invoke> = [](OMRALIB_HANDLE, unsigned int context,
                                          unsigned int num_successful, unsigned int num_failed) {
        return complete(context, {num_successful, num_failed});
    };
    instead<Omralib_flush_invoke> = [](unsigned int context) { return complete(context, {}); };
    interposer::before = interposer::scripted;
    sys_trace_level = 0; // so that trace lines are put together
    Sys_set_trace_func([](const char *) {});
    hdl = interposer::real<Omralib_open_ext>(nullptr);
}
