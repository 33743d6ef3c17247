/* What an application hears of an invocation while it runs, how it ends one, and how invocations
 * wait for each other. */
#include <algorithm>

#include "played_hosts.h"

namespace {

constexpr unsigned long long num_objects = 60;
constexpr unsigned long long num_good = num_objects * 4 / 5;

class Progress : public testing::TestWithParam<store::EngineKind> {
public:
    void read_all() {
        for (unsigned long long i = 0; i < num_objects; ++i) {
            EXPECT_EQ("x", get(other_, make_key(PlayedHosts::data_app, i)));
        }
    }

    bool notices_reads() { return hosts_.store.serving.requests.is_noticing(); }

    PlayedHosts hosts_{GetParam(), {.num_hosts = 4, .max_invocations = 2}, num_objects};
    const OMRALIB_HANDLE other_ = Omralib_open_ext("another process ");
    std::vector<OMRALIB_PROGRESS> reports_;
    store::Millis reported_at_ = 0;
};
FOR_ALL_ENGINES(Progress);

TEST_P(Progress, IsReportedAtMostTenTimesASecondAndAtTheEnd) {
    const auto note = [](const OMRALIB_PROGRESS *pnow, void *parg) {
        auto &test = *static_cast<Progress *>(parg);
        EXPECT_EQ(num_objects, pnow->num_matched);
        EXPECT_EQ(4u, pnow->num_hosts);
        EXPECT_GE(pnow->num_done, test.reports_.empty() ? 0 : test.reports_.back().num_done);
        const store::Millis now = test.hosts_.clock.now();
        EXPECT_TRUE(test.hosts_.jobs.empty() || now >= std::exchange(test.reported_at_, now) + 100);
        test.reports_.push_back(*pnow);
    };
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_set_progress_func(hosts_.hdl, note, this));
    hosts_.turn = [&](store::Millis) {
        read_all(); /* no reads of the hosts' */
        hosts_.clock.advance(30);
        const auto late = std::ranges::find(hosts_.jobs, 0u, &Job::num_steps);
        hosts_.step(late != hosts_.jobs.end() ? late : hosts_.jobs.begin());
    };
    ASSERT_EQ(OMRALIB_RET_SUCCESS, hosts_.invoke().status);
    EXPECT_EQ(0u, reports_.front().num_done);
    EXPECT_TRUE(std::ranges::any_of(reports_, [](const OMRALIB_PROGRESS &report) {
        return report.num_hosts_done == 0 && report.num_done > 0; /* of those that run */
    }));
    EXPECT_EQ(num_objects, reports_.back().num_done);
    EXPECT_EQ(num_objects - num_good, reports_.back().num_failed);
    EXPECT_EQ(4u, reports_.back().num_hosts_done);
    EXPECT_FALSE(notices_reads());
}

TEST_P(Progress, CancellingDropsWhatHasNotBegun) {
    hosts_.turn = [&](store::Millis) {
        if (hosts_.jobs.size() == 4) {
            hosts_.step(hosts_.jobs.begin());
        } else {
            EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_cancel_invoke(hosts_.hdl));
        }
    };
    EXPECT_EQ(OMRALIB_ERR_CANCELLED, hosts_.invoke().status);
    EXPECT_EQ(OMRALIB_ERR_NOT_READING, Omralib_flush_read_data(hosts_.hdl));

    /* The others read their objects only now. Nobody else misses one. */
    ASSERT_EQ(3u, hosts_.jobs.size());
    EXPECT_TRUE(notices_reads());
    hosts_.before_step = [](Job &job) {
        const auto num_keys = static_cast<std::uint32_t>(job.params.num_keys);
        EXPECT_EQ(job.num_steps == 0 ? 0 : num_keys, job.num_dropped);
    };
    read_all();
    hosts_.finish_zombies();
    EXPECT_EQ(0u, hosts_.num_temp_objects());
    EXPECT_FALSE(notices_reads());
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_cancel_invoke(hosts_.hdl));
    EXPECT_EQ(OMRALIB_ERR_BAD_HANDLE, Omralib_cancel_invoke(OMRALIB_NULL_HANDLE));
}

TEST_P(Progress, CancellingLeavesAnotherInvocationOfTheSameObjectsAlone) {
    hosts_.turn = [&, go_on = hosts_.turn](store::Millis deadline) {
        if (hosts_.num_jobs == 4) {
            EXPECT_EQ(OMRALIB_ERR_CANCELLED, hosts_.invoke(0, other_).status);
        } else if (hosts_.num_jobs == 8 && !notices_reads()) { /* the inner one waits */
            EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_cancel_invoke(other_));
            std::for_each(std::next(hosts_.jobs.begin(), 4), hosts_.jobs.end(),
                          [](Job &job) { job.is_stuck = true; });
        } else {
            go_on(deadline);
        }
    };
    EXPECT_EQ(num_good, hosts_.invoke().evaluated.size());
}

/* Two run, each on the other's back, and a third one waits. */
TEST_P(Progress, InvocationsWaitTheirTurnAgainstTheirDeadline) {
    const OMRALIB_HANDLE third = Omralib_open_ext(nullptr);
    int expected = 0; /* of the third one, while it waits */
    bool has_begun = false;
    hosts_.turn = [&, go_on = hosts_.turn](store::Millis deadline) {
        if (expected == OMRALIB_ERR_CANCELLED) {
            EXPECT_EQ(3u, stats().num_invocations_running);
            Omralib_cancel_invoke(third);
        } else if (expected != 0) {
            hosts_.clock.advance(deadline - hosts_.clock.now());
        } else if (hosts_.num_jobs == 4) {
            EXPECT_EQ(num_good, hosts_.invoke(0, other_).result.num_successful);
        } else if (!std::exchange(has_begun, true)) {
            for (const int end : {OMRALIB_ERR_INVOKE_TIMEOUT, OMRALIB_ERR_CANCELLED}) {
                expected = end;
                EXPECT_EQ(expected, hosts_.invoke(10, third).status);
                EXPECT_EQ(8u, hosts_.num_jobs); /* all of the first two */
            }
            expected = 0;
        } else {
            go_on(deadline);
        }
    };
    EXPECT_EQ(num_good, hosts_.invoke().result.num_successful);
    EXPECT_EQ(num_good, hosts_.invoke(0, third).result.num_successful);
    EXPECT_EQ(0u, hosts_.num_temp_objects());
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
