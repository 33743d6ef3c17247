/* What a query is once it has been understood: the conditions that an engine finds objects by.
 *
 * Every comparison is a set of values: `index0 < 5` is the range from 0 to 4, `starts with "ab"`
 * the range from "ab" padded with zeros to "ab" padded with 0xff, `in (1, 7)` two ranges of one
 * value each. A range is all that an engine needs to understand, whatever a query looks like. `not`
 * stands at the comparisons alone; query/language.h moves it there. */
#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <vector>

#include "engine/contracts.h"
#include "engine/keys.h"

namespace store {

using IndexValue = OMRA_INDEX_VALUE;

/* How values compare. The same values are equal in both orders. */
enum class ValueOrder : std::uint8_t {
    number, /* as 256-bit little-endian unsigned numbers */
    bytes,  /* byte by byte, the first byte first */
};

std::strong_ordering compare(const IndexValue &a, const IndexValue &b, ValueOrder order);

/* The values from `low` to `high`, both included. */
struct ValueRange {
    IndexValue low;
    IndexValue high;

    bool is_one_value() const { return compare(low, high, ValueOrder::number) == 0; }
};

struct Condition {
    enum class Kind : std::uint8_t {
        all_of, /* of the parts; without parts: every object */
        any_of, /* of the parts; without parts: no object */
        comparison,
    };
    enum class Field : std::uint8_t {
        index, /* the object's index `index`; an object without it has no value */
        size,  /* bytes, as a number */
        age,   /* whole seconds since the object was stored or replaced, as a number */
    };

    Kind kind = Kind::all_of;
    std::vector<Condition> parts; /* of all_of and any_of */

    /* Of a comparison. It holds for the objects whose value lies in one of the ranges or, when
     * negated, for all others, those without a value included. */
    bool negated = false;
    Field field = Field::index;
    std::uint16_t index = 0;
    ValueOrder order = ValueOrder::number;
    std::vector<ValueRange> ranges; /* in `order`, no two with a common value */
    std::string text;               /* as written in the query, for people; may be empty */
};

/* Whether `value` is in one of the ranges of a comparison. */
bool in_ranges(const Condition &comparison, const IndexValue &value);

/* Brings the ranges of a comparison into the order that they must have. */
void arrange_ranges(Condition &comparison);

/* `field` of `index` is `value`. */
Condition equals(std::uint16_t index, const IndexValue &value);

/* A condition that holds for exactly the objects for which `condition` does not. */
Condition negation_of(Condition condition);

/* Samples are measured in objects out of a thousand million. */
inline constexpr std::uint32_t whole_sample = 1'000'000'000;

/* Whether a sample of `sample` holds the key: always the same keys, and every larger sample holds
 * those of a smaller one. */
bool in_part_sample(const Key &key, std::uint32_t sample);
inline bool in_sample(const Key &key, std::uint32_t sample) {
    return sample == whole_sample || in_part_sample(key, sample);
}

} // namespace store
