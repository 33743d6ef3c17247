/* Sweeping bucket by bucket, and telling what has expired. */
#include "rados/rados_sweeper.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace store {

namespace {

constexpr Millis beat = 10 * millis_per_second;

} // namespace

RadosSweeper::RadosSweeper(Clock &clock, Pool &pool, const Wall &wall, WriteMarks &marks)
    : clock_(clock), pool_(pool), wall_(wall), marks_(marks),
      alarm_(clock, [this] { return work(); }) {}

void RadosSweeper::attach(EventReceiver &events) {
    events_ = &events;
    alarm_.call_at(clock_.now() + beat);
}

void RadosSweeper::want_events(std::uint32_t app_id, bool wanted) {
    const Guard guard(lock_);
    if (wanted) {
        wanted_.insert(app_id);
    } else {
        wanted_.erase(app_id);
    }
}

void RadosSweeper::on_queued(Millis deadline) {
    Millis known = next_;
    while (deadline < known && !next_.compare_exchange_weak(known, deadline)) {
    }
    alarm_.call_at(wall_.on_clock(deadline));
}

/* On the alarm's thread. */
Millis RadosSweeper::work() {
    const bool is_done = [this] {
        const Guard guard(sweeping_);
        return sweep() == 0;
    }();
    deliver_events();
    const Millis next = is_done ? wall_.on_clock(next_) : clock_.now() + millis_per_second;
    return std::min(next, clock_.now() + beat);
}

Status RadosSweeper::catch_up() {
    const Guard guard(sweeping_);
    return next_ <= wall_.now() ? status_of(sweep()) : OMRALIB_RET_SUCCESS;
}

/* Everything that is over, of all app ids. */
int RadosSweeper::sweep() {
    std::vector<std::uint32_t> app_ids;
    int answer = pool_.app_ids(app_ids);
    next_ = never;
    Millis next = never;
    for (std::size_t i = 0; answer == 0 && i < app_ids.size(); ++i) {
        answer = sweep_app_id(app_ids[i], next);
    }
    on_queued(answer == 0 ? next : wall_.now() + millis_per_second);
    return answer;
}

/* All buckets of an app id, page by page, until nothing in them is over. */
int RadosSweeper::sweep_app_id(std::uint32_t app_id, Millis &next) {
    struct Queue {
        std::string name;
        Entries entries = {};
        bool more = false;
    };
    std::vector<Queue> queues;
    for (std::uint32_t number = 0; number < pool_.num_buckets(); ++number) {
        queues.push_back({Bucket{app_id, number}.name()});
    }
    while (!queues.empty()) {
        Reads reads(pool_);
        for (Queue &queue : queues) {
            queue.entries.clear();
            reads.list(queue.name, {}, "t", queue.entries, queue.more);
        }
        if (const int answer = reads.wait(); answer != 0) {
            return answer;
        }
        const Millis now = wall_.now();
        for (Queue &queue : queues) {
            bool all_are_over = true;
            for (const auto &[name, nothing] : queue.entries) {
                if (const Millis deadline = deadline_of_name(name); deadline > now) {
                    next = std::min(next, deadline);
                    all_are_over = false;
                    break;
                }
                if (const int answer = take_turn(app_id, name); answer != 0) {
                    return answer;
                }
            }
            queue.more = queue.more && all_are_over;
        }
        std::erase_if(queues, [](const Queue &queue) { return !queue.more; });
    }
    return 0;
}

/* The turn of an entry of the queue: the object is over, or it has been used and moves back. */
int RadosSweeper::take_turn(std::uint32_t app_id, const std::string &name) {
    const Key key = key_of_name(key_part(name), app_id);
    for (;;) {
        StoredRecord record;
        int answer = load(pool_, key, false, record);
        if (answer != 0) {
            return answer;
        }
        if (!record.exists() || record.header.queued_at != deadline_of_name(name)) {
            return 0; /* somebody else has been here */
        }
        if (record.header.is_expired(wall_.now())) {
            answer = expire(record);
        } else {
            RecordHeader moved = record.header;
            moved.queued_at = moved.expires_at;
            RecordChange change(pool_, record, Pool::fresh_id());
            change.expect_header();
            change.set_header(moved);
            answer = change.commit();
            on_queued(moved.queued_at);
        }
        if (answer != -ECANCELED) {
            return answer;
        }
    }
}

int RadosSweeper::expire(const StoredRecord &record) {
    RecordChange change(pool_, record, Pool::fresh_id());
    change.expect_header();
    change.remove_record();
    const int answer = change.commit();
    marks_.note_write(record.key);
    if (answer == 0) {
        ++num_expired_;
        const Guard guard(lock_);
        if (wanted_.contains(record.key.app_id)) {
            to_tell_.push_back(record.key);
            alarm_.call_at(clock_.now());
        }
    }
    return answer;
}

void RadosSweeper::deliver_events() {
    std::vector<Key> expired;
    {
        const Guard guard(lock_);
        expired = std::exchange(to_tell_, {});
    }
    for (const Key &key : expired) {
        events_->on_event(key, OMRALIB_EVENT_EXPIRED);
    }
}

} // namespace store
