// Where the blocks of a cache come from and go to: the C library.
#include "block_cache.h"

#include <cstdlib>

namespace sysutil {

void *allocate_block(std::size_t size) {
    const std::size_t num_lines = (size + kCacheLine - 1) / kCacheLine;
    return std::aligned_alloc(kCacheLine, num_lines * kCacheLine);
}

void BlockCache::give_back(Bin &bin, std::size_t num) {
    for (; num > 0; --num) {
        Block *block = bin.first;
        bin.first = block->next;
        --bin.num;
        std::free(block);
    }
}

BlockCache::~BlockCache() {
    for (Bin &bin : bins_)
        give_back(bin, bin.num);
}

} // namespace sysutil
