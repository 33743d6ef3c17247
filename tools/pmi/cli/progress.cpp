// Drawing the line of progress: not too often, and a last time when it is over.
#include "cli/progress.h"

#include <algorithm>
#include <cstdio>

#include <fmt/format.h>
#include <unistd.h>

namespace pmi_cli {

namespace {

constexpr std::chrono::milliseconds kDrawInterval{100};

} // namespace

ProgressLine::ProgressLine() : on_terminal_(isatty(STDERR_FILENO) == 1) {}

bool ProgressLine::is_due() const {
    return on_terminal_ && Clock::now() >= next_draw_;
}

void ProgressLine::draw(std::string_view text, std::uint64_t num_objects) {
    if (!on_terminal_) {
        return;
    }
    const Clock::time_point now = Clock::now();
    const std::chrono::duration<double> elapsed = now - start_;
    const double rate = static_cast<double>(num_objects) / std::max(elapsed.count(), 1e-6);
    fmt::print(stderr, "\rpmi: {}, {:.0f}/s\033[K", text, rate);
    std::fflush(stderr);
    next_draw_ = now + kDrawInterval;
}

void ProgressLine::finish(std::string_view text, std::uint64_t num_objects) {
    draw(text, num_objects);
    if (on_terminal_) {
        fmt::print(stderr, "\n");
    }
}

} // namespace pmi_cli
