/* The window follows the rate. */
#include "serving/pace.h"

#include <algorithm>

namespace store {

namespace {

constexpr std::size_t first_window = 64;
constexpr std::size_t max_window = 8192;
constexpr std::size_t large_chunk = 256;
constexpr std::size_t params_per_object = 256; /* bytes that cost a trivial eval's time, or less */
constexpr Millis ahead = 10;                   /* of evaluation */
constexpr Millis long_enough = 5;              /* to tell a rate */

} // namespace

Pace::Pace(std::uint32_t known_window, std::uint32_t params_length)
    : max_chunk_(std::max<std::size_t>(large_chunk, params_length / params_per_object)),
      window_(known_window != 0 ? std::min<std::size_t>(known_window, max_window) : first_window) {}

std::size_t Pace::window(std::size_t num_readers) const {
    return std::max({window_, 2 * num_readers, std::size_t{4}});
}

/* A few chunks on their way keep everyone busy; many small ones cost more than they spread. */
std::size_t Pace::chunk_size(std::size_t num_readers) const {
    constexpr std::size_t few = 4;
    return std::clamp(window(num_readers) / few, std::size_t{1}, max_chunk_);
}

void Pace::note_done(std::size_t num_objects, Millis now) {
    num_done_ += num_objects;
    const Millis duration = now - began_at_;
    if (duration >= long_enough) {
        const auto ms = static_cast<std::size_t>(duration);
        window_ = std::clamp(num_done_ * ahead / ms, std::size_t{1}, max_window);
    } else if (num_done_ >= window_) {
        window_ = std::min(2 * window_, max_window);
    } else {
        return;
    }
    num_done_ = 0;
    began_at_ = now;
}

} // namespace store
