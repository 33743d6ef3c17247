// Small numbers for threads, for what is kept several times so that threads do not meet there.
#pragma once

#include <atomic>

namespace sysutil {

// Counts the threads that have asked; a thread keeps its number.
inline unsigned int thread_number() {
    static constinit std::atomic<unsigned int> num_threads{0};
    [[gnu::tls_model("initial-exec")]] static constinit thread_local unsigned int number = 0;
    if (number == 0) [[unlikely]]
        number = num_threads.fetch_add(1, std::memory_order_relaxed) + 1;
    return number;
}

} // namespace sysutil
