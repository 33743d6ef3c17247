/* Sweeping in rounds, and telling what has expired. */
#include "embedded/sweeper.h"

#include <algorithm>

namespace store {

namespace {

/* What is taken from a shard under one holding of its lock: some 50 microseconds' work. */
constexpr std::size_t batch = 256;

/* Objects that expire within the same second are swept together. */
Millis end_of_second(Millis moment) {
    return moment == never
               ? never
               : (moment + millis_per_second - 1) / millis_per_second * millis_per_second;
}

} // namespace

Sweeper::Sweeper(Clock &clock, Shards &shards)
    : clock_(clock), shards_(shards), alarm_(clock, [this] { return work(); }) {}

void Sweeper::on_due(Millis moment) noexcept {
    alarm_.call_at(end_of_second(moment));
}

void Sweeper::on_expired(RecordChain expired) noexcept {
    num_expired_.fetch_add(expired.size(), std::memory_order_relaxed);
    bool is_wanted = false;
    while (!expired.empty()) {
        RecordRef record = expired.take_first();
        const Guard guard(lock_);
        if (wanted_.contains(record->key.app_id)) {
            to_tell_.push(std::move(record));
            is_wanted = true;
        }
    }
    if (is_wanted) {
        alarm_.call_at(clock_.now());
    }
}

void Sweeper::want_events(std::uint32_t app_id, bool wanted) {
    const Guard guard(lock_);
    if (wanted) {
        wanted_.insert(app_id);
    } else {
        wanted_.erase(app_id);
    }
}

Millis Sweeper::work() {
    for (;;) {
        const Millis next = sweep_round();
        deliver_events();
        if (next > clock_.now()) {
            return end_of_second(next);
        }
    }
}

/* One batch from every shard. When the next record is due. */
Millis Sweeper::sweep_round() {
    Millis next = never;
    for (Shard &shard : shards_) {
        next = std::min(next, shard.sweep(batch));
    }
    return next;
}

void Sweeper::deliver_events() {
    RecordChain expired;
    {
        const Guard guard(lock_);
        expired.append(std::move(to_tell_));
    }
    while (!expired.empty()) {
        events_->on_event(expired.take_first()->key, OMRALIB_EVENT_EXPIRED);
    }
}

} // namespace store
