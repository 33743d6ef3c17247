// Queues and memory under many threads, and the orders of events that are hard to meet by chance.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <latch>
#include <random>
#include <semaphore>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support.h"
#include "sys_util.h"
#include "sysapp.h"

namespace {

constexpr unsigned int kTag = 254;

struct Item {
    LINK link;
    int number = 0;
    std::atomic<int> times_taken{0};

    Item() { Link_init(&link); }
};

Item *item_of(LINK *link) {
    return reinterpret_cast<Item *>(link);
}

std::vector<Item> make_items(int num) {
    std::vector<Item> items(static_cast<size_t>(num));
    for (int i = 0; Item & item : items)
        item.number = i++;
    return items;
}

void join(std::vector<std::thread> &threads) {
    for (std::thread &thread : threads)
        thread.join();
}

// Room for the threads of any of these tests.
std::vector<std::thread> make_threads() {
    std::vector<std::thread> threads;
    threads.reserve(8);
    return threads;
}

// Runs that are partly taken, whole runs, and items still aside.
TEST(Queue, KeepsTheOrderOfOneThreadAcrossRuns) {
    QUEUE queue;
    Queue_init(&queue, 0x519);
    std::vector<Item> items = make_items(1000);
    std::mt19937 random(1);
    size_t added = 0;
    size_t taken = 0;
    while (taken < items.size()) {
        for (size_t i = random() % 300; i > 0 && added < items.size(); --i)
            Queue_enq(&queue, &items[added++].link);
        EXPECT_EQ(Sys_get_queue_count(&queue), added - taken);
        for (size_t i = random() % 300; i > 0 && taken < added; --i)
            ASSERT_EQ(Queue_deq(&queue), &items[taken++].link);
    }
    EXPECT_EQ(Queue_deq(&queue), nullptr);
}

// Whatever the reader takes from, items that wait aside, runs or both in turn.
TEST(Queue, KeepsTheOrderBetweenAWriterAndAReader) {
    QUEUE queue;
    Queue_init(&queue, 0x519);
    std::vector<Item> items = make_items(50'000);
    std::atomic<int> num_taken{0};
    std::thread writer([&] {
        for (Item &item : items) {
            // At times far ahead, at times hardly.
            while (item.number % 1000 < 300 && item.number - num_taken > 3)
                std::this_thread::yield();
            Queue_enq(&queue, &item.link);
        }
    });
    for (Item &item : items) {
        LINK *link = Queue_deq(&queue);
        while (link == nullptr) {
            std::this_thread::yield();
            link = Queue_deq(&queue);
        }
        ASSERT_EQ(link, &item.link);
        ++num_taken;
    }
    writer.join();
}

// What a thread has added, or has fetched and not taken, is within reach of others, whether the
// thread lives or not.
TEST(Queue, ItemsAsideAreNeverOutOfReach) {
    QUEUE queue;
    Queue_init(&queue, 0x519);
    std::vector<Item> items = make_items(300);
    std::latch added(1);
    std::latch looked(1);
    std::thread owner([&] {
        for (Item &item : items)
            Queue_enq(&queue, &item.link);
        EXPECT_NE(Queue_deq(&queue), nullptr);
        added.count_down();
        looked.wait();
    });
    added.wait();
    for (size_t i = 1; i < items.size() - 10; ++i)
        EXPECT_NE(Queue_deq(&queue), nullptr);
    looked.count_down();
    owner.join();
    for (int i = 0; i < 10; ++i)
        EXPECT_NE(Queue_deq(&queue), nullptr);
    EXPECT_EQ(Queue_deq(&queue), nullptr);
    EXPECT_EQ(Sys_get_queue_count(&queue), 0u);
}

// As many items as threads hold at most: whoever returns what he holds before he takes the next one
// must always find one, wherever runs are on their way.
TEST(Queue, IsNeverFoundEmptyWhileItIsNot) {
    constexpr int kThreads = 4;
    QUEUE queue;
    Queue_init(&queue, 0x519);
    std::vector<Item> items = make_items(3 * kThreads);
    for (Item &item : items)
        Queue_enq(&queue, &item.link);
    std::vector<std::thread> threads = make_threads();
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 3000; ++i) {
                std::array<LINK *, 3> held{};
                for (LINK *&link : held) {
                    link = Queue_deq(&queue);
                    ASSERT_NE(link, nullptr);
                    ASSERT_FALSE(Link_inuse(link));
                }
                for (LINK *link : held)
                    Queue_enq(&queue, link);
            }
        });
    join(threads);
    EXPECT_EQ(Sys_get_queue_count(&queue), items.size());
}

// Writers and readers of both kinds, bursts and pauses: every item comes out once.
TEST(Blockq, GivesEveryItemOnceToReadersThatComeAndGo) {
    constexpr int kItems = 6000;
    BLOCKQ blockq;
    Blockq_init(&blockq, 0x516);
    std::array<std::vector<Item>, 2> items{make_items(kItems), make_items(kItems)};
    std::atomic<int> num_taken{0};
    std::vector<std::thread> threads = make_threads();
    for (std::vector<Item> &added : items)
        threads.emplace_back([&] {
            for (Item &item : added) {
                Blockq_enq(&blockq, &item.link);
                if (item.number % 500 == 0)
                    std::this_thread::yield();
            }
        });
    for (unsigned int timeout_ms : {0u, 1u, 1u, 50u})
        threads.emplace_back([&, timeout_ms] {
            while (num_taken < 2 * kItems) {
                if (LINK *link = Blockq_deq(&blockq, timeout_ms)) {
                    ++item_of(link)->times_taken;
                    ++num_taken;
                }
            }
        });
    join(threads);
    for (const std::vector<Item> &added : items)
        EXPECT_TRUE(std::all_of(added.begin(), added.end(),
                                [](const Item &item) { return item.times_taken == 1; }));
    EXPECT_EQ(Blockq_deq(&blockq, 0), nullptr);
}

// One item at a time goes to and fro: each side sleeps, or is about to, when the other one adds.
TEST(Blockq, LosesNoWakeUp) {
    BLOCKQ there;
    BLOCKQ back;
    Blockq_init(&there, 0x516);
    Blockq_init(&back, 0x516);
    constexpr int kRounds = 20000;
    std::vector<std::thread> readers = make_threads();
    for (int t = 0; t < 2; ++t)
        readers.emplace_back([&] {
            while (LINK *link = Blockq_deq(&there, SYS_WAIT_FOREVER)) {
                const bool last = item_of(link)->number == -1;
                Blockq_enq(&back, link);
                if (last)
                    return;
            }
        });
    std::vector<Item> items = make_items(3);
    for (int i = 0; i < kRounds; ++i) {
        const size_t burst = 1 + static_cast<size_t>(i) % 3;
        for (size_t k = 0; k < burst; ++k)
            Blockq_enq(&there, &items[k].link);
        for (size_t k = 0; k < burst; ++k)
            ASSERT_NE(Blockq_deq(&back, SYS_WAIT_FOREVER), nullptr);
    }
    for (size_t k = 0; k < 2; ++k) {
        items[k].number = -1;
        Blockq_enq(&there, &items[k].link);
    }
    join(readers);
}

// Readers whose time is over just when they are woken leave their wake to others.
TEST(Blockq, WakesMeantForReadersThatGaveUpAreNotLost) {
    BLOCKQ blockq;
    Blockq_init(&blockq, 0x516);
    std::vector<Item> items = make_items(1500);
    std::atomic<bool> done{false};
    std::vector<std::thread> readers = make_threads();
    for (int t = 0; t < 3; ++t)
        readers.emplace_back([&, t] {
            while (!done) {
                LINK *link = Blockq_deq(&blockq, t == 0 ? SYS_WAIT_FOREVER : 1);
                if (link == nullptr)
                    continue;
                if (++item_of(link)->times_taken == 1 && item_of(link)->number == -1)
                    done = true;
            }
        });
    for (Item &item : items) {
        Blockq_enq(&blockq, &item.link);
        while (item.times_taken == 0) // a lost wake-up would leave it here for ever
            std::this_thread::yield();
        // At different moments of the readers' waits.
        for (int i = item.number % 500; i > 0; --i)
            std::this_thread::yield();
    }
    items[0].number = items[1].number = items[2].number = -1;
    for (size_t k = 0; k < 3; ++k) {
        items[k].times_taken = 0;
        Blockq_enq(&blockq, &items[k].link);
    }
    join(readers);
}

// Takes items as fast as it can until it has fetched a long run, and parks with the last item.
class BlockedReader {
public:
    explicit BlockedReader(BLOCKQ &blockq, int num_items)
        : thread_([&blockq, num_items, this] {
              for (int i = 0; i < num_items; ++i)
                  last_ = item_of(Blockq_deq(&blockq, SYS_WAIT_FOREVER))->number;
              parked_.release();
              go_on_.acquire();
          }) {
        parked_.acquire();
    }
    ~BlockedReader() {
        go_on_.release();
        thread_.join();
    }
    int last() const { return last_; }

private:
    std::atomic<int> last_{-1};
    std::binary_semaphore parked_{0};
    std::binary_semaphore go_on_{0};
    std::thread thread_;
};

// What a blocked reader has fetched goes to another one, oldest first.
TEST(Blockq, BlockedReaderHoldsNothingBack) {
    constexpr int kItems = 5000;
    BLOCKQ blockq;
    Blockq_init(&blockq, 0x516);
    std::vector<Item> items = make_items(kItems);
    for (Item &item : items)
        Blockq_enq(&blockq, &item.link);
    constexpr int kTaken = 1000;
    const BlockedReader blocked(blockq, kTaken);
    EXPECT_EQ(blocked.last(), kTaken - 1);
    // Two rows, each in order: what is in the list, and what the blocked reader had fetched.
    int num_taken = 0;
    int last_of_list = 0;
    int last_of_run = 0;
    while (LINK *link = Blockq_deq(&blockq, 0)) {
        const int number = item_of(link)->number;
        int &last = number > last_of_list ? last_of_list : last_of_run;
        EXPECT_LT(std::exchange(last, number), number);
        ++num_taken;
    }
    EXPECT_EQ(num_taken, kItems - kTaken);
}

// Nor does it while the other readers never run out of items.
TEST(Blockq, BusyReadersTakeFromABlockedOne) {
    constexpr int kItems = 1200;
    BLOCKQ blockq;
    Blockq_init(&blockq, 0x516);
    std::vector<Item> items = make_items(kItems);
    for (Item &item : items)
        Blockq_enq(&blockq, &item.link);
    constexpr int kTaken = 1000;
    const BlockedReader blocked(blockq, kTaken);
    // One item more for each that is taken: the list never runs empty.
    for (int i = 0; i < 200'000; ++i) {
        LINK *link = Blockq_deq(&blockq, 0);
        ASSERT_NE(link, nullptr);
        if (item_of(link)->number == kTaken)
            return;
        Blockq_enq(&blockq, link);
    }
    FAIL() << "the blocked reader's next item was never taken";
}

// A sleeping reader is woken for an item that another one has fetched and does not get to.
TEST(Blockq, WokenReaderWakesTheNextForWhatIsLeft) {
    BLOCKQ blockq;
    Blockq_init(&blockq, 0x516);
    constexpr size_t kReaders = 3;
    std::vector<Item> items = make_items(kReaders);
    std::counting_semaphore<> got(0);
    std::latch go_on(1);
    std::vector<std::thread> readers = make_threads();
    for (size_t t = 0; t < kReaders; ++t) {
        std::atomic<pid_t> tid{0};
        readers.emplace_back([&] {
            tid = gettid();
            EXPECT_NE(Blockq_deq(&blockq, SYS_WAIT_FOREVER), nullptr);
            got.release();
            go_on.wait();
        });
        await_asleep(tid);
    }
    for (Item &item : items)
        Blockq_enq(&blockq, &item.link);
    for (size_t t = 0; t < kReaders; ++t)
        got.acquire();
    go_on.count_down();
    join(readers);
}

// Blocks wander between threads that allocate, threads that release and threads that end; none is
// given out twice, none shares a cache line with another.
TEST(Memory, BlocksOfManyThreadsStayApartAndAccountedFor) {
    constexpr size_t kSlots = 64;
    std::array<std::atomic<unsigned char *>, kSlots> slots{};
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
            check_and_release(slots[random() % kSlots].exchange(block));
        }
    };
    for (unsigned int round = 0; round < 3; ++round) {
        std::vector<std::thread> threads = make_threads();
        for (unsigned int t = 0; t < 4; ++t)
            threads.emplace_back(wander, 4 * round + t);
        join(threads);
    }
    for (auto &slot : slots)
        check_and_release(slot);
    EXPECT_EQ(Sys_get_mem_use(kTag).blocks, 0u);
    EXPECT_EQ(Sys_get_mem_use(kTag).bytes, 0u);
}

// A kept block is not live, whoever releases it once more.
TEST(Memory, SecondReleaseIsReportedByEveryThread) {
    if (kSanitized)
        GTEST_SKIP() << "the sanitizer reports it first";
    void *volatile block = Sys_malloc(8, kTag);
    Sys_free(block);
    std::thread([&] { Sys_free(block); }).join();
    EXPECT_EQ(Sys_get_assert_count(), 1u);
    void *other = Sys_malloc(40, kTag);
    EXPECT_EQ(other, block) << "the last one released comes first";
    Sys_free(other);
}

} // namespace
