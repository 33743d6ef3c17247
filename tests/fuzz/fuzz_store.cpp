// Any bytes as a request of Omralib_invoke, or as the text of a query in one, to the embedded store
// with four played hosts, whose callbacks refuse, or accept and say nonsense about their counts.
//
// What a request selects is judged as well: a condition and its opposite find every object once,
// and an explanation expects no less than there is. All hosts run on the invoking thread, and time
// leaps to what is waited for, so that a run depends on its input alone.
#include <set>
#include <string>
#include <vector>

#include "client/store.h"
#include "fuzz.h"
#include "query/request.h"
#include "storapp.h"
#include "support/world.h"

namespace {

constexpr unsigned int data_app = 5, served_app = 77;
constexpr std::size_t num_objects = 60;

TestClock &test_clock = *new TestClock; // threads of the store outlive main
OMRALIB_HANDLE hdl, worker;

// What is selected -------------------------------------------------------------------------------

void check_condition(const store::Condition &condition) {
    store::Objects &objects = store::Store::current()->objects();
    std::set<store::Key, store::KeyLess> all;
    std::size_t num_found = 0;
    for (const store::Condition &where : {condition, negation_of(condition)}) {
        const store::Selection each{.app_id = data_app, .where = where};
        store::Explanation explanation;
        std::vector<store::Key> keys;
        check(objects.explain(each, explanation) == 1 && find(objects, each, nullptr, keys) == 1,
              "it is not looked for");
        check(keys.size() <= explanation.expected, "more than was expected");
        num_found += keys.size();
        all.insert(keys.begin(), keys.end());
    }
    check(num_found == num_objects && all.size() == num_objects,
          "a condition and its opposite disagree");
}

void check_request(const std::vector<char> &request) {
    store::InvokeOrder order;
    std::string why;
    const auto status = store::parse_request(std::as_bytes(std::span(request)), order, why);
    if (status == OMRALIB_ERR_BAD_QUERY &&
        request[offsetof(OMRA_INDEX_HDR, reserved1)] == OMRALIB_QUERY_PASS_THROUGH) {
        const std::size_t place = std::strtoull(why.substr(3).c_str(), nullptr, 10); // "at ..."
        check(place >= 1 && place <= request.size() - sizeof order.header + 1,
              "a place that is not in the query");
    } else if (status == OMRALIB_RET_SUCCESS) {
        check_condition(order.selection.where);
    }
}

// Hosts ------------------------------------------------------------------------------------------

int on_invoke(const char *, OMRALIB_INVOKE_PARAMS *pparams) {
    if (happens(8)) {
        return pinput->ConsumeIntegralInRange(-5, OMRALIB_INVOKE_ACCEPTED - 1);
    }
    unsigned int counts[2] = {pinput->ConsumeIntegralInRange(0u, 70u)};
    overwrite(counts, sizeof counts);
    Omralib_complete_invoke(worker, pparams->context, counts[0], counts[1]);
    return OMRALIB_INVOKE_ACCEPTED;
}

// Requests ---------------------------------------------------------------------------------------

std::string bytes_of(const auto &record) {
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

// The text of a query behind a "q", or choices for index terms.
std::string draw_request() {
    OMRA_INDEX_HDR header = {
        .reserved = OMRALIB_INDEX_OP_INVOKE, .app_id = data_app, .reserved2 = served_app};
    if (pinput->ConsumeBytesAsString(1) == "q") {
        const std::string query = pinput->ConsumeRemainingBytesAsString();
        header.reserved1 = OMRALIB_QUERY_PASS_THROUGH;
        header.num_index = static_cast<ULONG>(query.size());
        return bytes_of(header) + query;
    }
    header.app_id =
        pinput->PickValueInArray({data_app, MGTI_APPID_INVOKE_ONCE, OMRALIB_ALL_APP_IDS});
    header.invoke_timeout = pinput->PickValueInArray({0u, 1u, 1000u, 0xFFFFFFFFu});
    header.num_index = pinput->ConsumeIntegralInRange<ULONG>(0, 9);
    std::string request = bytes_of(header);
    for (ULONG i = 0; i < header.num_index; ++i) {
        request += bytes_of(OMRA_INDEX_SPEC{pinput->ConsumeIntegralInRange<USHORT>(0, 8),
                                            pinput->ConsumeIntegralInRange<USHORT>(0, 2),
                                            {{pinput->ConsumeIntegralInRange(0ull, 9ull)}}});
    }
    overwrite(request.data(), request.size());
    if (happens(8)) {
        request.resize(pinput->ConsumeIntegralInRange<std::size_t>(0, request.size() + 9));
    }
    return request;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    test_clock.on_wait = [](platform::Millis deadline) {
        check(deadline != platform::never, "waits for what cannot come");
        test_clock.advance(deadline - test_clock.now());
    };
    world::open(test_clock, {.num_hosts = 4, .deliver_inline = true});
    hdl = Omralib_open_ext(nullptr);
    worker = Omralib_open_ext("a worker's guid.");
    Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, {.invoke_ext_cb = on_invoke});
    Omralib_start_app_event_handling(worker, served_app);
    for (ULONGLONG number = 0; number < num_objects; ++number) {
        const std::string bytes(number, 'x');
        OMRA_OBJ_INDEX values[8];
        for (USHORT i = 0; i < 8; ++i) {
            values[i] = {i, {}, {{number % (i + 2u), i < 4 ? 0 : ~number, 0, 0}}};
        }
        Omralib_store_indexed_obj(hdl, bytes.data(), static_cast<unsigned int>(number), 0, values,
                                  number % 9, world::key(number, data_app));
        test_clock.advance(number % 3 * 1000);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pdata, std::size_t size) {
    FuzzedDataProvider input(pdata, size);
    pinput = &input;
    const std::string request = draw_request();
    // A block of just this length, so that reading on is found.
    const std::vector<char> exact(request.begin(), request.end());
    check_request(exact);
    unsigned int result_len = 77;
    const int status =
        Omralib_invoke(hdl, 0, exact.data(), static_cast<unsigned int>(exact.size()), &result_len);
    if (status == OMRALIB_RET_SUCCESS) {
        OMRA_INVOKE_RESULT result = {};
        check(result_len == sizeof result, "the length of a result");
        check(Omralib_get_read_data(hdl, &result, sizeof result) == 1, "no result");
        check(ULONGLONG{result.num_successful} + result.num_failed <= num_objects, "too many");
        check(OMRA_OBJKEY_IS_NULL(result.results_key) && OMRA_OBJKEY_IS_NULL(result.exceptions_key),
              "an object that no host has stored");
    } else {
        check(status < 0 && result_len == 77, "outputs after a failure");
    }
    check(Omralib_handle_ready(hdl) == 1, "a handle that is not ready");
    check(world::count(data_app) == num_objects && world::count(0x30000000) == 0, "objects left");
    return 0;
}
