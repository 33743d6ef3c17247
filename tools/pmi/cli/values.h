// The values of options that have a syntax of their own. All functions throw UsageError, which says
// what was given and what is allowed.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "cli/options.h"

namespace pmi_cli {

// N=TEXT of `option`; what TEXT is, `value_name` says.
IndexText parse_index(std::string_view option, const std::string &argument,
                      std::string_view value_name);

// A number of bytes, also with K, M or G behind it.
std::uint64_t parse_size(const std::string &argument);

// N@P%.
LostHost parse_lost_host(const std::string &argument, unsigned int num_hosts);

} // namespace pmi_cli
