/* What a handle has done last to a temporary object: a handler that has merged a chunk's results
 * does not say so when it completes the chunk. */
#pragma once

#include <cstdint>

#include "engine/keys.h"

namespace store {

struct HandleNote {
    enum class Deed : std::uint8_t {
        none,
        locked,
        written,
        left, /* unlocked as it was */
    };

    Deed deed = Deed::none;
    Key key{};
    std::uint64_t length = 0; /* bytes, of what was written */

    void note(Deed its_deed, const Key &its_key, std::uint64_t its_length = 0) {
        if (its_key.app_id == reserved_app_id) {
            *this = {its_deed, its_key, its_length};
        }
    }
    void note_unlocked(const Key &its_key) {
        if (is(Deed::locked, its_key)) {
            deed = Deed::left;
        }
    }
    bool is(Deed its_deed, const Key &its_key) const {
        return deed == its_deed && order_of(key, its_key) == 0;
    }
};

} // namespace store
