#include "module_test.h"

#include "dispatch/dispatcher.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

using interposer::instead;
using interposer::real;

namespace {

void poll(const std::function<bool()> &condition) {
    for (unsigned int looks = 0; !condition(); ++looks) {
        if (looks == 100'000) {
            std::fprintf(stderr, "waited in vain\n");
            std::abort();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Requests that are delivered and not forgotten yet. Worker threads outlive main, and so does this.
struct Request {
    std::vector<OMRA_OBJKEY> keys;
    std::optional<Completion> completion;
};
std::mutex &book_lock = *new std::mutex;
std::map<unsigned int, Request> &book = *new std::map<unsigned int, Request>; // guarded by it

int get_keys(unsigned int context, OMRA_OBJKEY *pkeys, unsigned int num_keys) {
    const std::lock_guard guard(book_lock);
    const auto found = book.find(context);
    if (found == book.end() || found->second.keys.size() != num_keys) {
        ADD_FAILURE() << "the keys of no request, or another number";
        return OMRALIB_ERR_BAD_ARGS;
    }
    std::copy(found->second.keys.begin(), found->second.keys.end(), pkeys);
    return OMRALIB_RET_SUCCESS;
}

int complete(unsigned int context, const Completion &completion) {
    if (on_complete) {
        on_complete(context);
    }
    const std::lock_guard guard(book_lock);
    const auto found = book.find(context);
    if (found == book.end() || found->second.completion) {
        ADD_FAILURE() << "completed twice, or unknown";
        return OMRALIB_ERR_BAD_ARGS;
    }
    found->second.completion = completion;
    return OMRALIB_RET_SUCCESS;
}

void keep_book() {
    instead<Omralib_get_invoke_keys> = get_keys;
    instead<Omralib_complete_invoke> = [](OMRALIB_HANDLE, unsigned int context,
                                          unsigned int num_successful, unsigned int num_failed) {
        return complete(context, {num_successful, num_failed});
    };
    instead<Omralib_flush_invoke> = [](unsigned int context) {
        return complete(context, {0, 0, true});
    };
}

} // namespace

std::function<void(const std::function<bool()> &)> &wait_until =
    *new std::function<void(const std::function<bool()> &)>(poll);
std::function<void(unsigned int)> &on_complete = *new std::function<void(unsigned int)>;

int deliver(OMRALIB_INVOKE_PARAMS params, const std::vector<OMRA_OBJKEY> &keys) {
    char guid[OMRALIB_GUID_LEN] = "pmicli";
    params.num_keys = static_cast<int>(keys.size());
    {
        const std::lock_guard guard(book_lock);
        book[params.context] = {keys, std::nullopt};
    }
    const int result = Omrapmi_invoke_ext_cb(guid, &params);
    if (result != OMRALIB_INVOKE_ACCEPTED) {
        const std::lock_guard guard(book_lock);
        book.erase(params.context);
    }
    std::memset(&params, 0xEE, sizeof params); // the module must have made its own copy
    return result;
}

Completion wait_complete(unsigned int context) {
    Completion result = {};
    wait_until([&] {
        const std::lock_guard guard(book_lock);
        const auto found = book.find(context);
        if (found == book.end() || !found->second.completion) {
            return false;
        }
        result = *found->second.completion;
        book.erase(found);
        return true;
    });
    return result;
}

Completion run_request(const OMRALIB_INVOKE_PARAMS &params, const std::vector<OMRA_OBJKEY> &keys) {
    EXPECT_EQ(deliver(params, keys), OMRALIB_INVOKE_ACCEPTED);
    return wait_complete(params.context);
}

OMRALIB_INVOKE_PARAMS eval_request(unsigned int context, std::string_view params) {
    OMRALIB_INVOKE_PARAMS request = {};
    request.app_id = world::app;
    request.invoke_op = set_functions::eval_id;
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

OMRALIB_INVOKE_PARAMS stored_params_request(unsigned int context) {
    OMRALIB_INVOKE_PARAMS request = eval_request(context);
    request.immediate_params = 0;
    request.params_key = world::key(50);
    return request;
}

OMRALIB_INVOKE_PARAMS once_request(unsigned int context) {
    OMRALIB_INVOKE_PARAMS request = eval_request(context);
    request.app_id = MGTI_APPID_INVOKE_ONCE;
    request.invoke_op = set_functions::once_id;
    return request;
}

OMRALIB_INVOKE_PARAMS merge_request(unsigned int context, unsigned long long source) {
    OMRALIB_INVOKE_PARAMS request = stored_params_request(context);
    request.merge_request = 1;
    request.params_key = world::key(source);
    return request;
}

OMRAPMI_PARAMS_EXT &params_ext(OMRALIB_INVOKE_PARAMS &params) {
    return *reinterpret_cast<OMRAPMI_PARAMS_EXT *>(&params.params_key);
}

std::vector<OMRA_OBJKEY> put_objects(unsigned int num_objects) {
    std::vector<OMRA_OBJKEY> keys;
    for (unsigned int i = 0; i < num_objects; ++i) {
        keys.push_back(world::key(i));
        world::put(i, set_functions::object_bytes(i));
    }
    return keys;
}

void check_outcome(const Completion &done, const set_functions::Invocation &invocation,
                   unsigned long long results, unsigned long long exceptions_object) {
    std::string result = world::bytes(results);
    std::vector<OMRAPMI_EXCEPTION> list = exceptions(exceptions_object);
    OMRAPMI_INVOKE_ARGS answer = {};
    answer.use_exceptions = TRUE;
    answer.num_successful_out = done.num_successful;
    answer.num_failed_out = done.num_failed;
    if (result != "none") {
        answer.presults_obj_out = result.data();
        answer.results_obj_len_out = static_cast<ULONG>(result.size());
    }
    answer.pexceptions_out = list.empty() ? nullptr : list.data();
    answer.num_exceptions_out = static_cast<ULONG>(list.size());
    EXPECT_EQ(set_functions::check_answer(answer, invocation), "");
    world::remove(results);
    world::remove(exceptions_object);
}

std::vector<OMRAPMI_EXCEPTION> exceptions(unsigned long long object) {
    const std::string bytes = world::bytes(object);
    std::vector<OMRAPMI_EXCEPTION> records(
        bytes == "none" ? 0 : bytes.size() / sizeof(OMRAPMI_EXCEPTION));
    if (!records.empty()) {
        std::memcpy(records.data(), bytes.data(), records.size() * sizeof records[0]);
    }
    return records;
}

// Fixtures ----------------------------------------------------------------------------------------

void check_nothing_left() {
    EXPECT_EQ(interposer::take_reports(), "");
    EXPECT_EQ(interposer::take_misuse(), "");
    EXPECT_EQ(set_functions::take_complaints(), "");
    const interposer::Ledger left = interposer::ledger();
    EXPECT_TRUE(left.reads == 0 && left.object_locks == 0 && left.mutexes == 0);
    EXPECT_EQ(interposer::num_blocks(), 0u);
    const std::lock_guard guard(book_lock);
    EXPECT_TRUE(book.empty()) << "a request left open";
}

void Module_test::SetUp() {
    world::open(*new TestClock);
    keep_book();
    interposer::before = interposer::scripted;
    interposer::collect_traces();
    hdl = real<Omralib_open_ext>(nullptr);
}

void Stepped_test::SetUp() {
    Module_test::SetUp();
    instead<Thread_fork> = [](void *(*)(void *), void *) { return THREADID{1}; };
    instead<Thread_end> = [] {};
    set_functions::script().ask = false;
    ASSERT_EQ(Omrapmi_worker_init_ext(2), 1);
    ASSERT_TRUE(set_functions::register_all(world::app));
    interposer::take_traces();
}

OMRAPMI_IDSC *Stepped_test::next_request() {
    return reinterpret_cast<OMRAPMI_IDSC *>(Blockq_deq(&omrapmi_worker_state.idsc_blockq, 0));
}

OMRAPMI_WDSC *Stepped_test::next_work() {
    return reinterpret_cast<OMRAPMI_WDSC *>(Blockq_deq(&omrapmi_worker_state.wdsc_blockq, 0));
}

std::vector<OMRAPMI_WDSC *> Stepped_test::dispatch(const OMRALIB_INVOKE_PARAMS &params,
                                                   const std::vector<OMRA_OBJKEY> &keys) const {
    EXPECT_EQ(deliver(params, keys), OMRALIB_INVOKE_ACCEPTED);
    OMRAPMI_IDSC *pidsc = next_request();
    EXPECT_TRUE(Omrapmi_dispatcher(hdl, pidsc));
    std::vector<OMRAPMI_WDSC *> work;
    while (OMRAPMI_WDSC *pwdsc = next_work()) {
        EXPECT_EQ(pwdsc->pidsc, pidsc);
        work.push_back(pwdsc);
    }
    return work;
}

void Live_test::SetUp() {
    Module_test::SetUp();
    ASSERT_EQ(Omrapmi_worker_init_ext(4), 1);
    ASSERT_TRUE(set_functions::register_all(world::app));
    interposer::take_traces();
}

Completion Live_test::run(const OMRALIB_INVOKE_PARAMS &params,
                          const std::vector<OMRA_OBJKEY> &keys) {
    const Completion completion = run_request(params, keys);
    wait_until([] { return interposer::ledger() == interposer::Ledger{}; });
    return completion;
}
