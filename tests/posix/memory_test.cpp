// Blocks and their accounts.
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support.h"
#include "sys_util.h"
#include "sysapp.h"

namespace {

constexpr unsigned int kTag = 17;

void expect_use(unsigned int tag, size_t blocks, size_t bytes) {
    const SYS_MEM_USE use = Sys_get_mem_use(tag);
    EXPECT_EQ(use.blocks, blocks);
    EXPECT_EQ(use.bytes, bytes);
}

TEST(Memory, BlocksAreAlignedDistinctAndWritable) {
    std::vector<void *> blocks;
    for (const size_t size : {size_t{0}, size_t{1}, size_t{7}, size_t{16}, size_t{100'000}}) {
        void *block = Sys_malloc(size, 255);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0u);
        std::memset(block, 0xEE, size);
        blocks.push_back(block);
    }
    expect_use(255, 5, 100'024);
    for (void *block : blocks)
        Sys_free(block);
    Sys_free(nullptr);
    expect_use(255, 0, 0);
    EXPECT_EQ(Sys_get_assert_count(), 0u);
}

TEST(Memory, RequestsThatCannotBeMetGiveNull) {
    volatile size_t largest = SIZE_MAX;
    for (const size_t less : {size_t{0}, size_t{15}, size_t{16}, SIZE_MAX / 2})
        EXPECT_EQ(Sys_malloc(largest - less, kTag), nullptr);
    EXPECT_EQ(Sys_get_assert_count(), 0u);
    EXPECT_EQ(Sys_malloc(8, 256), nullptr);
    EXPECT_EQ(Sys_get_assert_count(), 1u);
    expect_use(kTag, 0, 0);
}

TEST(Memory, BlocksAreAccountedWhoeverAllocatesAndReleasesThem) {
    std::vector<void *> blocks;
    std::thread([&] {
        for (int i = 0; i < 10; ++i)
            blocks.push_back(Sys_malloc(100, kTag));
        expect_use(kTag, 10, 1000);
    }).join();
    expect_use(kTag, 10, 1000); // the thread's account outlives the thread
    std::thread([&] {
        for (void *block : blocks)
            Sys_free(block);
        expect_use(kTag, 0, 0);
        blocks = {Sys_malloc(5, kTag)};
    }).join();
    expect_use(kTag, 1, 5);
    Sys_free(blocks[0]);
    expect_use(kTag, 0, 0);
}

// A thread-local object that is older than the thread's account, and so is destroyed after it.
struct LateUser {
    void *block = nullptr;
    ~LateUser() {
        Sys_free(block);
        left_behind = Sys_malloc(30, kTag);
    }
    static inline void *left_behind = nullptr;
};

TEST(Memory, BlocksOfAnEndingThreadAreAccounted) {
    std::thread([] {
        static thread_local LateUser user;
        user.block = nullptr; // constructs it
        user.block = Sys_malloc(20, kTag);
        expect_use(kTag, 1, 20);
    }).join();
    expect_use(kTag, 1, 30);
    Sys_free(LateUser::left_behind);
    expect_use(kTag, 0, 0);
}

TEST(Memory, ReaderSeesSaneNumbersWhileThreadsExchangeBlocks) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    std::array<std::atomic<void *>, 8> exchange{};
    std::atomic<int> running{kThreads};
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i)
                Sys_free(exchange[static_cast<size_t>(i + t) % exchange.size()].exchange(
                    Sys_malloc(8, kTag)));
            --running;
        });
    while (running > 0)
        EXPECT_LE(Sys_get_mem_use(kTag).blocks, size_t{kThreads} * kRounds);
    for (std::thread &thread : threads)
        thread.join();
    expect_use(kTag, 8, 64);
    for (auto &block : exchange)
        Sys_free(block);
    expect_use(kTag, 0, 0);
}

TEST(Memory, DamagedBlockIsReportedAndLeftAlone) {
    auto *block = static_cast<unsigned char *>(Sys_malloc(50, kTag));
    for (const int before : {1, 8, 16}) { // its mark, its tag, its size
        volatile unsigned char *damaged = block - before;
        *damaged = static_cast<unsigned char>(*damaged ^ 0x10);
        Sys_free(block);
        *damaged = static_cast<unsigned char>(*damaged ^ 0x10);
    }
    EXPECT_EQ(Sys_get_assert_count(), 3u);
    expect_use(kTag, 1, 50);
    Sys_free(block);
    expect_use(kTag, 0, 0);
}

TEST(Memory, SecondReleaseIsReported) {
    if (kSanitized)
        GTEST_SKIP() << "the sanitizer reports it first";
    for (const size_t size : {size_t{8}, size_t{200}, size_t{4000}}) {
        void *volatile block = Sys_malloc(size, kTag);
        Sys_free(block);
        Sys_free(block);
    }
    EXPECT_EQ(Sys_get_assert_count(), 3u);
    expect_use(kTag, 0, 0);
}

} // namespace
