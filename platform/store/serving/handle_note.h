/* What a handle has done last to a results object: a handler does not say, when it completes a
 * chunk, whether the chunk's results are in it. */
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
        if (is_results_key(its_key)) {
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
