/* Invocations, against a serving process whose callback the test scripts. */
#include <atomic>
#include <cstring>
#include <functional>
#include <future>
#include <semaphore>
#include <thread>

#include "store_test.h"
#include "sys_util.h"
#include "sysapp.h"

namespace {

using store::millis_per_second;

constexpr unsigned int event_app = 77;
constexpr unsigned int data_app = 5;

struct Answer {
    int status = 0;
    OMRA_INVOKE_RESULT result{};
};

/* What the callback does; set before the first invocation. */
std::function<int(const std::string &guid, OMRALIB_INVOKE_PARAMS &params)> script;

/* The store calls on a thread of its own, which may still be in the script when the invocation that
 * the script completed has been answered. */
std::atomic<int> num_in_script{0};

struct InScript {
    InScript() { ++num_in_script; }
    InScript(const InScript &) = delete;
    InScript &operator=(const InScript &) = delete;
    ~InScript() {
        --num_in_script;
        num_in_script.notify_all();
    }
};

void wait_for_scripts_to_end() {
    while (const int num = num_in_script) {
        num_in_script.wait(num);
    }
}

int scripted_ext(const char *pguid, OMRALIB_INVOKE_PARAMS *pparams) {
    const InScript in_script;
    return script(std::string(pguid, OMRALIB_GUID_LEN), *pparams);
}

int scripted_plain(OMRALIB_INVOKE_PARAMS *pparams) {
    const InScript in_script;
    return script("", *pparams);
}

OMRA_INDEX_HDR make_header(unsigned int app_id = data_app, unsigned int event_app_id = event_app) {
    OMRA_INDEX_HDR header{};
    header.reserved = OMRALIB_INDEX_OP_INVOKE;
    header.app_id = app_id;
    header.reserved2 = event_app_id;
    header.invoke_op = 11;
    header.merge_op = 12;
    return header;
}

Answer invoke(OMRALIB_HANDLE hdl, const OMRA_INDEX_HDR &header, const std::string &query = "") {
    std::string request(reinterpret_cast<const char *>(&header), sizeof header);
    request += query;
    unsigned int len = 0;
    Answer answer;
    answer.status =
        Omralib_invoke(hdl, 0, request.data(), static_cast<unsigned int>(request.size()), &len);
    wait_for_scripts_to_end();
    if (answer.status == OMRALIB_RET_SUCCESS) {
        EXPECT_EQ(sizeof answer.result, len);
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_read_data(hdl, &answer.result, len));
        EXPECT_EQ(OMRALIB_INDEX_OP_INVOKE, answer.result.reserved);
    }
    return answer;
}

std::string terms(const std::vector<OMRA_INDEX_SPEC> &specs) {
    return {reinterpret_cast<const char *>(specs.data()), specs.size() * sizeof specs[0]};
}

std::vector<OMRA_OBJKEY> fetch_keys(const OMRALIB_INVOKE_PARAMS &params) {
    std::vector<OMRA_OBJKEY> keys(static_cast<std::size_t>(params.num_keys));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_invoke_keys(params.context, keys.data(),
                                                           static_cast<unsigned int>(keys.size())));
    return keys;
}

class Invocations : public StoreTest {
protected:
    Invocations() {
        OMRALIB_CB cb;
        cb.invoke_ext_cb = scripted_ext;
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, cb));
        for (unsigned int i = 0; i < 3; ++i) {
            EXPECT_EQ(OMRALIB_RET_SUCCESS, put_indexed(hdl_, make_key(data_app, 2 - i),
                                                       {make_index(0, i), make_index(1, 1)}));
        }
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_start_app_event_handling(worker_, event_app));
    }

    /* Accepts the next requests and leaves them to the test. */
    void accept() {
        script = [this](const std::string &, OMRALIB_INVOKE_PARAMS &params) {
            params_ = params;
            accepted_.release();
            return OMRALIB_INVOKE_ACCEPTED;
        };
    }

    /* Starts an invocation on a thread of its own and waits until its request is accepted. */
    std::future<Answer> start_invocation(const OMRA_INDEX_HDR &header) {
        accept();
        auto answer =
            std::async(std::launch::async, [this, header] { return invoke(hdl_, header); });
        accepted_.acquire();
        return answer;
    }

    const OMRALIB_HANDLE worker_ = Omralib_open_ext("the worker guid ");
    OMRALIB_INVOKE_PARAMS params_{};
    std::counting_semaphore<> accepted_{0};
};
FOR_ALL_ENGINES(Invocations);

TEST_P(Invocations, DeliverTheRequestAndAnswerWithItsCounts) {
    OMRA_INDEX_HDR header = make_header();
    header.params_key = make_key(9, 9);
    header.immediate_params = 1;
    std::vector<OMRA_OBJKEY> keys;
    const std::thread::id invoker = std::this_thread::get_id();
    script = [&](const std::string &guid, OMRALIB_INVOKE_PARAMS &params) {
        EXPECT_NE(invoker, std::this_thread::get_id());
        EXPECT_EQ("the worker guid ", guid);
        EXPECT_EQ(data_app, params.app_id);
        EXPECT_EQ(11u, params.invoke_op);
        EXPECT_EQ(12u, params.merge_op);
        EXPECT_NE(0u, params.context);
        EXPECT_EQ(1, params.immediate_params);
        EXPECT_EQ(0, params.merge_request);
        EXPECT_EQ(0, memcmp(&header.params_key, &params.params_key, sizeof params.params_key));
        keys = fetch_keys(params);
        EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_get_invoke_keys(params.context, keys.data(), 2));
        EXPECT_EQ(OMRALIB_ERR_HANDLE_BUSY, Omralib_handle_ready(hdl_));
        std::thread([&, params] {
            EXPECT_EQ(OMRALIB_RET_SUCCESS, put(worker_, params.results_key, "merged"));
            EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_complete_invoke(worker_, params.context, 2, 1));
            EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_complete_invoke(worker_, params.context, 2, 1));
            EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_flush_invoke(params.context));
        }).join(); /* so that the completion comes before the acceptance */
        return OMRALIB_INVOKE_ACCEPTED;
    };
    const Answer answer = invoke(hdl_, header);
    ASSERT_EQ(OMRALIB_RET_SUCCESS, answer.status);
    ASSERT_EQ(3u, keys.size());
    for (unsigned int i = 0; i < 3; ++i) {
        EXPECT_EQ(i, keys[i].obj_id.u64_comp[0]);
    }
    EXPECT_EQ(2u, answer.result.num_successful);
    EXPECT_EQ(1u, answer.result.num_failed);
    EXPECT_EQ("merged", get(hdl_, answer.result.results_key));
    EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(answer.result.exceptions_key));
}

TEST_P(Invocations, WaitForACompletionFromAnyThread) {
    auto answer = start_invocation(make_header());
    EXPECT_EQ(OMRALIB_RET_SUCCESS, put(worker_, params_.exceptions_key, "exception"));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_complete_invoke(worker_, params_.context, 0, 3));
    const Answer got = answer.get();
    EXPECT_EQ(0u, got.result.num_successful);
    EXPECT_EQ(3u, got.result.num_failed);
    EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(got.result.results_key));
    EXPECT_EQ("exception", get(hdl_, got.result.exceptions_key));
}

TEST_P(Invocations, CountEveryKeyOnceWhateverTheHostSays) {
    const struct {
        unsigned int said_successful, said_failed, successful;
    } cases[] = {{9, 0, 3}, {1, 0, 1}, {3, 3, 3}, {0, 0, 0}, {0xFFFFFFFFu, 0xFFFFFFFFu, 3}};
    for (const auto &c : cases) {
        script = [&](const std::string &, OMRALIB_INVOKE_PARAMS &params) {
            EXPECT_EQ(
                OMRALIB_RET_SUCCESS,
                Omralib_complete_invoke(worker_, params.context, c.said_successful, c.said_failed));
            return OMRALIB_INVOKE_ACCEPTED;
        };
        const Answer answer = invoke(hdl_, make_header());
        EXPECT_EQ(c.successful, answer.result.num_successful);
        EXPECT_EQ(3 - c.successful, answer.result.num_failed);
    }
}

TEST_P(Invocations, ARefusedOrFlushedRequestFails) {
    static std::string trace;
    sys_trace_level = 0;
    Sys_set_trace_func([](const char *line) { trace += line; });
    for (const int refusal : {OMRALIB_INVOKE_NO_KEYS, OMRALIB_INVOKE_NO_MEMORY}) {
        script = [&](const std::string &, OMRALIB_INVOKE_PARAMS &params) {
            params_ = params;
            return refusal;
        };
        auto refused =
            std::async(std::launch::async, [this] { return invoke(hdl_, make_header()); });
        while (refused.wait_for(std::chrono::seconds(0)) == std::future_status::timeout) {
            clock_.advance(millis_per_second); /* until it asks no more */
        }
        const Answer answer = refused.get();
        EXPECT_EQ(OMRALIB_RET_SUCCESS, answer.status);
        EXPECT_EQ(0u, answer.result.num_successful);
        EXPECT_EQ(3u, answer.result.num_failed);
        EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(answer.result.results_key));
        EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_complete_invoke(worker_, params_.context, 3, 0));
    }
    const std::string nobody =
        "Omralib: no host takes a request for 3 object(s); they count as failed.\n";
    EXPECT_EQ("Omralib: host 1 refused a request for 3 object(s) for good (-3).\n" + nobody +
                  "Omralib: host 1 refused a request for 3 object(s) for good (-4).\n" + nobody,
              trace);
    auto answer = start_invocation(make_header());
    EXPECT_EQ(OMRALIB_RET_SUCCESS, put(worker_, params_.results_key, "half done"));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_flush_invoke(params_.context));
    const Answer flushed = answer.get();
    EXPECT_EQ(3u, flushed.result.num_failed);
    EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(flushed.result.results_key));
}

TEST_P(Invocations, EndAtTheirDeadlineAndIgnoreWhatComesLate) {
    OMRA_INDEX_HDR header = make_header();
    header.invoke_timeout = 10;
    auto answer = start_invocation(header);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, put(worker_, params_.results_key, "half done"));
    clock_.advance(10 * millis_per_second - 1);
    EXPECT_EQ(std::future_status::timeout, answer.wait_for(std::chrono::seconds(0)));
    clock_.advance(1);
    EXPECT_EQ(OMRALIB_ERR_INVOKE_TIMEOUT, answer.get().status);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_handle_ready(hdl_));
    EXPECT_EQ("status -109", get(hdl_, params_.results_key));

    /* The host goes on and finishes: nothing of it stays. */
    EXPECT_EQ(OMRALIB_RET_SUCCESS, put(worker_, params_.results_key, "late"));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, put(worker_, params_.exceptions_key, "late"));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_complete_invoke(worker_, params_.context, 3, 0));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_flush_invoke(params_.context));
    EXPECT_EQ("status -109", get(hdl_, params_.results_key));
    EXPECT_EQ("status -109", get(hdl_, params_.exceptions_key));
}

TEST_P(Invocations, ReachOnlyWhoServesTheAppId) {
    script = [](const std::string &, OMRALIB_INVOKE_PARAMS &) {
        ADD_FAILURE() << "nothing is to be delivered";
        return OMRALIB_INVOKE_NO_MEMORY;
    };
    EXPECT_EQ(OMRALIB_ERR_NO_WORKER, invoke(hdl_, make_header(data_app, 78)).status);
    const Answer none = invoke(hdl_, make_header(6));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, none.status);
    EXPECT_EQ(0u, none.result.num_successful + none.result.num_failed);
    EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(none.result.results_key));
    EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(none.result.exceptions_key));

    /* Stopping ends what a handle with the same identifier has started, and only that. */
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_stop_app_event_handling(hdl_, event_app));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, invoke(hdl_, make_header(6)).status);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_stop_app_event_handling(worker_, event_app));
    EXPECT_EQ(OMRALIB_ERR_NO_WORKER, invoke(hdl_, make_header()).status);
}

TEST_P(Invocations, StoppingLeavesAcceptedRequestsAlone) {
    auto answer = start_invocation(make_header());
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_stop_app_event_handling(worker_, event_app));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_complete_invoke(worker_, params_.context, 3, 0));
    EXPECT_EQ(3u, answer.get().result.num_successful);
}

TEST_P(Invocations, OnceIsOneRequestWithOneNullKey) {
    int times = 0;
    script = [&](const std::string &guid, OMRALIB_INVOKE_PARAMS &params) {
        ++times;
        EXPECT_EQ("the worker guid ", guid);
        EXPECT_EQ(MGTI_APPID_INVOKE_ONCE, params.app_id);
        EXPECT_EQ(1, params.num_keys);
        const std::vector<OMRA_OBJKEY> keys = fetch_keys(params);
        EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(keys[0]));
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_complete_invoke(worker_, params.context, 1, 0));
        return OMRALIB_INVOKE_ACCEPTED;
    };
    /* Whoever serves anything serves these when they name no app id of their own. */
    for (const unsigned int event_app_id : {event_app, MGTI_APPID_INVOKE_ONCE}) {
        const Answer answer = invoke(hdl_, make_header(MGTI_APPID_INVOKE_ONCE, event_app_id));
        EXPECT_EQ(OMRALIB_RET_SUCCESS, answer.status);
        EXPECT_EQ(1u, answer.result.num_successful);
    }
    EXPECT_EQ(2, times);
    EXPECT_EQ(OMRALIB_ERR_NO_WORKER, invoke(hdl_, make_header(MGTI_APPID_INVOKE_ONCE, 78)).status);
}

TEST_P(Invocations, SelectByIndexTermsAndAcrossAppIds) {
    std::vector<OMRA_OBJKEY> keys;
    script = [&](const std::string &, OMRALIB_INVOKE_PARAMS &params) {
        keys = fetch_keys(params);
        Omralib_complete_invoke(worker_, params.context, 0, 0);
        return OMRALIB_INVOKE_ACCEPTED;
    };
    OMRA_INDEX_HDR header = make_header();
    header.num_index = 2;
    header.reserved1 = 1;
    invoke(hdl_, header, terms({{1, 0, make_value(1)}, {0, 1, make_value(0)}}));
    ASSERT_EQ(2u, keys.size());
    EXPECT_EQ(0u, keys[0].obj_id.u64_comp[0]);
    EXPECT_EQ(1u, keys[1].obj_id.u64_comp[0]);
    header.reserved1 = 0;
    invoke(hdl_, header, terms({{1, 0, make_value(2)}, {0, 0, make_value(0)}}));
    ASSERT_EQ(1u, keys.size());
    EXPECT_EQ(2u, keys[0].obj_id.u64_comp[0]);

    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(4, 1), "x"));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(0xD0000000, 1), "not ordinary"));
    invoke(hdl_, make_header(OMRALIB_ALL_APP_IDS));
    ASSERT_EQ(4u, keys.size());
    EXPECT_EQ(4u, keys[0].app_id);
    EXPECT_EQ(data_app, keys[3].app_id);
}

TEST_P(Invocations, TellMalformedRequests) {
    accept();
    OMRA_INDEX_HDR header = make_header();
    const std::string term = terms({{0, 0, make_value(1)}});
    unsigned int len = 0;
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_invoke(hdl_, 0, &header, 103, &len));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_invoke(hdl_, 0, nullptr, 104, &len));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_invoke(hdl_, 0, &header, 104, nullptr));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, invoke(hdl_, header, "x").status);
    header.num_index = 1;
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, invoke(hdl_, header).status);
    EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, invoke(hdl_, header, terms({{8, 0, make_value(1)}})).status);
    EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, invoke(hdl_, header, terms({{0, 2, make_value(1)}})).status);
    header.reserved1 = 3;
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, invoke(hdl_, header, term).status);
    header.reserved1 = 0;
    header.num_index = 0x80000001;
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, invoke(hdl_, header, term).status);
    header.reserved1 = OMRALIB_QUERY_PASS_THROUGH;
    header.num_index = 7;
    EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, invoke(hdl_, header, "nonsens").status);
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, invoke(hdl_, header, "nonsense").status);
    header.reserved = 1;
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, invoke(hdl_, header).status);
    EXPECT_FALSE(accepted_.try_acquire());
}

TEST_P(Invocations, UseThePlainCallbackWhenItIsTheOnlyOne) {
    store::Store other(GetParam().make(clock_, store::Configuration{}), clock_, store::Configuration{});
    OMRALIB_CB cb;
    cb.invoke_cb = scripted_plain;
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_register_cb(OMRALIB_CB_INVOKE, cb));
    const OMRALIB_HANDLE hdl = Omralib_open_ext(nullptr);
    const OMRALIB_HANDLE worker = Omralib_open_ext(nullptr);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_start_app_event_handling(worker, event_app));
    script = [&](const std::string &guid, OMRALIB_INVOKE_PARAMS &params) {
        EXPECT_EQ("", guid);
        Omralib_complete_invoke(worker, params.context, 1, 0);
        return OMRALIB_INVOKE_ACCEPTED;
    };
    EXPECT_EQ(1u, invoke(hdl, make_header(MGTI_APPID_INVOKE_ONCE)).result.num_successful);
}

TEST_P(Invocations, CallbacksAndNamesAreChecked) {
    OMRALIB_CB cb;
    cb.invoke_ext_cb = nullptr;
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, cb));
    cb.invoke_ext_cb = scripted_ext;
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_register_cb(0, cb));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_register_cb(5, cb));

    unsigned int app_id = 0;
    const std::string backrest = "__OMRA_appname_system_backrest";
    const auto bind = [&](const std::string &name) {
        return Omralib_register_appname_hdl(hdl_, name.data(),
                                            static_cast<unsigned int>(name.size()), &app_id);
    };
    EXPECT_EQ(OMRALIB_RET_SUCCESS, bind(backrest));
    EXPECT_EQ(0x30000002u, app_id);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, bind("__OMRA_appname_invoke_once"));
    EXPECT_EQ(0x40000001u, app_id);
    EXPECT_EQ(OMRALIB_ERR_NAME_REGISTERED, bind(backrest));
    EXPECT_EQ(0x40000001u, app_id);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, bind("mine"));
    EXPECT_LE(app_id, 0x0FFFFFFEu);
    const unsigned int mine = app_id;
    EXPECT_EQ(OMRALIB_RET_SUCCESS, bind("yours"));
    EXPECT_NE(mine, app_id);
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, bind(""));
}

} // namespace
