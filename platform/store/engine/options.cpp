/* Checking what is asked for, value by value. */
#include "engine/options.h"

namespace store {

namespace {

constexpr std::uint32_t max_hosts = 64;
constexpr std::uint32_t max_lease_s = 24 * 60 * 60;
constexpr std::uint32_t max_invocations_at_once = 65536;

/* Writes `value` to `setting`, or leaves the default there for 0. False, and the reason in `why`,
 * when it is above `limit`. */
bool take(const char *name, std::uint32_t value, std::uint32_t limit, std::uint32_t &setting,
          std::string &why) {
    if (value > limit) {
        why = std::string(name) + " is " + std::to_string(value) + ": 1 to " +
              std::to_string(limit) + " are allowed, and 0 for the default";
        return false;
    }
    if (value != 0) {
        setting = value;
    }
    return true;
}

bool take_url(const OMRALIB_CONFIG &given, const char *url_from_environment,
              std::string_view default_url, UrlCheck is_known, std::string &setting,
              std::string &why) {
    const char *url = given.engine_url;
    const char *origin = "engine_url";
    if (url == nullptr) {
        url = url_from_environment;
        origin = "the environment variable OMRA_STORE";
    }
    setting = url != nullptr ? std::string_view(url) : default_url;
    std::string reason;
    if (is_known(setting, reason)) {
        return true;
    }
    why = std::string(origin) + " is \"" + setting + "\": " + reason;
    return false;
}

} // namespace

Status read_configuration(const OMRALIB_CONFIG &given, const char *url_from_environment,
                          std::string_view default_url, UrlCheck is_known,
                          Configuration &configuration_out, std::string &why_out) {
    Configuration configuration;
    auto lease_s = static_cast<std::uint32_t>(configuration.lock_lease / millis_per_second);
    if (!take_url(given, url_from_environment, default_url, is_known, configuration.engine_url,
                  why_out) ||
        !take("num_hosts", given.num_hosts, max_hosts, configuration.num_hosts, why_out) ||
        !take("lock_lease_s", given.lock_lease_s, max_lease_s, lease_s, why_out) ||
        !take("max_invocations", given.max_invocations, max_invocations_at_once,
              configuration.max_invocations, why_out)) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    configuration.lock_lease = lease_s * millis_per_second;
    if (given.memory_limit != 0) {
        configuration.memory_limit = given.memory_limit;
    }
    configuration_out = std::move(configuration);
    return OMRALIB_RET_SUCCESS;
}

} // namespace store
