// What several of these tests need: how the library was built, and looking at a thread from
// outside.
#pragma once

#include <atomic>
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
    std::string stat;
    for (size_t name_end = std::string::npos;
         name_end == std::string::npos || stat.at(name_end + 2) != 'S';) {
        std::this_thread::yield();
        std::getline(std::ifstream("/proc/self/task/" + std::to_string(tid) + "/stat"), stat);
        name_end = stat.rfind(") ");
    }
}
