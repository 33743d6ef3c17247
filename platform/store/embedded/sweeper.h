/* Sees to it that expired objects leave memory and that those who handle their app ids hear of it.
 *
 *   shard --on_due------> the alarm is set for the whole second by which the record is over
 *   alarm --work--------> round by round, a small batch from every shard, until nothing is due
 *   shard --on_expired--> counted; kept for the alarm's thread when its app id wants events
 *   alarm --on_event----> the receiver, one call for each
 *
 * A round takes no more than one batch from a shard, so whoever wants the shard's lock meanwhile
 * waits for one batch at most, however many objects expire together. */
#pragma once

#include <atomic>
#include <cstdint>
#include <set>

#include "common/alarm.h"
#include "embedded/shard.h"
#include "engine/cluster.h"

namespace store {

class Sweeper final : public ExpirySink {
public:
    /* Both outlive the sweeper. */
    Sweeper(Clock &clock, Shards &shards);
    Sweeper(const Sweeper &) = delete;
    Sweeper &operator=(const Sweeper &) = delete;

    /* Before the first object is stored. */
    void attach(EventReceiver &events) { events_ = &events; }

    /* Whether the receiver hears of the objects of an app id. */
    void want_events(std::uint32_t app_id, bool wanted);

    /* No event reaches the receiver any more. */
    void stop() { alarm_.stop(); }

    void on_due(Millis moment) noexcept override;
    void on_expired(RecordChain expired) noexcept override;

    std::uint64_t num_expired() const { return num_expired_; }

private:
    Millis work();
    Millis sweep_round();
    void deliver_events();

    /* Constant after set-up. */
    Clock &clock_;
    Shards &shards_;
    EventReceiver *events_ = nullptr;

    /* Self-synchronised. */
    std::atomic<std::uint64_t> num_expired_{0};

    Mutex lock_; /* a leaf */
    RecordChain to_tell_ ABSL_GUARDED_BY(lock_);
    std::set<std::uint32_t> wanted_ ABSL_GUARDED_BY(lock_); /* app ids */

    Alarm alarm_; /* the last member: its thread uses the others */
};

} // namespace store
