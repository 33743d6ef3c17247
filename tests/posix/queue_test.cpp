// Queues and blocking queues.
#include <array>
#include <atomic>
#include <csignal>
#include <latch>
#include <semaphore>
#include <thread>
#include <utility>
#include <vector>

#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <gtest/gtest.h>

#include "support.h"
#include "sys_util.h"
#include "sysapp.h"

namespace {

using namespace std::chrono_literals;

struct Item {
    LINK link;
    int number = 0;

    Item() { Link_init(&link); }
};

struct TestBlockq : BLOCKQ {
    TestBlockq() { Blockq_init(this, 0x516); }
};

TEST(Queue, GivesItemsInTheirOrderAndTakesNoneTwice) {
    QUEUE queue;
    Queue_init(&queue, 0x518);
    std::array<Item, 3> items;
    for (Item &item : items) {
        EXPECT_FALSE(Link_inuse(&item.link));
        Queue_enq(&queue, &item.link);
        EXPECT_TRUE(Link_inuse(&item.link));
    }
    TestBlockq blockq;
    Queue_enq(&queue, &items[0].link);
    Blockq_enq(&blockq, &items[1].link);
    EXPECT_EQ(Sys_get_assert_count(), 2u);
    EXPECT_EQ(Sys_get_queue_count(&queue), 3u);
    for (Item &item : items)
        EXPECT_EQ(Queue_deq(&queue), &item.link);
    EXPECT_EQ(Queue_deq(&queue), nullptr);
    EXPECT_FALSE(Link_inuse(&items[0].link));
    // The one that was refused wakes no reader either.
    EXPECT_GE(duration_of([&] { EXPECT_EQ(Blockq_deq(&blockq, 30), nullptr); }), 30ms);
    EXPECT_EQ(Blockq_deq(&blockq, 0), nullptr);
}

// Every reader parks with the item that it got, so every further item has to wake another one.
TEST(Blockq, EveryItemWakesOneOfTheReaders) {
    TestBlockq blockq;
    std::counting_semaphore<> got(0);
    std::latch go_on(1);
    std::array<Item, 8> items;
    std::array<std::atomic<bool>, 8> taken{};
    std::vector<std::thread> readers;
    for (size_t i = 0; i < items.size(); ++i)
        readers.emplace_back([&] {
            auto *item = reinterpret_cast<Item *>(Blockq_deq(&blockq, SYS_WAIT_FOREVER));
            if (item != nullptr)
                taken[static_cast<size_t>(item - items.data())] = true;
            got.release();
            go_on.wait();
        });
    for (size_t i = 0; i < items.size(); ++i) {
        Blockq_enq(&blockq, &items[i].link);
        got.acquire();
        EXPECT_TRUE(taken[i]) << "item " << i;
        EXPECT_FALSE(got.try_acquire()) << "an item woke two readers";
    }
    go_on.count_down();
    for (std::thread &reader : readers)
        reader.join();
}

// Each writer's items reach the reader in their order, among those of the other.
TEST(Blockq, NothingIsLostDoubledOrReordered) {
    constexpr int kItems = 2000;
    TestBlockq blockq;
    std::array<std::vector<Item>, 2> items{std::vector<Item>(kItems), std::vector<Item>(kItems)};
    std::vector<std::thread> writers;
    for (size_t w = 0; w < 2; ++w)
        writers.emplace_back([&blockq, &produced = items[w], w] {
            for (int i = 0; Item & item : produced) {
                item.number = 2 * ++i + static_cast<int>(w);
                Blockq_enq(&blockq, &item.link);
            }
        });
    std::array<int, 2> last{};
    for (int i = 0; i < 2 * kItems; ++i) {
        LINK *link = Blockq_deq(&blockq, SYS_WAIT_FOREVER);
        const int number = reinterpret_cast<Item *>(link)->number;
        EXPECT_LT(std::exchange(last[static_cast<size_t>(number % 2)], number), number);
    }
    for (std::thread &writer : writers)
        writer.join();
    EXPECT_EQ(Blockq_deq(&blockq, 0), nullptr);
}

std::binary_semaphore signal_handled(0);

TEST(Blockq, SignalDoesNotEndAWait) {
    struct sigaction action {};
    action.sa_handler = [](int) { signal_handled.release(); };
    sigaction(SIGUSR1, &action, nullptr);
    for (const unsigned int timeout_ms : {SYS_WAIT_FOREVER, 3'600'000u}) {
        TestBlockq blockq;
        Item item;
        std::atomic<pid_t> tid{0};
        std::thread reader([&] {
            tid = gettid();
            EXPECT_EQ(Blockq_deq(&blockq, timeout_ms), &item.link);
        });
        await_asleep(tid);
        pthread_kill(reader.native_handle(), SIGUSR1);
        signal_handled.acquire();
        Blockq_enq(&blockq, &item.link);
        reader.join();
    }
}

// In the strict mode the kernel kills a process at any system call but read, write and exit.
TEST(Blockq, MakesNoSystemCallWhileNobodyWaits) {
    if (kSanitized)
        GTEST_SKIP() << "the sanitizer makes system calls of its own";
    TestBlockq blockq;
    Item item;
    constexpr int kNotAllowedHere = 77;
    EXPECT_EXIT(
        {
            if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) != 0)
                syscall(SYS_exit, kNotAllowedHere);
            Blockq_enq(&blockq, &item.link);
            syscall(SYS_exit, Blockq_deq(&blockq, SYS_WAIT_FOREVER) == &item.link ? 0 : 1);
        },
        [](int status) {
            return WIFEXITED(status) &&
                   (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == kNotAllowedHere);
        },
        "");
}

} // namespace
