/* Invocations, against a serving process that accepts every request and leaves it to the test. */
#include <cstring>
#include <future>
#include <semaphore>

#include "store_test.h"

namespace {

constexpr unsigned int event_app = 77;
constexpr unsigned int data_app = 5;

/* The last request, and whose it was. */
OMRALIB_INVOKE_PARAMS request;
std::string served_by;
std::counting_semaphore<> accepted{0};

int accept(const char *pguid, OMRALIB_INVOKE_PARAMS *pparams) {
    served_by.assign(pguid, OMRALIB_GUID_LEN);
    request = *pparams;
    accepted.release();
    return OMRALIB_INVOKE_ACCEPTED;
}

class Invocations : public StoreTest {
protected:
    Invocations() {
        OMRALIB_CB cb;
        cb.invoke_ext_cb = accept;
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, cb));
        for (unsigned int i = 0; i < 3; ++i) {
            EXPECT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(data_app, 2 - i), "x"));
        }
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_start_app_event_handling(worker_, event_app));
    }

    int invoke(const OMRA_INDEX_HDR &header, std::string_view query = "") {
        return ::invoke(hdl_, header, query, result_ = {});
    }

    /* Starts an invocation on a thread of its own and waits until its request is accepted. */
    std::future<int> start_invocation(const OMRA_INDEX_HDR &header) {
        auto status = std::async(std::launch::async, [this, header] { return invoke(header); });
        accepted.acquire();
        return status;
    }

    static std::vector<OMRA_OBJKEY> requested_keys() {
        std::vector<OMRA_OBJKEY> keys(static_cast<std::size_t>(request.num_keys));
        EXPECT_EQ(OMRALIB_RET_SUCCESS,
                  Omralib_get_invoke_keys(request.context, keys.data(), length_of(keys)));
        return keys;
    }

    int complete(unsigned int num_successful, unsigned int num_failed) {
        return Omralib_complete_invoke(worker_, request.context, num_successful, num_failed);
    }

    const OMRA_INDEX_HDR header_ = make_header(data_app, event_app);
    const OMRALIB_HANDLE worker_ = Omralib_open_ext("the worker guid ");
    OMRA_INVOKE_RESULT result_; /* of the last invocation */
};
FOR_ALL_ENGINES(Invocations);

TEST_P(Invocations, DeliverTheRequestAndAnswerWithItsCounts) {
    OMRA_INDEX_HDR header = header_;
    header.invoke_op = 11;
    header.merge_op = 12;
    header.params_key = make_key(9, 9);
    header.immediate_params = 1;
    auto status = start_invocation(header);
    EXPECT_EQ(OMRALIB_ERR_HANDLE_BUSY, Omralib_handle_ready(hdl_));
    EXPECT_EQ("the worker guid ", served_by);
    EXPECT_EQ(data_app, request.app_id);
    EXPECT_EQ(11u, request.invoke_op);
    EXPECT_EQ(12u, request.merge_op);
    EXPECT_NE(0u, request.context);
    EXPECT_EQ(1, request.immediate_params);
    EXPECT_EQ(0, request.merge_request);
    EXPECT_EQ(bytes_of(header.params_key), bytes_of(request.params_key));
    ASSERT_EQ(3, request.num_keys);
    OMRA_OBJKEY too_few[2];
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_get_invoke_keys(request.context, too_few, 2));
    for (unsigned int i = 0; i < 3; ++i) {
        EXPECT_EQ(i, requested_keys()[i].obj_id.u64_comp[0]);
    }
    EXPECT_EQ(OMRALIB_RET_SUCCESS, put(worker_, request.results_key, "merged"));
    /* What is accepted is carried out, whoever serves meanwhile. */
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_stop_app_event_handling(worker_, event_app));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, complete(2, 1));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, complete(2, 1));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_flush_invoke(request.context));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, status.get());
    EXPECT_EQ(2u, result_.num_successful);
    EXPECT_EQ(1u, result_.num_failed);
    EXPECT_EQ("merged", get(hdl_, result_.results_key));
    EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(result_.exceptions_key));
}

TEST_P(Invocations, CountEveryKeyOnceWhateverTheHostSays) {
    const struct {
        unsigned int said_successful, said_failed, successful;
    } cases[] = {{9, 0, 3}, {1, 0, 1}, {3, 3, 3}, {0, 0, 0}, {0xFFFFFFFFu, 0xFFFFFFFFu, 3}};
    for (const auto &c : cases) {
        auto status = start_invocation(header_);
        EXPECT_EQ(OMRALIB_RET_SUCCESS, complete(c.said_successful, c.said_failed));
        EXPECT_EQ(OMRALIB_RET_SUCCESS, status.get());
        EXPECT_EQ(c.successful, result_.num_successful);
        EXPECT_EQ(3 - c.successful, result_.num_failed);
    }
    auto status = start_invocation(header_);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, put(worker_, request.results_key, "half done"));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_flush_invoke(request.context));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, status.get());
    EXPECT_EQ(3u, result_.num_failed);
    EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(result_.results_key));
}

TEST_P(Invocations, ReachOnlyWhoServesTheAppId) {
    /* A request to run once has one null key; whoever serves anything serves it when it names no
     * app id of its own. */
    for (const unsigned int event_app_id : {event_app, MGTI_APPID_INVOKE_ONCE}) {
        auto status = start_invocation(make_header(MGTI_APPID_INVOKE_ONCE, event_app_id));
        EXPECT_EQ(MGTI_APPID_INVOKE_ONCE, request.app_id);
        ASSERT_EQ(1, request.num_keys);
        EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(requested_keys()[0]));
        EXPECT_EQ(OMRALIB_RET_SUCCESS, complete(1, 0));
        EXPECT_EQ(OMRALIB_RET_SUCCESS, status.get());
        EXPECT_EQ(1u, result_.num_successful);
    }
    for (const unsigned int app_id : {data_app, MGTI_APPID_INVOKE_ONCE}) {
        EXPECT_EQ(OMRALIB_ERR_NO_WORKER, invoke(make_header(app_id, 78)));
    }
    /* Stopping ends what a handle with the same identifier has started, and only that. */
    const OMRA_INDEX_HDR without_objects = make_header(6, event_app);
    for (const OMRALIB_HANDLE hdl : {hdl_, worker_}) {
        EXPECT_EQ(OMRALIB_RET_SUCCESS, invoke(without_objects));
        EXPECT_EQ(0u, result_.num_successful + result_.num_failed);
        EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(result_.results_key));
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_stop_app_event_handling(hdl, event_app));
    }
    EXPECT_EQ(OMRALIB_ERR_NO_WORKER, invoke(header_));
}

TEST_P(Invocations, TellMalformedRequests) {
    constexpr ULONG as_text = OMRALIB_QUERY_PASS_THROUGH;
    constexpr int bad_args = OMRALIB_ERR_BAD_ARGS, bad_query = OMRALIB_ERR_BAD_QUERY;
    const auto term = [](USHORT index, USHORT flags) {
        return bytes_of(OMRA_INDEX_SPEC{index, flags, {{1}}});
    };
    const struct {
        int expected;
        ULONG num_index, query_kind;
        std::string query;
        ULONG kind = OMRALIB_INDEX_OP_INVOKE;
    } table[] = {
        {bad_args, 0, 0, "x"},
        {bad_args, 1, 0, ""},
        {bad_query, 1, 0, term(8, 0)},
        {bad_query, 1, 0, term(0, 2)},
        {bad_args, 1, 3, term(0, 0)},
        {bad_args, 0x80000001, 0, term(0, 0)},
        {bad_query, 8, as_text, "nonsense"},
        {bad_args, 7, as_text, "nonsense"},
        {bad_args, 0, 0, "", 1},
    };
    for (const auto &row : table) {
        OMRA_INDEX_HDR header = header_;
        header.reserved = row.kind;
        header.num_index = row.num_index;
        header.reserved1 = row.query_kind;
        EXPECT_EQ(row.expected, invoke(header, row.query)) << &row - table;
    }
    unsigned int len = 0;
    EXPECT_EQ(bad_args, Omralib_invoke(hdl_, 0, &header_, 103, &len));
    EXPECT_EQ(bad_args, Omralib_invoke(hdl_, 0, nullptr, 104, &len));
    EXPECT_EQ(bad_args, Omralib_invoke(hdl_, 0, &header_, 104, nullptr));
    OMRALIB_CB cb;
    cb.invoke_ext_cb = accept;
    EXPECT_EQ(bad_args, Omralib_register_cb(0, cb));
    EXPECT_EQ(bad_args, Omralib_register_cb(5, cb));
    cb.invoke_ext_cb = nullptr;
    EXPECT_EQ(bad_args, Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, cb));
    EXPECT_FALSE(accepted.try_acquire());
}

TEST_P(Invocations, BindNamesToAppIds) {
    const auto bind = [&](const std::string &name) {
        unsigned int app_id = 7;
        const int status =
            Omralib_register_appname_hdl(hdl_, name.data(), length_of(name), &app_id);
        EXPECT_EQ(status == OMRALIB_RET_SUCCESS, app_id != 7);
        return status == OMRALIB_RET_SUCCESS ? static_cast<int>(app_id) : status;
    };
    EXPECT_EQ(0x30000002, bind("__OMRA_appname_system_backrest"));
    EXPECT_EQ(0x40000001, bind("__OMRA_appname_invoke_once"));
    EXPECT_EQ(OMRALIB_ERR_NAME_REGISTERED, bind("__OMRA_appname_system_backrest"));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, bind(""));
    const int mine = bind("mine");
    EXPECT_THAT(mine, testing::AllOf(testing::Ge(0), testing::Le(0x0FFFFFFE)));
    EXPECT_NE(mine, bind("yours"));
}

} // namespace
