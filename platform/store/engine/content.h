/* The bytes of an object as they cross the seam: held until whoever got them lets go, unchanged by
 * whatever happens to the object meanwhile. */
#pragma once

#include <cstdint>
#include <utility>

#include "engine/types.h"

namespace store {

/* Holds the bytes of one object, or none. An engine that keeps objects in memory hands out its own
 * block and says how it is let go of; another one hands out a copy. */
class Content {
public:
    using Release = void (*)(void *owner);

    Content() = default;

    /* `release(owner)` is called once, by whichever thread lets go of the bytes. */
    Content(Bytes bytes, void *owner, Release release)
        : bytes_(bytes), owner_(owner), release_(release) {}

    /* A copy of `bytes`. Throws std::bad_alloc. */
    static Content copy_of(Bytes bytes);

    Content(Content &&other) noexcept
        : bytes_(other.bytes_), owner_(std::exchange(other.owner_, nullptr)),
          release_(other.release_) {}
    Content &operator=(Content &&other) noexcept {
        std::swap(bytes_, other.bytes_);
        std::swap(owner_, other.owner_);
        std::swap(release_, other.release_);
        return *this;
    }
    ~Content() { reset(); }

    /* Whether it holds the bytes of an object, which may be none. */
    explicit operator bool() const { return owner_ != nullptr; }

    Bytes bytes() const { return bytes_; }
    std::uint32_t length() const { return static_cast<std::uint32_t>(bytes_.size()); }

    void reset() {
        if (owner_ != nullptr) {
            release_(std::exchange(owner_, nullptr));
        }
    }

private:
    Bytes bytes_;
    void *owner_ = nullptr;
    Release release_ = nullptr;
};

} // namespace store
