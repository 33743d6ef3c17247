// Blocks and their accounts.
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

constexpr unsigned int kTag = 255;

void expect_use(size_t blocks, size_t bytes) {
    const SYS_MEM_USE use = Sys_get_mem_use(kTag);
    EXPECT_EQ(use.blocks, blocks);
    EXPECT_EQ(use.bytes, bytes);
}

TEST(Memory, BlocksAreAlignedAndRequestsThatCannotBeMetGiveNull) {
    for (const size_t size : {size_t{0}, size_t{1}, size_t{100'000}}) {
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

TEST(Memory, ReaderSeesSaneNumbersWhileABlockMovesBetweenThreads) {
    std::atomic<void *> shared{nullptr};
    const auto exchange = [&] {
        for (int i = 0; i < 2000; ++i)
            Sys_free(shared.exchange(Sys_malloc(8, kTag)));
    };
    std::thread one(exchange), other(exchange);
    for (int i = 0; i < 1000; ++i)
        EXPECT_LE(Sys_get_mem_use(kTag).blocks, 4000u);
    one.join();
    other.join();
    expect_use(1, 8);
    Sys_free(shared);
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

TEST(Memory, SecondReleaseIsReported) {
    if (kSanitized)
        GTEST_SKIP() << "the sanitizer reports it first";
    for (const size_t size : {8, 200, 4000, 100'000}) { // the C library treats them differently
        void *volatile block = Sys_malloc(size, kTag);
        Sys_free(block);
        Sys_free(block);
    }
    EXPECT_EQ(Sys_get_assert_count(), 4u);
    expect_use(0, 0);
}

} // namespace
