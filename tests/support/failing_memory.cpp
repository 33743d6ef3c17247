#include "failing_memory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

constinit std::atomic<unsigned int> num_calls{0}, fails_from{0}, num_failed{0};
constinit std::atomic<bool> all_later_fail{false};
constinit std::atomic<long> num_live{0};

void *allocate(std::size_t size, std::size_t alignment) {
    const unsigned int from = fails_from;
    if (failing_memory::is_exposed && from != 0) {
        const unsigned int number = ++num_calls;
        if (number == from || (number > from && all_later_fail)) {
            ++num_failed;
            throw std::bad_alloc();
        }
    }
    const std::size_t rounded = (size + alignment - 1) / alignment * alignment;
    void *pblock = std::aligned_alloc(alignment, rounded != 0 ? rounded : alignment);
    ++num_live;
    return pblock != nullptr ? pblock : throw std::bad_alloc();
}

void release(void *pblock) {
    num_live -= pblock != nullptr ? 1 : 0;
    std::free(pblock);
}

} // namespace

void failing_memory::arm(unsigned int number, bool all_later) {
    num_calls = num_failed = 0;
    all_later_fail = all_later;
    fails_from = is_allowed ? number : 0;
}

unsigned int failing_memory::disarm() {
    fails_from = 0;
    return num_failed;
}

long failing_memory::num_blocks() {
    return num_live;
}

void *operator new(std::size_t size) {
    return allocate(size, __STDCPP_DEFAULT_NEW_ALIGNMENT__);
}
void *operator new(std::size_t size, std::align_val_t alignment) {
    return allocate(size, static_cast<std::size_t>(alignment));
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    try {
        return operator new(size);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}
void operator delete(void *pblock) noexcept {
    release(pblock);
}
void operator delete(void *pblock, std::size_t) noexcept {
    release(pblock);
}
void operator delete(void *pblock, std::align_val_t) noexcept {
    release(pblock);
}
void operator delete(void *pblock, std::size_t, std::align_val_t) noexcept {
    release(pblock);
}
