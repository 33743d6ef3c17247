// Looking out for a moment before falling asleep.
//
// Putting a thread to sleep and waking it costs tens of microseconds, the most of it where a
// processor without work has been halted. What is short, such as an invocation of one object, hands
// on from thread to thread, and each of them would pay that. So a thread that finds nothing to do
// looks out first: it takes what comes without having to be woken, and keeps its processor awake
// for the others, to whom it gives way between two looks.
//
// Only one thread of a library looks out at a time. More of them would take the processors from
// those who work, and gain nothing: the work is handed on to one.
#pragma once

#include <atomic>
#include <chrono>
#include <thread>

namespace platform {

inline constinit std::atomic<bool> somebody_looks_out{false};

// Whether `has_come` held before the moment was over. It is asked without any lock.
template <class Condition>
bool look_out_for(Condition has_come) {
    constexpr std::chrono::microseconds moment(50);
    if (somebody_looks_out.load(std::memory_order_relaxed) ||
        somebody_looks_out.exchange(true, std::memory_order_acquire)) {
        return false;
    }
    const auto end = std::chrono::steady_clock::now() + moment;
    bool come = has_come();
    while (!come && std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
        come = has_come();
    }
    somebody_looks_out.store(false, std::memory_order_release);
    return come;
}

} // namespace platform
