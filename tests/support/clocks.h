// The clock of the tests: turned by hand, or running as fast as a test wants, or moved by whoever
// would wait for it.
#pragma once

#include "common/clock.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

class TestClock final : public platform::Clock {
public:
    using Millis = platform::Millis;

    // A clock that passes `speed` milliseconds in one of the wall's. 0: it stands until turned.
    explicit TestClock(unsigned int speed = 0) : speed_(speed) {}

    // Called in the place of a wait on the thread that made the clock, without the waiter's lock.
    std::function<void(Millis deadline)> on_wait;

    Millis now() const override {
        using namespace std::chrono;
        const auto passed = speed_ == 0 ? 0us : duration_cast<microseconds>(wall::now() - start_);
        return turned_.load(std::memory_order_acquire) + passed.count() * speed_ / 1000;
    }

    void wait(std::unique_lock<std::mutex> &lock, std::condition_variable &wake,
              Millis deadline) override {
        if (on_wait && std::this_thread::get_id() == thread_) {
            lock.unlock();
            on_wait(deadline);
            lock.lock();
        } else if (speed_ == 0 || deadline == platform::never) {
            wake.wait(lock);
        } else {
            wake.wait_for(lock, std::chrono::microseconds((deadline + 1 - now()) * 1000 / speed_));
        }
    }

    void add_listener(std::function<void()> on_jump) override {
        const std::lock_guard guard(lock_);
        listeners_.push_back(std::move(on_jump));
    }

    void advance(Millis duration) {
        turned_.fetch_add(duration, std::memory_order_acq_rel);
        const std::lock_guard guard(lock_);
        for (const auto &listener : listeners_) {
            listener();
        }
    }

private:
    using wall = std::chrono::steady_clock;

    const unsigned int speed_;
    const wall::time_point start_ = wall::now();
    const std::thread::id thread_ = std::this_thread::get_id();
    std::atomic<Millis> turned_{1'000'000};
    std::mutex lock_;
    std::vector<std::function<void()>> listeners_; // guarded by lock_
};
