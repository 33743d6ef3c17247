// A plug-in in C++ whose functions return every kind of result and throw whatever can be thrown. It
// has no printer.
#include <stdexcept>
#include <vector>

#include "pmi_plugin.hpp"

namespace {

std::vector<std::byte> copy(const pmi::Object &object) {
    return {object.bytes().begin(), object.bytes().end()};
}

std::optional<std::string> throwing(const pmi::Object &object) {
    switch (object.data.front()) {
    case 'a':
        throw pmi::Failure(5);
    case 'b':
        throw std::runtime_error("unexpected");
    case 'c':
        throw 42;
    case 'd':
        throw std::bad_alloc();
    case 'e':
        throw pmi::Failure(0);
    case 'f':
        return std::nullopt;
    default:
        return std::string(object.data);
    }
}

void nothing(const pmi::Object &) {}

std::string append(std::string_view into, std::string_view from) {
    return std::string(into) + std::string(from);
}

// Keeps the smaller one: in place while the lengths agree, else anew.
std::optional<std::string> smaller(std::span<char> into, std::string_view from) {
    const std::string_view old(into.data(), into.size());
    if (from >= old) {
        return std::nullopt;
    }
    if (from.size() != old.size()) {
        return std::string(from);
    }
    std::memcpy(into.data(), from.data(), from.size());
    return std::nullopt;
}

void exclusive_or(std::span<char> into, std::string_view from) {
    for (std::size_t i = 0; i < std::min(into.size(), from.size()); ++i) {
        into[i] = static_cast<char>(into[i] ^ from[i]);
    }
}

std::string empty(std::string_view, std::string_view) {
    return {};
}

} // namespace

PMI_PLUGIN(plugin) {
    plugin.eval<copy>(0, "copy", "The object itself");
    plugin.eval<throwing>(1, "throwing", "Throws by the first letter");
    plugin.eval<nothing>(2, "nothing", "No result");
    plugin.merge<append>(3, "append", "Puts both together");
    plugin.merge<smaller>(4, "smaller", "The smaller one");
    plugin.merge<exclusive_or>(5, "xor", "In place");
    plugin.merge<empty>(6, "empty", "Breaks the rules");
}
