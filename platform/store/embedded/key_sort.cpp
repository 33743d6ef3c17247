#include "embedded/key_sort.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <memory>
#include <span>
#include <utility>

namespace store {

namespace {

constexpr unsigned int num_words = 5;
constexpr int max_digit_bits = 8;
constexpr std::size_t few = 32; /* keys are sorted by comparing them */

/* The words of a key in the order in which they count; the higher bits of a word count first. */
std::uint64_t word_of(const Key &key, unsigned int word) {
    switch (word) {
    case 0:
        return std::uint64_t{key.app_id} << 32 | std::uint64_t{key.flags} << 24 |
               std::uint64_t{key.type_index} << 16 | key.reserved;
    case 1:
    case 2:
        return key.ext_obj_id.u64_comp[word - 1];
    default:
        return key.obj_id.u64_comp[word - 3];
    }
}

std::uint64_t varying_bits(std::span<const Key> keys, unsigned int word) {
    const std::uint64_t first = word_of(keys.front(), word);
    std::uint64_t varying = 0;
    for (const Key &key : keys) {
        varying |= word_of(key, word) ^ first;
    }
    return varying;
}

/* Sorts keys that do not differ before `word`; `scratch` has room for as many. */
void sort_part(std::span<Key> keys, Key *scratch, unsigned int word) {
    if (keys.size() <= few) {
        std::sort(keys.begin(), keys.end(), KeyLess());
        return;
    }
    std::uint64_t varying = 0;
    while (word < num_words && (varying = varying_bits(keys, word)) == 0) {
        ++word;
    }
    if (varying == 0) {
        return;
    }
    const int top = static_cast<int>(std::bit_width(varying));
    const int shift =
        std::max(0, top - std::min(max_digit_bits, static_cast<int>(std::bit_width(keys.size()))));
    const std::size_t mask = (std::size_t{1} << (top - shift)) - 1;
    const auto digit_of = [=](const Key &key) { return word_of(key, word) >> shift & mask; };

    std::array<std::size_t, 1u << max_digit_bits> ends{};
    for (const Key &key : keys) {
        ++ends[digit_of(key)];
    }
    std::size_t begin = 0;
    for (std::size_t digit = 0; digit <= mask; ++digit) {
        begin += std::exchange(ends[digit], begin);
    }
    for (const Key &key : keys) {
        scratch[ends[digit_of(key)]++] = key;
    }
    std::copy_n(scratch, keys.size(), keys.begin());
    begin = 0;
    for (std::size_t digit = 0; digit <= mask; begin = ends[digit++]) {
        sort_part(keys.subspan(begin, ends[digit] - begin), scratch, word);
    }
}

} // namespace

void sort_keys(std::vector<Key> &keys) {
    std::unique_ptr<Key[]> scratch;
    if (keys.size() > few) {
        scratch = std::make_unique_for_overwrite<Key[]>(keys.size());
    }
    sort_part(keys, scratch.get(), 0);
}

} // namespace store
