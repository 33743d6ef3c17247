/* The leases of locks, and waiting for a lock. Time is turned by hand, so a waiter waits until the
 * lock is given back or the test lets its patience end. */
#include <atomic>
#include <future>
#include <semaphore>
#include <thread>

#include "common/alarm.h"
#include "store_test.h"

namespace {

using store::millis_per_second;

constexpr store::Millis lease = 60 * millis_per_second;

class Leases : public StoreTest {
protected:
    using StoreTest::StoreTest;

    /* A lock whose holder does nothing more, as if its host had died. */
    int lock_and_die(const OMRA_OBJKEY &key) {
        store::Content content;
        int ticket = 0;
        const int status = objects().read_and_lock(key, true, 0, ticket, content);
        return status == OMRALIB_RET_SUCCESS ? ticket : status;
    }
    int lock(OMRALIB_HANDLE hdl, const OMRA_OBJKEY &key) {
        unsigned int len = 0;
        const int ticket = Omralib_read_and_lock_obj(hdl, 0, 0, &len, key);
        if (ticket > 0) {
            fetch(hdl, len);
        }
        return ticket;
    }
    int update_by_ticket(const OMRA_OBJKEY &key, int ticket) {
        return store_.objects().update(key, ticket, true, true, {});
    }

    const OMRA_OBJKEY key_ = make_key(1, 1);
};
FOR_ALL_ENGINES(Leases);

TEST_P(Leases, FreeTheLocksOfTheDeadAndTheirTickets) {
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, key_, "data"));
    const int dead = lock_and_die(key_);
    clock_.advance(lease - 1);
    EXPECT_EQ(OMRALIB_ERR_OBJ_LOCKED, lock(hdl_, key_));
    EXPECT_EQ(OMRALIB_ERR_OBJ_LOCKED, Omralib_replace_obj(hdl_, "x", 1, 0, nullptr, 0, key_));
    clock_.advance(1);
    EXPECT_EQ(OMRALIB_ERR_LOCK_LOST, update_by_ticket(key_, dead));
    EXPECT_EQ(OMRALIB_ERR_LOCK_LOST, store_.objects().unlock(key_, dead));

    const int ticket = lock(hdl_, key_);
    ASSERT_GT(ticket, 0);
    EXPECT_EQ(OMRALIB_ERR_LOCK_LOST, update_by_ticket(key_, dead));
    EXPECT_EQ(OMRALIB_ERR_LOCK_LOST, store_.objects().renew_lock(key_, dead));
    EXPECT_EQ("data", get(hdl_, key_));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, update(hdl_, key_, ticket, "new", true));
    EXPECT_EQ(OMRALIB_ERR_LOCK_LOST, store_.objects().renew_lock(key_, 0));

    ASSERT_GT(lock_and_die(key_), 0);
    clock_.advance(lease);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_replace_obj(hdl_, "x", 1, 0, nullptr, 0, key_));
}

TEST_P(Leases, LastAsLongAsTheHandleIsOpen) {
    const OMRALIB_HANDLE other = Omralib_open_ext(nullptr);
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, key_, "data"));
    const int ticket = lock(hdl_, key_);
    ASSERT_GT(ticket, 0);
    for (int i = 0; i < 10; ++i) {
        clock_.advance(i * lease);
        ASSERT_EQ(OMRALIB_ERR_OBJ_LOCKED, lock(other, key_));
    }
    EXPECT_EQ(OMRALIB_RET_SUCCESS, update(hdl_, key_, ticket, "merged", false));
    clock_.advance(lease);
    EXPECT_EQ(OMRALIB_ERR_OBJ_LOCKED, lock(other, key_));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_close(hdl_));
    EXPECT_EQ(OMRALIB_ERR_LOCK_LOST, update_by_ticket(key_, ticket));
    EXPECT_GT(lock(other, key_), 0);
    EXPECT_EQ("merged", get(other, key_));
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

/* Patience is counted on the clock that only the test turns: without a wake-up a waiter waits for
 * ever. */
class Waiting : public Leases {
protected:
    Waiting() : Leases(store::Configuration{}) {}

    /* Starts a thread that locks the object, and returns when it is waiting. */
    std::future<int> start_waiting(OMRALIB_HANDLE hdl) {
        const unsigned long long before = num_lock_waits();
        std::future<int> waiter =
            std::async(std::launch::async, [this, hdl] { return lock(hdl, key_); });
        while (num_lock_waits() == before) {
            std::this_thread::yield();
        }
        return waiter;
    }
    static unsigned long long num_lock_waits() {
        OMRALIB_STATS stats;
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_stats(&stats));
        return stats.num_lock_waits;
    }

    const OMRALIB_HANDLE other_ = Omralib_open_ext(nullptr);
};
FOR_ALL_ENGINES(Waiting);

TEST_P(Waiting, EndsWhenTheLockIsGivenBackHoweverThatHappens) {
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, key_, ""));
    int ticket = lock(hdl_, key_);
    std::future<int> waiter = start_waiting(other_);
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_unlock_obj(hdl_, ticket, 0, key_));
    ticket = waiter.get();
    ASSERT_GT(ticket, 0);

    waiter = start_waiting(hdl_);
    ASSERT_EQ(OMRALIB_RET_SUCCESS, update(other_, key_, ticket, "new", true));
    ASSERT_GT(waiter.get(), 0);

    waiter = start_waiting(other_);
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_close(hdl_));
    ASSERT_GT(waiter.get(), 0);

    const OMRALIB_HANDLE third = Omralib_open_ext(nullptr);
    waiter = start_waiting(third);
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_remove_obj(other_, 0, key_));
    EXPECT_EQ(OMRALIB_ERR_OBJ_NOT_FOUND, waiter.get());
}

TEST_P(Waiting, EndsWithPatienceAndIsNotForOwnLocks) {
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, key_, ""));
    const int ticket = lock(hdl_, key_);
    EXPECT_EQ(OMRALIB_ERR_OBJ_LOCKED, lock(hdl_, key_));
    EXPECT_EQ(0u, num_lock_waits());
    std::future<int> waiter = start_waiting(other_);
    clock_.advance(5);
    EXPECT_EQ(OMRALIB_ERR_OBJ_LOCKED, waiter.get());
    EXPECT_EQ(OMRALIB_RET_SUCCESS, update(hdl_, key_, ticket, "", true));
}

TEST_P(Waiting, MissesNoRelease) {
    constexpr unsigned int num_threads = 4;
    constexpr unsigned int rounds = 2000;
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, key_, "0"));
    std::vector<std::future<void>> threads;
    for (unsigned int thread = 0; thread < num_threads; ++thread) {
        threads.push_back(std::async(std::launch::async, [this] {
            const OMRALIB_HANDLE hdl = Omralib_open_ext(nullptr);
            for (unsigned int i = 0; i < rounds; ++i) {
                unsigned int len = 0;
                const int ticket = Omralib_read_and_lock_obj(hdl, 0, 0, &len, key_);
                ASSERT_GT(ticket, 0);
                const std::string next = std::to_string(std::stoi(fetch(hdl, len)) + 1);
                ASSERT_EQ(OMRALIB_RET_SUCCESS, update(hdl, key_, ticket, next, true));
            }
        }));
    }
    threads.clear();
    EXPECT_EQ(std::to_string(num_threads * rounds), get(hdl_, key_));
}

} // namespace
