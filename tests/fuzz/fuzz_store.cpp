// Any bytes as a request of Omralib_invoke, or as the text of a query in one, to the embedded store
// with four played hosts, whose callbacks accept, refuse, say nonsense about their counts, or never
// answer.
//
// What a request selects is judged as well: a condition and its opposite find every object once,
// and an explanation expects no less than there is. All hosts run on the invoking thread, and time
// leaps to what is waited for, so that a run depends on its input alone.
#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "client/store.h"
#include "fuzz.h"
#include "query/request.h"
#include "storapp.h"
#include "support/world.h"

namespace {

using fuzz::check;

constexpr unsigned int served_app = 77;
constexpr unsigned int data_app = 5;
constexpr std::size_t num_objects = 60;

TestClock &test_clock = *new TestClock; // threads of the store outlive main
OMRALIB_HANDLE hdl, worker;
FuzzedDataProvider *pdata_left; // what is left of the input
bool may_be_silent;

// What is selected -------------------------------------------------------------------------------

void sort_keys(std::vector<store::Key> &keys) {
    std::sort(keys.begin(), keys.end(), store::KeyLess());
}

std::vector<store::Key> find(const store::Condition &where) {
    store::Selection selection;
    selection.app_id = data_app;
    selection.where = where;
    std::vector<store::Key> keys;
    check(store::find(store::Store::current()->objects(), selection, nullptr, keys) ==
              OMRALIB_RET_SUCCESS,
          "find");
    return keys;
}

void check_refusal(std::string_view query, const std::string &why) {
    check(why.starts_with("at "), "a refusal without a place");
    const unsigned long long place = std::strtoull(why.c_str() + 3, nullptr, 10);
    check(place >= 1 && place <= query.size() + 1, "a place that is not in the query");
}

void check_selection(const store::Selection &selection) {
    store::Explanation explanation;
    check(store::Store::current()->objects().explain(selection, explanation) == OMRALIB_RET_SUCCESS,
          "no explanation");
    std::vector<store::Key> all = find(selection.where);
    check(selection.app_id != data_app || all.size() <= explanation.expected,
          "more than was expected");
    const std::vector<store::Key> others = find(negation_of(selection.where));
    all.insert(all.end(), others.begin(), others.end());
    sort_keys(all);
    const auto is_same = [](const auto &a, const auto &b) { return store::order_of(a, b) == 0; };
    check(all.size() == num_objects &&
              std::adjacent_find(all.begin(), all.end(), is_same) == all.end(),
          "a condition and its opposite disagree");
}

void check_request(std::string_view request) {
    store::InvokeOrder order;
    std::string why;
    const store::Status status =
        store::parse_request(std::as_bytes(std::span(request)), order, why);
    if (status == OMRALIB_ERR_BAD_QUERY) {
        OMRA_INDEX_HDR header;
        std::memcpy(&header, request.data(), sizeof header);
        if (header.reserved1 == OMRALIB_QUERY_PASS_THROUGH) {
            check_refusal(request.substr(sizeof header), why);
        }
    } else if (status == OMRALIB_RET_SUCCESS) {
        check_selection(order.selection);
    }
}

// Hosts ------------------------------------------------------------------------------------------

unsigned int draw_count(FuzzedDataProvider &data) {
    return data.ConsumeBool() ? data.ConsumeIntegralInRange<unsigned int>(0, 70)
                              : data.ConsumeIntegral<unsigned int>();
}

void draw_object(FuzzedDataProvider &data, const OMRA_OBJKEY &key) {
    if (data.ConsumeBool()) {
        const std::string bytes = data.ConsumeRandomLengthString(100);
        Omralib_store_obj(worker, 0, bytes.data(), static_cast<unsigned int>(bytes.size()), 1, key);
    }
}

int on_invoke(const char *, OMRALIB_INVOKE_PARAMS *pparams) {
    FuzzedDataProvider &data = *pdata_left;
    static constexpr int refusals[] = {OMRALIB_INVOKE_NO_KEYS, OMRALIB_INVOKE_NO_MEMORY, 0, -120};
    std::vector<OMRA_OBJKEY> keys(static_cast<std::size_t>(pparams->num_keys));
    check(pparams->merge_request != 0 ||
              Omralib_get_invoke_keys(pparams->context, keys.data(),
                                      static_cast<unsigned int>(keys.size())) == 1,
          "no keys");
    const int what = data.ConsumeIntegralInRange<int>(0, 7);
    if (what == 5) {
        return data.PickValueInArray(refusals);
    }
    if (what == 6) {
        Omralib_flush_invoke(pparams->context);
    } else if (what != 7 || !may_be_silent) {
        draw_object(data, pparams->results_key);
        draw_object(data, pparams->exceptions_key);
        const unsigned int num_successful = draw_count(data);
        Omralib_complete_invoke(worker, pparams->context, num_successful, draw_count(data));
    }
    return OMRALIB_INVOKE_ACCEPTED;
}

// Requests ---------------------------------------------------------------------------------------

std::string bytes_of(const auto &record) {
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

std::string query_request(OMRA_INDEX_HDR header, const std::string &query) {
    header.reserved1 = OMRALIB_QUERY_PASS_THROUGH;
    header.num_index = static_cast<ULONG>(query.size());
    return bytes_of(header) + query;
}

std::string terms_request(FuzzedDataProvider &data, OMRA_INDEX_HDR header) {
    header.reserved1 = data.ConsumeIntegralInRange<ULONG>(0, 3);
    header.num_index = data.ConsumeIntegralInRange<ULONG>(0, 9);
    std::string terms;
    for (ULONG i = 0; i < header.num_index; ++i) {
        OMRA_INDEX_SPEC spec = {};
        spec.index = data.ConsumeIntegralInRange<USHORT>(0, 8);
        spec.flags = data.ConsumeIntegralInRange<USHORT>(0, 2);
        spec.value.u64_comp[0] = data.ConsumeIntegralInRange<ULONGLONG>(0, 9);
        terms += bytes_of(spec);
    }
    if (data.ConsumeIntegralInRange<int>(0, 7) == 7) {
        header.num_index = data.ConsumeIntegral<ULONG>();
    }
    return bytes_of(header) + terms;
}

// By its first byte the input is a query, or choices for a request with one thing wrong at most, or
// for just bytes; choices come from its end.
std::string draw_request(FuzzedDataProvider &data) {
    static constexpr ULONG app_ids[] = {data_app, MGTI_APPID_INVOKE_ONCE, OMRALIB_ALL_APP_IDS, 0};
    static constexpr ULONG timeouts[] = {0, 1, 1000, 0xFFFFFFFF};
    const std::string door = data.ConsumeBytesAsString(1);
    OMRA_INDEX_HDR header = {};
    header.reserved = OMRALIB_INDEX_OP_INVOKE;
    header.app_id = data_app;
    header.reserved2 = served_app;
    if (door == "q") {
        return query_request(header, data.ConsumeRemainingBytesAsString());
    }
    header.app_id = data.PickValueInArray(app_ids);
    header.reserved2 = data.ConsumeBool() ? served_app : data.PickValueInArray(app_ids);
    header.invoke_timeout = data.PickValueInArray(timeouts);
    header.immediate_params = data.ConsumeIntegral<UCHAR>();
    switch (data.ConsumeIntegralInRange<int>(0, 7)) {
    case 6:
        return data.ConsumeRandomLengthString(300);
    case 7:
        data.ConsumeData(&header, sizeof header);
        [[fallthrough]];
    default:
        return data.ConsumeBool() ? query_request(header, data.ConsumeRandomLengthString(100))
                                  : terms_request(data, header);
    }
}

ULONGLONG count(unsigned int app_id) {
    ULONGLONG num = 0;
    Omralib_count_objs(hdl, app_id, &num);
    return num;
}

// The result is the read that is pending.
void check_result() {
    OMRA_INVOKE_RESULT result = {};
    check(Omralib_get_read_data(hdl, &result, sizeof result) == 1, "no result");
    check(result.reserved == OMRALIB_INDEX_OP_INVOKE, "the kind of a result");
    check(ULONGLONG{result.num_successful} + result.num_failed <= num_objects, "too many objects");
    for (const OMRA_OBJKEY &key : {result.results_key, result.exceptions_key}) {
        check(OMRA_OBJKEY_IS_NULL(key) || Omralib_remove_obj(hdl, 0, key) == 1,
              "a result names no object");
    }
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***) {
    test_clock.on_wait = [](platform::Millis deadline) {
        check(deadline != platform::never, "waits for what cannot come");
        test_clock.advance(deadline - test_clock.now());
    };
    world::open(test_clock, {.num_hosts = 4, .deliver_inline = true});
    hdl = Omralib_open_ext(nullptr);
    worker = Omralib_open_ext("a worker's guid.");
    OMRALIB_CB cb;
    cb.invoke_ext_cb = on_invoke;
    Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, cb);
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

int LLVMFuzzerTestOneInput(const std::uint8_t *pdata, std::size_t size) {
    FuzzedDataProvider data(pdata, size);
    pdata_left = &data;
    const std::string request = draw_request(data);
    // A block of just this length, so that reading on is found.
    const std::vector<char> exact(request.begin(), request.end());
    check_request({exact.data(), exact.size()});
    OMRA_INDEX_HDR header = {};
    std::memcpy(&header, request.data(), std::min(request.size(), sizeof header));
    may_be_silent = header.invoke_timeout != 0 && header.invoke_timeout <= 1000;
    unsigned int result_len = 77;
    const int status =
        Omralib_invoke(hdl, 0, exact.data(), static_cast<unsigned int>(exact.size()), &result_len);
    if (status == OMRALIB_RET_SUCCESS) {
        check(result_len == sizeof(OMRA_INVOKE_RESULT), "the length of a result");
        check_result();
    } else {
        check(status < 0 && result_len == 77, "outputs after a failure");
    }
    check(Omralib_handle_ready(hdl) == 1, "a handle that is not ready");
    check(count(data_app) == num_objects && count(0x30000000) == 0, "objects left");
    return 0;
}
