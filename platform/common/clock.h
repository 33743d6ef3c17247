/* Time as the platform sees it: milliseconds that never go back, and waiting for a moment of them.
 *
 * Everything that expires or gives up asks a Clock, so that a test can bring one that it
 * turns by hand instead of waiting. */
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

namespace platform {

using Millis = std::int64_t;

inline constexpr Millis millis_per_second = 1000;
inline constexpr Millis millis_per_minute = 60 * millis_per_second;
inline constexpr Millis never = INT64_MAX;

class Clock {
public:
    Clock() = default;
    Clock(const Clock &) = delete;
    Clock &operator=(const Clock &) = delete;
    virtual ~Clock() = default;

    virtual Millis now() const = 0;

    /* Waits on `wake` until it is notified or `deadline` may have come, or for no reason. */
    virtual void wait(std::unique_lock<std::mutex> &lock, std::condition_variable &wake,
                      Millis deadline) = 0;

    /* `on_jump` is called after time has moved other than by passing; whoever waits notifies its
     * waiters there. It stays registered as long as the clock lives. */
    virtual void add_listener(std::function<void()> on_jump) = 0;
};

class SystemClock final : public Clock {
public:
    Millis now() const override {
        using std::chrono::steady_clock;
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   steady_clock::now().time_since_epoch())
            .count();
    }

    void wait(std::unique_lock<std::mutex> &lock, std::condition_variable &wake,
              Millis deadline) override {
        if (deadline == never) {
            wake.wait(lock);
        } else {
            /* No longer than an hour, which may return for no reason: in nanoseconds a deadline of
             * the far future would overflow. One more millisecond, because now() rounds down. */
            const Millis duration = std::min(deadline - now(), 60 * millis_per_minute);
            wake.wait_for(lock, std::chrono::milliseconds(duration + 1));
        }
    }

    void add_listener(std::function<void()>) override {}
};

} // namespace platform
