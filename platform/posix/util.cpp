// Time-outs in minutes and the shape of the merge tree.
//
// The tree is binomial: the predecessor of an index is the index without its lowest set bit, and
// that bit is the one it sets at its predecessor. So p's successors are p + b for every power of
// two b below p's lowest set bit. Only the bits of `mask` count as bits of an index; with fewer
// than all of them the one tree falls apart into a tree per value of the others, rooted where the
// bits of the mask are all 0.
#include <algorithm>
#include <bit>

#include "exported.h"

namespace {

unsigned int lowest_bit(unsigned int bits) {
    return bits & (0u - bits);
}

// Every power of two that is not above `limit`.
unsigned int powers_up_to(unsigned int limit) {
    const unsigned int highest = std::bit_floor(limit);
    return highest == 0 ? 0 : highest | (highest - 1);
}

} // namespace

unsigned int Util_convert_timeout_s_to_m(unsigned int timeout_s, unsigned int max_m) {
    const unsigned int rounded_up = timeout_s / 60 + (timeout_s % 60 != 0 ? 1 : 0);
    return std::min(rounded_up, max_m);
}

unsigned int Util_get_succ_mask(unsigned int index, unsigned int num_indexes, unsigned int mask) {
    if (index >= num_indexes)
        return 0;
    // For a root there is no lowest bit, and 0 - 1 leaves every bit.
    const unsigned int below_lowest = lowest_bit(index & mask) - 1;
    return mask & below_lowest & powers_up_to(num_indexes - 1 - index);
}

unsigned int Util_get_pred_mask(unsigned int index, unsigned int mask) {
    return lowest_bit(index & mask);
}

unsigned int Util_get_pred_index(unsigned int index, unsigned int mask) {
    return index & ~lowest_bit(index & mask);
}
