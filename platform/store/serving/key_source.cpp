/* Pieces of a scan, put together or divided. */
#include "serving/key_source.h"

#include <algorithm>
#include <utility>

#include "engine/key_sort.h"

namespace store {

Status KeySource::open(Objects &objects, Share &share) {
    Status status = OMRALIB_RET_SUCCESS;
    if (!share.is_part) {
        keys_ = std::move(share.keys);
        is_last_ = is_complete_ = true;
        num_found_ = keys_.size();
    } else {
        status = objects.scan(share.selection, &share.part, scan_);
    }
    return status;
}

Status KeySource::look_for(std::size_t num) {
    if (has(num)) {
        return OMRALIB_RET_SUCCESS;
    }
    if (num_at_hand() == 0) {
        keys_.clear();
        at_hand_ = nullptr;
        num_taken_ = 0;
    }
    const std::size_t num_missing = num - num_at_hand();
    ScanPiece piece;
    piece.keys = std::move(keys_);
    const std::size_t num_before = piece.keys.size();
    const bool hold = num_before == 0 && num != SIZE_MAX;
    const Status status = scan_->next(num_missing, hold, piece);
    keys_ = std::move(piece.keys);
    if (status != OMRALIB_RET_SUCCESS) {
        return status;
    }
    num_found_ += keys_.size() - num_before;
    at_hand_ = std::move(piece.at_hand);
    is_last_ = piece.is_last;
    is_complete_ = is_last_ || at_hand_ != nullptr;
    if (at_hand_ == nullptr && has(num)) {
        keys_.erase(keys_.begin(), keys_.begin() + static_cast<std::ptrdiff_t>(num_taken_));
        num_taken_ = 0;
        sort_keys(keys_);
    }
    return OMRALIB_RET_SUCCESS;
}

SomeKeys KeySource::take(std::size_t num) {
    const std::size_t first = num_taken_;
    const std::size_t num_given = std::min(num, num_at_hand());
    SomeKeys some;
    if (first == 0 && num_given == keys_.size()) {
        some.keys = std::move(keys_);
        keys_.clear();
        some.at_hand = std::move(at_hand_);
    } else {
        const auto begin = keys_.begin() + static_cast<std::ptrdiff_t>(first);
        some.keys.assign(begin, begin + static_cast<std::ptrdiff_t>(num_given));
        some.at_hand = at_hand_;
        some.first = first;
        num_taken_ += num_given;
    }
    is_complete_ = is_last_ || (is_complete_ && num_at_hand() != 0);
    return some;
}

std::uint64_t KeySource::num_expected() const {
    return num_found_ + (is_last_ ? 0 : scan_->expected());
}

} // namespace store
