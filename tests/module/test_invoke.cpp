// The entry of an invocation: what is refused in which order, what is sent, what is collected and
// what comes back. The store only answers here; no worker runs.
#include "module_test.h"

#include <gmock/gmock.h>

#include <cstring>

namespace {

using interposer::instead;
using interposer::real;
using interposer::script;
using interposer::take_log;
using interposer::take_reports;
using Args = OMRAPMI_INVOKE_ARGS;
using Ext_args = OMRAPMI_INVOKE_EXT_ARGS;
using Query = OMRAPMI_QUERY_SPEC;

class Invoke_test : public Module_test {
protected:
    void SetUp() override {
        Module_test::SetUp();
        instead<Omralib_invoke> = [this](OMRALIB_HANDLE its_hdl, unsigned int, const void *preq,
                                         unsigned int req_len, unsigned int *plen_out) {
            request.assign(static_cast<const char *>(preq), req_len);
            world::put(999, std::string(reinterpret_cast<const char *>(&reply), reply_len));
            return real<Omralib_read_obj>(its_hdl, 0, plen_out, world::key(999)); // now pending
        };
    }
    int invoke() { return Omrapmi_invoke_ext(hdl, &args, &args_ext); }
    void set_params(std::string_view params) {
        args.pparams_obj = params.data();
        args.params_obj_len = static_cast<ULONG>(params.size());
    }
    void set_query(UCHAR kind, const void *pquery, ULONG len) {
        args.use_query_spec = kind;
        args.pquery_spec = pquery;
        args.query_spec_len = len;
    }

    Query spec = {1, 0, {}};
    Args args = {7, 1, 2, nullptr, 0, 0, nullptr, 0x12345, 0, 0, 0, 0, nullptr, 0, nullptr, 0};
    Ext_args args_ext = {0x0BCDEF, 1, 1};
    OMRA_INVOKE_RESULT reply = {2, 5, 0, 0, {}, {}};
    char behind_reply[4] = {};
    std::size_t reply_len = sizeof reply;
    std::string request;
};

constexpr std::string_view params_32 = "0123456789abcdefghijklmnopqrstuv";
constexpr std::string_view params_33 = "0123456789abcdefghijklmnopqrstuvw";

TEST_F(Invoke_test, WhatComesBeforeTheArguments) {
    args.app_id = 0xFFFFFFFF;
    script({{"init", -101}});
    EXPECT_EQ(Omrapmi_invoke(hdl, nullptr), -106);
    EXPECT_EQ(Omrapmi_invoke(hdl, &args), -106);
    EXPECT_EQ(Omrapmi_invoke_ext(hdl, nullptr, nullptr), -101);
    EXPECT_EQ(Omrapmi_invoke_ext(4711, nullptr, nullptr), -102);
    EXPECT_EQ(Omrapmi_invoke_ext(hdl, nullptr, &args_ext), -1306);
    EXPECT_EQ(Omrapmi_invoke_ext(hdl, &args, nullptr), -1306);
}

// Each case changes an invocation with an index query of two terms.
TEST_F(Invoke_test, ArgumentsAreValidatedInOrder) {
    const std::pair<int, void (*)(Args &, Ext_args &, Query &)> cases[] = {
        {1, [](auto &a, auto &, auto &) { a.app_id = 0x0FFFFFFF; }},
        {1, [](auto &a, auto &, auto &) { a.app_id = 0x40000001; }},
        {1, [](auto &a, auto &, auto &) { a.app_id = 0xDFFFFFFF; }},
        {1, [](auto &a, auto &, auto &) { a.app_id = 0xFFFFFFFF; }},
        {-1307, [](auto &a, auto &, auto &) { a.app_id = 0xE0000000; }},
        {1, [](auto &, auto &e, auto &) { e.event_app_id = 0x0FFFFFFF; }},
        {1, [](auto &, auto &e, auto &) { e.event_app_id = 0x30000002; }},
        {-1307, [](auto &, auto &e, auto &) { e.event_app_id = 0x10000000; }},
        {1, [](auto &a, auto &, auto &) { a.func_id_eval = a.func_id_merge = 63; }},
        {-1309, [](auto &a, auto &, auto &) { a.func_id_eval = 64; }},
        {-1311, [](auto &a, auto &, auto &) { a.pparams_obj = "p"; }},
        {-1308, [](auto &a, auto &, auto &) { a.use_exceptions = 2; }},
        {-1310, [](auto &a, auto &, auto &) { a.use_query_spec = 0; }},
        {-1310, [](auto &a, auto &, auto &) { a.use_query_spec = 0, a.query_spec_len = 0; }},
        {-1310, [](auto &a, auto &, auto &) { a.pquery_spec = nullptr; }},
        {-1310, [](auto &a, auto &, auto &) { a.use_query_spec = 2, a.query_spec_len = 0; }},
        {-1310, [](auto &a, auto &, auto &) { a.use_query_spec = 2, a.pquery_spec = nullptr; }},
        {1, [](auto &, auto &, auto &q) { q.num_index_specs = 8; }},
        {-1310, [](auto &, auto &, auto &q) { q.num_index_specs = 9; }},
        {-1310, [](auto &, auto &, auto &q) { q.match_all = 2; }},
        {1, [](auto &, auto &, auto &q) { q.index_spec[1].index = 7; }},
        {-1310, [](auto &, auto &, auto &q) { q.index_spec[1].index = 8; }},
        {-1310, [](auto &, auto &, auto &q) { q.index_spec[1].flags = 2; }},
        {1, [](auto &, auto &, auto &q) { q.index_spec[2].index = 9; }}, // not used
        // Two at once: the earlier rule decides.
        {-1307, [](auto &a, auto &, auto &) { a.app_id = 0x10000000, a.func_id_eval = 64; }},
        {-1309, [](auto &a, auto &, auto &) { a.func_id_merge = 64, a.params_obj_len = 1; }},
        {-1311, [](auto &a, auto &, auto &) { a.params_obj_len = 1, a.use_query_spec = 3; }},
        {-1308, [](auto &a, auto &e, auto &) { a.use_query_spec = 3, e.event_app_id = ~0u; }},
        {-1310, [](auto &a, auto &e, auto &) { a.query_spec_len = 327, e.event_app_id = ~0u; }},
        {-1307,
         [](auto &a, auto &e, auto &) { e.event_app_id = 0xD0000001, a.use_exceptions = 2; }},
    };
    set_query(1, &spec, 328);
    for (const auto &[expected, change] : cases) {
        Args changed = args;
        args_ext = {7, 0, 0};
        spec = {0, 2, {}};
        change(changed, args_ext, spec);
        request = "none";
        EXPECT_EQ(Omrapmi_invoke_ext(hdl, &changed, &args_ext), expected);
        EXPECT_EQ(request == "none", expected != 1);
    }
}

// The 104 bytes of a request with these fields, and with parameters that just fit in the key.
std::string header(UCHAR kind, ULONG num_index) {
    OMRA_INDEX_HDR hdr = {};
    hdr.reserved = 2;
    hdr.app_id = 7;
    hdr.num_index = num_index;
    hdr.reserved1 = kind;
    hdr.invoke_op = 1;
    hdr.merge_op = 2;
    hdr.invoke_timeout = 0x12345;
    hdr.reserved2 = 0x0BCDEF;
    hdr.immediate_params = 1;
    std::memcpy(&hdr.params_key, "\xEF\xCD\x0B\0\x20\1\1\0", 8);
    std::memcpy(&hdr.params_key.ext_obj_id, params_32.data(), 32);
    return {reinterpret_cast<const char *>(&hdr), sizeof hdr};
}

TEST_F(Invoke_test, TheRequestsBytes) {
    set_params(params_32);
    EXPECT_EQ(invoke(), 1);
    EXPECT_EQ(request, header(0, 0));
    EXPECT_EQ(Omrapmi_invoke(hdl, &args), 1); // on the workers of its own app id
    EXPECT_EQ(request.substr(36, 4), std::string("\7\0\0\0", 4));

    set_query(1, &spec, 328); // match all of no terms
    EXPECT_EQ(invoke(), 1);
    EXPECT_EQ(request, header(1, 0));
    std::memset(spec.index_spec, 0x5A, sizeof spec.index_spec);
    spec.match_all = 0;
    spec.num_index_specs = 2;
    spec.index_spec[0].index = spec.index_spec[1].index = 7;
    spec.index_spec[0].flags = spec.index_spec[1].flags = 1;
    EXPECT_EQ(invoke(), 1);
    EXPECT_EQ(request, header(0, 2) + std::string(reinterpret_cast<char *>(spec.index_spec), 80));

    set_query(2, "any query", 9);
    EXPECT_EQ(invoke(), 1);
    EXPECT_EQ(request, header(2, 9) + "any query");
    script({{"Sys_malloc", 0, std::to_string(OMRAPMI_TAG_USER)}});
    EXPECT_EQ(invoke(), -114);
    args.query_spec_len = 0xFFFFFFFF; // more than a request can hold
    EXPECT_EQ(invoke(), -114);
}

TEST_F(Invoke_test, LongParametersAreStoredUnderAFreshKey) {
    std::vector<std::string> keys;
    instead<Omralib_store_obj> = [&](OMRALIB_HANDLE, unsigned int, const void *pdata,
                                     unsigned int len, unsigned int, OMRA_OBJKEY key) {
        EXPECT_EQ(std::string(static_cast<const char *>(pdata), len),
                  std::string("\xEF\xCD\x0B\0\0\1\1\0", 8).append(params_33));
        keys.emplace_back(reinterpret_cast<const char *>(&key), sizeof key);
        return keys.size() < 3 ? OMRALIB_ERR_OBJ_EXISTS : 1;
    };
    script({{"remove_obj", 1}});
    set_params(params_33);
    args.timeout_s = 0xFFFFFFFF;
    EXPECT_EQ(invoke(), 1);
    EXPECT_NE(take_log().find("|store_obj 41 65535 params|"), std::string::npos);
    ASSERT_EQ(keys.size(), 3u);
    EXPECT_TRUE(keys[0] != keys[1] && keys[1] != keys[2]);
    EXPECT_EQ(keys[2].substr(0, 8), std::string("\0\0\0\x30\2\0\0\0", 8));
    EXPECT_EQ(keys[2].substr(24, 8), std::string("\x21\x21\xBD\xBD\3\0\0\0", 8));
    EXPECT_TRUE(request[40] == 0 && request.substr(48, 40) == keys[2]);
    // A length that no block can have: the bytes are not looked at.
    args.params_obj_len = 0xFFFFFFFC;
    EXPECT_EQ(invoke(), -1303);
}

// Replies without objects to fetch: keys that are null, or null in all that counts; no failure that
// the exceptions could be of; and what is no reply at all.
TEST_F(Invoke_test, RepliesWithoutObjects) {
    const OMRA_OBJKEY null_in_effect{0, 0, 9, 9, {}, {}}, none{}, some = world::key(901);
    const char too_long[] = "inv_result_len == sizeof inv_result|ret != OMRALIB_ERR_BAD_ARGS";
    const std::tuple<OMRA_INVOKE_RESULT, std::size_t, int, const char *> cases[] = {
        {{2, 5, 0, 0, null_in_effect, some}, 96, 1, ""},
        {{3, 5, 4, 0, none, none}, 96, 1, "inv_result.reserved == OMRALIB_INDEX_OP_INVOKE"},
        // The counts alone: no keys, whatever the stack held.
        {{2, 5, 4, 0, some, some}, 16, 1, "inv_result_len == sizeof inv_result"},
        // Too long: dropped, so that the handle is ready again.
        {{2, 5, 4, 0, none, none}, 97, -106, too_long},
    };
    int expected = 0;
    const char *reports = nullptr;
    for (const auto &each : cases) {
        std::tie(reply, reply_len, expected, reports) = each;
        EXPECT_EQ(invoke(), expected);
        EXPECT_EQ(take_log().find("read_obj"), std::string::npos);
        EXPECT_EQ(take_reports(), reports);
        EXPECT_TRUE(args.presults_obj_out == nullptr && args.pexceptions_out == nullptr);
    }
}

// What there is, is handed out. The first failure decides, and the rest is still collected.
TEST_F(Invoke_test, CollectsTheObjects) {
    const std::pair<std::vector<interposer::Answer>, int> cases[] = {
        {{}, 1},
        {{{"remove_obj", -109, "params"}}, 1}, // expired meanwhile
        {{{"read_obj", -109, "901"}}, -115},
        {{{"remove_obj", -103, "params"}, {"read_obj", -102, "900"}}, -103},
        {{{"read_obj", -102, "900"}, {"remove_obj", -112, "901"}}, -102},
    };
    set_params(params_33);
    reply = {2, 10, 2, 0, world::key(900), world::key(901)};
    for (const auto &[answers, expected] : cases) {
        world::put(900, "merged");
        world::put(901, std::string(100, 'e')); // torn: two records and a rest
        args.use_exceptions = !args.use_exceptions;
        script(answers);
        EXPECT_EQ(invoke(), expected);
        const std::string log = take_log();
        EXPECT_THAT(log, testing::StartsWith("handle_ready|store_obj 41 1244 params|invoke 104|"
                                             "get_read_data 96|remove_obj params|read_obj 900|"));
        EXPECT_THAT(log, testing::HasSubstr("|read_obj 901"));
        if (expected == 1) {
            EXPECT_THAT(log, testing::EndsWith("|get_read_data 6|remove_obj 900|read_obj 901|"
                                               "get_read_data 100|remove_obj 901"));
            EXPECT_TRUE(args.num_successful_out == 10 && args.num_failed_out == 2);
            EXPECT_EQ(std::string(args.presults_obj_out, args.results_obj_len_out), "merged");
            EXPECT_EQ(args.num_exceptions_out, 2u); // counted in any case
            EXPECT_EQ(args.pexceptions_out != nullptr, args.use_exceptions == TRUE);
            Omrapmi_free(args.presults_obj_out);
            Omrapmi_free(args.pexceptions_out);
        }
    }
    EXPECT_EQ(take_reports().find("exceptions_obj_len % sizeof *pexceptions == 0"), 0u);
}

} // namespace
