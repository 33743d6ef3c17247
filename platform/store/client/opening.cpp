/* What opening takes is never destroyed: threads may still use the store while the process exits.
 */
#include "client/opening.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <utility>

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

bool is_known(std::string_view url, std::string &why_out) {
    if (const EngineKind *kind = kind_of(url)) {
        return kind->understands(url, why_out);
    }
    why_out = "no such engine; there is";
    for (const EngineKind &kind : engine_kinds()) {
        why_out.append(" \"").append(kind.scheme).append("\"");
    }
    return false;
}

Status read(const OMRALIB_CONFIG &given, Configuration &configuration_out, std::string &why_out) {
    return read_configuration(given, std::getenv("OMRA_STORE"), engine_kinds().front().scheme,
                              is_known, configuration_out, why_out);
}

/* What the environment asks for is the user's, not the program's, which may have nothing to say
 * about it: so the reason goes to standard error too, once. */
void complain(Opening &open, const std::string &why) ABSL_EXCLUSIVE_LOCKS_REQUIRED(open.lock) {
    if (!open.complained) {
        std::fprintf(stderr, "store: %s\n", why.c_str());
        open.complained = true;
    }
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
        Status status = OMRALIB_RET_SUCCESS;
        if (open.configured) {
            configuration = *open.configured;
        } else {
            status = read({}, configuration, why_out);
        }
        Engine engine;
        if (status == OMRALIB_RET_SUCCESS) {
            status =
                kind_of(configuration.engine_url)->make(open.clock, configuration, engine, why_out);
        }
        if (status != OMRALIB_RET_SUCCESS) {
            if (!open.configured) {
                complain(open, why_out);
            }
            return nullptr;
        }
        return new Store(std::move(engine), open.clock, configuration);
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
