// Progress on a terminal: one line on standard error that is drawn anew, with a rate. When standard
// error is no terminal, nothing is ever drawn.
#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>

namespace pmi_cli {

// One line of progress. Used by one thread.
class ProgressLine {
public:
    ProgressLine();

    // Whether there is a terminal and the last drawing is a tenth of a second old.
    bool is_due() const;
    // Draws `text` and the rate at which `num_objects` came; nothing without a terminal.
    void draw(std::string_view text, std::uint64_t num_objects);
    // Draws for the last time and ends the line.
    void finish(std::string_view text, std::uint64_t num_objects);

private:
    using Clock = std::chrono::steady_clock;
    const bool on_terminal_;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point next_draw_ = start_;
};

} // namespace pmi_cli
