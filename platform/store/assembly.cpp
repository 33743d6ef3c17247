/* The one place that knows which engines there are. */
#include "embedded/embedded_objects.h"
#include "engine/engine.h"
#include "local/local_cluster.h"
#include "rados/opening.h"

namespace store {

namespace {

constexpr std::string_view embedded_scheme = "embedded:";

bool embedded_understands(std::string_view url, std::string &why_out) {
    if (url != embedded_scheme) {
        why_out = "\"embedded:\" stands alone";
        return false;
    }
    return true;
}

/* The hosts of any engine whose objects are local. */
Engine with_local_hosts(std::unique_ptr<LocalObjects> objects, std::uint32_t num_hosts) {
    auto cluster = std::make_unique<LocalCluster>(*objects, num_hosts);
    return {std::move(objects), std::move(cluster)};
}

Status make_embedded(Clock &clock, const Configuration &configuration, Engine &engine_out,
                     std::string &) {
    engine_out = with_local_hosts(std::make_unique<EmbeddedObjects>(clock, configuration),
                                  configuration.num_hosts);
    return OMRALIB_RET_SUCCESS;
}

Status make_rados(Clock &clock, const Configuration &configuration, Engine &engine_out,
                  std::string &why_out) {
    std::unique_ptr<LocalObjects> objects;
    const Status status = open_rados(clock, configuration, objects, why_out);
    if (status == OMRALIB_RET_SUCCESS) {
        engine_out = with_local_hosts(std::move(objects), configuration.num_hosts);
    }
    return status;
}

constexpr EngineKind kinds[] = {
    {embedded_scheme, embedded_understands, make_embedded},
    {rados_scheme, rados_understands, make_rados},
};

} // namespace

std::span<const EngineKind> engine_kinds() {
    return kinds;
}

const EngineKind *kind_of(std::string_view url) {
    for (const EngineKind &kind : kinds) {
        if (url.starts_with(kind.scheme)) {
            return &kind;
        }
    }
    return nullptr;
}

} // namespace store
