// Queues and blocking queues: misuse, order, and the orders of events that are hard to meet by
// chance.
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <latch>
#include <random>
#include <semaphore>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support.h"
#include "sys_util.h"
#include "sysapp.h"

namespace {

using namespace std::chrono_literals;

struct Item {
    LINK link;
    int number = 0;
    std::atomic<int> times_taken{0};

    Item() { Link_init(&link); }
};

Item *item_of(LINK *link) {
    return reinterpret_cast<Item *>(link);
}

struct TestQueue : QUEUE {
    TestQueue() { Queue_init(this, 0x518); }
    void add(Item &item) { Queue_enq(this, &item.link); }
    Item *take() { return item_of(Queue_deq(this)); }
    Item *wait() {
        Item *item = take();
        for (; item == nullptr; item = take())
            std::this_thread::yield();
        return item;
    }
};

struct TestBlockq : BLOCKQ {
    TestBlockq() { Blockq_init(this, 0x516); }
    void add(Item &item) { Blockq_enq(this, &item.link); }
    Item *take(unsigned int timeout_ms = 0) { return item_of(Blockq_deq(this, timeout_ms)); }
    Item *wait() { return take(SYS_WAIT_FOREVER); }
};

// Items with the numbers 0, 1, 2...
std::vector<Item> make_items(int num) {
    std::vector<Item> items(static_cast<size_t>(num));
    for (int i = 0; Item & item : items)
        item.number = i++;
    return items;
}

TEST(Queue, TakesNoItemTwice) {
    TestQueue queue;
    TestBlockq blockq;
    Item item;
    queue.add(item);
    EXPECT_TRUE(Link_inuse(&item.link));
    queue.add(item);
    blockq.add(item);
    EXPECT_EQ(Sys_get_assert_count(), 2u);
    EXPECT_EQ(Sys_get_queue_count(&queue), 1u);
    EXPECT_EQ(queue.take(), &item);
    EXPECT_FALSE(Link_inuse(&item.link));
    EXPECT_EQ(queue.take(), nullptr);
    // The one that was refused wakes no reader, either.
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(blockq.take(30), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 30ms);
}

// Runs that are partly taken, whole runs, and items still aside.
TEST(Queue, KeepsTheOrderOfOneThreadAcrossRuns) {
    TestQueue queue;
    std::vector<Item> items = make_items(1000);
    std::mt19937 random(1);
    size_t added = 0;
    size_t taken = 0;
    while (taken < items.size()) {
        for (size_t i = random() % 300; i > 0 && added < items.size(); --i)
            queue.add(items[added++]);
        EXPECT_EQ(Sys_get_queue_count(&queue), added - taken);
        for (size_t i = random() % 300; i > 0 && taken < added; --i)
            ASSERT_EQ(queue.take(), &items[taken++]);
    }
    EXPECT_EQ(queue.take(), nullptr);
}

// Each writer's items reach the reader in their order, whatever it takes from: items that wait
// aside, runs or both in turn.
template <class AnyQueue>
void expect_order_of_each_writer() {
    constexpr int kItems = 10'000;
    AnyQueue queue;
    std::array<std::vector<Item>, 2> items{make_items(kItems), make_items(kItems)};
    std::array<std::atomic<int>, 2> num_taken{};
    std::vector<std::jthread> writers;
    for (size_t w = 0; w < 2; ++w)
        writers.emplace_back([&queue, &num = num_taken[w], &added = items[w]] {
            for (Item &item : added) {
                // At times far ahead, at times hardly.
                while (item.number % 1000 < 300 && item.number - num > 3)
                    std::this_thread::yield();
                queue.add(item);
            }
        });
    for (int i = 0; i < 2 * kItems; ++i) {
        const Item *item = queue.wait();
        const size_t w = item >= items[1].data() && item < items[1].data() + kItems ? 1 : 0;
        ASSERT_EQ(item->number, num_taken[w]++);
    }
    EXPECT_EQ(queue.take(), nullptr);
}

TEST(Queue, KeepsTheOrderOfEachWriter) {
    expect_order_of_each_writer<TestQueue>();
}

TEST(Blockq, KeepsTheOrderOfEachWriter) {
    expect_order_of_each_writer<TestBlockq>();
}

// As many items as threads hold at most: whoever returns what he holds before he takes the next one
// must always find one, whether items wait aside, with threads busy elsewhere, or whole runs are on
// their way.
TEST(Queue, IsNeverFoundEmptyWhileItIsNot) {
    constexpr size_t kThreads = 4;
    for (const size_t num_held : {3u, 100u}) {
        TestQueue queue;
        std::vector<Item> items = make_items(static_cast<int>(num_held * kThreads));
        for (Item &item : items)
            queue.add(item);
        std::vector<std::jthread> threads;
        for (size_t t = 0; t < kThreads; ++t)
            threads.emplace_back([&] {
                std::vector<Item *> held(num_held);
                for (size_t i = 0; i < 9000; i += num_held) {
                    for (Item *&item : held) {
                        item = queue.take();
                        ASSERT_NE(item, nullptr);
                        ASSERT_FALSE(Link_inuse(&item->link));
                    }
                    for (Item *item : held)
                        queue.add(*item);
                }
            });
        threads.clear();
        EXPECT_EQ(Sys_get_queue_count(&queue), items.size());
    }
}

// A writer in bursts and one in pauses; readers that wait and readers whose time is over just when
// they are woken, who leave their wake to others. Every item comes out once.
TEST(Blockq, GivesEveryItemOnceToReadersThatComeAndGo) {
    TestBlockq blockq;
    std::vector<Item> in_bursts = make_items(10'000);
    std::vector<Item> one_by_one = make_items(1500);
    std::array<Item, 4> last; // one for each reader: the last of them waits without limit
    std::vector<std::jthread> readers;
    for (const unsigned int timeout_ms : {SYS_WAIT_FOREVER, 50u, 1u, 1u})
        readers.emplace_back([&, timeout_ms] {
            for (bool done = false; !done;)
                if (Item *item = blockq.take(timeout_ms)) {
                    ++item->times_taken;
                    done = item->number == -1;
                }
        });
    std::thread bursts([&] {
        for (Item &item : in_bursts) {
            blockq.add(item);
            if (item.number % 500 == 0)
                std::this_thread::yield();
        }
    });
    for (Item &item : one_by_one) {
        blockq.add(item);
        while (item.times_taken == 0)
            std::this_thread::yield();
        // At different moments of the readers' waits.
        for (int i = item.number % 500; i > 0; --i)
            std::this_thread::yield();
    }
    bursts.join();
    for (Item &item : last) {
        item.number = -1;
        blockq.add(item);
    }
    readers.clear();
    for (const std::vector<Item> *items : {&in_bursts, &one_by_one})
        for (const Item &item : *items)
            EXPECT_EQ(item.times_taken, 1);
    EXPECT_EQ(blockq.take(), nullptr);
}

// Every reader sleeps at first and parks with the item that it got, so every item has to wake one
// more: alone, and with others that a woken reader has fetched and does not get to.
TEST(Blockq, EveryItemWakesOneOfTheReaders) {
    TestBlockq blockq;
    std::vector<Item> items = make_items(8);
    std::counting_semaphore<> got(0);
    std::latch go_on(1);
    std::vector<std::jthread> readers;
    for (size_t i = 0; i < items.size(); ++i) {
        std::atomic<pid_t> tid{0};
        readers.emplace_back([&] {
            tid = gettid();
            Item *item = blockq.wait();
            EXPECT_NE(item, nullptr);
            if (item != nullptr)
                ++item->times_taken;
            got.release();
            go_on.wait();
        });
        await_asleep(tid);
    }
    for (size_t i = 0; const size_t burst : {1u, 1u, 2u, 4u}) {
        for (size_t k = 0; k < burst; ++k)
            blockq.add(items[i++]);
        for (size_t k = 0; k < burst; ++k)
            got.acquire();
    }
    go_on.count_down();
    for (const Item &item : items)
        EXPECT_EQ(item.times_taken, 1);
}

// One item at a time goes to and fro: each side sleeps, or is about to, when the other one adds. A
// wake-up that is lost ends a test by its time limit.
TEST(Blockq, LosesNoWakeUp) {
    TestBlockq there;
    TestBlockq back;
    std::vector<Item> items = make_items(3);
    std::vector<std::jthread> readers;
    for (int t = 0; t < 2; ++t)
        readers.emplace_back([&] {
            for (bool last = false; !last;) {
                Item *item = there.wait();
                last = item->number == -1;
                back.add(*item);
            }
        });
    for (size_t i = 0; i < 20'000; ++i) {
        const size_t burst = 1 + i % 3;
        for (size_t k = 0; k < burst; ++k)
            there.add(items[k]);
        for (size_t k = 0; k < burst; ++k)
            ASSERT_NE(back.wait(), nullptr);
    }
    for (size_t k = 0; k < 2; ++k) {
        items[k].number = -1;
        there.add(items[k]);
    }
}

// A reader takes items as fast as it can, until it fetches long runs, and parks with the last one.
// The next ones that it has fetched go to others, although these never run out of items.
TEST(Blockq, BlockedReaderHoldsNothingBack) {
    constexpr int kTaken = 1000;
    TestBlockq blockq;
    std::vector<Item> items = make_items(1200);
    for (Item &item : items)
        blockq.add(item);
    std::latch parked(1);
    std::latch go_on(1);
    const std::jthread reader([&] {
        for (size_t i = 0; i < kTaken; ++i)
            EXPECT_EQ(blockq.wait(), &items[i]);
        parked.count_down();
        go_on.wait();
    });
    parked.wait();
    int num_tries = 0;
    for (Item *item = blockq.take(); item->number != kTaken && num_tries < 200'000; ++num_tries) {
        blockq.add(*item);
        item = blockq.take();
    }
    EXPECT_LT(num_tries, 200'000);
    int num_left = 0;
    while (blockq.take() != nullptr)
        ++num_left;
    EXPECT_EQ(num_left, 199);
    go_on.count_down();
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
        std::jthread reader([&] {
            tid = gettid();
            EXPECT_EQ(blockq.take(timeout_ms), &item);
        });
        await_asleep(tid);
        pthread_kill(reader.native_handle(), SIGUSR1);
        signal_handled.acquire();
        blockq.add(item);
    }
}

} // namespace
