/* What an application hears of an invocation while it runs, how it ends one, and how invocations
 * wait for each other. */
#include <algorithm>

#include "played_hosts.h"

namespace {

constexpr unsigned long long num_objects = 60;
constexpr unsigned long long num_good = num_objects * 4 / 5;

class Progress : public testing::TestWithParam<EngineParam> {};
FOR_ALL_ENGINES(Progress);

bool notices_reads(PlayedHosts &hosts) {
    return hosts.store.serving.requests.is_noticing();
}

struct Watcher {
    PlayedHosts hosts;
    std::vector<OMRALIB_PROGRESS> reports = {};
    store::Millis reported_at = 0;
};

TEST_P(Progress, IsReportedAtMostTenTimesASecondAndAtTheEnd) {
    Watcher watcher{{GetParam(), 4}};
    PlayedHosts &hosts = watcher.hosts;
    hosts.store_objects(num_objects);
    const auto note = [](const OMRALIB_PROGRESS *pnow, void *parg) {
        auto &[its_hosts, reports, reported_at] = *static_cast<Watcher *>(parg);
        EXPECT_EQ(num_objects, pnow->num_matched);
        EXPECT_EQ(4u, pnow->num_hosts);
        EXPECT_GE(pnow->num_done, reports.empty() ? 0 : reports.back().num_done);
        EXPECT_TRUE(its_hosts.jobs.empty() || its_hosts.clock.now() >= reported_at + 100);
        reports.push_back(*pnow);
        reported_at = its_hosts.clock.now();
    };
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_set_progress_func(hosts.hdl, note, &watcher));
    const OMRALIB_HANDLE other = Omralib_open_ext("another process ");
    hosts.turn = [&](store::Millis) {
        for (unsigned long long i = 0; i < num_objects; ++i) { /* no reads of the hosts' */
            EXPECT_EQ("x", get(other, make_key(PlayedHosts::data_app, i)));
        }
        hosts.clock.advance(30);
        const auto late = std::ranges::find(hosts.jobs, 0, &Job::num_steps);
        hosts.step(late != hosts.jobs.end() ? late : hosts.jobs.begin());
    };
    ASSERT_EQ(OMRALIB_RET_SUCCESS, hosts.invoke().status);
    EXPECT_EQ(0u, watcher.reports.front().num_done);
    EXPECT_TRUE(std::ranges::any_of(watcher.reports, [](const OMRALIB_PROGRESS &report) {
        return report.num_hosts_done == 0 && report.num_done > 0; /* of those that run */
    }));
    EXPECT_EQ(num_objects, watcher.reports.back().num_done);
    EXPECT_EQ(num_objects - num_good, watcher.reports.back().num_failed);
    EXPECT_EQ(4u, watcher.reports.back().num_hosts_done);
    EXPECT_FALSE(notices_reads(hosts));
}

TEST_P(Progress, CancellingDropsWhatHasNotBegun) {
    PlayedHosts hosts(GetParam(), 4);
    hosts.store_objects(num_objects);
    hosts.turn = [&](store::Millis) {
        if (hosts.jobs.size() == 4) {
            hosts.step(hosts.jobs.begin());
        } else {
            EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_cancel_invoke(hosts.hdl));
        }
    };
    EXPECT_EQ(OMRALIB_ERR_CANCELLED, hosts.invoke().status);
    EXPECT_EQ(OMRALIB_ERR_NOT_READING, Omralib_flush_read_data(hosts.hdl));

    /* The others read their objects only now. Nobody else misses one. */
    ASSERT_EQ(3u, hosts.jobs.size());
    EXPECT_TRUE(notices_reads(hosts));
    hosts.before_step = [&](Job &job) {
        const auto num_keys = static_cast<std::uint32_t>(job.params.num_keys);
        EXPECT_EQ(job.num_steps == 0 ? 0 : num_keys, job.num_dropped);
    };
    for (unsigned long long i = 0; i < num_objects; ++i) {
        EXPECT_EQ("x", get(hosts.hdl, make_key(PlayedHosts::data_app, i)));
    }
    hosts.finish_zombies();
    EXPECT_EQ(0u, hosts.num_temp_objects());
    EXPECT_FALSE(notices_reads(hosts));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_cancel_invoke(hosts.hdl));
    EXPECT_EQ(OMRALIB_ERR_BAD_HANDLE, Omralib_cancel_invoke(OMRALIB_NULL_HANDLE));
}

TEST_P(Progress, CancellingLeavesAnotherInvocationOfTheSameObjectsAlone) {
    PlayedHosts hosts(GetParam(), 4);
    hosts.store_objects(num_objects);
    const OMRALIB_HANDLE other = Omralib_open_ext(nullptr);
    const auto step_at_random = hosts.turn;
    hosts.turn = [&](store::Millis deadline) {
        if (hosts.num_jobs == 4) {
            EXPECT_EQ(OMRALIB_ERR_CANCELLED, hosts.invoke(0, other).status);
        } else if (hosts.num_jobs == 8 && !notices_reads(hosts)) { /* the inner one waits */
            EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_cancel_invoke(other));
            std::for_each(std::next(hosts.jobs.begin(), 4), hosts.jobs.end(),
                          [](Job &job) { job.is_stuck = true; });
        } else {
            step_at_random(deadline);
        }
    };
    EXPECT_EQ(num_good, hosts.invoke().evaluated.size());
}

TEST_P(Progress, InvocationsWaitTheirTurnAgainstTheirDeadline) {
    store::Configuration configuration;
    configuration.max_invocations = 1;
    PlayedHosts hosts(GetParam(), 2, 0, configuration);
    hosts.store_objects(num_objects);
    const OMRALIB_HANDLE other = Omralib_open_ext(nullptr);
    const auto outer_turn = hosts.turn;
    bool has_begun = false;
    int expected = 0; /* of another one, while it waits */
    hosts.turn = [&](store::Millis deadline) {
        EXPECT_EQ(expected == 0 ? 1u : 2u, hosts.stats().num_invocations_running);
        if (expected == OMRALIB_ERR_CANCELLED) {
            Omralib_cancel_invoke(other);
        } else if (expected != 0) {
            hosts.clock.advance(deadline - hosts.clock.now());
        } else if (!has_begun) {
            has_begun = true;
            for (const int end : {OMRALIB_ERR_INVOKE_TIMEOUT, OMRALIB_ERR_CANCELLED}) {
                expected = end;
                EXPECT_EQ(expected, hosts.invoke(10, other).status);
                EXPECT_EQ(2, hosts.num_jobs); /* all of the first one */
            }
            expected = 0;
        } else {
            outer_turn(deadline);
        }
    };
    EXPECT_EQ(num_good, hosts.invoke().result.num_successful);
    EXPECT_EQ(num_good, hosts.invoke(0, other).result.num_successful);
    EXPECT_EQ(0u, hosts.num_temp_objects());
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
