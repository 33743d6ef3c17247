// The entry of an invocation: what is refused in which order, what is sent, what comes back. The
// store only answers here; no worker runs, but for the last test.
#include "module_test.h"

#include <cstring>

namespace {

const std::string invoked = "Omrapmi invoker: starting invocation for app id 7.|"
                            "Omrapmi invoker: finished invocation for app id 7.";

class Invoke_test : public Module_test {
protected:
    void SetUp() override {
        Module_test::SetUp();
        hdl = Omralib_open_ext(nullptr);
        store::take_log();
        args.app_id = 7;
        args.func_id_eval = 1;
        args.func_id_merge = 2;
        args.timeout_s = 0x12345;
        args.num_successful_out = args.num_failed_out = args.results_obj_len_out =
            args.num_exceptions_out = 77;
        args.presults_obj_out = untouched;
        args.pexceptions_out = &no_exception;
        store::script.on_invoke = [this](std::string_view sent, std::string &reply_bytes) {
            request = sent;
            reply_bytes.assign(reinterpret_cast<const char *>(&reply), reply_len);
            return 1;
        };
    }
    int invoke() { return Omrapmi_invoke_ext(hdl, &args, &args_ext); }
    void expect_untouched() const {
        EXPECT_TRUE(args.num_successful_out == 77 && args.num_failed_out == 77 &&
                    args.presults_obj_out == untouched && args.results_obj_len_out == 77 &&
                    args.pexceptions_out == &no_exception && args.num_exceptions_out == 77);
    }

    OMRALIB_HANDLE hdl = OMRALIB_NULL_HANDLE;
    char untouched[1] = {};
    OMRAPMI_EXCEPTION no_exception = {};
    OMRAPMI_QUERY_SPEC spec = {};
    OMRAPMI_INVOKE_ARGS args = {};
    OMRAPMI_INVOKE_EXT_ARGS args_ext = {7, 0, 0};
    OMRA_INVOKE_RESULT reply = {2, 5, 0, 0, {}, {}};
    std::size_t reply_len = sizeof reply;
    std::string request;
};

TEST_F(Invoke_test, WhatComesBeforeTheArguments) {
    args.app_id = 0xFFFFFFFF;
    EXPECT_EQ(Omrapmi_invoke(hdl, nullptr), -106);
    EXPECT_EQ(Omrapmi_invoke(hdl, &args), -106);
    EXPECT_EQ(store::script.num_calls["init"], 0u);
    store::script.answers = {{"init", -101}};
    EXPECT_EQ(Omrapmi_invoke_ext(hdl, nullptr, nullptr), -101);
    EXPECT_EQ(Omrapmi_invoke_ext(4711, nullptr, nullptr), -102);
    EXPECT_EQ(sys::take_traces(), "Tr [br-iai 0] -101|[ie 0] -101|[ie 1] 4711 -102");
    EXPECT_EQ(Omrapmi_invoke_ext(hdl, nullptr, &args_ext), -1306);
    EXPECT_EQ(Omrapmi_invoke_ext(hdl, &args, nullptr), -1306);
    // Seeded once, by the first call that found the store library.
    EXPECT_EQ(sys::script.seed, 3u * 0x0A000005u * 0x10001u);
    EXPECT_EQ(store::script.num_calls["use_large_keys"], 3u);
    EXPECT_EQ(sys::take_traces(), "");
}

TEST_F(Invoke_test, ArgumentsAreValidatedInOrder) {
    using Args = OMRAPMI_INVOKE_ARGS;
    OMRAPMI_INVOKE_EXT_ARGS &e = args_ext;
    OMRAPMI_QUERY_SPEC &s = spec;
    const auto app_id = [](ULONG id) { return [id](Args &a) { a.app_id = id; }; };
    const auto event = [&e](ULONG id) { return [&e, id](Args &) { e.event_app_id = id; }; };
    const auto query = [&s](UCHAR kind, ULONG len, bool null = false) {
        return [&s, kind, len, null](Args &a) {
            a.use_query_spec = kind;
            a.query_spec_len = len;
            a.pquery_spec = null ? nullptr : &s;
            s.num_index_specs = 2;
        };
    };
    const auto terms = [&s, query](auto change) {
        return [&s, query, change](Args &a) { query(1, 328)(a), change(s); };
    };
    const std::vector<std::pair<int, std::function<void(Args &)>>> cases = {
        {1, app_id(0x0FFFFFFF)},
        {1, app_id(0x40000001)},
        {1, app_id(0xD0000000)},
        {1, app_id(0xDFFFFFFF)},
        {1, app_id(0xFFFFFFFF)},
        {-1307, app_id(0x10000000)},
        {-1307, app_id(0xE0000000)},
        {-1307, app_id(0x30000002)},
        {1, event(0x0FFFFFFF)},
        {1, event(0x30000002)},
        {1, event(0x40000001)},
        {-1307, event(0x30000000)},
        {-1307, event(0x40000002)},
        {-1307, event(0xD0000001)},
        {1, [](Args &a) { a.func_id_eval = a.func_id_merge = 63; }},
        {-1309, [](Args &a) { a.func_id_eval = 64; }},
        {-1309, [](Args &a) { a.func_id_merge = 64; }},
        {-1311, [](Args &a) { a.params_obj_len = 1; }},
        {-1311, [](Args &a) { a.pparams_obj = "p"; }},
        {-1308, [](Args &a) { a.use_query_spec = 3; }},
        {-1308, [](Args &a) { a.use_exceptions = 2; }},
        {-1310, query(0, 0)},
        {-1310, query(0, 1, true)},
        {-1310, query(2, 0)},
        {-1310, query(2, 8, true)},
        {1, query(1, 328)},
        {-1310, query(1, 327)},
        {-1310, query(1, 329)},
        {-1310, query(1, 328, true)},
        {1, terms([](auto &q) { q.num_index_specs = 8; })},
        {-1310, terms([](auto &q) { q.num_index_specs = 9; })},
        {-1310, terms([](auto &q) { q.match_all = 2; })},
        {1, terms([](auto &q) { q.index_spec[1].index = 7; })},
        {-1310, terms([](auto &q) { q.index_spec[1].index = 8; })},
        {-1310, terms([](auto &q) { q.index_spec[1].flags = 2; })},
        {1, terms([](auto &q) { q.index_spec[2].index = 9; })}, // not used
        // Two at once: the earlier rule decides.
        {-1307, [](Args &a) { a.app_id = 0x10000000, a.func_id_eval = 64; }},
        {-1309, [](Args &a) { a.func_id_merge = 64, a.params_obj_len = 1; }},
        {-1311, [](Args &a) { a.params_obj_len = 1, a.use_query_spec = 3; }},
        {-1308, [&e](Args &a) { a.use_query_spec = 3, e.event_app_id = ~0u; }},
        {-1310, [&e](Args &a) { a.query_spec_len = 1, e.event_app_id = ~0u; }},
        {-1307, [&e](Args &a) { e.event_app_id = ~0u, a.use_exceptions = 2; }},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        OMRAPMI_INVOKE_ARGS changed = args;
        args_ext = {7, 0, 0};
        spec = {};
        cases[i].second(changed);
        request = "none";
        sys::take_traces();
        EXPECT_EQ(Omrapmi_invoke_ext(hdl, &changed, &args_ext), cases[i].first) << "case " << i;
        EXPECT_EQ(request == "none", cases[i].first != 1);
        EXPECT_EQ(sys::take_traces().empty(), cases[i].first != 1);
    }
}

// The 104 bytes of a request of the fixture with these fields.
std::string header(UCHAR kind, ULONG num_index, const std::string &params) {
    std::string bytes(104, '\0');
    const auto set = [&](std::size_t offset, ULONGLONG value, std::size_t size) {
        std::memcpy(&bytes[offset], &value, size);
    };
    set(0, 2, 4);
    set(4, 7, 4);
    set(8, num_index, 4);
    set(12, kind, 4);
    set(16, 1, 8);
    set(24, 2, 8);
    set(32, 0x12345, 4);
    set(36, 0x0BCDEF, 4);
    set(40, 1, 1);
    set(48, 0x0BCDEF, 4);
    set(52, params.size(), 1);
    set(53, 1, 1);
    set(54, 1, 1);
    return bytes.replace(56, params.size(), params);
}

TEST_F(Invoke_test, TheRequestsBytes) {
    args_ext = {0x0BCDEF, 1, 1};
    args.pparams_obj = "params";
    args.params_obj_len = 6;
    EXPECT_EQ(invoke(), 1);
    EXPECT_EQ(request, header(0, 0, "params"));

    args.use_query_spec = 1;
    args.pquery_spec = &spec;
    args.query_spec_len = 328;
    spec.match_all = 1;
    EXPECT_EQ(invoke(), 1);
    EXPECT_EQ(request, header(1, 0, "params"));
    std::memset(spec.index_spec, 0x5A, sizeof spec.index_spec);
    spec = {0, 2, {spec.index_spec[2], spec.index_spec[2]}};
    spec.index_spec[0].index = spec.index_spec[1].index = 7;
    spec.index_spec[0].flags = spec.index_spec[1].flags = 1;
    EXPECT_EQ(invoke(), 1);
    EXPECT_EQ(request,
              header(0, 2, "params") + std::string(reinterpret_cast<char *>(spec.index_spec), 80));

    const std::string query(1000, 'q');
    args.use_query_spec = 2;
    args.pquery_spec = query.data();
    args.query_spec_len = 1000;
    EXPECT_EQ(invoke(), 1);
    EXPECT_EQ(request, header(2, 1000, "params") + query);
    sys::take_traces();
    sys::script.malloc_countdown[OMRAPMI_TAG_USER] = 1;
    EXPECT_EQ(invoke(), -114);
    args.query_spec_len = 0xFFFFFFFF; // more than a request can hold
    EXPECT_EQ(invoke(), -114);
    EXPECT_EQ(sys::take_traces(), "");
}

TEST_F(Invoke_test, StoredParametersAreSentByKeyAndRemoved) {
    args.pparams_obj = "0123456789012345678901234567890123";
    args.params_obj_len = 34;
    EXPECT_EQ(invoke(), 1);
    EXPECT_EQ(request[40], 0);
    EXPECT_EQ(std::memcmp(&request[48], &store::script.stored.at(0).first, 40), 0);
    EXPECT_EQ(store::take_log(), "get_host_addr|handle_ready|store_obj params|invoke 104|"
                                 "get_read_data 96|remove_obj params");
    store::script.answers = {{"store_obj", -123}};
    EXPECT_EQ(invoke(), -123);
    EXPECT_EQ(sys::take_traces(), invoked + "|[co 1] -123|[ipr 0] -123|[ie 2] -123");
}

TEST_F(Invoke_test, FailuresOfTheStoreWriteNoOutput) {
    struct Case {
        store::Answer answer;
        const char *traces, *asserts;
    };
    const Case cases[] = {
        {{"invoke", -116}, "", ""},
        {{"invoke", -109}, "|[ie 3] -109", ""},
        {{"invoke", -106}, "|[ie 3] -106", "ret != OMRALIB_ERR_BAD_ARGS"},
        {{"get_read_data", -110}, "|[ie 4] -110", "ret != OMRALIB_ERR_NOT_READING"},
        {{"read_obj", -102}, "|[rgo 0] -102|[rgdo 0] -102|[ipo 1] -102|[ie 5] -102", ""},
    };
    args.use_query_spec = 2; // its block must be freed whatever happens
    args.pquery_spec = "query";
    args.query_spec_len = 5;
    reply.results_key = store::key(900);
    for (const Case &c : cases) {
        store::put(900, "merged");
        store::script.answers = {c.answer};
        EXPECT_EQ(invoke(), c.answer.result);
        EXPECT_EQ(sys::take_traces(), invoked + c.traces);
        EXPECT_EQ(sys::take_asserts(), c.asserts);
        expect_untouched();
    }
}

TEST_F(Invoke_test, ARepliesLengthAndKindAreChecked) {
    reply_len = 16; // the counts alone: no keys, whatever the stack held
    reply.num_failed = 4;
    EXPECT_EQ(invoke(), 1);
    EXPECT_EQ(sys::take_asserts(), "inv_result_len == sizeof inv_result");
    EXPECT_TRUE(args.num_successful_out == 5 && args.num_failed_out == 4 &&
                !args.presults_obj_out && !args.pexceptions_out);
    reply_len = sizeof reply;
    reply.reserved = 3;
    EXPECT_EQ(invoke(), 1);
    EXPECT_EQ(sys::take_asserts(), "inv_result.reserved == OMRALIB_INDEX_OP_INVOKE");
}

// Both faces in one process: the store hands the invocation to the registered callback.
TEST_F(Invoke_test, EndToEnd) {
    ASSERT_EQ(Omrapmi_worker_register_eval_func(user::eval_func(), 1, 7), 1);
    ASSERT_EQ(Omrapmi_worker_register_merge_func(user::merge_func(), 2, 7), 1);
    ASSERT_EQ(Omrapmi_worker_start(7), 1);
    const std::vector<OMRA_OBJKEY> keys = put_objects(10);
    user::script().eval_codes = {{3, 33}, {8, 88}};
    store::script.on_invoke = [&](std::string_view sent, std::string &reply_bytes) {
        OMRA_INDEX_HDR hdr;
        std::memcpy(&hdr, sent.data(), sizeof hdr);
        OMRALIB_INVOKE_PARAMS params = eval_request(5);
        params.app_id = hdr.app_id;
        params.invoke_op = hdr.invoke_op;
        params.merge_op = hdr.merge_op;
        params.immediate_params = hdr.immediate_params;
        params.params_key = hdr.params_key;
        EXPECT_EQ(store::deliver(params, keys), 3);
        const store::Completion done = store::wait_complete(5);
        sys::wait_pools(8, 64);
        reply = {2, done.num_successful, done.num_failed, 0, store::key(900), store::key(901)};
        reply_bytes.assign(reinterpret_cast<const char *>(&reply), sizeof reply);
        return 1;
    };
    const std::string later = "|Omrapmi invoker: starting invocation for app id 7."
                              "|Omrapmi worker: accepting eval invreq 5 for app id 7."
                              "|Omrapmi worker: completed eval invreq 5 for app id 7."
                              "|Omrapmi invoker: finished invocation for app id 7.";
    std::string first = later;
    first.insert(later.find("|Omrapmi worker"), "|Omrapmi worker: starting.");
    std::string traces = "Omrapmi worker: initialized for use with 3 worker thread(s)."
                         "|Omrapmi worker: started invocation handling for app id 7.";
    for (const std::string params : {"in the key", "in an object, as it is longer than 32 bytes"}) {
        args.pparams_obj = params.data();
        args.params_obj_len = static_cast<ULONG>(params.size());
        args.use_exceptions = params == "in the key";
        ASSERT_EQ(Omrapmi_invoke(hdl, &args), 1);
        EXPECT_EQ(user::script().params, params);
        EXPECT_TRUE(args.num_successful_out == 8 && args.num_failed_out == 2);
        EXPECT_EQ(std::string(args.presults_obj_out, args.results_obj_len_out),
                  user::bits({0, 1, 2, 4, 5, 6, 7, 9}));
        EXPECT_EQ(args.num_exceptions_out, 2u); // counted in any case
        ASSERT_EQ(args.pexceptions_out != nullptr, args.use_exceptions == TRUE);
        if (args.use_exceptions) {
            EXPECT_EQ(args.pexceptions_out[0].code + args.pexceptions_out[1].code, 33 + 88);
        }
        Omrapmi_free(args.presults_obj_out);
        Omrapmi_free(args.pexceptions_out);
        traces += args.use_exceptions ? first : later;
    }
    EXPECT_EQ(sys::take_traces(), traces);
    EXPECT_EQ(store::script.objects.size(), keys.size()); // nothing else is left in the store
}

} // namespace
