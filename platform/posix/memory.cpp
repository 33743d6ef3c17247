// Memory blocks: Sys_malloc and Sys_free.
//
// A block of the C library carries a header in front of the bytes that the caller gets: its size
// and its tag, for the accounts, and a mark computed from both. The mark is the last thing before
// the caller's bytes, so that writing in front of a block hits it first. A block whose mark is
// wrong is reported and left alone: losing it is better than handing damaged memory to the C
// library. Small blocks are kept for a while when they are released, with their headers marked.
//
// Sys_malloc and Sys_free themselves do no more than most calls need: a block that the thread has
// kept goes out, and one that it may keep comes back.
//
// Counting is left to thread_memory.h, keeping to block_cache.h; writing past a block's end is left
// to AddressSanitizer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include <sys/mman.h>

#include "check.h"
#include "exported.h"
#include "thread_memory.h"

namespace {

struct alignas(std::max_align_t) BlockHeader {
    std::size_t size;
    std::uint32_t tag;
    std::uint32_t mark;
};

static_assert(sizeof(BlockHeader) == sysutil::BlockCache::kHeaderSize);

constexpr std::uint32_t kLive = 0xA10CB10C;
constexpr std::uint32_t kReleased = 0xDEADB10C;

// No object can be larger than what the difference of two pointers can express.
constexpr std::size_t kMaxSize = PTRDIFF_MAX - sizeof(BlockHeader);

// From here on the C library makes a mapping for each block.
constexpr std::size_t kLargeSize = std::size_t{32} << 20;

std::uint32_t mark_of(const BlockHeader &header) {
    const auto size = static_cast<std::uint64_t>(header.size);
    return kLive ^ header.tag ^ static_cast<std::uint32_t>(size) ^
           static_cast<std::uint32_t>(size >> 32);
}

bool block_is_live(const BlockHeader &header) {
    return header.mark == mark_of(header);
}

// The store looks useless to a compiler, since the block is given back next; but the C library does
// not always overwrite the header, and then it is what shows a second release.
void mark_released(BlockHeader &header) {
    volatile std::uint32_t &mark = header.mark;
    mark = kReleased;
}

bool is_cached_size(std::size_t block_size) {
    return block_size <= sysutil::kMaxCachedSize;
}

constexpr std::size_t kMaxCachedPayload = sysutil::kMaxCachedSize - sizeof(BlockHeader);

// A block with a mapping of its own, in pages of 2 MiB where the system has them: it is written
// once from one end to the other, and with small pages entering them takes as long as writing.
void *get_large_block(std::size_t block_size) {
    constexpr std::size_t kLargePage = std::size_t{2} << 20;
    void *block = nullptr;
    if (posix_memalign(&block, kLargePage, block_size) != 0)
        return nullptr;
    madvise(block, block_size, MADV_HUGEPAGE); // a mere wish
    return block;
}

void *get_block(sysutil::ThreadMemory *own, std::size_t block_size) {
    if (block_size >= kLargeSize)
        return get_large_block(block_size);
    if (!is_cached_size(block_size))
        return std::malloc(block_size);
    if (own != nullptr) {
        if (void *block = own->cache.take(block_size))
            return block;
    }
    return sysutil::allocate_block(block_size);
}

void put_block(sysutil::ThreadMemory *own, void *block, std::size_t block_size) {
    if (!sysutil::kCacheBlocks || own == nullptr || !is_cached_size(block_size)) {
        std::free(block);
        return;
    }
    if (!own->cache.has_room(block_size))
        own->cache.make_room(block_size);
    own->cache.keep(block, block_size);
}

// Makes a block a live one of its caller.
void *give_out(sysutil::ThreadMemory *own, void *block, std::size_t size, unsigned int tag) {
    auto *header = static_cast<BlockHeader *>(block);
    header->size = size;
    header->tag = tag;
    header->mark = mark_of(*header);
    sysutil::account_block(own, tag, size);
    return header + 1;
}

// For what is neither small nor kept by the thread.
[[gnu::noinline]] void *allocate(std::size_t size, unsigned int tag) {
    if (!SYS_CHECK(tag < sysutil::kMemTags) || size > kMaxSize)
        return nullptr;
    sysutil::ThreadMemory *own = sysutil::own_memory();
    void *block = get_block(own, sizeof(BlockHeader) + size);
    return block != nullptr ? give_out(own, block, size, tag) : nullptr;
}

// For what the thread does not keep, and where it has kept enough.
[[gnu::noinline]] void release(BlockHeader *header, std::size_t block_size) {
    sysutil::ThreadMemory *own = sysutil::own_memory();
    sysutil::account_release(own, header->tag, header->size);
    mark_released(*header);
    put_block(own, header, block_size);
}

} // namespace

void *Sys_malloc(size_t size, unsigned int tag) {
    sysutil::ThreadMemory *own = sysutil::thread_memory;
    if (own != nullptr && tag < sysutil::kMemTags && size <= kMaxCachedPayload) [[likely]] {
        if (void *block = own->cache.take(sizeof(BlockHeader) + size)) [[likely]]
            return give_out(own, block, size, tag);
    }
    return allocate(size, tag);
}

void Sys_free(void *ptr) {
    if (ptr == nullptr)
        return;
    BlockHeader *header = static_cast<BlockHeader *>(ptr) - 1;
    if (!SYS_CHECK(block_is_live(*header)))
        return;
    sysutil::ThreadMemory *own = sysutil::thread_memory;
    const std::size_t block_size = sizeof(BlockHeader) + header->size;
    if (sysutil::kCacheBlocks && own != nullptr && is_cached_size(block_size) &&
        own->cache.has_room(block_size)) [[likely]] {
        sysutil::account_release(own, header->tag, header->size);
        mark_released(*header);
        own->cache.keep(header, block_size);
        return;
    }
    release(header, block_size);
}
