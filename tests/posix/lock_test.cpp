// Mutexes, spin locks and the critical section of the process.
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support.h"
#include "sys_util.h"
#include "sysapp.h"

namespace {

using namespace std::chrono_literals;

// The first thread holds the lock until all others sleep.
void expect_exclusion(const std::function<void()> &enter, const std::function<void()> &exit) {
    int counter = 0;
    enter();
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
        std::atomic<pid_t> tid{0};
        threads.emplace_back([&] {
            tid = gettid();
            for (int i = 0; i < 3000; ++i) {
                enter();
                ++counter;
                exit();
            }
        });
        await_asleep(tid);
    }
    EXPECT_EQ(counter, 0);
    exit();
    threads.clear();
    EXPECT_EQ(counter, 4 * 3000);
}

TEST(Lock, EachKindLetsOneThreadIn) {
    THREADLOCK lock;
    Lock_init(&lock);
    expect_exclusion([&] { EXPECT_EQ(Lock_enter(&lock, SYS_WAIT_FOREVER), 1); },
                     [&] { EXPECT_EQ(Lock_exit(&lock), 1); });
    THREADSPINL spinlock;
    Spinlock_init(&spinlock, 0x515, 0);
    expect_exclusion([&] { Spinlock_enter(&spinlock); }, [&] { Spinlock_exit(&spinlock); });
    expect_exclusion(Enter_cs, Exit_cs);
}

TEST(Lock, MisuseAndTimeOutsAreAnsweredWithZero) {
    THREADLOCK lock;
    Lock_init(&lock);
    EXPECT_EQ(Lock_exit(&lock), 0);
    EXPECT_EQ(Lock_enter(&lock, 0), 1);
    EXPECT_EQ(Lock_enter(&lock, SYS_WAIT_FOREVER), 0);
    std::thread([&] {
        EXPECT_EQ(Lock_exit(&lock), 0);
        EXPECT_EQ(Lock_enter(&lock, 0), 0);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(Lock_enter(&lock, 30), 0);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, 30ms);
    }).join();
    EXPECT_EQ(Lock_exit(&lock), 1);
}

TEST(Spinlock, MisuseIsReportedAndTheLockStaysSound) {
    THREADSPINL lock;
    Spinlock_init(&lock, 1, 0);
    Spinlock_exit(&lock);
    EXPECT_EQ(Sys_get_assert_count(), 1u) << "released while free";
    Spinlock_enter(&lock);
    Spinlock_enter(&lock);
    EXPECT_EQ(Sys_get_assert_count(), 2u) << "entered twice";
    std::thread([&] { Spinlock_exit(&lock); }).join();
    EXPECT_EQ(Sys_get_assert_count(), 3u) << "released by another thread";
    Spinlock_exit(&lock);
    EXPECT_EQ(lock.tid, Thread_myid()) << "entered twice and released once";
    Spinlock_exit(&lock);
    EXPECT_EQ(lock.tid, NULLTHREADID);
}

} // namespace
