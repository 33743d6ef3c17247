/* Keys in key order, whichever of their bits differ. */
#include <algorithm>
#include <array>
#include <random>

#include <gtest/gtest.h>

#include "engine/key_sort.h"

namespace {

using store::Key;

/* Keys that differ in the bits of `masks`, one mask for each 8 bytes of a key. */
std::vector<Key> make_keys(std::size_t num, const std::array<std::uint64_t, 5> &masks) {
    std::mt19937_64 random(num);
    std::vector<Key> keys(num);
    for (Key &key : keys) {
        key.app_id = static_cast<std::uint32_t>(random() & masks[0] >> 32);
        key.flags = static_cast<std::uint8_t>(random() & masks[0] >> 24);
        key.type_index = static_cast<std::uint8_t>(random() & masks[0] >> 16);
        key.reserved = static_cast<std::uint16_t>(random() & masks[0]);
        key.ext_obj_id.u64_comp[0] = random() & masks[1];
        key.ext_obj_id.u64_comp[1] = random() & masks[2];
        key.obj_id.u64_comp[0] = random() & masks[3];
        key.obj_id.u64_comp[1] = random() & masks[4];
    }
    return keys;
}

TEST(KeySort, AgreesWithComparingWhereverKeysDiffer) {
    constexpr std::uint64_t all = UINT64_MAX;
    const std::array<std::uint64_t, 5> cases[] = {
        {all, all, all, all, all},               /* anywhere */
        {0, 0, 0, 0xFFFFF, 0},                   /* small numbers */
        {0, 0x8000000000000000, 0, 1, 0x1F0000}, /* a few bits far apart, many equal keys */
        {0x0000000F03010003, 0, 0, 0, 0},        /* the fields that stand together in a word */
        {0, 0, 0, 0, 0},                         /* nowhere */
    };
    for (const auto &masks : cases) {
        for (const std::size_t num : {0, 1, 2, 33, 1000, 20000}) {
            std::vector<Key> keys = make_keys(num, masks);
            std::vector<Key> expected = keys;
            std::sort(expected.begin(), expected.end(), store::KeyLess());
            store::sort_keys(keys);
            EXPECT_TRUE(
                std::equal(keys.begin(), keys.end(), expected.begin(), expected.end(),
                           [](const Key &a, const Key &b) { return store::order_of(a, b) == 0; }))
                << num << " keys, case " << &masks - cases;
        }
    }
}

} // namespace
