// A plug-in whose functions steer the run that they are part of: they wait for a host to be lost,
// or interrupt the program. The result is all objects, sorted: one that is lost or counted twice
// shows.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>
#include <vector>

#include <unistd.h>

#include "pmi_plugin.hpp"
#include "storapp.h"

namespace {

std::string line(const pmi::Object &object) {
    return std::string(object.data) + "\n";
}

// The first objects are evaluated at once, all others when a host's request has gone to another.
std::string line_after_loss(const pmi::Object &object) {
    static std::atomic<int> num_calls = 0;
    OMRALIB_STATS stats{};
    if (++num_calls > 10) {
        while (Omralib_get_stats(&stats) == OMRALIB_RET_SUCCESS && stats.num_retries == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return line(object);
}

void interrupt(const pmi::Object &) {
    static std::atomic_flag interrupted;
    if (!interrupted.test_and_set()) {
        std::raise(SIGINT);
    }
    for (;;) {
        pause();
    }
}

std::string unite(std::string_view into, std::string_view from) {
    std::vector<std::string_view> lines;
    for (std::string_view rest : {into, from}) {
        while (!rest.empty()) {
            lines.push_back(rest.substr(0, rest.find('\n') + 1));
            rest.remove_prefix(lines.back().size());
        }
    }
    std::sort(lines.begin(), lines.end());
    std::string united;
    for (const std::string_view one : lines) {
        united += one;
    }
    return united;
}

} // namespace

PMI_PLUGIN(plugin) {
    plugin.eval<line>(0, "line", "The object");
    plugin.eval<line_after_loss>(1, "line_after_loss", "The object, once a host is lost");
    plugin.eval<interrupt>(2, "interrupt", "Interrupts the program and never returns");
    plugin.merge<unite>(3, "unite", "Sorts the objects");
}
