// Accounts of live memory per tag.
//
// In call order: account_block and account_release for every block, Sys_get_mem_use for a reader.
//
// Every thread counts in a record of its own, which no other thread writes, so that counting costs
// a plain load and store and shares no cache line. A reader adds up the records of all threads. One
// thread's numbers may well be "below zero", when it releases what others allocated: they are
// unsigned and wrap, and the sum comes out right. A thread enrols with its first block; when it
// ends, its numbers are folded into those of the departed threads. Blocks that come and go later
// still, in the destructors of other thread-local objects, are counted with the departed threads
// directly.
//
// What a block is, and where its tag and size are kept, is the business of memory.cpp.
#include "accounts.h"

#include <array>
#include <atomic>
#include <limits>
#include <mutex>
#include <new>
#include <type_traits>

#include "check.h"
#include "exported.h"

namespace sysutil {
namespace {

struct Counter {
    std::atomic<std::size_t> blocks{0};
    std::atomic<std::size_t> bytes{0};
};
using Counters = std::array<Counter, kMemTags>;

struct alignas(64) ThreadAccount {
    Counters counters;             // written by its thread only
    ThreadAccount *next = nullptr; // guarded by registry.mutex
};

struct Registry {
    Counters departed;
    std::mutex mutex;
    ThreadAccount *threads = nullptr; // guarded by mutex
};

// Threads may still allocate while the process exits, so this must have no destructor to run.
constinit Registry registry;
static_assert(std::is_trivially_destructible_v<Registry>);

constinit thread_local ThreadAccount *own_account = nullptr;
constinit thread_local bool has_left = false;

// For counters that several threads write.
void add_shared(Counter &to, std::size_t blocks, std::size_t bytes) {
    to.blocks.fetch_add(blocks, std::memory_order_relaxed);
    to.bytes.fetch_add(bytes, std::memory_order_relaxed);
}

// For counters that only the calling thread writes: no locked instruction is needed.
void add_own(Counter &to, std::size_t blocks, std::size_t bytes) {
    to.blocks.store(to.blocks.load(std::memory_order_relaxed) + blocks, std::memory_order_relaxed);
    to.bytes.store(to.bytes.load(std::memory_order_relaxed) + bytes, std::memory_order_relaxed);
}

void unlink_account(const ThreadAccount *account) {
    ThreadAccount **link = &registry.threads;
    while (*link != account)
        link = &(*link)->next;
    *link = account->next;
}

// Folds the calling thread's numbers into those of the departed threads. A reader sees them in one
// place or the other, since the mutex is held throughout.
void leave() {
    {
        const std::lock_guard guard(registry.mutex);
        unlink_account(own_account);
        for (unsigned int tag = 0; tag < kMemTags; ++tag) {
            const Counter &from = own_account->counters[tag];
            add_shared(registry.departed[tag], from.blocks.load(std::memory_order_relaxed),
                       from.bytes.load(std::memory_order_relaxed));
        }
    }
    delete own_account;
    own_account = nullptr;
    has_left = true;
}

struct LeaveAtThreadExit {
    LeaveAtThreadExit() = default;
    ~LeaveAtThreadExit() { leave(); }
    LeaveAtThreadExit(const LeaveAtThreadExit &) = delete;
    LeaveAtThreadExit &operator=(const LeaveAtThreadExit &) = delete;
};

// The calling thread's new account; NULL when the thread is ending or memory is exhausted.
ThreadAccount *enrol() {
    if (has_left)
        return nullptr;
    auto *account = new (std::nothrow) ThreadAccount;
    if (account == nullptr)
        return nullptr;
    {
        const std::lock_guard guard(registry.mutex);
        account->next = registry.threads;
        registry.threads = account;
    }
    own_account = account;
    static thread_local LeaveAtThreadExit leave_at_thread_exit;
    return account;
}

void add(unsigned int tag, std::size_t blocks, std::size_t bytes) {
    ThreadAccount *account = own_account != nullptr ? own_account : enrol();
    if (account != nullptr)
        add_own(account->counters[tag], blocks, bytes);
    else
        add_shared(registry.departed[tag], blocks, bytes);
}

// A reader may miss an allocation and still see its release on another thread; what is then below
// zero is none.
std::size_t at_least_none(std::size_t sum) {
    return sum > std::numeric_limits<std::size_t>::max() / 2 ? 0 : sum;
}

} // namespace

void account_block(unsigned int tag, std::size_t bytes) {
    add(tag, 1, bytes);
}

void account_release(unsigned int tag, std::size_t bytes) {
    add(tag, std::size_t{0} - 1, std::size_t{0} - bytes);
}

} // namespace sysutil

SYS_MEM_USE Sys_get_mem_use(unsigned int tag) {
    using namespace sysutil;
    if (!SYS_CHECK(tag < kMemTags))
        return {0, 0};
    const std::lock_guard guard(registry.mutex);
    SYS_MEM_USE use{};
    const auto include = [&use](const Counter &counter) {
        use.blocks += counter.blocks.load(std::memory_order_relaxed);
        use.bytes += counter.bytes.load(std::memory_order_relaxed);
    };
    include(registry.departed[tag]);
    for (const ThreadAccount *account = registry.threads; account != nullptr;
         account = account->next)
        include(account->counters[tag]);
    return {at_least_none(use.blocks), at_least_none(use.bytes)};
}
