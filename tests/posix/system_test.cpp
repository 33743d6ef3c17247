// Everything but queues: memory, locks (mutexes, spin locks and the critical section of the
// process), traces, and the arithmetic of time-outs and of the merge tree.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <utility>

#include <gmock/gmock.h>

#include "posix_test.h"
#include "util.h"

namespace {

// Memory ------------------------------------------------------------------------------------------

constexpr unsigned int kTag = 255;

void expect_use(size_t blocks, size_t bytes) {
    const SYS_MEM_USE use = Sys_get_mem_use(kTag);
    EXPECT_EQ(use.blocks, blocks);
    EXPECT_EQ(use.bytes, bytes);
}

// The last one to use memory: older than its thread's account, and so destroyed after it.
struct LateUser {
    std::function<void()> use;
    ~LateUser() { use(); }
};

// Blocks wander between threads that allocate, threads that release and threads that end; none is
// given out twice, none shares a cache line with another, and a reader never sees less than none.
TEST(Memory, BlocksOfManyThreadsStayApartAndAccountedFor) {
    std::array<std::atomic<unsigned char *>, 64> slots{};
    const auto check_and_release = [](unsigned char *block) {
        const auto is_own = [=](unsigned char c) { return c == block[0]; };
        EXPECT_TRUE(block == nullptr || std::all_of(block, block + size_t{block[0]} * 8, is_own));
        Sys_free(block);
    };
    const auto use_memory = [&](std::mt19937 &random) {
        const size_t eighths = 1 + random() % 250;
        auto *block = static_cast<unsigned char *>(Sys_malloc(eighths * 8, kTag));
        EXPECT_TRUE(eighths > 126 || reinterpret_cast<std::uintptr_t>(block) % 64 == 16);
        std::memset(block, static_cast<int>(eighths), eighths * 8);
        check_and_release(slots[random() % slots.size()].exchange(block));
    };
    for (unsigned int round = 0; round < 3; ++round) {
        std::vector<std::jthread> threads;
        while (threads.size() < 4)
            threads.emplace_back(
                [&, random = std::mt19937(4ul * round + threads.size())]() mutable {
                    static thread_local LateUser late;
                    late.use = [&use_memory, random]() mutable { use_memory(random); };
                    for (int i = 0; i < 3000; ++i)
                        use_memory(random);
                });
        for (int i = 0; i < 500; ++i)
            EXPECT_LE(Sys_get_mem_use(kTag).blocks, 4u * 3000);
    }
    for (auto &slot : slots)
        check_and_release(slot);
    expect_use(0, 0);
}

TEST(Memory, MisuseIsReportedAndWhatCannotBeHadIsNot) {
    volatile size_t largest = SIZE_MAX;
    for (const size_t less : {size_t{0}, size_t{15}, SIZE_MAX / 2})
        EXPECT_EQ(Sys_malloc(largest - less, kTag), nullptr);
    EXPECT_EQ(Sys_malloc(8, 256), nullptr);
    auto *block = static_cast<unsigned char *>(Sys_malloc(50, kTag));
    for (const int before : {1, 8, 16}) { // its mark, its tag, its size
        volatile unsigned char *damaged = block - before;
        *damaged = static_cast<unsigned char>(*damaged ^ 0x10);
        Sys_free(block);
        *damaged = static_cast<unsigned char>(*damaged ^ 0x10);
    }
    EXPECT_EQ(Sys_get_assert_count(), 1u + 3u);
    expect_use(1, 50); // left alone
    Sys_free(block);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they report it first
    // Also by another thread, while the first one keeps the block for its next request.
    for (const size_t size : {0u, 200u, 4000u, 100'000u}) { // the C library treats them differently
        void *volatile released = Sys_malloc(size, kTag);
        Sys_free(released);
        Sys_free(released);
        std::thread([&] { Sys_free(released); }).join();
    }
    EXPECT_EQ(Sys_get_assert_count(), 1u + 3u + 8u);
#endif
    expect_use(0, 0);
}

// Locks -------------------------------------------------------------------------------------------

// The first thread holds the lock until all others sleep.
void expect_exclusion(const std::function<void()> &enter, const std::function<void()> &exit) {
    int counter = 0;
    enter();
    std::vector<std::jthread> threads;
    while (threads.size() < 4)
        threads.push_back(start_asleep([&] {
            for (int i = 0; i < 3000; ++i) {
                enter();
                ++counter;
                exit();
            }
        }));
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
        EXPECT_EQ(Lock_enter(&lock, 30), 0);
    }).join();
    EXPECT_EQ(Lock_exit(&lock), 1);
}

TEST(Spinlock, MisuseIsReportedAndTheLockStaysSound) {
    THREADSPINL lock;
    Spinlock_init(&lock, 1, 0);
    Spinlock_exit(&lock);
    Spinlock_enter(&lock);
    Spinlock_enter(&lock);
    std::thread([&] { Spinlock_exit(&lock); }).join();
    EXPECT_EQ(Sys_get_assert_count(), 3u)
        << "released while free, entered twice, released by another";
    Spinlock_exit(&lock);
    EXPECT_EQ(lock.tid, Thread_myid()) << "entered twice and released once";
    Spinlock_exit(&lock);
    EXPECT_EQ(lock.tid, NULLTHREADID);
}

// Traces ------------------------------------------------------------------------------------------

std::string traced;

TEST(Trace, LinesGoToTheFunctionOrWithTheirOriginToStandardError) {
    testing::internal::CaptureStderr();
    errno = ENOENT;
    Sys_trace_int("first %d\n", 1);
    EXPECT_EQ(errno, ENOENT);
    Sys_set_trace_func([](const char *line) { traced = line; });
    for (const int len : {9, 1021, 1022, 1023, 1024, 5000}) { // about the buffer's size
        Sys_trace_int(len % 2 == 0 ? "%*d\n" : "%*d", len, 7);
        EXPECT_EQ(traced, std::string(static_cast<size_t>(len) - 1, ' ') + "7\n");
    }
    Sys_log_assert("server/pmicli", 123, "1 == 2"); // always here
    EXPECT_EQ(Sys_get_assert_count(), 1u);
    Sys_set_trace_func(nullptr);
    Sys_trace_int("%s", std::string(3000, 'b').c_str());
    const std::string origin = "[-0-9T:]{19}\\.[0-9]{6}Z \\[[0-9]+\\] ";
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::MatchesRegex(origin + "first 1\n" + origin +
                                      "Assertion failed: server/pmicli:123: 1 == 2\n" + origin +
                                      "b{3000}\n"));
}

// The environment is read when the library is loaded, so each statement runs in a fresh process.
TEST(Trace, EnvironmentGivesTheLevelAndWhatAReportDoes) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto exit_showing_level = [] {
        Sys_log_assert("file", 1, "FALSE");
        dprintf(STDERR_FILENO, "level %d", sys_trace_level);
        _exit(0);
    };
    setenv("SYS_TRACE_LEVEL", "3", 1);
    EXPECT_EXIT(exit_showing_level(), testing::ExitedWithCode(0), "file:1: FALSE\nlevel 3$");
    for (const std::string value : {"", "3x", "99999999999"}) { // reported and ignored
        const std::string ignored = " is \"" + value + "\" and is ignored: (.|\n)*";
        setenv("SYS_TRACE_LEVEL", value.c_str(), 1);
        setenv("SYS_ASSERT_ABORT", value.c_str(), 1);
        std::string pattern = "SYS_TRACE_LEVEL" + ignored;
        pattern.append("SYS_ASSERT_ABORT").append(ignored).append("level -1$");
        EXPECT_EXIT(exit_showing_level(), testing::ExitedWithCode(0), pattern);
    }
    setenv("SYS_ASSERT_ABORT", "1", 1);
    EXPECT_EXIT(exit_showing_level(), testing::KilledBySignal(SIGABRT), "file:1: FALSE");
}

// Arithmetic --------------------------------------------------------------------------------------

constexpr unsigned int kAll = 0xFFFFFFFF;

TEST(Util, SecondsRoundUpToMinutesWithinTheLimit) {
    EXPECT_EQ(Util_convert_timeout_s_to_m(60, 0xFFFF), 1u);
    EXPECT_EQ(Util_convert_timeout_s_to_m(61, 0xFFFF), 2u);
    EXPECT_EQ(Util_convert_timeout_s_to_m(0xFFFF * 60 + 1, 0xFFFF), 0xFFFFu);
    EXPECT_EQ(Util_convert_timeout_s_to_m(kAll, kAll), 71'582'789u);
}

// The tree grows by one index at a time: what the predecessors of all indexes so far have been
// given must be what the successor masks say. A mask takes bits away; then some indexes are further
// roots.
TEST(Tree, SuccessorsAndPredecessorsAgree) {
    for (const auto &[max_indexes, mask] : {std::pair(3000u, kAll), {300u, 0x5Au}, {50u, 0u}}) {
        std::vector<unsigned int> given(max_indexes);
        for (unsigned int last = 0; last < max_indexes; ++last) {
            if ((last & mask) != 0) {
                const unsigned int pred = Util_get_pred_index(last, mask);
                const unsigned int bits = Util_get_pred_mask(last, mask);
                ASSERT_LT(pred, last);
                ASSERT_NE(bits, 0u);
                ASSERT_EQ(bits & (~mask | given[pred]), 0u) << "index " << last;
                given[pred] |= bits;
            }
            for (unsigned int p = 0; p <= last; ++p)
                ASSERT_EQ(Util_get_succ_mask(p, last + 1, mask), given[p]) << p << ", " << last;
        }
    }
    // At the largest index no sum may wrap around.
    EXPECT_EQ(Util_get_succ_mask(0, kAll, kAll), kAll);
    EXPECT_EQ(Util_get_succ_mask(0x80000000, kAll, kAll), 0x7FFFFFFFu);
    EXPECT_EQ(Util_get_succ_mask(kAll - 1, kAll, kAll), 0u);
}

} // namespace
