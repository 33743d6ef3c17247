/* What opening takes is never destroyed: threads may still use the store while the process exits.
 */
#include "client/opening.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>

namespace store {

namespace {

struct Opening {
    SystemClock clock;

    Mutex lock;
    std::optional<Configuration> configured ABSL_GUARDED_BY(lock); /* by configure_store() */
    bool complained ABSL_GUARDED_BY(lock) = false;
};

Opening &opening() {
    static auto *one = new Opening;
    return *one;
}

std::vector<std::string_view> engine_urls() {
    std::vector<std::string_view> urls;
    for (const EngineKind &kind : engine_kinds()) {
        urls.push_back(kind.url);
    }
    return urls;
}

Status read(const OMRALIB_CONFIG &given, Configuration &configuration_out, std::string &why_out) {
    return read_configuration(given, std::getenv("OMRA_STORE"), engine_urls(), configuration_out,
                              why_out);
}

/* Of an engine whose URL has been checked. */
Engine make_engine(Clock &clock, const Configuration &configuration) {
    const EngineKind *chosen = nullptr;
    for (const EngineKind &kind : engine_kinds()) {
        if (kind.url == configuration.engine_url) {
            chosen = &kind;
        }
    }
    return chosen->make(clock, configuration);
}

} // namespace

Store *open_store(std::string &why_out) {
    if (Store *store = Store::current()) {
        return store;
    }
    try {
        Opening &open = opening();
        const Guard guard(open.lock);
        if (Store *store = Store::current()) {
            return store;
        }
        Configuration configuration;
        if (open.configured) {
            configuration = *open.configured;
        } else if (read({}, configuration, why_out) != OMRALIB_RET_SUCCESS) {
            /* The environment is the user's, not the program's, which may have nothing to say about
             * it: so the reason goes to standard error too, once. */
            if (!open.complained) {
                std::fprintf(stderr, "store: %s\n", why_out.c_str());
                open.complained = true;
            }
            return nullptr;
        }
        return new Store(make_engine(open.clock, configuration), open.clock, configuration);
    } catch (const std::exception &) {
        return nullptr;
    }
}

Status configure_store(const OMRALIB_CONFIG &given, std::string &why_out) {
    Opening &open = opening();
    const Guard guard(open.lock);
    if (Store::current() != nullptr) {
        why_out = "the store is in use already: it can be configured before its first use only";
        return OMRALIB_ERR_CANT_INIT;
    }
    Configuration configuration;
    const Status status = read(given, configuration, why_out);
    if (status == OMRALIB_RET_SUCCESS) {
        open.configured = std::move(configuration);
    }
    return status;
}

} // namespace store
