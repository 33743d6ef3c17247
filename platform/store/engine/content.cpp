/* Contents that are copies. */
#include "engine/content.h"

#include <cstring>
#include <new>

namespace store {

Content Content::copy_of(Bytes bytes) {
    void *block = ::operator new(bytes.size());
    if (!bytes.empty()) {
        std::memcpy(block, bytes.data(), bytes.size());
    }
    return {{static_cast<const std::byte *>(block), bytes.size()}, block, [](void *owner) {
                ::operator delete(owner);
            }};
}

} // namespace store
