#include "fault_points.h"

#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <utility>

namespace faults {
namespace {

using interposer::Call;
using interposer::Verdict;

struct Armed {
    bool is_armed = false;
    bool one_worker = true;
    std::vector<Point> points;
    std::vector<std::string> started; // by point: the operation that it began with
    Seen seen;
};

// Worker threads outlive main, and so do the things that they use.
std::mutex &mutex = *new std::mutex;
Armed &armed = *new Armed; // guarded by mutex
thread_local std::string failed;

// What a call answers that fails; nothing for one that cannot.
std::optional<long> failure(const Call &call) {
    static const std::set<std::string_view> not_of_the_store = {"Sys_malloc", "Thread_fork",
                                                                "Thread_datap_set", "Lock_enter"};
    if (!call.is_store()) {
        return not_of_the_store.contains(call.name) ? std::optional<long>(0) : std::nullopt;
    }
    return call.name == "Omralib_init"       ? long{OMRALIB_ERR_CANT_INIT}
           : call.name == "Omralib_open_ext" ? long{OMRALIB_NULL_HANDLE}
                                             : connection_lost;
}

// Numbers the call; the mode in which it fails.
std::optional<Mode> next_call(const Call &call) {
    std::string operation(call.name);
    if (operation == "Sys_malloc") {
        const std::string text = call.text();
        operation.append(text, text.rfind(' ')); // its tag
    }
    armed.seen.num_calls += 1;
    armed.seen.num_store_calls += call.is_store() ? 1 : 0;
    for (std::size_t i = 0; i < armed.points.size(); ++i) {
        const auto &[number, mode, extent] = armed.points[i];
        std::string &started = armed.started[i];
        const unsigned int own_number = mode == Mode::refused ? armed.seen.num_calls
                                        : call.is_store()     ? armed.seen.num_store_calls
                                                              : 0;
        if (own_number == number) {
            started = operation;
        }
        const bool goes_on =
            extent == Extent::all || (extent == Extent::operation && started == operation);
        if (own_number == number || (own_number > number && goes_on)) {
            armed.seen.num_fired += 1;
            return mode;
        }
    }
    return {};
}

} // namespace

Verdict fail_by_number(const Call &call) {
    const std::optional<long> answer = failure(call);
    const std::lock_guard guard(mutex);
    const std::optional<Mode> mode = armed.is_armed && answer ? next_call(call) : std::nullopt;
    if (!mode) {
        return {};
    }
    failed = call.name;
    const bool is_done =
        *mode == Mode::reply_lost || (call.name == "Lock_enter" && !armed.one_worker);
    return {is_done ? Verdict::answer_lost : Verdict::refused, *answer};
}

std::string to_text(const std::vector<Point> &points) {
    std::ostringstream text;
    for (const auto &[number, mode, extent] : points) {
        text << (text.tellp() > 0 ? " " : "") << number << ' ' << static_cast<unsigned int>(mode)
             << ' ' << static_cast<unsigned int>(extent);
    }
    return text.str();
}

std::vector<Point> to_points(const std::string &text) {
    std::vector<Point> points;
    std::istringstream list(text);
    for (unsigned int number, mode, extent; list >> number >> mode >> extent;) {
        points.push_back({number, Mode{mode}, Extent{extent}});
    }
    return points;
}

void arm(const std::vector<Point> &points, bool one_worker) {
    const std::lock_guard guard(mutex);
    armed = {true, one_worker, points, std::vector<std::string>(points.size()), {}};
}

Seen disarm() {
    const std::lock_guard guard(mutex);
    armed.is_armed = false;
    return armed.seen;
}

std::string take_failed() {
    return std::exchange(failed, {});
}

} // namespace faults
