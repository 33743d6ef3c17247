/* The one place that knows which engines there are. */
#include "embedded/embedded_cluster.h"
#include "embedded/embedded_objects.h"
#include "engine/engine.h"

namespace store {

namespace {

Engine make_embedded(Clock &clock, const Configuration &configuration) {
    auto objects = std::make_unique<EmbeddedObjects>(clock, configuration);
    auto cluster = std::make_unique<EmbeddedCluster>(*objects, configuration.num_hosts);
    return {std::move(objects), std::move(cluster)};
}

constexpr EngineKind kinds[] = {
    {"embedded:", make_embedded},
};

} // namespace

std::span<const EngineKind> engine_kinds() {
    return kinds;
}

} // namespace store
