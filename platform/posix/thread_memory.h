// What a thread keeps for itself about memory: its part of the accounts and its released blocks.
//
// A thread has its record from its first block on until it ends. Everything here may be called from
// any thread at any time, also while a thread or the process ends; nothing fails.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>

#include "block_cache.h"

namespace sysutil {

inline constexpr unsigned int kMemTags = 256;

// Blocks and bytes of one tag. Unsigned numbers wrap: less than nothing is meant to be added up.
struct Counter {
    std::atomic<std::size_t> blocks{0};
    std::atomic<std::size_t> bytes{0};
};
using Counters = std::array<Counter, kMemTags>;

struct alignas(kCacheLine) ThreadMemory {
    Counters counters; // written by the record's thread only
    BlockCache cache;  // used by the record's thread only
    ThreadMemory *next = nullptr;
};

// NULL before the thread's first block and once it has ended.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local ThreadMemory *thread_memory;

// The calling thread's new record; NULL when the thread is ending or memory is exhausted.
ThreadMemory *enrol();

inline ThreadMemory *own_memory() {
    ThreadMemory *memory = thread_memory;
    return memory != nullptr ? memory : enrol();
}

// The counters of those who have no record; written by several threads.
Counters &shared_counters();

// Enters `blocks` blocks with `bytes` bytes together under `tag`, which is below kMemTags.
inline void account(ThreadMemory *own, unsigned int tag, std::size_t blocks, std::size_t bytes) {
    constexpr auto relaxed = std::memory_order_relaxed;
    if (own == nullptr) {
        Counter &to = shared_counters()[tag];
        to.blocks.fetch_add(blocks, relaxed);
        to.bytes.fetch_add(bytes, relaxed);
        return;
    }
    // Only the calling thread writes these: no locked instruction is needed.
    Counter &to = own->counters[tag];
    to.blocks.store(to.blocks.load(relaxed) + blocks, relaxed);
    to.bytes.store(to.bytes.load(relaxed) + bytes, relaxed);
}

inline void account_block(ThreadMemory *own, unsigned int tag, std::size_t bytes) {
    account(own, tag, 1, bytes);
}

// Takes such a block out again; the calling thread need not be the one that entered it.
inline void account_release(ThreadMemory *own, unsigned int tag, std::size_t bytes) {
    account(own, tag, std::size_t{0} - 1, std::size_t{0} - bytes);
}

} // namespace sysutil
