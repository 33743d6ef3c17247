// Accounts of live memory per tag, and when threads get and give up their records.
//
// In call order: own_memory and account_block or account_release for every block, Sys_get_mem_use
// for a reader.
//
// Every thread counts in a record of its own, which no other thread writes, so that counting costs
// a plain load and store and shares no cache line. A reader adds up the records of all threads. One
// thread's numbers may well be "below zero", when it releases what others allocated: they are
// unsigned and wrap, and the sum comes out right. A thread enrols with its first block; when it
// ends, its numbers are folded into those of the departed threads and the blocks that it kept go
// back to the C library. Blocks that come and go later still, in the destructors of other
// thread-local objects, are counted with the departed threads directly and not kept.
//
// What a block is, and where its tag and size are kept, is the business of memory.cpp.
#include "thread_memory.h"

#include <limits>
#include <new>
#include <type_traits>

#include "check.h"
#include "common/thread_safety.h"
#include "exported.h"

namespace sysutil {

constinit thread_local ThreadMemory *thread_memory = nullptr;

namespace {

struct Registry {
    Counters departed;
    platform::Mutex mutex;
    ThreadMemory *threads ABSL_GUARDED_BY(mutex) = nullptr;
};

// Threads may still allocate while the process exits, so this must have no destructor to run.
constinit Registry registry;
static_assert(std::is_trivially_destructible_v<Registry>);

constinit thread_local bool has_left = false;

void unlink_record(const ThreadMemory *memory) ABSL_EXCLUSIVE_LOCKS_REQUIRED(registry.mutex) {
    ThreadMemory **link = &registry.threads;
    while (*link != memory)
        link = &(*link)->next;
    *link = memory->next;
}

// Folds the calling thread's numbers into those of the departed threads. A reader sees them in one
// place or the other, since the mutex is held throughout.
void leave() {
    ThreadMemory *memory = thread_memory;
    thread_memory = nullptr;
    has_left = true;
    {
        const platform::Guard guard(registry.mutex);
        unlink_record(memory);
        for (unsigned int tag = 0; tag < kMemTags; ++tag) {
            const Counter &from = memory->counters[tag];
            account(nullptr, tag, from.blocks.load(std::memory_order_relaxed),
                    from.bytes.load(std::memory_order_relaxed));
        }
    }
    delete memory;
}

struct LeaveAtThreadExit {
    LeaveAtThreadExit() = default;
    ~LeaveAtThreadExit() { leave(); }
    LeaveAtThreadExit(const LeaveAtThreadExit &) = delete;
    LeaveAtThreadExit &operator=(const LeaveAtThreadExit &) = delete;
};

// A reader may miss an allocation and still see its release on another thread; what is then below
// zero is none.
std::size_t at_least_none(std::size_t sum) {
    return sum > std::numeric_limits<std::size_t>::max() / 2 ? 0 : sum;
}

} // namespace

ThreadMemory *enrol() {
    if (has_left)
        return nullptr;
    auto *memory = new (std::nothrow) ThreadMemory;
    if (memory == nullptr)
        return nullptr;
    {
        const platform::Guard guard(registry.mutex);
        memory->next = registry.threads;
        registry.threads = memory;
    }
    thread_memory = memory;
    static thread_local LeaveAtThreadExit leave_at_thread_exit;
    return memory;
}

Counters &shared_counters() {
    return registry.departed;
}

} // namespace sysutil

SYS_MEM_USE Sys_get_mem_use(unsigned int tag) {
    using namespace sysutil;
    if (!SYS_CHECK(tag < kMemTags))
        return {0, 0};
    const platform::Guard guard(registry.mutex);
    SYS_MEM_USE use{};
    const auto include = [&use](const Counter &counter) {
        use.blocks += counter.blocks.load(std::memory_order_relaxed);
        use.bytes += counter.bytes.load(std::memory_order_relaxed);
    };
    include(registry.departed[tag]);
    for (const ThreadMemory *memory = registry.threads; memory != nullptr; memory = memory->next)
        include(memory->counters[tag]);
    return {at_least_none(use.blocks), at_least_none(use.bytes)};
}
