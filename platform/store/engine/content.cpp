#include "engine/content.h"

#include <cstring>
#include <new>

namespace store {

namespace {

struct PlainContent : Content {
    explicit PlainContent(std::span<const std::byte> bytes)
        : Content(static_cast<std::uint32_t>(bytes.size()), sizeof(PlainContent)) {
        if (!bytes.empty()) {
            std::memcpy(writable_bytes(), bytes.data(), bytes.size());
        }
    }
};

} // namespace

ContentRef make_content(std::span<const std::byte> bytes) {
    void *block = ::operator new(sizeof(PlainContent) + bytes.size());
    return ContentRef::adopt(new (block) PlainContent(bytes));
}

} // namespace store
