// Any bytes as a request of Omralib_invoke, to the embedded store with four played hosts, whose
// callbacks accept, refuse, say nonsense about their counts, or never answer.
//
// All hosts run on the invoking thread, and time leaps to what is waited for, so that a run depends
// on its input alone.
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "client/store.h"
#include "support/clocks.h"
#include "support/decorators.h"
#include "fuzz.h"

namespace {

using fuzz::check;

constexpr unsigned int served_app = 77;
constexpr unsigned int data_app = 5;
constexpr ULONGLONG num_objects = 40;

class LeapingClock final : public store::Clock {
public:
    store::Millis now() const override { return time_.now(); }
    void add_listener(std::function<void()> on_jump) override {
        time_.add_listener(std::move(on_jump));
    }
    void wait(std::unique_lock<std::mutex> &lock, std::condition_variable &wake,
              store::Millis deadline) override {
        if (std::this_thread::get_id() != thread_) {
            time_.wait(lock, wake, deadline);
            return;
        }
        check(deadline != store::never, "waits for what cannot come");
        lock.unlock();
        time_.advance(deadline - time_.now());
        lock.lock();
    }

private:
    TestClock time_;
    const std::thread::id thread_ = std::this_thread::get_id();
};

struct World {
    LeapingClock clock;
    store::Store *pstore = nullptr;
    OMRALIB_HANDLE hdl = OMRALIB_NULL_HANDLE;
    OMRALIB_HANDLE worker = OMRALIB_NULL_HANDLE;
    FuzzedDataProvider *data = nullptr;
    bool may_be_silent = false;
};
World &world = *new World; // threads of the store outlive main

unsigned int draw_count() {
    FuzzedDataProvider &data = *world.data;
    return data.ConsumeBool() ? data.ConsumeIntegralInRange<unsigned int>(0, 50)
                              : data.ConsumeIntegral<unsigned int>();
}

void draw_object(const OMRA_OBJKEY &key) {
    FuzzedDataProvider &data = *world.data;
    if (data.ConsumeBool()) {
        const std::string bytes = data.ConsumeRandomLengthString(100);
        Omralib_store_obj(world.worker, 0, bytes.data(), static_cast<unsigned int>(bytes.size()), 1,
                          key);
    }
}

int on_invoke(const char *, OMRALIB_INVOKE_PARAMS *pparams) {
    FuzzedDataProvider &data = *world.data;
    static constexpr int refusals[] = {OMRALIB_INVOKE_NO_KEYS, OMRALIB_INVOKE_NO_MEMORY, 0, -120};
    if (pparams->merge_request == 0) {
        std::vector<OMRA_OBJKEY> keys(static_cast<std::size_t>(pparams->num_keys));
        check(Omralib_get_invoke_keys(pparams->context, keys.data(),
                                      static_cast<unsigned int>(keys.size())) == 1,
              "no keys");
    }
    switch (data.ConsumeIntegralInRange<int>(0, 7)) {
    case 5:
        return data.PickValueInArray(refusals);
    case 6:
        Omralib_flush_invoke(pparams->context);
        return OMRALIB_INVOKE_ACCEPTED;
    case 7:
        if (world.may_be_silent) {
            return OMRALIB_INVOKE_ACCEPTED;
        }
        [[fallthrough]];
    default:
        draw_object(pparams->results_key);
        draw_object(pparams->exceptions_key);
        const unsigned int num_successful = draw_count();
        Omralib_complete_invoke(world.worker, pparams->context, num_successful, draw_count());
        return OMRALIB_INVOKE_ACCEPTED;
    }
}

std::string draw_query(FuzzedDataProvider &data, OMRA_INDEX_HDR &header) {
    header.reserved1 = data.ConsumeIntegralInRange<ULONG>(0, 3);
    std::string query;
    if (header.reserved1 == OMRALIB_QUERY_PASS_THROUGH) {
        query = data.ConsumeRandomLengthString(100);
        header.num_index = static_cast<ULONG>(query.size());
    } else {
        header.num_index = data.ConsumeIntegralInRange<ULONG>(0, 9);
        for (ULONG i = 0; i < header.num_index; ++i) {
            OMRA_INDEX_SPEC spec = {};
            spec.index = data.ConsumeIntegralInRange<USHORT>(0, 8);
            spec.flags = data.ConsumeIntegralInRange<USHORT>(0, 2);
            spec.value.u64_comp[0] = data.ConsumeIntegralInRange<ULONGLONG>(0, 9);
            query.append(reinterpret_cast<const char *>(&spec), sizeof spec);
        }
    }
    if (data.ConsumeIntegralInRange<int>(0, 7) == 7) {
        header.num_index = data.ConsumeIntegral<ULONG>();
    }
    return query;
}

// Mostly a request with one thing wrong at most; sometimes just bytes.
std::string draw_request(FuzzedDataProvider &data) {
    static constexpr ULONG app_ids[] = {data_app, MGTI_APPID_INVOKE_ONCE, OMRALIB_ALL_APP_IDS, 0};
    static constexpr ULONG timeouts[] = {0, 1, 1000, 0xFFFFFFFF};
    OMRA_INDEX_HDR header = {};
    header.reserved = OMRALIB_INDEX_OP_INVOKE;
    header.app_id = data.PickValueInArray(app_ids);
    header.reserved2 = data.ConsumeBool() ? served_app : data.PickValueInArray(app_ids);
    header.invoke_timeout = data.PickValueInArray(timeouts);
    header.immediate_params = data.ConsumeIntegral<UCHAR>();
    const std::string query = draw_query(data, header);
    std::string request(reinterpret_cast<const char *>(&header), sizeof header);
    switch (data.ConsumeIntegralInRange<int>(0, 7)) {
    case 6:
        return data.ConsumeRandomLengthString(300);
    case 7:
        request = data.ConsumeBytesAsString(sizeof header);
        [[fallthrough]];
    default:
        return request + query;
    }
}

ULONGLONG count(unsigned int app_id) {
    ULONGLONG num = 0;
    Omralib_count_objs(world.hdl, app_id, &num);
    return num;
}

void check_result(const OMRA_INVOKE_RESULT &result) {
    check(result.reserved == OMRALIB_INDEX_OP_INVOKE, "the kind of a result");
    check(ULONGLONG{result.num_successful} + result.num_failed <= num_objects, "too many objects");
    for (const OMRA_OBJKEY &key : {result.results_key, result.exceptions_key}) {
        if (!OMRA_OBJKEY_IS_NULL(key)) {
            check(Omralib_remove_obj(world.hdl, 0, key) == 1, "a result names no object");
        }
    }
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***) {
    store::Configuration configuration;
    configuration.num_hosts = 4;
    world.pstore =
        new store::Store(
            decorated(store::engine_kinds().front().make(world.clock, configuration)), world.clock,
            configuration);
    decorator_of(world.pstore->cluster()).in_order = true;
    world.hdl = Omralib_open_ext(nullptr);
    world.worker = Omralib_open_ext("a worker's guid.");
    OMRALIB_CB cb;
    cb.invoke_ext_cb = on_invoke;
    Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, cb);
    Omralib_start_app_event_handling(world.worker, served_app);
    for (ULONGLONG number = 0; number < num_objects; ++number) {
        OMRA_OBJKEY key = {};
        key.app_id = data_app;
        key.obj_id.u64_comp[0] = number;
        const OMRA_OBJ_INDEX index = {
            static_cast<USHORT>(number % 8), {}, {{number % 10, 0, 0, 0}}};
        Omralib_store_indexed_obj(world.hdl, &number, sizeof number, 0, &index, 1, key);
    }
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *pdata, std::size_t size) {
    FuzzedDataProvider data(pdata, size);
    world.data = &data;
    const std::string request = draw_request(data);
    OMRA_INDEX_HDR header = {};
    std::memcpy(&header, request.data(), std::min(request.size(), sizeof header));
    world.may_be_silent = header.invoke_timeout != 0 && header.invoke_timeout <= 1000;
    // A block of just this length, so that reading on is found.
    const std::vector<char> exact(request.begin(), request.end());
    unsigned int result_len = 77;
    const int status = Omralib_invoke(world.hdl, 0, exact.data(),
                                      static_cast<unsigned int>(exact.size()), &result_len);
    if (status == OMRALIB_RET_SUCCESS) {
        OMRA_INVOKE_RESULT result = {};
        check(result_len == sizeof result, "the length of a result");
        check(Omralib_get_read_data(world.hdl, &result, sizeof result) == 1, "no result");
        check_result(result);
    } else {
        check(status < 0 && result_len == 77, "outputs after a failure");
    }
    check(Omralib_handle_ready(world.hdl) == 1, "a handle that is not ready");
    check(count(data_app) == num_objects && count(0x30000000) == 0, "objects left");
    return 0;
}
