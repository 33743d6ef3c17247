#include "progress.h"

#include <cstdio>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

namespace pmi_cli {

namespace {

constexpr std::chrono::milliseconds kDrawInterval{100};

} // namespace

ProgressLine::ProgressLine(std::string verb)
    : verb_(std::move(verb)), on_terminal_(isatty(STDERR_FILENO) == 1) {}

void ProgressLine::draw(std::uint64_t num_objects) {
    const std::chrono::duration<double> elapsed = Clock::now() - start_;
    const double rate = static_cast<double>(num_objects) / std::max(elapsed.count(), 1e-6);
    fmt::print(stderr, "\rpmi: {} {} objects, {:.0f}/s\033[K", verb_, num_objects, rate);
    std::fflush(stderr);
}

void ProgressLine::update(std::uint64_t num_objects) {
    if (!on_terminal_ || Clock::now() < next_draw_) {
        return;
    }
    next_draw_ = Clock::now() + kDrawInterval;
    draw(num_objects);
}

void ProgressLine::finish(std::uint64_t num_objects) {
    if (on_terminal_) {
        draw(num_objects);
        fmt::print(stderr, "\n");
    }
}

ProgressWatch::ProgressWatch(std::string verb, std::function<std::uint64_t()> count)
    : line_(std::move(verb)), count_(std::move(count)),
      thread_([this](const std::stop_token &stop) { watch(stop); }) {}

ProgressWatch::~ProgressWatch() {
    thread_.request_stop();
    thread_.join();
    line_.finish(count_());
}

void ProgressWatch::watch(const std::stop_token &stop) {
    std::unique_lock lock(mutex_);
    while (!ended_.wait_for(lock, stop, kDrawInterval, [] { return false; }) &&
           !stop.stop_requested()) {
        line_.update(count_());
    }
}

} // namespace pmi_cli
