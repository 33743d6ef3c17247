/* How the store of a process is set up: what OMRALIB_CONFIG and the environment ask for, checked
 * and with every default filled in. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "engine/contracts.h"
#include "engine/types.h"

namespace store {

inline constexpr std::uint64_t no_memory_limit = UINT64_MAX;

struct Configuration {
    std::string engine_url = {};
    std::uint32_t num_hosts = 1;
    std::uint32_t max_invocations = 64;
    Millis lock_lease = 60 * millis_per_second;
    std::uint64_t memory_limit = no_memory_limit;
};

/* Whether there is an engine for a URL, or the reason in `why_out`. */
using UrlCheck = bool (*)(std::string_view url, std::string &why_out);

/* The configuration that `given` asks for; `url_from_environment` (NULL: none) counts where `given`
 * names no engine, and `default_url` where neither does. OMRALIB_ERR_BAD_ARGS and the reason in
 * `why_out` for what is not allowed. */
Status read_configuration(const OMRALIB_CONFIG &given, const char *url_from_environment,
                          std::string_view default_url, UrlCheck is_known,
                          Configuration &configuration_out, std::string &why_out);

} // namespace store
