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

    struct Answer {
        int status;
        OMRA_INVOKE_RESULT result;
    };

    Answer invoke(const OMRA_INDEX_HDR &header, std::string_view query = "") {
        Answer answer{};
        answer.status = ::invoke(hdl_, header, query, answer.result);
        return answer;
    }

    /* Starts an invocation on a thread of its own and waits until its request is accepted. */
    std::future<Answer> start_invocation(const OMRA_INDEX_HDR &header) {
        auto answer = std::async(std::launch::async, [this, header] { return invoke(header); });
        accepted.acquire();
        return answer;
    }

    int complete(unsigned int num_successful, unsigned int num_failed) {
        return Omralib_complete_invoke(worker_, request.context, num_successful, num_failed);
    }

    const OMRA_INDEX_HDR header_ = make_header(data_app, event_app);
    const OMRALIB_HANDLE worker_ = Omralib_open_ext("the worker guid ");
};
FOR_ALL_ENGINES(Invocations);

TEST_P(Invocations, DeliverTheRequestAndAnswerWithItsCounts) {
    OMRA_INDEX_HDR header = header_;
    header.invoke_op = 11;
    header.merge_op = 12;
    header.params_key = make_key(9, 9);
    header.immediate_params = 1;
    auto answer = start_invocation(header);
    EXPECT_EQ(OMRALIB_ERR_HANDLE_BUSY, Omralib_handle_ready(hdl_));
    EXPECT_EQ("the worker guid ", served_by);
    EXPECT_EQ(data_app, request.app_id);
    EXPECT_EQ(11u, request.invoke_op);
    EXPECT_EQ(12u, request.merge_op);
    EXPECT_NE(0u, request.context);
    EXPECT_EQ(1, request.immediate_params);
    EXPECT_EQ(0, request.merge_request);
    EXPECT_EQ(0, memcmp(&header.params_key, &request.params_key, sizeof request.params_key));
    ASSERT_EQ(3, request.num_keys);
    OMRA_OBJKEY keys[3];
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_get_invoke_keys(request.context, keys, 2));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_invoke_keys(request.context, keys, 3));
    for (unsigned int i = 0; i < 3; ++i) {
        EXPECT_EQ(i, keys[i].obj_id.u64_comp[0]);
    }
    EXPECT_EQ(OMRALIB_RET_SUCCESS, put(worker_, request.results_key, "merged"));
    /* What is accepted is carried out, whoever serves meanwhile. */
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_stop_app_event_handling(worker_, event_app));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, complete(2, 1));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, complete(2, 1));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_flush_invoke(request.context));
    const Answer got = answer.get();
    EXPECT_EQ(OMRALIB_RET_SUCCESS, got.status);
    EXPECT_EQ(2u, got.result.num_successful);
    EXPECT_EQ(1u, got.result.num_failed);
    EXPECT_EQ("merged", get(hdl_, got.result.results_key));
    EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(got.result.exceptions_key));
}

TEST_P(Invocations, CountEveryKeyOnceWhateverTheHostSays) {
    const struct {
        unsigned int said_successful, said_failed, successful;
    } cases[] = {{9, 0, 3}, {1, 0, 1}, {3, 3, 3}, {0, 0, 0}, {0xFFFFFFFFu, 0xFFFFFFFFu, 3}};
    for (const auto &c : cases) {
        auto answer = start_invocation(header_);
        EXPECT_EQ(OMRALIB_RET_SUCCESS, complete(c.said_successful, c.said_failed));
        const Answer got = answer.get();
        EXPECT_EQ(c.successful, got.result.num_successful);
        EXPECT_EQ(3 - c.successful, got.result.num_failed);
    }
    auto answer = start_invocation(header_);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, put(worker_, request.results_key, "half done"));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_flush_invoke(request.context));
    const Answer flushed = answer.get();
    EXPECT_EQ(3u, flushed.result.num_failed);
    EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(flushed.result.results_key));
}

TEST_P(Invocations, ReachOnlyWhoServesTheAppId) {
    /* A request to run once has one null key; whoever serves anything serves it when it names no
     * app id of its own. */
    for (const unsigned int event_app_id : {event_app, MGTI_APPID_INVOKE_ONCE}) {
        auto answer = start_invocation(make_header(MGTI_APPID_INVOKE_ONCE, event_app_id));
        EXPECT_EQ("the worker guid ", served_by);
        EXPECT_EQ(MGTI_APPID_INVOKE_ONCE, request.app_id);
        OMRA_OBJKEY key = make_key(1, 1);
        EXPECT_EQ(1, request.num_keys);
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_invoke_keys(request.context, &key, 1));
        EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(key));
        EXPECT_EQ(OMRALIB_RET_SUCCESS, complete(1, 0));
        EXPECT_EQ(1u, answer.get().result.num_successful);
    }
    for (const unsigned int app_id : {data_app, MGTI_APPID_INVOKE_ONCE}) {
        EXPECT_EQ(OMRALIB_ERR_NO_WORKER, invoke(make_header(app_id, 78)).status);
    }
    /* Stopping ends what a handle with the same identifier has started, and only that. */
    const OMRA_INDEX_HDR without_objects = make_header(6, event_app);
    for (const OMRALIB_HANDLE hdl : {hdl_, worker_}) {
        const Answer none = invoke(without_objects);
        EXPECT_EQ(OMRALIB_RET_SUCCESS, none.status);
        EXPECT_EQ(0u, none.result.num_successful + none.result.num_failed);
        EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(none.result.results_key));
        EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(none.result.exceptions_key));
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_stop_app_event_handling(hdl, event_app));
    }
    EXPECT_EQ(OMRALIB_ERR_NO_WORKER, invoke(header_).status);
    EXPECT_FALSE(accepted.try_acquire());
}

TEST_P(Invocations, TellMalformedRequests) {
    unsigned int len = 0;
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_invoke(hdl_, 0, &header_, 103, &len));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_invoke(hdl_, 0, nullptr, 104, &len));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_invoke(hdl_, 0, &header_, 104, nullptr));
    const auto term = [](USHORT index, USHORT flags) {
        const OMRA_INDEX_SPEC spec{index, flags, make_value(1)};
        return std::string(reinterpret_cast<const char *>(&spec), sizeof spec);
    };
    const auto status = [&](ULONG num_index, ULONG query_kind, std::string_view query,
                            ULONG kind = OMRALIB_INDEX_OP_INVOKE) {
        OMRA_INDEX_HDR header = header_;
        header.reserved = kind;
        header.num_index = num_index;
        header.reserved1 = query_kind;
        return invoke(header, query).status;
    };
    constexpr ULONG as_text = OMRALIB_QUERY_PASS_THROUGH;
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, status(0, 0, "x"));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, status(1, 0, ""));
    EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, status(1, 0, term(8, 0)));
    EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, status(1, 0, term(0, 2)));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, status(1, 3, term(0, 0)));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, status(0x80000001, 0, term(0, 0)));
    EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, status(8, as_text, "nonsense"));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, status(7, as_text, "nonsense"));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, status(0, 0, "", 1));
    EXPECT_FALSE(accepted.try_acquire());
}

TEST_P(Invocations, CallbacksAndNamesAreChecked) {
    OMRALIB_CB cb;
    cb.invoke_ext_cb = nullptr;
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, cb));
    cb.invoke_ext_cb = accept;
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_register_cb(0, cb));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_register_cb(5, cb));

    unsigned int app_id = 0;
    const auto bind = [&](const std::string &name) {
        const auto len = static_cast<unsigned int>(name.size());
        return Omralib_register_appname_hdl(hdl_, name.data(), len, &app_id);
    };
    EXPECT_EQ(OMRALIB_RET_SUCCESS, bind("__OMRA_appname_system_backrest"));
    EXPECT_EQ(0x30000002u, app_id);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, bind("__OMRA_appname_invoke_once"));
    EXPECT_EQ(0x40000001u, app_id);
    EXPECT_EQ(OMRALIB_ERR_NAME_REGISTERED, bind("__OMRA_appname_system_backrest"));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, bind(""));
    EXPECT_EQ(0x40000001u, app_id);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, bind("mine"));
    EXPECT_LE(app_id, 0x0FFFFFFEu);
    const unsigned int mine = app_id;
    EXPECT_EQ(OMRALIB_RET_SUCCESS, bind("yours"));
    EXPECT_NE(mine, app_id);
}

} // namespace
