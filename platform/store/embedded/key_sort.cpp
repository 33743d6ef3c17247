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
/* Of more keys, those that are moved one by one have left the cache, and new room costs too much.
 */
constexpr std::size_t many = std::size_t{1} << 18;

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

/* The one word in which keys differ, and its bits in which they do; no bits when there is no such
 * word or more than one. */
struct OneWord {
    unsigned int word = 0;
    std::uint64_t varying = 0;
};

OneWord find_one_word(std::span<const Key> keys) {
    OneWord found;
    for (unsigned int word = 0; word < num_words; ++word) {
        const std::uint64_t varying = varying_bits(keys, word);
        if (varying != 0 && found.varying != 0) {
            return {};
        }
        if (varying != 0) {
            found = {word, varying};
        }
    }
    return found;
}

/* Sorts `num` numbers by `num_bits` of their bits, from bit `shift` on. */
void sort_numbers(std::unique_ptr<std::uint64_t[]> &numbers, std::size_t num, int shift,
                  int num_bits) {
    constexpr int digit_bits = 11;
    constexpr std::uint64_t mask = (1u << digit_bits) - 1;
    auto sorted = std::make_unique_for_overwrite<std::uint64_t[]>(num);
    for (const int end = shift + num_bits; shift < end; shift += digit_bits) {
        std::array<std::size_t, mask + 1> places{};
        const auto digit_of = [=](std::uint64_t number) { return number >> shift & mask; };
        for (std::size_t i = 0; i < num; ++i) {
            ++places[digit_of(numbers[i])];
        }
        std::size_t begin = 0;
        for (std::size_t &place : places) {
            begin += std::exchange(place, begin);
        }
        for (std::size_t i = 0; i < num; ++i) {
            sorted[places[digit_of(numbers[i])]++] = numbers[i];
        }
        numbers.swap(sorted);
    }
}

/* Sorts keys that differ in one word, by numbers made of what differs and of the key's place.
 * False, and nothing is done, when they differ elsewhere or in too many bits. */
bool sort_by_numbers(std::vector<Key> &keys) {
    const OneWord one = find_one_word(keys);
    if (one.varying == 0) {
        return false;
    }
    const int low = std::countr_zero(one.varying);
    const int num_bits = static_cast<int>(std::bit_width(one.varying)) - low;
    const int place_bits = static_cast<int>(std::bit_width(keys.size()));
    if (num_bits + place_bits >= 64) {
        return false;
    }
    const std::uint64_t mask = (std::uint64_t{1} << num_bits) - 1;
    auto numbers = std::make_unique_for_overwrite<std::uint64_t[]>(keys.size());
    for (std::size_t i = 0; i < keys.size(); ++i) {
        numbers[i] = (word_of(keys[i], one.word) >> low & mask) << place_bits | i;
    }
    sort_numbers(numbers, keys.size(), place_bits, num_bits);

    const std::uint64_t place_mask = (std::uint64_t{1} << place_bits) - 1;
    std::vector<Key> sorted;
    sorted.reserve(keys.size());
    for (std::size_t i = 0; i < keys.size(); ++i) {
        sorted.push_back(keys[numbers[i] & place_mask]);
    }
    keys.swap(sorted);
    return true;
}

} // namespace

void sort_keys(std::vector<Key> &keys) {
    if (keys.size() <= few || keys.size() > many || !sort_by_numbers(keys)) {
        sort_part(keys, 0);
    }
}

} // namespace store
