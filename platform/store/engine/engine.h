/* An engine: something that keeps objects and something that reaches hosts, which may be two
 * different things. */
#pragma once

#include <memory>
#include <span>
#include <string_view>

#include "engine/cluster.h"
#include "engine/objects.h"
#include "engine/options.h"

namespace store {

struct Engine {
    std::unique_ptr<Objects> objects; /* outlives the cluster, which may use it */
    std::unique_ptr<Cluster> cluster;
};

struct EngineKind {
    std::string_view scheme; /* what the URLs begin with by which it is asked for */

    /* Whether a URL of this scheme can be understood, or the reason in `why_out`. Asks nobody. */
    bool (*understands)(std::string_view url, std::string &why_out);

    /* OMRALIB_ERR_CANT_INIT when the engine cannot be had, with the reason in `why_out`. `clock`
     * outlives it. */
    Status (*make)(Clock &clock, const Configuration &configuration, Engine &engine_out,
                   std::string &why_out);
};

/* Those that this build has; the first is the default. */
std::span<const EngineKind> engine_kinds();

/* The one that a URL asks for; nullptr: none. */
const EngineKind *kind_of(std::string_view url);

} // namespace store
