/* Time-outs, on a clock turned by hand. */
#include <algorithm>
#include <semaphore>
#include <thread>

#include "embedded/shard.h"
#include "store_test.h"

namespace {

using store::millis_per_minute;
using store::millis_per_second;

class TimeOuts : public StoreTest {};
FOR_ALL_ENGINES(TimeOuts);

TEST_P(TimeOuts, AnExpiredObjectIsGoneAtOnceAndForEveryOperation) {
    const OMRA_OBJKEY key = make_key(1, 1);
    unsigned int len = 0;
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put_indexed(hdl_, key, {make_index(0, 1)}, 2));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1, 2), "stays"));
    clock_.advance(2 * millis_per_minute - 1);
    EXPECT_EQ(2u, count(hdl_, 1));
    clock_.advance(1);
    EXPECT_EQ("status -109", get(hdl_, key));
    EXPECT_EQ(OMRALIB_ERR_OBJ_NOT_FOUND, Omralib_read_and_lock_obj(hdl_, 0, 0, &len, key));
    EXPECT_EQ(OMRALIB_ERR_OBJ_NOT_FOUND, Omralib_replace_obj(hdl_, "x", 1, 0, nullptr, 0, key));
    EXPECT_EQ(1u, count(hdl_, 1));
    EXPECT_TRUE(find_value(1, 0, 1).empty());
    EXPECT_EQ(OMRALIB_ERR_OBJ_NOT_FOUND, Omralib_remove_obj(hdl_, 0, key));
}

TEST_P(TimeOuts, TheKeyOfAnExpiredObjectIsFree) {
    const OMRA_OBJKEY key = make_key(1, 1);
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, key, "old", 1));
    clock_.advance(millis_per_minute);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, key, "new"));
    clock_.advance(1000 * millis_per_minute);
    EXPECT_EQ("new", get(hdl_, key));
}

TEST_P(TimeOuts, SlideWithUsesThroughPlainKeysOnly) {
    const OMRA_OBJKEY used = make_key(1, 1);
    const OMRA_OBJKEY peeked = make_key(1, 2);
    unsigned int len = 0;
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, used, "u", 3));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, peeked, "p", 3));
    clock_.advance(2 * millis_per_minute);
    EXPECT_EQ("u", get(hdl_, used));
    EXPECT_EQ("p", get(hdl_, marked(peeked)));
    EXPECT_EQ(2u, count(hdl_, 1));
    clock_.advance(1 * millis_per_minute);
    EXPECT_EQ("status -109", get(hdl_, peeked));

    /* Listing and counting have passed the renewed object's first time-out by now. */
    EXPECT_EQ(1u, count(hdl_, 1));
    clock_.advance(1 * millis_per_minute);
    const int ticket = Omralib_read_and_lock_obj(hdl_, 0, 0, &len, used);
    ASSERT_GT(ticket, 0);
    fetch(hdl_, len);
    clock_.advance(2 * millis_per_minute);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, update(hdl_, used, ticket, "v", true));
    clock_.advance(2 * millis_per_minute);
    EXPECT_EQ("v", get(hdl_, marked(used)));
    clock_.advance(1 * millis_per_minute);
    EXPECT_EQ(0u, count(hdl_, 1));
}

TEST_P(TimeOuts, AReplacementBringsItsOwn) {
    const OMRA_OBJKEY key = make_key(1, 1);
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, key, "a", 1));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_replace_obj(hdl_, "b", 1, 0, nullptr, 0, key));
    clock_.advance(100 * millis_per_minute);
    EXPECT_EQ("b", get(hdl_, key));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_replace_obj(hdl_, "c", 1, 1, nullptr, 0, key));
    clock_.advance(1 * millis_per_minute);
    EXPECT_EQ("status -109", get(hdl_, key));
}

TEST_P(TimeOuts, RenewedObjectsDoNotHideExpiredOnes) {
    for (unsigned int i = 0; i < 20000; ++i) {
        ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1, i), "used", 1));
    }
    clock_.advance(1);
    for (unsigned int i = 0; i < 1000; ++i) {
        ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1, 20000 + i), "forgotten", 1));
    }
    clock_.advance(millis_per_minute / 2);
    for (unsigned int i = 0; i < 20000; ++i) {
        ASSERT_EQ("used", get(hdl_, make_key(1, i)));
    }
    clock_.advance(millis_per_minute / 2);
    EXPECT_EQ(20000u, count(hdl_, 1));
}

TEST_P(TimeOuts, ManyObjectsExpireTogether) {
    for (unsigned int i = 0; i < 20000; ++i) {
        ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1, i), "data", 1 + i % 2));
    }
    clock_.advance(millis_per_minute);
    EXPECT_EQ(10000u, count(hdl_, 1));
    clock_.advance(millis_per_minute);
    OMRALIB_STATS stats;
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_stats(&stats));
    EXPECT_EQ(0u, stats.num_objects);
    EXPECT_EQ(0u, stats.num_bytes);
}

/* The expirations of a store that the process has a callback for. */
class Events : public TimeOuts {
protected:
    struct Event {
        OMRA_OBJKEY key;
        std::string guid;
        unsigned int code;
    };

    Events() {
        events.clear();
        OMRALIB_CB cb;
        cb.event_ext_cb = [](OMRA_OBJKEY key, const char *pguid, unsigned int code) {
            /* With no lock held: the store may be used. */
            EXPECT_EQ("status -109", get(callback_hdl, key));
            events.push_back({key, std::string(pguid, OMRALIB_GUID_LEN), code});
            arrived.release();
            return OMRALIB_EVENT_NOT_HANDLED;
        };
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_register_cb(OMRALIB_CB_EVENT_EXT, cb));
        callback_hdl = Omralib_open_ext(nullptr);
    }

    static inline OMRALIB_HANDLE callback_hdl;
    static inline std::counting_semaphore<> arrived{0};
    static inline std::vector<Event> events;
};
FOR_ALL_ENGINES(Events);

TEST_P(Events, TellWhoeverHandlesTheAppIdThatItsObjectsExpired) {
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_start_app_event_handling(hdl_, 2));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1, 1), "nobody listens", 1));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(2, 1), "renewed", 1));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(2, 2), "replaced by a later one", 1));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(2, 3), "removed", 1));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(2, 4), "stays"));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_remove_obj(hdl_, 0, make_key(2, 3)));
    clock_.advance(millis_per_minute / 2);
    EXPECT_EQ("renewed", get(hdl_, make_key(2, 1)));
    clock_.advance(millis_per_minute / 2);
    /* Nothing but time brings the events. */
    arrived.acquire();
    EXPECT_EQ(2u, events.at(0).key.obj_id.u64_comp[0]);
    EXPECT_EQ("store test guid", events[0].guid.substr(0, 15));
    EXPECT_EQ(OMRALIB_EVENT_EXPIRED, events[0].code);
    clock_.advance(millis_per_minute / 2);
    arrived.acquire();
    EXPECT_EQ(1u, events.at(1).key.obj_id.u64_comp[0]);
    OMRALIB_STATS stats;
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_stats(&stats));
    EXPECT_EQ(3u, stats.num_expired);

    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_stop_app_event_handling(hdl_, 2));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(2, 5), "too late", 1));
    clock_.advance(2 * millis_per_minute);
    EXPECT_EQ(1u, count(hdl_, 2));
    store_.cluster().detach();
    EXPECT_EQ(2u, events.size());
}

TEST_P(TimeOuts, MemoryIsGivenBackWithoutAnyUseOfTheStore) {
    for (unsigned int i = 0; i < 3000; ++i) {
        ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1 + i % 3, i), "data", 1));
    }
    clock_.advance(millis_per_minute + millis_per_second);
    for (store::Activity activity; activity.num_expired < 3000;
         store_.objects().activity(activity)) {
        std::this_thread::yield();
    }
}

/* However many objects of a shard expire together, its lock is held for a bounded number. */
TEST(Sweep, TakesSmallSteps) {
    struct Sink final : store::ExpirySink {
        void on_due(store::Millis moment) noexcept override { due = std::min(due, moment); }
        void on_expired(store::RecordChain expired) noexcept override {
            largest = std::max(largest, expired.size());
            total += expired.size();
        }
        store::Millis due = store::never;
        std::size_t largest = 0;
        std::size_t total = 0;
    } sink;
    TestClock clock;
    store::MemoryBudget budget(store::no_memory_limit);
    store::LockWaiters waiters(clock);
    const store::ShardContext context{clock, 1000, budget, waiters, sink};
    store::Shard shard(context);
    for (unsigned int i = 0; i < 10000; ++i) {
        const store::Key key = make_key(1, i);
        ASSERT_EQ(OMRALIB_RET_SUCCESS,
                  shard.create(store::make_record(key, 1 + i % 2, {}), store::hash_of(key), {}));
    }
    EXPECT_EQ(clock.now() + millis_per_minute, sink.due);
    clock.advance(millis_per_minute);
    std::size_t steps = 1;
    while (shard.sweep(100) <= clock.now()) {
        ++steps;
    }
    EXPECT_EQ(50u, steps);
    EXPECT_EQ(5000u, sink.total);
    EXPECT_EQ(clock.now() + millis_per_minute, shard.sweep(100));
    clock.advance(millis_per_minute);
    EXPECT_EQ(0u, shard.totals().num_objects);
    EXPECT_EQ(10000u, sink.total);
    EXPECT_LE(sink.largest, 256u);
}

} // namespace
