// Progress on a terminal: one line on standard error that is drawn anew, with a rate. When standard
// error is no terminal, nothing is ever drawn.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace pmi_cli {

// One line of progress. Used by one thread at a time.
class ProgressLine {
public:
    explicit ProgressLine(std::string verb); // for example "loaded"
    void update(std::uint64_t num_objects);  // draws at most ten times a second
    void finish(std::uint64_t num_objects);  // draws the final state and ends the line

private:
    void draw(std::uint64_t num_objects);

    using Clock = std::chrono::steady_clock;
    const std::string verb_;
    const bool on_terminal_;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point next_draw_ = start_;
};

// Draws what `count` returns while this thread is busy with something else; destruction ends it.
class ProgressWatch {
public:
    ProgressWatch(std::string verb, std::function<std::uint64_t()> count);
    ProgressWatch(const ProgressWatch &) = delete;
    ProgressWatch &operator=(const ProgressWatch &) = delete;
    ~ProgressWatch();

private:
    void watch(const std::stop_token &stop);

    ProgressLine line_; // the watching thread's until it has ended
    const std::function<std::uint64_t()> count_;
    std::mutex mutex_;
    std::condition_variable_any ended_;
    std::jthread thread_;
};

} // namespace pmi_cli
