/* What happens at a time: many threads at once must be exact in the end, whatever the order, who
 * waits for a lock hears when it is given back, and who has to hear of time-outs does. */
#include <atomic>
#include <future>
#include <semaphore>
#include <thread>

#include "store_test.h"

namespace {

using store::millis_per_minute;
using store::millis_per_second;

constexpr unsigned int num_threads = 4;
constexpr std::uint64_t limit = 20'000; /* an object counts with 128 bytes more than its own */

template <typename Work>
void run_threads(Work work) {
    std::vector<std::jthread> threads;
    for (unsigned int i = 0; i < num_threads; ++i) {
        threads.emplace_back([&work, i] { work(Omralib_open_ext(nullptr), i); });
    }
}

class FullStore : public StoreTest {
protected:
    FullStore() : StoreTest({.memory_limit = limit}) {}
};
FOR_ALL_ENGINES(FullStore);

/* Objects that change, expire and go while they are read and found are seen whole, never take more
 * than there is, and leave all of it. */
TEST_P(FullStore, IsNeverExceededAndLosesNothingToRacingThreads) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    constexpr unsigned int num_objects = 150;
    std::atomic<unsigned int> num_refused{0};
    run_threads([&](OMRALIB_HANDLE hdl, unsigned int thread) {
        for (unsigned int i = 0; i < 12'000; ++i) {
            const OMRA_OBJKEY key = make_key(1, i * (thread + 7) % num_objects);
            const std::string data(1 + i * 131 % 2000, static_cast<char>('a' + i % 26));
            const OMRA_OBJ_INDEX index = make_index(3, i % 7);
            const std::string got = get(hdl, key);
            EXPECT_TRUE(got == "status -109" || got.find_first_not_of(got[0]) == got.npos);
            const unsigned int way = (i + thread) % 5;
            if (way < 2) {
                num_refused += put(hdl, key, data, i % 3) == OMRALIB_ERR_NO_SPACE ? 1 : 0;
            } else if (way == 2) {
                Omralib_replace_obj(hdl, data.data(), length_of(data), i % 3, &index, 1, key);
            } else if (way == 3) {
                i % 2 == 0 ? void(Omralib_remove_obj(hdl, 0, key)) : void(count(hdl, 1));
            } else {
                find({1, store::equals(3, index.value)});
                clock_.advance(thread == 0 ? millis_per_second : 0);
            }
        }
    });
    EXPECT_LE(stats().num_bytes + stats().num_objects * 128, limit);
    EXPECT_GT(num_refused, 0u);
    for (unsigned int i = 0; i < num_objects; ++i) {
        Omralib_remove_obj(hdl_, 0, make_key(1, i));
    }
    const std::string everything(limit - 128, 'd');
    for (int i = 0; i < 3; ++i) { /* the room of what has expired is free for the next */
        EXPECT_EQ(OMRALIB_ERR_NO_SPACE, put(hdl_, make_key(1, 1), everything + 'd'));
        EXPECT_EQ(success, put(hdl_, make_key(1, 1), everything, 1));
        clock_.advance(millis_per_minute);
    }
}

/* On a clock that only the test turns: without a wake-up a waiter waits for ever. */
class Waiting : public StoreTest {
protected:
    Waiting() { decorator_of(store_.objects()).patience = 5; }

    static int lock(OMRALIB_HANDLE hdl) {
        unsigned int len = 0;
        return Omralib_read_and_lock_obj(hdl, 0, 0, &len, make_key(1, 1));
    }

    /* Starts a thread that locks the object, and returns when it is waiting. */
    static std::future<int> start_waiting(OMRALIB_HANDLE hdl) {
        const unsigned long long before = stats().num_lock_waits;
        std::future<int> waiter = std::async(std::launch::async, lock, hdl);
        while (stats().num_lock_waits == before) {
            std::this_thread::yield();
        }
        return waiter;
    }
};
FOR_ALL_ENGINES(Waiting);

TEST_P(Waiting, MissesNoReleaseAndLosesNoUpdate) {
    constexpr unsigned int rounds = 2000;
    const OMRA_OBJKEY keys[] = {make_key(1, 0), make_key(1, 1)};
    std::atomic<unsigned int> created{0};
    run_threads([&](OMRALIB_HANDLE hdl, unsigned int) {
        for (unsigned int i = 0; i < rounds; ++i) {
            const OMRA_OBJKEY &key = keys[i % 2];
            created += put(hdl, key, "0") == success ? 1 : 0;
            unsigned int len = 0;
            const int ticket = Omralib_read_and_lock_obj(hdl, 0, 0, &len, key);
            ASSERT_GT(ticket, 0);
            const std::string next = std::to_string(std::stoi(fetch(hdl, len)) + 1);
            ASSERT_EQ(success, update(hdl, key, ticket, next, true));
        }
    });
    EXPECT_EQ(2u, created);
    for (const OMRA_OBJKEY &key : keys) {
        EXPECT_EQ(std::to_string(num_threads * rounds / 2), get(hdl_, key));
    }
}

TEST_P(Waiting, EndsWhenTheLockIsGivenBackHoweverThatHappens) {
    const OMRA_OBJKEY key = make_key(1, 1);
    const OMRALIB_HANDLE other = Omralib_open_ext(nullptr);
    ASSERT_EQ(success, put(hdl_, key, ""));
    int ticket = lock(hdl_);
    EXPECT_EQ(OMRALIB_ERR_OBJ_LOCKED, lock(hdl_)); /* its own would never be given back */
    EXPECT_EQ(0u, stats().num_lock_waits);

    std::future<int> waiter = start_waiting(other);
    clock_.advance(millis_per_second);
    EXPECT_EQ(OMRALIB_ERR_OBJ_LOCKED, waiter.get());

    waiter = start_waiting(other);
    ASSERT_EQ(success, Omralib_unlock_obj(hdl_, ticket, 0, key));
    ticket = waiter.get();
    ASSERT_GT(ticket, 0);

    waiter = start_waiting(hdl_);
    ASSERT_EQ(success, update(other, key, ticket, "", true));
    ASSERT_GT(waiter.get(), 0);

    waiter = start_waiting(other);
    ASSERT_EQ(success, Omralib_close(hdl_));
    ASSERT_GT(waiter.get(), 0);

    waiter = start_waiting(Omralib_open_ext(nullptr));
    ASSERT_EQ(success, Omralib_remove_obj(other, 0, key));
    EXPECT_EQ(not_found, waiter.get());
}

/* Time-outs, beyond what the model sees of them ----------------------------------------------- */

TEST_P(StoreTest, RenewedObjectsDoNotHideExpiredOnes) {
    const unsigned int num = GetParam().scaled(20'000);
    for (unsigned int i = 0; i < num + num / 20; ++i) {
        clock_.advance(i == num ? 1 : 0); /* the forgotten ones are the last in the queue */
        ASSERT_EQ(success, put(hdl_, make_key(1, i), "data", 1));
    }
    clock_.advance(millis_per_minute / 2);
    for (unsigned int i = 0; i < num; ++i) {
        ASSERT_EQ("data", get(hdl_, make_key(1, i)));
    }
    clock_.advance(millis_per_minute / 2);
    EXPECT_EQ(num, count(hdl_, 1));
    clock_.advance(millis_per_minute);
    EXPECT_EQ(0u, count(hdl_, 1));
}

std::vector<std::string> events;
std::counting_semaphore<> arrived{0};
int num_heard = 0;

TEST_P(StoreTest, TimeOutsAreToldToWhoeverHandlesTheAppId) {
    OMRALIB_CB cb;
    cb.event_ext_cb = [](OMRA_OBJKEY key, const char *pguid, unsigned int code) {
        EXPECT_EQ(OMRALIB_EVENT_EXPIRED, code);
        EXPECT_EQ("status -109", get(Omralib_open_ext(nullptr), key));
        events.push_back(pguid + std::to_string(key.obj_id.u64_comp[0]));
        arrived.release();
        return OMRALIB_EVENT_NOT_HANDLED;
    };
    ASSERT_EQ(success, Omralib_register_cb(OMRALIB_CB_EVENT_EXT, cb));
    cb.event_ext_cb = [](OMRA_OBJKEY, const char *, unsigned int) { return num_heard++; };
    ASSERT_EQ(success, Omralib_register_cb(OMRALIB_CB_EVENT_EXT, cb));
    cb.event_cb = [](OMRA_OBJKEY, unsigned int) { return num_heard++; };
    ASSERT_EQ(success, Omralib_register_cb(OMRALIB_CB_EVENT, cb));
    ASSERT_EQ(success, Omralib_start_app_event_handling(hdl_, 2));
    clock_.advance(1); /* expired objects are swept at whole seconds */
    ASSERT_EQ(success, put(hdl_, make_key(1, 1), "nobody listens", 1));
    ASSERT_EQ(success, put(hdl_, make_key(2, 1), "renewed", 1));
    ASSERT_EQ(success, put(hdl_, make_key(2, 2), "forgotten", 1));
    clock_.advance(millis_per_minute / 2);
    EXPECT_EQ("renewed", get(hdl_, make_key(2, 1)));
    clock_.advance(31 * millis_per_second);
    arrived.acquire(); /* nothing but time brings it */
    clock_.advance(29 * millis_per_second);
    EXPECT_EQ(0u, count(hdl_, 2)); /* and whoever comes first, before it is time to sweep */
    arrived.acquire();

    ASSERT_EQ(success, Omralib_stop_app_event_handling(hdl_, 2));
    ASSERT_EQ(success, Omralib_start_app_event_handling(hdl_, 3));
    ASSERT_EQ(success, put(hdl_, make_key(2, 3), "too late", 1));
    ASSERT_EQ(success, put(hdl_, make_key(3, 4), "heard of", 2));
    clock_.advance(millis_per_minute);
    EXPECT_EQ(0u, count(hdl_, 2));
    clock_.advance(millis_per_minute);
    arrived.acquire();
    EXPECT_THAT(events,
                testing::ElementsAre("store test guid2", "store test guid1", "store test guid4"));
    store_.cluster().detach();
    EXPECT_EQ(2 * 3, num_heard) << "every callback hears of every event";
}

} // namespace
