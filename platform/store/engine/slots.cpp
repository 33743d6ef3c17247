/* The hash of keys. */
#include "engine/slots.h"

/* In this source alone, without a library that would have to be linked. */
#define XXH_INLINE_ALL
#include <xxhash.h>

namespace store {

std::uint64_t hash_of(const Key &key) {
    return XXH3_64bits(&key, sizeof key);
}

} // namespace store
