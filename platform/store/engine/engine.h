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
    std::string_view url; /* by which it is asked for */

    /* `clock` outlives the engine. */
    Engine (*make)(Clock &clock, const Configuration &configuration);
};

/* Those that this build has; the first is the default. */
std::span<const EngineKind> engine_kinds();

} // namespace store
