// A clock that runs a thousand times as fast as the wall's, so that pauses, leases and time-outs
// pass within a test, and that can jump.
#pragma once

#include "common/clock.h"

class HastyClock final : public store::Clock {
public:
    store::Millis now() const override {
        using std::chrono::steady_clock;
        return skipped_.load(std::memory_order_relaxed) +
               std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - start_)
                   .count();
    }

    void wait(std::unique_lock<std::mutex> &lock, std::condition_variable &wake,
              store::Millis deadline) override {
        if (deadline == store::never) {
            wake.wait(lock);
        } else {
            wake.wait_for(lock, std::chrono::microseconds(deadline + 1 - now()));
        }
    }

    void add_listener(std::function<void()> on_jump) override {
        const std::lock_guard guard(lock_);
        listeners_.push_back(std::move(on_jump));
    }

    void jump(store::Millis duration) {
        skipped_ += duration;
        const std::lock_guard guard(lock_);
        for (const auto &listener : listeners_) {
            listener();
        }
    }

private:
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::atomic<store::Millis> skipped_{0};
    std::mutex lock_;
    std::vector<std::function<void()>> listeners_; // guarded by lock_
};
