/* Objects are opened, closed and joined. */
#include "serving/partial_results.h"

#include <algorithm>
#include <iterator>
#include <numeric>

namespace store {

namespace {

/* An object that is larger, and several times what a chunk brings, grows. */
constexpr std::uint64_t large = std::uint64_t{16} * 1024;
constexpr std::uint64_t several = 8;

} // namespace

PartialResults::Partial &PartialResults::begin_chunk() {
    if (partials_.back().is_closed) {
        partials_.push_back({numbered(partials_.front().key, last_number_ + 1)});
        ++last_number_;
    }
    Partial &partial = partials_.back();
    ++partial.num_users;
    return partial;
}

void PartialResults::end_chunk(Partial &partial, std::uint64_t num_successful,
                               std::uint64_t length) {
    --partial.num_users;
    partial.num_successful += num_successful;
    partial.length = std::max(partial.length, length);
    if (first_length_ == 0) {
        first_length_ = length;
    }
    partial.is_closed =
        partial.is_closed || (partial.length >= large && partial.length >= several * first_length_);
}

bool PartialResults::are_mergeable(const Partial &target, const Partial &source, bool all) {
    const auto is_free = [&](const Partial &partial) {
        return partial.num_users == 0 && (partial.is_closed || all);
    };
    return is_free(target) && is_free(source) && (all || target.level == source.level);
}

bool PartialResults::can_merge(bool all) const {
    return std::adjacent_find(partials_.begin(), partials_.end(),
                              [&](const Partial &target, const Partial &source) {
                                  return are_mergeable(target, source, all);
                              }) != partials_.end();
}

std::optional<PartialResults::Merge> PartialResults::begin_merge(bool all) {
    if (all && partials_.size() > 1 && partials_.back().num_users == 0 &&
        partials_.back().length == 0) {
        /* No chunk has left anything in it. */
        std::prev(partials_.end(), 2)->num_successful += partials_.back().num_successful;
        partials_.pop_back();
    }
    const auto target = std::adjacent_find(partials_.begin(), partials_.end(),
                                           [&](const Partial &older, const Partial &younger) {
                                               return are_mergeable(older, younger, all);
                                           });
    if (target == partials_.end()) {
        return std::nullopt;
    }
    const Merge merge{&*target, &*std::next(target)};
    ++merge.target->num_users;
    ++merge.source->num_users;
    return merge;
}

std::uint64_t PartialResults::end_merge(const Merge &merge, bool happened) {
    Partial &target = *merge.target;
    const Partial &source = *merge.source;
    const std::uint64_t num_lost = happened ? 0 : source.num_successful;
    --target.num_users;
    target.num_successful += source.num_successful - num_lost;
    target.length += source.length;
    target.level = std::max(target.level, source.level) + 1;
    partials_.remove_if([&](const Partial &partial) { return &partial == &source; });
    return num_lost;
}

std::uint64_t PartialResults::num_successful() const {
    return std::accumulate(
        partials_.begin(), partials_.end(), std::uint64_t{0},
        [](std::uint64_t sum, const Partial &partial) { return sum + partial.num_successful; });
}

} // namespace store
