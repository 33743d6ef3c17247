// Mutexes, spin locks and the critical section of the process.
#include <atomic>
#include <functional>
#include <latch>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support.h"
#include "sys_util.h"
#include "sysapp.h"

namespace {

using namespace std::chrono_literals;

void expect_exclusion(const std::function<void()> &enter, const std::function<void()> &exit) {
    int counter = 0;
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 3000; ++i) {
                enter();
                ++counter;
                exit();
            }
        });
    for (std::thread &thread : threads)
        thread.join();
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

TEST(Lock, TimeOutIsHonoured) {
    THREADLOCK lock;
    Lock_init(&lock);
    EXPECT_EQ(Lock_enter(&lock, 0), 1);
    std::thread([&] {
        EXPECT_EQ(Lock_enter(&lock, 0), 0);
        EXPECT_GE(duration_of([&] { EXPECT_EQ(Lock_enter(&lock, 30), 0); }), 30ms);
    }).join();
    EXPECT_EQ(Lock_exit(&lock), 1);
}

TEST(Lock, MisuseIsAnsweredWithZero) {
    if (kSanitized)
        GTEST_SKIP() << "the sanitizer reports it first";
    THREADLOCK lock;
    Lock_init(&lock);
    EXPECT_EQ(Lock_exit(&lock), 0);
    EXPECT_EQ(Lock_enter(&lock, SYS_WAIT_FOREVER), 1);
    EXPECT_EQ(Lock_enter(&lock, SYS_WAIT_FOREVER), 0);
    std::thread([&] { EXPECT_EQ(Lock_exit(&lock), 0); }).join();
    EXPECT_EQ(Lock_exit(&lock), 1);
}

TEST(Spinlock, WaitersSleepWhileTheHolderIsAwayAndAllGetIt) {
    THREADSPINL lock;
    Spinlock_init(&lock, 0x517, 0);
    Spinlock_enter(&lock);
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        std::atomic<pid_t> tid{0};
        waiters.emplace_back([&lock, &tid] {
            tid = gettid();
            Spinlock_enter(&lock);
            Spinlock_exit(&lock);
        });
        await_asleep(tid);
    }
    Spinlock_exit(&lock);
    for (std::thread &waiter : waiters)
        waiter.join();
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
