// Released blocks of one thread, kept for its next requests.
//
// Blocks of up to 1 KiB come in sizes that are multiples of a cache line, and at its start: so no
// two blocks share a line, and threads that work on neighbouring ones do not slow each other down.
// Those that a thread releases are kept, a list for each size, and given out again, the last one
// first, without asking the C library. Of each size no more than kMaxBlocks are kept, which makes
// half a megabyte a thread at most; beyond that, half of them go back to the C library. So a thread
// that only releases what others allocate does not collect memory, either.
//
// With AddressSanitizer nothing is kept: it has to see every release.
#pragma once

#include <array>
#include <cstddef>

#include "exported.h"

namespace sysutil {

inline constexpr std::size_t kCacheLine = SYS_CACHE_LINE;
inline constexpr std::size_t kMaxCachedSize = 1024;

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kCacheBlocks = false;
#else
inline constexpr bool kCacheBlocks = true;
#endif

// Sizes are those of whole blocks, from 1 to kMaxCachedSize. A kept block's first kHeaderSize bytes
// stay as they are.
class BlockCache {
public:
    static constexpr std::size_t kHeaderSize = 16;

    BlockCache() = default;
    ~BlockCache();
    BlockCache(const BlockCache &) = delete;
    BlockCache &operator=(const BlockCache &) = delete;

    // A block of the size, or NULL when none is kept.
    void *take(std::size_t size) {
        Bin &bin = bin_of(size);
        Block *block = bin.first;
        if (block == nullptr)
            return nullptr;
        bin.first = block->next;
        --bin.num;
        return block;
    }

    // Whether one more of the size may be kept.
    bool has_room(std::size_t size) { return bin_of(size).num < kMaxBlocks; }

    // Gives half of the blocks of the size back.
    void make_room(std::size_t size) { give_back(bin_of(size), kMaxBlocks / 2); }

    // Takes over a block of allocate_block; there is room for it.
    void keep(void *ptr, std::size_t size) {
        Bin &bin = bin_of(size);
        auto *block = static_cast<Block *>(ptr);
        block->next = bin.first;
        bin.first = block;
        ++bin.num;
    }

private:
    struct Block {
        std::array<std::byte, kHeaderSize> header;
        Block *next;
    };
    struct Bin {
        Block *first = nullptr;
        std::size_t num = 0;
    };

    static constexpr std::size_t kMaxBlocks = 64;

    Bin &bin_of(std::size_t size) { return bins_[(size - 1) / kCacheLine]; }
    static void give_back(Bin &bin, std::size_t num);

    std::array<Bin, kMaxCachedSize / kCacheLine> bins_;
};

// A new block for sizes that are cached; NULL when memory is exhausted. std::free releases it.
void *allocate_block(std::size_t size);

} // namespace sysutil
