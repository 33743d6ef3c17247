// The plug-in of these tests: user functions that return and throw whatever there is, and that
// steer the run that they are part of. The environment's FAULT names what is wrong with it: it must
// be refused, or, "bare", offers no printer and no texts.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <thread>

#include <unistd.h>

#include "pmi_plugin.hpp"
#include "storapp.h"

namespace {

std::string give(std::size_t number) {
    return {reinterpret_cast<const char *>(&number), sizeof number};
}

std::size_t take(std::string_view bytes) {
    std::size_t number = 0;
    std::memcpy(&number, bytes.data(), sizeof number);
    return number;
}

std::string length(const pmi::Object &object) {
    if (object.data.starts_with('f')) {
        throw pmi::Failure(7);
    }
    return give(object.data.size() + object.params.size());
}

std::string once(const pmi::Object &object) {
    return give(1000 + object.params.size());
}

std::string line(const pmi::Object &object) {
    return std::string(object.data) + "\n";
}

// Objects a to f come to every end that there is.
std::optional<std::string> throwing(const pmi::Object &object) {
    switch (object.data.front()) {
    case 'a':
        throw pmi::Failure(5);
    case 'b':
        throw 42;
    case 'c':
        throw std::bad_alloc();
    case 'd':
        throw pmi::Failure(0);
    case 'e':
        return std::nullopt;
    default:
        return std::string(object.data);
    }
}

void nothing(const pmi::Object &) {}

void park(const pmi::Object &object) {
    static std::atomic_flag interrupted;
    if (object.params == "interrupt" && !interrupted.test_and_set()) {
        std::raise(SIGINT);
    }
    for (;;) {
        pause();
    }
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

void sum(std::span<char> into, std::string_view from) {
    const std::string merged = give(take({into.data(), into.size()}) + take(from));
    std::copy(merged.begin(), merged.end(), into.begin());
}

void refuse(std::span<char>, std::string_view) {
    throw pmi::Failure(9);
}

// Keeps one of two equal results, in place; others break the rule that a result has bytes.
std::optional<std::string> same(std::span<char> into, std::string_view from) {
    return std::ranges::equal(into, from) ? std::nullopt : std::optional<std::string>("");
}

// Lines of five bytes, sorted: one that is lost or counted twice shows.
std::string unite(std::string_view into, std::string_view from) {
    std::string united = std::string(into) + std::string(from);
    auto *const lines = reinterpret_cast<std::array<char, 5> *>(united.data());
    std::sort(lines, lines + united.size() / lines->size());
    return united;
}

// Offers a table of numbers and nothing else.
std::string print(const pmi::Result &result) {
    if (result.json() || result.data().size() != sizeof(std::size_t)) {
        throw pmi::Failure(1);
    }
    if (result.params() == "name") { // of the first object, whose time-out is not renewed
        return std::string(result.object_name({1 | OMRA_APPID_NO_RENEW, 0, 0, 0, {{1}}, {}})) +
               "\n";
    }
    return "total " + std::to_string(take(result.data())) + "\n";
}

const char *code_text(int code) {
    return code == 7 ? "the object starts with f" : nullptr;
}

void add_all(pmi::Plugin &plugin) {
    plugin.eval<length>(0, "length", "The length of an object and of the parameters");
    plugin.merge<sum>(1, "sum", "Adds lengths");
    plugin.invoke_once<once>(2, "once", "1000 and the length of the parameters");
    plugin.eval<line>(4, "line", "The object and a newline");
    plugin.eval<line_after_loss>(5, "line_after_loss", "The same, once a host is lost");
    plugin.eval<throwing>(6, "throwing", "Throws by the first letter");
    plugin.eval<nothing>(7, "nothing", "No result");
    plugin.eval<park>(8, "park", "Never returns, and may interrupt the program");
    plugin.merge<refuse>(10, "refuse", "Always fails");
    plugin.merge<same>(11, "same", "One of two that are equal");
    plugin.merge<unite>(63, "unite", "Sorts the lines");
}

} // namespace

int pmi_plugin_register(PMI_REGISTRAR *preg) {
    pmi::Plugin plugin(*preg);
    const char *const variable = std::getenv("FAULT");
    const std::string_view fault = variable != nullptr ? variable : "";
    if (fault.empty()) {
        plugin.printer<print>();
        plugin.code_text(code_text);
    }
    if (fault.empty() || fault == "bare") {
        add_all(plugin);
    } else if (fault == "same id") {
        plugin.eval<line>(5, "first", "");
        plugin.invoke_once<once>(5, "second", "");
    } else if (fault == "same name") {
        plugin.eval<line>(5, "first", "");
        plugin.eval<line>(6, "first", "");
    } else if (fault == "id 64") {
        plugin.eval<line>(64, "first", "");
    } else if (fault == "null function") {
        preg->add_merge(preg, 6, "first", "", nullptr);
    } else if (fault == "no merge") {
        plugin.eval<line>(0, "line", "");
    }
    return fault == "other version" ? 99 : int{PMI_PLUGIN_ABI};
}
