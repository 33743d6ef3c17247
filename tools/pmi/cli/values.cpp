// Taking values apart.
#include "cli/values.h"

#include <charconv>
#include <limits>

#include <fmt/format.h>

#include "cli/error.h"
#include "storkey.h"

namespace pmi_cli {

IndexText parse_index(std::string_view option, const std::string &argument,
                      std::string_view value_name) {
    const auto fail = [&](std::string_view what) {
        throw UsageError(fmt::format("{} {}: {}", option, argument, what));
    };
    IndexText parsed{0, "", argument};
    const std::size_t equals = argument.find('=');
    if (equals == std::string::npos) {
        fail(fmt::format("expected N={}, with N from 0 to 7", value_name));
    }
    const char *end = argument.data() + equals;
    const auto [ptr, error] = std::from_chars(argument.data(), end, parsed.index);
    if (error != std::errc{} || ptr != end || parsed.index >= OMRA_NUM_INDEXES) {
        fail(fmt::format("'{}' is no index; allowed are 0 to 7", argument.substr(0, equals)));
    }
    parsed.text = argument.substr(equals + 1);
    return parsed;
}

std::uint64_t parse_size(const std::string &argument) {
    constexpr std::string_view kUnits = "KMG"; // each 1024 of the one before
    std::uint64_t size = 0;
    const char *end = argument.data() + argument.size();
    const auto [ptr, error] = std::from_chars(argument.data(), end, size);
    const std::string_view unit(ptr, end);
    const std::size_t exponent = unit.empty() ? 0 : kUnits.find(unit) + 1; // 0 for one unknown
    const bool known = unit.empty() || (unit.size() == 1 && exponent != 0);
    const std::uint64_t max = std::numeric_limits<std::uint64_t>::max() >> (10 * exponent);
    if (error != std::errc{} || !known || size == 0 || size > max) {
        throw UsageError(fmt::format("--memory-limit {}: expected a number of bytes above 0, also "
                                     "with K, M or G behind it",
                                     argument));
    }
    return size << (10 * exponent);
}

LostHost parse_lost_host(const std::string &argument, unsigned int num_hosts) {
    LostHost lost{};
    const char *end = argument.data() + argument.size();
    const auto host = std::from_chars(argument.data(), end, lost.host);
    const bool at = host.ec == std::errc{} && host.ptr != end && *host.ptr == '@';
    const auto percent =
        at ? std::from_chars(host.ptr + 1, end, lost.percent) : std::from_chars_result{};
    if (!at || percent.ec != std::errc{} || std::string_view(percent.ptr, end) != "%" ||
        lost.percent > 100) {
        throw UsageError(
            fmt::format("--lose-host {}: expected N@P%, with P from 0 to 100", argument));
    }
    if (lost.host == 0 || lost.host > num_hosts) {
        throw UsageError(fmt::format("--lose-host {}: there is no host {}; with --hosts {} there "
                                     "are 1 to {}",
                                     argument, lost.host, num_hosts, num_hosts));
    }
    return lost;
}

} // namespace pmi_cli
