// Queues and blocking queues.
#include <array>
#include <atomic>
#include <csignal>
#include <latch>
#include <semaphore>
#include <thread>
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
    int producer = 0;
    int number = 0;

    Item() { Link_init(&link); }
};

Item *item_of(LINK *link) {
    return reinterpret_cast<Item *>(link);
}

TEST(Queue, GivesItemsInTheirOrderAndTellsWhoIsOnIt) {
    QUEUE queue;
    Queue_init(&queue, 0x518);
    EXPECT_EQ(Queue_deq(&queue), nullptr);
    std::array<Item, 3> items;
    for (Item &item : items) {
        EXPECT_FALSE(Link_inuse(&item.link));
        Queue_enq(&queue, &item.link);
        EXPECT_TRUE(Link_inuse(&item.link));
    }
    EXPECT_EQ(queue.count, 3u);
    for (Item &item : items) {
        EXPECT_EQ(Queue_deq(&queue), &item.link);
        EXPECT_FALSE(Link_inuse(&item.link));
    }
    EXPECT_EQ(Queue_deq(&queue), nullptr);
}

TEST(Queue, ItemThatIsOnAQueueIsNotTakenAgain) {
    QUEUE queue;
    Queue_init(&queue, 1);
    BLOCKQ blockq;
    Blockq_init(&blockq, 2);
    Item item;
    Queue_enq(&queue, &item.link);
    Queue_enq(&queue, &item.link);
    Blockq_enq(&blockq, &item.link);
    EXPECT_EQ(Sys_get_assert_count(), 2u);
    EXPECT_EQ(Blockq_deq(&blockq, 0), nullptr);
    EXPECT_EQ(Queue_deq(&queue), &item.link);
    EXPECT_EQ(Queue_deq(&queue), nullptr);
}

// Every reader parks with the item that it got, so every further item has to wake another one.
TEST(Blockq, EveryItemWakesOneOfTheReaders) {
    constexpr int kReaders = 8;
    BLOCKQ blockq;
    Blockq_init(&blockq, 0x516);
    std::counting_semaphore<> got(0);
    std::latch go_on(1);
    std::array<Item, kReaders> items;
    std::array<std::atomic<int>, kReaders> taken{};
    std::vector<std::thread> readers;
    for (int i = 0; i < kReaders; ++i) {
        items[static_cast<size_t>(i)].number = i;
        readers.emplace_back([&] {
            LINK *link = Blockq_deq(&blockq, SYS_WAIT_FOREVER);
            if (link != nullptr)
                ++taken[static_cast<size_t>(item_of(link)->number)];
            got.release();
            go_on.wait();
        });
    }
    for (size_t i = 0; i < items.size(); ++i) {
        Blockq_enq(&blockq, &items[i].link);
        got.acquire();
        EXPECT_EQ(taken[i], 1) << "item " << i;
        EXPECT_FALSE(got.try_acquire()) << "an item woke two readers";
    }
    go_on.count_down();
    for (std::thread &reader : readers)
        reader.join();
}

TEST(Blockq, NothingIsLostDoubledOrReordered) {
    constexpr int kItems = 2000;
    BLOCKQ blockq;
    Blockq_init(&blockq, 1);
    std::array<std::vector<Item>, 2> items;
    std::atomic<int> num_claimed{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < 2; ++p) {
        std::vector<Item> &produced = items[static_cast<size_t>(p)];
        produced.resize(kItems);
        threads.emplace_back([&blockq, &produced, p] {
            for (int number = 0; Item & item : produced) {
                item.producer = p;
                item.number = ++number;
                Blockq_enq(&blockq, &item.link);
            }
        });
        threads.emplace_back([&] {
            std::array<int, 2> last{};
            while (num_claimed.fetch_add(1) < 2 * kItems) {
                const Item *item = item_of(Blockq_deq(&blockq, SYS_WAIT_FOREVER));
                int &last_number = last[static_cast<size_t>(item->producer)];
                EXPECT_LT(last_number, item->number); // in order per producer
                last_number = item->number;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(Blockq_deq(&blockq, 0), nullptr);
}

TEST(Blockq, ReaderWaitsNoShorterThanItsTimeOut) {
    BLOCKQ blockq;
    Blockq_init(&blockq, 1);
    EXPECT_EQ(Blockq_deq(&blockq, 0), nullptr);
    EXPECT_GE(duration_of([&] { EXPECT_EQ(Blockq_deq(&blockq, 30), nullptr); }), 30ms);
    Item item;
    Blockq_enq(&blockq, &item.link);
    EXPECT_EQ(Blockq_deq(&blockq, 30), &item.link);
}

std::binary_semaphore signal_handled(0);

TEST(Blockq, SignalDoesNotEndAWait) {
    struct sigaction action {};
    action.sa_handler = [](int) { signal_handled.release(); };
    sigaction(SIGUSR1, &action, nullptr);
    for (const unsigned int timeout_ms : {SYS_WAIT_FOREVER, 3'600'000u}) {
        BLOCKQ blockq;
        Blockq_init(&blockq, 1);
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

// In this mode the kernel kills a process at any system call but read, write and exit.
void allow_no_system_calls() {
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) != 0)
        syscall(SYS_exit, 77);
}

TEST(Blockq, MakesNoSystemCallWhileNobodyWaits) {
    if (kSanitized)
        GTEST_SKIP() << "the sanitizer makes system calls of its own";
    BLOCKQ blockq;
    Blockq_init(&blockq, 1);
    std::array<Item, 100> items;
    EXPECT_EXIT(
        {
            allow_no_system_calls();
            bool good = true;
            for (Item &item : items)
                Blockq_enq(&blockq, &item.link);
            for (const Item &item : items)
                good = good && Blockq_deq(&blockq, SYS_WAIT_FOREVER) == &item.link;
            syscall(SYS_exit, good ? 0 : 1);
        },
        [](int status) {
            return WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 77);
        },
        "");
}

} // namespace
