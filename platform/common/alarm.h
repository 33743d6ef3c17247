/* A thread that works at moments of its clock.
 *
 * It sleeps until the moment that it has been called for, works, and sleeps again until the moment
 * that its work has named. The thread starts with the first call, so that who never needs
 * it has none. */
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <thread>

#include "common/clock.h"
#include "common/thread_safety.h"

namespace platform {

class Alarm {
public:
    /* Does what is due and names the moment at which more will be, or `never`. Called on the
     * alarm's thread with no lock held. */
    using Work = std::function<Millis()>;

    /* `clock` outlives the alarm. */
    Alarm(Clock &clock, Work work);
    Alarm(const Alarm &) = delete;
    Alarm &operator=(const Alarm &) = delete;
    ~Alarm() { stop(); }

    /* Sees to it that the thread works at `moment` or before. Cheap when it would anyway; may be
     * called under any lock that the work takes only after it has begun. */
    void call_at(Millis moment) noexcept {
        if (moment < next_.load(std::memory_order_relaxed)) {
            move_forward(moment);
        }
    }

    /* Whether the thread will work by itself, some time. */
    bool is_set() const { return next_.load(std::memory_order_relaxed) != never; }

    /* Ends the thread; work that has begun is finished first. Not to be called by the work. */
    void stop();

private:
    void move_forward(Millis moment) noexcept;
    void start() ABSL_EXCLUSIVE_LOCKS_REQUIRED(lock_);
    void run();
    bool wait_until_due();

    /* Constant after set-up. */
    Clock &clock_;
    const Work work_;

    /* Self-synchronised: the next moment; lowered under lock_ by anyone, raised by the thread. */
    std::atomic<Millis> next_{never};

    Mutex lock_; /* a leaf */
    std::condition_variable wake_;
    bool stopping_ ABSL_GUARDED_BY(lock_) = false;
    std::thread thread_ ABSL_GUARDED_BY(lock_); /* none once stopping_ */
};

} // namespace platform
