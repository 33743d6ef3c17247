// What several of these tests need: how the library was built, and looking at a thread from
// outside.
#pragma once

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include <unistd.h>

// Some misuse that the library answers is, rightly, an error to a sanitizer.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// Returns once the kernel shows a thread of this process asleep. The thread sets `tid`, 0 before,
// to what gettid gives.
inline void await_asleep(const std::atomic<pid_t> &tid) {
    for (;; std::this_thread::yield()) {
        std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/stat");
        std::string stat;
        std::getline(file, stat);
        const auto name_end = stat.rfind(") ");
        if (name_end != std::string::npos && stat.at(name_end + 2) == 'S')
            return;
    }
}

// How long `func` takes at least, by the monotonic clock.
template <typename Func>
std::chrono::steady_clock::duration duration_of(Func func) {
    const auto begin = std::chrono::steady_clock::now();
    func();
    return std::chrono::steady_clock::now() - begin;
}
