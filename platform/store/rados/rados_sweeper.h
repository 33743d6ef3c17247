/* Sees to it that objects whose time is over leave the cluster, and that those who handle their app
 * ids hear of it: on the process that took the object out, once.
 *
 * All processes sweep. Each is called at the earliest deadline that it knows of, and otherwise
 * every ten seconds, for what others have stored. */
#pragma once

#include <atomic>
#include <set>
#include <vector>

#include "common/alarm.h"
#include "engine/cluster.h"
#include "rados/stored_record.h"
#include "rados/wall.h"
#include "rados/write_marks.h"

namespace store {

class RadosSweeper {
public:
    /* All outlive the sweeper. */
    RadosSweeper(Clock &clock, Pool &pool, const Wall &wall, WriteMarks &marks);
    RadosSweeper(const RadosSweeper &) = delete;
    RadosSweeper &operator=(const RadosSweeper &) = delete;

    /* Before the first object is stored. */
    void attach(EventReceiver &events);
    void want_events(std::uint32_t app_id, bool wanted);
    void stop() { alarm_.stop(); }

    /* An object has got this deadline. */
    void on_queued(Millis deadline);

    /* Takes out everything that this process knows to be over. */
    Status catch_up();

    /* Takes out a record that is over, unless somebody else does. Answers as Pool does. */
    int expire(const StoredRecord &record);

    std::uint64_t num_expired() const { return num_expired_; }

private:
    Millis work();
    int sweep() ABSL_EXCLUSIVE_LOCKS_REQUIRED(sweeping_);
    int sweep_app_id(std::uint32_t app_id, Millis &next);
    int take_turn(std::uint32_t app_id, const std::string &name);
    void deliver_events();

    /* Constant after set-up. */
    Clock &clock_;
    Pool &pool_;
    const Wall &wall_;
    EventReceiver *events_ = nullptr;

    /* Self-synchronised. */
    WriteMarks &marks_;
    std::atomic<std::uint64_t> num_expired_{0};
    std::atomic<Millis> next_{never}; /* the earliest deadline that is known */

    Mutex sweeping_; /* one sweep at a time */

    Mutex lock_; /* a leaf */
    std::vector<Key> to_tell_ ABSL_GUARDED_BY(lock_);
    std::set<std::uint32_t> wanted_ ABSL_GUARDED_BY(lock_); /* app ids */

    Alarm alarm_; /* the last member: its thread uses the others */
};

} // namespace store
