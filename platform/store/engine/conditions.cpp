/* What a value, and an object of a sample, is compared by. */
#include "engine/conditions.h"

#include <algorithm>
#include <cstring>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace store {

namespace {

/* Unlike the hashes that place an object, so that a sample takes its part of every place. */
constexpr std::uint64_t sample_seed = 0x73616d706c65;

} // namespace

std::strong_ordering compare(const IndexValue &a, const IndexValue &b, ValueOrder order) {
    if (order == ValueOrder::bytes) {
        return std::memcmp(&a, &b, sizeof a) <=> 0;
    }
    for (int i = 3; i > 0; --i) {
        if (a.u64_comp[i] != b.u64_comp[i]) {
            return a.u64_comp[i] <=> b.u64_comp[i];
        }
    }
    return a.u64_comp[0] <=> b.u64_comp[0];
}

bool in_ranges(const Condition &comparison, const IndexValue &value) {
    const auto &ranges = comparison.ranges;
    /* The first range that does not end before the value. */
    const auto range = std::lower_bound(ranges.begin(), ranges.end(), value,
                                        [&](const ValueRange &a, const IndexValue &b) {
                                            return compare(a.high, b, comparison.order) < 0;
                                        });
    return range != ranges.end() && compare(range->low, value, comparison.order) <= 0;
}

void arrange_ranges(Condition &comparison) {
    auto &ranges = comparison.ranges;
    std::sort(ranges.begin(), ranges.end(), [&](const ValueRange &a, const ValueRange &b) {
        return compare(a.low, b.low, comparison.order) < 0;
    });
    std::vector<ValueRange> apart;
    for (const ValueRange &range : ranges) {
        if (apart.empty() || compare(apart.back().high, range.low, comparison.order) < 0) {
            apart.push_back(range);
        } else if (compare(apart.back().high, range.high, comparison.order) < 0) {
            apart.back().high = range.high;
        }
    }
    ranges = std::move(apart);
}

Condition equals(std::uint16_t index, const IndexValue &value) {
    Condition condition;
    condition.kind = Condition::Kind::comparison;
    condition.index = index;
    condition.ranges.push_back({value, value});
    return condition;
}

Condition negation_of(Condition condition) {
    switch (condition.kind) {
    case Condition::Kind::all_of:
        condition.kind = Condition::Kind::any_of;
        break;
    case Condition::Kind::any_of:
        condition.kind = Condition::Kind::all_of;
        break;
    case Condition::Kind::comparison:
        condition.text =
            condition.text.starts_with("not ") ? condition.text.substr(4) : "not " + condition.text;
        condition.negated = !condition.negated;
        break;
    }
    for (Condition &part : condition.parts) {
        part = negation_of(std::move(part));
    }
    return condition;
}

bool in_part_sample(const Key &key, std::uint32_t sample) {
    return XXH3_64bits_withSeed(&key, sizeof key, sample_seed) % whole_sample < sample;
}

} // namespace store
