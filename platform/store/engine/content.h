/* The bytes of an object: a counted block that never changes once it can be seen.
 *
 * A reader takes a reference while it holds whatever lock protects the object and copies the bytes
 * after it has let go of the lock. An update makes a new block; readers of the old one keep it. */
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

namespace store {

/* The head of the block. An engine may put records of its own between the head and the bytes, as
 * long as the block needs no destructor: the last reference gives it back with operator delete. */
class Content {
public:
    Content(std::uint32_t length, std::uint16_t offset) : length_(length), offset_(offset) {}
    Content(const Content &) = delete;
    Content &operator=(const Content &) = delete;

    std::uint32_t length() const { return length_; }
    std::span<const std::byte> bytes() const {
        return {reinterpret_cast<const std::byte *>(this) + offset_, length_};
    }

    void add_ref() { refs_.fetch_add(1, std::memory_order_relaxed); }
    void release() {
        if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            ::operator delete(this);
        }
    }

protected:
    std::byte *writable_bytes() { return reinterpret_cast<std::byte *>(this) + offset_; }

private:
    std::atomic<std::uint32_t> refs_{1};
    const std::uint32_t length_;
    const std::uint16_t offset_; /* of the bytes, from the start of the block */
};

/* Holds one reference to a T, which is a Content, or none. */
template <typename T>
class Ref {
public:
    Ref() = default;
    static Ref adopt(T *block) { return Ref(block); }
    static Ref share(T *block) {
        block->add_ref();
        return Ref(block);
    }
    Ref(Ref &&other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
    template <typename U>
    Ref(Ref<U> &&other) noexcept : block_(other.detach()) {}
    Ref &operator=(Ref &&other) noexcept {
        std::swap(block_, other.block_);
        return *this;
    }
    ~Ref() {
        if (block_ != nullptr) {
            block_->release();
        }
    }

    explicit operator bool() const { return block_ != nullptr; }
    T *operator->() const { return block_; }
    T *get() const { return block_; }
    T *detach() { return std::exchange(block_, nullptr); }
    void reset() { *this = Ref(); }

private:
    explicit Ref(T *block) : block_(block) {}

    T *block_ = nullptr;
};

using ContentRef = Ref<Content>;

/* A block with a copy of `bytes`. */
ContentRef make_content(std::span<const std::byte> bytes);

} // namespace store
