/* The alarm's thread: started by the first call, asleep on the clock, awake for its work.
 *
 * The thread is the only one that raises the next moment. It does so before it works, so that a
 * call that comes meanwhile is not lost. */
#include "common/alarm.h"

#include <csignal>
#include <exception>

namespace platform {

namespace {

/* When memory or threads run out, work is tried again after this. */
constexpr Millis retry_pause = millis_per_second;

} // namespace

Alarm::Alarm(Clock &clock, Work work) : clock_(clock), work_(std::move(work)) {
    clock_.add_listener([this] {
        const Guard guard(lock_);
        wake_.notify_all();
    });
}

/* The application's signals are for its own threads: the new one inherits a full mask. Without a
 * thread, next_ stays, and a later, earlier call tries again. */
void Alarm::start() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        thread_ = std::thread([this] { run(); });
    } catch (const std::exception &) {
        next_.store(never, std::memory_order_relaxed);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Alarm::move_forward(Millis moment) noexcept {
    const Guard guard(lock_);
    if (stopping_ || moment >= next_.load(std::memory_order_relaxed)) {
        return;
    }
    next_.store(moment, std::memory_order_relaxed);
    if (thread_.joinable()) {
        wake_.notify_all();
    } else {
        start();
    }
}

/* False when the alarm is being stopped. Calls from its return on are for what the work that
 * follows may miss. */
bool Alarm::wait_until_due() {
    MutexLock lock(lock_);
    while (!stopping_ && clock_.now() < next_.load(std::memory_order_relaxed)) {
        clock_.wait(lock.native(), wake_, next_.load(std::memory_order_relaxed));
    }
    if (!stopping_) {
        next_.store(never, std::memory_order_relaxed);
    }
    return !stopping_;
}

void Alarm::run() {
    while (wait_until_due()) {
        Millis next;
        try {
            next = work_();
        } catch (const std::exception &) {
            next = clock_.now() + retry_pause;
        }
        const Guard guard(lock_);
        if (next < next_.load(std::memory_order_relaxed)) {
            next_.store(next, std::memory_order_relaxed);
        }
    }
}

void Alarm::stop() {
    std::thread thread;
    {
        const Guard guard(lock_);
        stopping_ = true;
        wake_.notify_all();
        thread = std::move(thread_);
    }
    if (thread.joinable()) {
        thread.join();
    }
}

} // namespace platform
