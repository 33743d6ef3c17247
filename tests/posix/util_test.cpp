// Time-outs in minutes and the merge tree.
#include <vector>

#include <gtest/gtest.h>

#include "util.h"

namespace {

constexpr unsigned int kAll = 0xFFFFFFFF;

TEST(Util, SecondsRoundUpToMinutesWithinTheLimit) {
    EXPECT_EQ(Util_convert_timeout_s_to_m(0, 0xFFFF), 0u);
    EXPECT_EQ(Util_convert_timeout_s_to_m(60, 0xFFFF), 1u);
    EXPECT_EQ(Util_convert_timeout_s_to_m(61, 0xFFFF), 2u);
    EXPECT_EQ(Util_convert_timeout_s_to_m(0xFFFF * 60 + 1, 0xFFFF), 0xFFFFu);
    EXPECT_EQ(Util_convert_timeout_s_to_m(kAll, kAll), 71'582'789u);
}

// Grows the tree by one index at a time: what the predecessors of all indexes so far have been
// given must be what the successor masks say. `mask` takes bits away; then some indexes are further
// roots.
void expect_tree(unsigned int max_indexes, unsigned int mask) {
    std::vector<unsigned int> given(max_indexes);
    for (unsigned int n = 1; n <= max_indexes; ++n) {
        const unsigned int last = n - 1;
        if ((last & mask) != 0) {
            const unsigned int pred = Util_get_pred_index(last, mask);
            const unsigned int bits = Util_get_pred_mask(last, mask);
            ASSERT_LT(pred, last);
            ASSERT_NE(bits, 0u);
            ASSERT_EQ(bits & ~mask, 0u);
            ASSERT_EQ(given[pred] & bits, 0u) << "index " << last;
            given[pred] |= bits;
        }
        for (unsigned int p = 0; p < n; ++p)
            ASSERT_EQ(Util_get_succ_mask(p, n, mask), given[p]) << p << " of " << n;
    }
}

TEST(Tree, SuccessorsAndPredecessorsAgree) {
    expect_tree(3000, kAll);
    expect_tree(300, 0x0000005A);
    expect_tree(50, 0);
    // At the largest index no sum may wrap around.
    EXPECT_EQ(Util_get_succ_mask(0, kAll, kAll), kAll);
    EXPECT_EQ(Util_get_succ_mask(0x80000000, kAll, kAll), 0x7FFFFFFFu);
    EXPECT_EQ(Util_get_succ_mask(kAll - 1, kAll, kAll), 0u);
}

} // namespace
