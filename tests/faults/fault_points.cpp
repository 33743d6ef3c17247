#include "fault_points.h"

#include "storapp.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace faults {
namespace {

using interposer::Call;
using interposer::Verdict;

struct Armed {
    std::vector<Point> points;
    std::vector<std::string> started; // by point: the operation that it began with
    Seen seen;
    bool one_worker = true;
};

// Worker threads outlive main, and so do the things that they use.
std::mutex &mutex = *new std::mutex;
Armed &armed = *new Armed; // guarded by mutex
std::atomic<bool> is_armed{false};
thread_local std::string failed;

constexpr std::array<std::string_view, 5> mode_names = {"refused", "reply_lost", "host_1_dies",
                                                        "host_2_dies", "host_3_dies"};
constexpr std::array<std::string_view, 3> extent_names = {"once", "operation", "all"};

std::size_t index(auto value) {
    return static_cast<std::size_t>(value);
}

template <class Value>
Value find(const auto &names, const std::string &name) {
    const auto found = std::ranges::find(names, name);
    if (found == names.end()) {
        throw std::invalid_argument(name);
    }
    return static_cast<Value>(found - names.begin());
}

// What a call answers that fails; nothing for one that cannot.
std::optional<long> failure(const Call &call) {
    static const std::map<std::string_view, long> own = {
        {"Omralib_init", OMRALIB_ERR_CANT_INIT},
        {"Omralib_open_ext", OMRALIB_NULL_HANDLE},
        {"Sys_malloc", 0},
        {"Thread_fork", NULLTHREADID},
        {"Thread_datap_set", 0},
        {"Lock_enter", 0},
    };
    const auto found = own.find(call.name);
    return found != own.end() ? std::optional(found->second)
           : call.is_store()  ? std::optional<long>(connection_lost)
                              : std::nullopt;
}

// Numbers the call; the mode in which it fails.
std::optional<Mode> next_call(const Call &call) {
    std::string operation(call.name);
    if (call.name == "Sys_malloc") {
        operation.append(" ").append(std::to_string(call.number));
    }
    armed.seen.num_calls += 1;
    armed.seen.num_store_calls += call.is_store() ? 1 : 0;
    for (std::size_t i = 0; i < armed.points.size(); ++i) {
        const auto &[number, mode, extent] = armed.points[i];
        std::string &started = armed.started[i];
        const unsigned int own_number =
            mode == Mode::refused ? armed.seen.num_calls : armed.seen.num_store_calls;
        if (mode != Mode::refused && !call.is_store()) {
            continue;
        }
        if (own_number == number) {
            started = operation;
        }
        if (own_number == number ||
            (own_number > number &&
             (extent == Extent::all || (extent == Extent::operation && started == operation)))) {
            armed.seen.num_fired += 1;
            return mode;
        }
    }
    return {};
}

} // namespace

Verdict fail_by_number(const Call &call) {
    const std::optional<long> answer = failure(call);
    if (!is_armed.load(std::memory_order_acquire) || !answer) {
        return {};
    }
    const std::lock_guard guard(mutex);
    const std::optional<Mode> mode = next_call(call);
    if (mode && *mode <= Mode::reply_lost) {
        failed = call.name;
    }
    if (mode == Mode::refused && (call.name != "Lock_enter" || armed.one_worker)) {
        return {Verdict::refused, *answer};
    }
    if (mode == Mode::refused || mode == Mode::reply_lost) {
        return {Verdict::answer_lost, *answer};
    }
    if (mode) {
        const auto host =
            static_cast<unsigned int>(*mode) - static_cast<unsigned int>(Mode::host_1_dies) + 1;
        return {Verdict::carried_out, 0, [host] { Omralib_declare_host_gone(host); }};
    }
    return {};
}

std::string to_text(const std::vector<Point> &points) {
    std::ostringstream text;
    for (const auto &[number, mode, extent] : points) {
        text << (text.tellp() > 0 ? "," : "") << number << ':' << mode_names.at(index(mode)) << ':'
             << extent_names.at(index(extent));
    }
    return text.str();
}

std::vector<Point> to_points(const std::string &text) {
    std::vector<Point> points;
    std::istringstream list(text);
    for (std::string number, mode, extent; std::getline(list, number, ':') &&
                                           std::getline(list, mode, ':') &&
                                           std::getline(list, extent, ',');) {
        points.push_back({static_cast<unsigned int>(std::stoul(number)),
                          find<Mode>(mode_names, mode), find<Extent>(extent_names, extent)});
    }
    return points;
}

void arm(const std::vector<Point> &points, bool one_worker) {
    const std::lock_guard guard(mutex);
    armed = {points, std::vector<std::string>(points.size()), {}, one_worker};
    is_armed.store(true, std::memory_order_release);
}

Seen disarm() {
    const std::lock_guard guard(mutex);
    is_armed.store(false, std::memory_order_release);
    return armed.seen;
}

std::string take_failed() {
    return std::exchange(failed, {});
}

} // namespace faults
