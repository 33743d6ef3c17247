// Queues and blocking queues: misuse, order, and the orders of events that are hard to meet by
// chance.
#include <barrier>
#include <chrono>
#include <csignal>

#include "posix_test.h"

namespace {

struct Item : LINK {
    Item() : LINK() { Link_init(this); }
};

struct TestQueue : QUEUE {
    TestQueue() { Queue_init(this, 0x518); }
    size_t count() { return Sys_get_queue_count(this); }
    void add(Item &item) { Queue_enq(this, &item); }
    Item *take(unsigned int = 0) { return static_cast<Item *>(Queue_deq(this)); }
};

struct TestBlockq : BLOCKQ {
    TestBlockq() { Blockq_init(this, 0x516); }
    size_t count() { return Sys_get_queue_count(&itemq); }
    void add(Item &item) { Blockq_enq(this, &item); }
    Item *take(unsigned int ms = 0) { return static_cast<Item *>(Blockq_deq(this, ms)); }
    Item *wait() { return take(SYS_WAIT_FOREVER); }
};

template <class>
class Queues : public testing::Test {};
using Kinds = testing::Types<TestQueue, TestBlockq>;
TYPED_TEST_SUITE(Queues, Kinds);

TEST(Queue, TakesNoItemTwice) {
    TestQueue queue;
    TestBlockq blockq;
    Item item;
    queue.add(item);
    queue.add(item);
    blockq.add(item);
    EXPECT_EQ(Sys_get_assert_count(), 2u);
    EXPECT_EQ(queue.take(), &item);
    EXPECT_EQ(queue.take(), nullptr);
    // The one that was refused wakes no reader, either.
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(blockq.take(30), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(30));
}

// Each writer's items reach the reader in their order, whatever it takes from: items that wait
// aside, runs or both in turn.
TYPED_TEST(Queues, KeepTheOrderOfEachWriter) {
    TypeParam queue;
    std::vector<Item> items(20'000); // the even ones are one writer's, the odd ones the other's
    std::atomic<size_t> next[] = {0, 1};
    std::vector<std::jthread> writers;
    for (const size_t w : {0u, 1u})
        writers.emplace_back([&, w] {
            for (size_t i = w; i < items.size(); i += 2) {
                // At times far ahead, at times hardly.
                while (i % 2000 < 200 && i > next[w] + 6)
                    std::this_thread::yield();
                queue.add(items[i]);
            }
        });
    for (size_t i = 0; i < items.size(); ++i) {
        const Item *item = nullptr;
        while ((item = queue.take(SYS_WAIT_FOREVER)) == nullptr) // only one kind waits
            std::this_thread::yield();
        const auto number = static_cast<size_t>(item - items.data());
        ASSERT_EQ(number, next[number % 2].fetch_add(2));
    }
}

// As many items as threads hold at most: whoever returns what he holds before he takes the next one
// must always find one, whether items wait aside, with threads busy elsewhere, or whole runs are on
// their way.
TYPED_TEST(Queues, AreNeverFoundEmptyWhileTheyAreNot) {
    TypeParam queue;
    std::vector<Item> items(2 * 3 + 2 * 100);
    for (Item &item : items)
        queue.add(item);
    std::vector<std::jthread> threads;
    for (const size_t num_held : {3u, 100u, 3u, 100u})
        threads.emplace_back([&, num_held] {
            std::vector<Item *> held(num_held);
            for (size_t i = 0; i < 9000; i += num_held) {
                for (Item *&item : held) {
                    item = queue.take(SYS_WAIT_FOREVER);
                    ASSERT_TRUE(item != nullptr && !Link_inuse(item));
                }
                for (Item *item : held)
                    queue.add(*item);
            }
        });
    threads.clear();
    EXPECT_EQ(queue.count(), items.size());
}

// Every reader sleeps at first and parks with the item that it got, so every item has to wake one
// more: alone, and with others that a woken reader has fetched and does not get to.
TEST(Blockq, EveryItemWakesOneOfTheReaders) {
    TestBlockq blockq;
    TestBlockq got;
    std::vector<Item> items(8);
    std::barrier go_on(9);
    std::vector<std::jthread> readers;
    while (readers.size() < items.size())
        readers.push_back(start_asleep([&] {
            got.add(*blockq.wait());
            go_on.arrive_and_wait();
        }));
    for (size_t i = 0; const size_t end : {1u, 2u, 4u, 8u}) {
        while (i < end)
            blockq.add(items[i++]);
        while (got.count() < end)
            std::this_thread::yield();
    }
    go_on.arrive_and_wait();
}

// A few items, and now and then many, go to and fro: each side sleeps, or is about to, when the
// other one adds; also readers whose time is over just when they are woken, who leave their wake to
// others. Signals end no wait. A wake-up that is lost ends the test by its time limit.
TEST(Blockq, LosesNeitherItemsNorWakeUps) {
    TestBlockq there;
    TestBlockq back;
    std::vector<Item> items(603); // the last three end the readers
    struct sigaction action {};   // no call is begun anew
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    std::vector<std::jthread> readers;
    for (const unsigned int timeout_ms : {SYS_WAIT_FOREVER, 3'600'000u, 1u})
        readers.emplace_back([&, timeout_ms] {
            for (bool is_last = false; !is_last;)
                if (Item *item = there.take(timeout_ms)) {
                    is_last = item >= &items[600];
                    back.add(*item);
                } else {
                    ASSERT_EQ(timeout_ms, 1u);
                }
        });
    for (size_t i = 1; i <= 10'000; ++i) {
        const size_t burst = i % 500 == 0 ? 600 : 1 + i % 3;
        for (size_t k = 0; k < burst; ++k)
            there.add(items[k]);
        for (size_t k = 0; k < burst; ++k)
            ASSERT_NE(back.wait(), nullptr);
        // Until some moment of the readers' waits.
        for (size_t pause = i % 10 == 0 ? i % 1000 : 0; pause > 0; --pause)
            std::this_thread::yield();
        if (i % 100 < 2)
            pthread_kill(readers[i % 2].native_handle(), SIGUSR1);
    }
    for (size_t k = 600; k < items.size(); ++k)
        there.add(items[k]);
    readers.clear();
    EXPECT_EQ(Sys_get_assert_count(), 0u) << "an item that was taken twice";
}

// A reader takes items as fast as it can, until it fetches long runs, and parks with the last one.
// The next ones that it has fetched go to others, although these never run out of items.
TEST(Blockq, BlockedReaderHoldsNothingBack) {
    constexpr size_t kTaken = 1000;
    TestBlockq blockq;
    std::vector<Item> items(1200);
    for (Item &item : items)
        blockq.add(item);
    std::barrier both(2);
    const std::jthread reader([&] {
        for (size_t i = 0; i < kTaken; ++i)
            EXPECT_EQ(blockq.wait(), &items[i]);
        both.arrive_and_wait();
        both.arrive_and_wait(); // parked
    });
    both.arrive_and_wait();
    Item *item = blockq.take();
    for (int i = 0; i < 200'000 && item != &items[kTaken]; ++i) {
        blockq.add(*item);
        item = blockq.take();
    }
    EXPECT_EQ(item, &items[kTaken]);
    EXPECT_EQ(blockq.count(), 199u);
    both.arrive_and_wait();
}

} // namespace
