// Blocks and their accounts.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support.h"
#include "sys_util.h"
#include "sysapp.h"

namespace {

constexpr unsigned int kTag = 255;

void expect_use(size_t blocks, size_t bytes) {
    const SYS_MEM_USE use = Sys_get_mem_use(kTag);
    EXPECT_EQ(use.blocks, blocks);
    EXPECT_EQ(use.bytes, bytes);
}

TEST(Memory, BlocksAreAlignedAndRequestsThatCannotBeMetGiveNull) {
    for (const size_t size : {size_t{0}, size_t{1}, size_t{100'000}, size_t{32} << 20}) {
        void *block = Sys_malloc(size, kTag);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0u);
        std::memset(block, 0xEE, size);
        expect_use(1, size);
        Sys_free(block);
    }
    Sys_free(nullptr);
    volatile size_t largest = SIZE_MAX;
    for (const size_t less : {size_t{0}, size_t{15}, SIZE_MAX / 2})
        EXPECT_EQ(Sys_malloc(largest - less, kTag), nullptr);
    EXPECT_EQ(Sys_get_assert_count(), 0u);
    EXPECT_EQ(Sys_malloc(8, 256), nullptr);
    EXPECT_EQ(Sys_get_assert_count(), 1u);
    expect_use(0, 0);
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

TEST(Memory, BlocksAreAccountedWhoeverAllocatesAndReleasesThem) {
    std::vector<void *> blocks;
    std::thread([&] {
        for (int i = 0; i < 10; ++i)
            blocks.push_back(Sys_malloc(100, kTag));
        expect_use(10, 1000);
    }).join();
    expect_use(10, 1000); // the thread's account outlives the thread
    std::thread([&] {
        static thread_local LateUser user;
        user.block = nullptr; // constructs it
        for (void *block : blocks)
            Sys_free(block);
        expect_use(0, 0);
        user.block = Sys_malloc(20, kTag);
    }).join();
    expect_use(1, 30);
    Sys_free(LateUser::left_behind);
    expect_use(0, 0);
}

// Blocks wander between threads that allocate, threads that release and threads that end; none is
// given out twice, none shares a cache line with another, and a reader never sees less than none.
TEST(Memory, BlocksOfManyThreadsStayApartAndAccountedFor) {
    std::array<std::atomic<unsigned char *>, 64> slots{};
    const auto check_and_release = [](unsigned char *block) {
        if (block == nullptr)
            return;
        const size_t size = size_t{block[0]} * 8;
        EXPECT_TRUE(
            std::all_of(block, block + size, [&](unsigned char c) { return c == block[0]; }));
        Sys_free(block);
    };
    const auto wander = [&](unsigned int seed) {
        std::mt19937 random(seed);
        for (int i = 0; i < 3000; ++i) {
            const size_t eighths = 1 + random() % 250;
            auto *block = static_cast<unsigned char *>(Sys_malloc(eighths * 8, kTag));
            EXPECT_TRUE(eighths > 126 || reinterpret_cast<std::uintptr_t>(block) % 64 == 16);
            std::memset(block, static_cast<int>(eighths), eighths * 8);
            check_and_release(slots[random() % slots.size()].exchange(block));
        }
    };
    for (unsigned int round = 0; round < 3; ++round) {
        std::vector<std::jthread> threads;
        for (unsigned int t = 0; t < 4; ++t)
            threads.emplace_back(wander, 4 * round + t);
        for (int i = 0; i < 500; ++i)
            EXPECT_LE(Sys_get_mem_use(kTag).blocks, 4u * 3000);
    }
    for (auto &slot : slots)
        check_and_release(slot);
    expect_use(0, 0);
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
    expect_use(1, 50);
    Sys_free(block);
}

// Also by another thread, while the first one keeps the block for its next request.
TEST(Memory, SecondReleaseIsReported) {
    if (kSanitized)
        GTEST_SKIP() << "the sanitizer reports it first";
    for (const size_t size : {200, 4000, 100'000, 8}) { // the C library treats them differently
        void *volatile block = Sys_malloc(size, kTag);
        Sys_free(block);
        Sys_free(block);
        std::thread([&] { Sys_free(block); }).join();
    }
    EXPECT_EQ(Sys_get_assert_count(), 8u);
    expect_use(0, 0);
}

} // namespace
