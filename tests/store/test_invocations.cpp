/* Invocations, one by one: what hosts and applications are told of them, which requests are none,
 * how they are cancelled, and how they wait for each other. */
#include <algorithm>

#include <sys/wait.h>
#include <unistd.h>

#include "played_hosts.h"
#include "support/failing_memory.h"
#include "sys_util.h"

namespace {

using store::Millis;
using testing::ElementsAre;

constexpr unsigned long long num_asked = 60;
constexpr unsigned long long num_good = num_asked * 4 / 5;

class Invocations : public testing::TestWithParam<TestEngine>, public PlayedHosts {
public:
    explicit Invocations(std::uint32_t num_hosts = 1)
        : PlayedHosts(GetParam(), {.num_hosts = num_hosts, .max_invocations = 1}, num_asked) {}
};
FOR_ALL_ENGINES(Invocations);

TEST_P(Invocations, DeliverTheRequestAndAnswerWithItsCounts) {
    OMRA_INDEX_HDR header = make_header(data_app);
    header.invoke_op = 11;
    header.merge_op = 12;
    header.params_key = make_key(9, 9);
    header.immediate_params = 1;
    turn = [&](Millis) {
        const Job job = jobs.front();
        EXPECT_EQ(OMRALIB_ERR_HANDLE_BUSY, Omralib_handle_ready(hdl));
        EXPECT_EQ(OMRALIB_ERR_HANDLE_BUSY, Omralib_flush_read_data(hdl));
        EXPECT_EQ(OMRALIB_ERR_HANDLE_BUSY, Omralib_close(hdl));
        EXPECT_NE(0u, job.params.context);
        EXPECT_EQ(std::tuple(data_app, 11, 12, 1, 0),
                  std::tie(job.params.app_id, job.params.invoke_op, job.params.merge_op,
                           job.params.immediate_params, job.params.merge_request));
        EXPECT_EQ(bytes_of(header.params_key), bytes_of(job.params.params_key));
        std::vector<OMRA_OBJKEY> keys = job.keys();
        ASSERT_EQ(num_asked, keys.size());
        EXPECT_TRUE(std::ranges::is_sorted(keys, store::KeyLess()));
        EXPECT_EQ(bad_args, Omralib_get_invoke_keys(job.params.context, keys.data(), 59));
        EXPECT_EQ(success, put(worker, job.params.results_key, bytes_of(7ull)));
        /* What is accepted is carried out, whoever serves meanwhile. */
        EXPECT_EQ(success, Omralib_stop_app_event_handling(worker, event_app));
        EXPECT_EQ(success, complete(job, 50, 10));
        EXPECT_EQ(bad_args, complete(job, 50, 10));
        EXPECT_EQ(bad_args, Omralib_flush_invoke(job.params.context));
    };
    const Outcome outcome = invoke(header);
    EXPECT_EQ(success, outcome.status);
    EXPECT_EQ(50u, outcome.result.num_successful);
    EXPECT_EQ(10u, outcome.result.num_failed);
    EXPECT_THAT(outcome.evaluated, ElementsAre(7));
    EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(outcome.result.exceptions_key));
}

TEST_P(Invocations, CountEveryKeyOnceWhateverTheHostSays) {
    const struct {
        unsigned int said_successful, said_failed, successful;
    } cases[] = {{99, 0, 60}, {1, 0, 1}, {60, 60, 60}, {0, 0, 0}, {0xFFFFFFFFu, 0xFFFFFFFFu, 60}};
    for (const auto &c : cases) {
        turn = [&](Millis) {
            EXPECT_EQ(success, complete(jobs.back(), c.said_successful, c.said_failed));
        };
        const Outcome outcome = invoke();
        EXPECT_EQ(c.successful, outcome.result.num_successful);
        EXPECT_EQ(60 - c.successful, outcome.result.num_failed);
    }
    turn = [&](Millis) {
        EXPECT_EQ(success, put(worker, jobs.back().params.results_key, "half done"));
        EXPECT_EQ(success, Omralib_flush_invoke(jobs.back().params.context));
    };
    const Outcome outcome = invoke();
    EXPECT_EQ(60u, outcome.result.num_failed);
    EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(outcome.result.results_key));
}

TEST_P(Invocations, ReachOnlyWhoServesTheAppId) {
    constexpr unsigned int once = MGTI_APPID_INVOKE_ONCE;
    /* A request to run once has one null key; whoever serves anything serves it when it names no
     * app id of its own. */
    turn = [&](Millis) {
        EXPECT_EQ(once, jobs.back().params.app_id);
        EXPECT_THAT(jobs.back().keys(), ElementsAre(testing::Truly(
                                            [](auto &key) { return OMRA_OBJKEY_IS_NULL(key); })));
        EXPECT_EQ(success, complete(jobs.back(), 1, 0));
    };
    EXPECT_EQ(1u, invoke(make_header(once, event_app)).result.num_successful);
    EXPECT_EQ(1u, invoke(make_header(once, once)).result.num_successful);
    EXPECT_EQ(OMRALIB_ERR_NO_WORKER, invoke(make_header(once, 78)).status);
    EXPECT_EQ(OMRALIB_ERR_NO_WORKER, invoke(make_header(data_app, 78)).status);
    for (unsigned int number = 1, num_failed = 1; num_failed != 0; ++number) { /* without memory */
        failing_memory::arm(number, false);
        failing_memory::is_exposed = true;
        const int status = Omralib_start_app_event_handling(worker, 78);
        failing_memory::is_exposed = false;
        num_failed = failing_memory::disarm();
        EXPECT_EQ(num_failed != 0 ? int{OMRALIB_ERR_NO_SPACE} : success, status);
        EXPECT_EQ(num_failed != 0 ? int{OMRALIB_ERR_NO_WORKER} : success,
                  invoke(make_header(6, 78)).status);
    }
    EXPECT_EQ(success, Omralib_stop_app_event_handling(worker, 78));
    /* Stopping ends what a handle with the same identifier has started, and only that. */
    for (const OMRALIB_HANDLE stopping : {hdl, worker}) {
        const Outcome outcome = invoke(make_header(6)); /* there are no objects */
        EXPECT_EQ(success, outcome.status);
        EXPECT_EQ(0u, outcome.result.num_successful + outcome.result.num_failed);
        EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(outcome.result.results_key));
        EXPECT_EQ(success, Omralib_stop_app_event_handling(stopping, event_app));
    }
    EXPECT_EQ(OMRALIB_ERR_NO_WORKER, invoke().status);
    EXPECT_EQ(2u, num_jobs);
}

TEST_P(Invocations, TellMalformedRequests) {
    constexpr ULONG as_text = OMRALIB_QUERY_PASS_THROUGH;
    constexpr int bad_query = OMRALIB_ERR_BAD_QUERY;
    const auto term = [](USHORT index, USHORT flags) {
        return bytes_of(OMRA_INDEX_SPEC{index, flags, {{1}}});
    };
    OMRA_INDEX_HDR header = make_header(data_app);
    const auto status = [&](ULONG num_index, ULONG query_kind, std::string_view query) {
        header.num_index = num_index;
        header.reserved1 = query_kind;
        return invoke(header, query).status;
    };
    EXPECT_EQ(bad_args, status(0, 0, "x"));
    EXPECT_EQ(bad_args, status(1, 0, ""));
    EXPECT_EQ(bad_query, status(1, 0, term(8, 0)));
    EXPECT_EQ(bad_query, status(1, 0, term(0, 2)));
    EXPECT_EQ(bad_args, status(0x80000001, 0, term(0, 0)));
    EXPECT_EQ(bad_args, status(1, 3, term(0, 0)));
    EXPECT_EQ("the kind of the query is 3, not 0, 1 or 2", error_text(hdl));
    EXPECT_EQ(bad_query, status(8, as_text, "nonsense"));
    EXPECT_EQ(bad_query, status(0, as_text, ""));
    EXPECT_EQ(bad_args, status(7, as_text, "nonsense"));
    EXPECT_EQ(0u, num_jobs);
    EXPECT_EQ(success, status(7, as_text, "limit 7"));
    EXPECT_EQ(7u, stats().num_evaluated);
    header.reserved = 1;
    EXPECT_EQ(bad_args, status(0, 0, ""));
    unsigned int len = 0;
    EXPECT_EQ(bad_args, Omralib_invoke(hdl, 0, &header, 103, &len));
    EXPECT_EQ(bad_args, Omralib_invoke(hdl, 0, nullptr, 104, &len));
    EXPECT_EQ(bad_args, Omralib_invoke(hdl, 0, &header, 104, nullptr));
    OMRALIB_CB cb{};
    EXPECT_EQ(bad_args, Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, cb));
    cb.invoke_cb = [](OMRALIB_INVOKE_PARAMS *) { return 0; };
    EXPECT_EQ(bad_args, Omralib_register_cb(0, cb));
    EXPECT_EQ(bad_args, Omralib_register_cb(5, cb));
}

TEST_P(Invocations, AreForApplicationsOfTheProcessThatOpenedTheStore) {
    int mine = 0;
    Thread_datap_set(&mine); /* as the threads have that run functions */
    EXPECT_EQ(OMRALIB_ERR_INVOKE_INSIDE, invoke().status);
    Thread_datap_set(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        _exit(invoke().status == OMRALIB_ERR_FORKED ? 0 : 1);
    }
    ASSERT_EQ(child, waitpid(child, &mine, 0));
    EXPECT_EQ(0, mine);
    EXPECT_EQ(num_good, invoke().result.num_successful);
}

TEST_P(Invocations, BindNamesToAppIds) {
    const auto bind = [&](const std::string &name) {
        unsigned int app_id = 0;
        const int status = Omralib_register_appname_hdl(hdl, name.data(), length_of(name), &app_id);
        return status == success ? static_cast<int>(app_id) : status;
    };
    EXPECT_EQ(0x30000002, bind("__OMRA_appname_system_backrest"));
    EXPECT_EQ(0x40000001, bind("__OMRA_appname_invoke_once"));
    EXPECT_EQ(OMRALIB_ERR_NAME_REGISTERED, bind("__OMRA_appname_system_backrest"));
    EXPECT_EQ(bad_args, bind(""));
    const int mine = bind("mine");
    EXPECT_TRUE(mine >= 0 && mine <= 0x0FFFFFFE && mine != bind("yours"));
}

/* Many hosts ----------------------------------------------------------------------------------- */

class Progress : public Invocations {
public:
    Progress() : Invocations(4) {}

    void read_all() {
        for (unsigned long long i = 0; i < num_asked; ++i) {
            EXPECT_EQ("x", get(other, make_key(data_app, i)));
        }
    }

    const OMRALIB_HANDLE other = Omralib_open_ext("another process ");
    std::vector<OMRALIB_PROGRESS> reports;
    Millis reported_at = 0;
};
FOR_ALL_ENGINES(Progress);

TEST_P(Progress, IsReportedAtMostTenTimesASecondAndAtTheEnd) {
    const auto note = [](const OMRALIB_PROGRESS *pnow, void *parg) {
        auto &test = *static_cast<Progress *>(parg);
        EXPECT_EQ(num_asked, pnow->num_matched);
        EXPECT_EQ(4u, pnow->num_hosts);
        EXPECT_GE(pnow->num_done, test.reports.empty() ? 0 : test.reports.back().num_done);
        const Millis now = test.clock.now();
        EXPECT_TRUE(test.jobs.empty() || now >= std::exchange(test.reported_at, now) + 100);
        test.reports.push_back(*pnow);
    };
    ASSERT_EQ(success, Omralib_set_progress_func(hdl, note, this));
    turn = [&](Millis) {
        read_all(); /* no reads of the hosts' */
        clock.advance(30);
        const auto late = std::ranges::find(jobs, 0u, &Job::num_steps);
        step(late != jobs.end() ? late : jobs.begin());
    };
    ASSERT_EQ(success, invoke().status);
    EXPECT_EQ(0u, reports.front().num_done);
    EXPECT_TRUE(std::ranges::any_of(reports, [](const OMRALIB_PROGRESS &report) {
        return report.num_hosts_done == 0 && report.num_done > 0; /* of those that run */
    }));
    EXPECT_EQ(num_asked, reports.back().num_done);
    EXPECT_EQ(num_asked - num_good, reports.back().num_failed);
    EXPECT_EQ(4u, reports.back().num_hosts_done);
}

TEST_P(Progress, CancellingDropsWhatHasNotBegun) {
    turn = [&](Millis) {
        if (jobs.size() == 4) {
            step(jobs.begin());
        } else {
            Job &job = jobs.back(); /* has begun to read */
            job.worker = Omralib_open_ext("the worker guid ");
            EXPECT_EQ("x", get(job.worker, job.keys().front()));
            EXPECT_EQ(success, Omralib_cancel_invoke(hdl));
        }
    };
    EXPECT_EQ(OMRALIB_ERR_CANCELLED, invoke().status);
    EXPECT_EQ(OMRALIB_ERR_NOT_READING, Omralib_flush_read_data(hdl));

    /* The others read their objects only now. Nobody else misses one. */
    ASSERT_EQ(3u, jobs.size());
    before_step = [](const Job &job) {
        EXPECT_EQ(job.num_steps == 0 ? 0 : job.params.num_keys, job.num_dropped);
    };
    read_all();
    finish_zombies();
    EXPECT_EQ(0u, num_temp_objects());
    EXPECT_EQ(success, Omralib_cancel_invoke(hdl));
    EXPECT_EQ(OMRALIB_ERR_BAD_HANDLE, Omralib_cancel_invoke(OMRALIB_NULL_HANDLE));
}

TEST_P(Progress, WaitsForATurnAgainstTheDeadline) {
    int expected = 0; /* of another invocation, while it waits */
    bool has_begun = false;
    turn = [&, go_on = turn](Millis deadline) {
        if (expected == OMRALIB_ERR_CANCELLED) {
            EXPECT_EQ(2u, stats().num_invocations_running);
            Omralib_cancel_invoke(other);
        } else if (expected != 0) {
            clock.advance(deadline - clock.now());
        } else if (std::exchange(has_begun, true)) {
            go_on(deadline);
        } else {
            for (const int end : {OMRALIB_ERR_INVOKE_TIMEOUT, OMRALIB_ERR_CANCELLED}) {
                expected = end;
                EXPECT_EQ(end, invoke(10, other).status);
                EXPECT_EQ(4u, num_jobs); /* all of the first one */
            }
            expected = 0;
        }
    };
    EXPECT_EQ(num_good, invoke().result.num_successful);
    EXPECT_EQ(num_good, invoke(0, other).result.num_successful);
    EXPECT_EQ(0u, num_temp_objects());
}

TEST(Admission, IsFirstComeFirstServed) {
    TestClock clock;
    store::Mailroom mailroom(clock);
    store::Admission admission(mailroom, 2);
    store::Mailbox box(mailroom);
    std::unique_ptr<store::Admission::Place> places[5];
    for (auto &place : places) {
        place = std::make_unique<store::Admission::Place>(admission, box);
    }
    EXPECT_TRUE(places[0]->is_admitted() && places[1]->is_admitted());
    EXPECT_FALSE(places[2]->is_admitted());
    places[2].reset(); /* gives up */
    places[1].reset();
    EXPECT_TRUE(places[3]->is_admitted());
    EXPECT_FALSE(places[4]->is_admitted());
    places[0].reset();
    EXPECT_TRUE(places[4]->is_admitted());
}

} // namespace
