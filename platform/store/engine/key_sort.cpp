/* Sorting keys by their bits, in place; see key_sort.h. */
#include "engine/key_sort.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
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

/* Sorts keys that do not differ before `word`. */
void sort_part(std::span<Key> keys, unsigned int word) {
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

    /* Of each digit's part: its end, and the first place whose key may belong elsewhere. */
    std::array<std::size_t, 1u << max_digit_bits> ends{};
    std::array<std::size_t, 1u << max_digit_bits> firsts;
    for (const Key &key : keys) {
        ++ends[digit_of(key)];
    }
    std::size_t end = 0;
    for (std::size_t digit = 0; digit <= mask; ++digit) {
        firsts[digit] = end;
        end = ends[digit] += end;
    }
    for (std::size_t digit = 0; digit <= mask; ++digit) {
        while (firsts[digit] != ends[digit]) {
            Key key = keys[firsts[digit]];
            for (std::size_t at = digit_of(key); at != digit; at = digit_of(key)) {
                std::swap(key, keys[firsts[at]++]);
            }
            keys[firsts[digit]++] = key;
        }
    }
    std::size_t begin = 0;
    for (std::size_t digit = 0; digit <= mask; begin = ends[digit++]) {
        sort_part(keys.subspan(begin, ends[digit] - begin), word);
    }
}

} // namespace

void sort_keys(std::vector<Key> &keys) {
    sort_part(keys, 0);
}

} // namespace store
