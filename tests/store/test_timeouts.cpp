/* Time-outs, on a clock turned by hand, beyond what the model sees of them: who hears of them, long
 * queues, and the alarm that sweeps. */
#include <atomic>
#include <semaphore>

#include "common/alarm.h"
#include "store_test.h"

namespace {

using store::millis_per_minute;
using store::millis_per_second;

class TimeOuts : public StoreTest {};
FOR_ALL_ENGINES(TimeOuts);

TEST_P(TimeOuts, RenewedObjectsDoNotHideExpiredOnes) {
    for (unsigned int i = 0; i < 21'000; ++i) {
        clock_.advance(i == 20'000 ? 1 : 0); /* the forgotten ones are the last in the queue */
        ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1, i), "data", 1));
    }
    clock_.advance(millis_per_minute / 2);
    for (unsigned int i = 0; i < 20'000; ++i) {
        ASSERT_EQ("data", get(hdl_, make_key(1, i)));
    }
    clock_.advance(millis_per_minute / 2);
    EXPECT_EQ(20'000u, count(hdl_, 1));
    clock_.advance(millis_per_minute);
    EXPECT_EQ(0u, count(hdl_, 1));
}

std::vector<std::string> events;
std::counting_semaphore<> arrived{0};
OMRALIB_HANDLE callback_hdl;

TEST_P(TimeOuts, AreToldToWhoeverHandlesTheAppId) {
    callback_hdl = Omralib_open_ext(nullptr);
    OMRALIB_CB cb;
    cb.event_ext_cb = [](OMRA_OBJKEY key, const char *pguid, unsigned int code) {
        EXPECT_EQ(OMRALIB_EVENT_EXPIRED, code);
        EXPECT_EQ("status -109", get(callback_hdl, key));
        events.push_back(pguid + std::to_string(key.obj_id.u64_comp[0]));
        arrived.release();
        return OMRALIB_EVENT_NOT_HANDLED;
    };
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_register_cb(OMRALIB_CB_EVENT_EXT, cb));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_start_app_event_handling(hdl_, 2));
    clock_.advance(1); /* expired objects are swept at whole seconds */
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1, 1), "nobody listens", 1));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(2, 1), "renewed", 1));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(2, 2), "forgotten", 1));
    clock_.advance(millis_per_minute / 2);
    EXPECT_EQ("renewed", get(hdl_, make_key(2, 1)));
    clock_.advance(31 * millis_per_second);
    arrived.acquire(); /* nothing but time brings it */
    clock_.advance(29 * millis_per_second);
    EXPECT_EQ(0u, count(hdl_, 2)); /* and whoever comes first, before it is time to sweep */
    arrived.acquire();

    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_stop_app_event_handling(hdl_, 2));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_start_app_event_handling(hdl_, 3));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(2, 3), "too late", 1));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(3, 4), "heard of", 2));
    clock_.advance(millis_per_minute);
    EXPECT_EQ(0u, count(hdl_, 2));
    clock_.advance(millis_per_minute);
    arrived.acquire();
    EXPECT_THAT(events,
                testing::ElementsAre("store test guid2", "store test guid1", "store test guid4"));
}

/* What renews leases and sweeps as time passes. */
TEST(Alarm, WorksAtTheMomentsItIsCalledForAndThenAtThoseTheWorkNames) {
    TestClock clock;
    std::counting_semaphore<> worked(0);
    std::atomic<store::Millis> next{store::never};
    store::Alarm alarm(clock, [&] {
        const store::Millis at = next.exchange(store::never);
        worked.release();
        return at;
    });
    alarm.call_at(clock.now());
    worked.acquire();
    next = clock.now() + 20;
    alarm.call_at(clock.now() + 10);
    alarm.call_at(clock.now() + 30);
    clock.advance(10);
    worked.acquire();
    clock.advance(10);
    worked.acquire();
    alarm.call_at(clock.now() + 1);
    alarm.stop();
    clock.advance(1);
    EXPECT_FALSE(worked.try_acquire());
}

} // namespace
