/* Reaching a cluster, and telling what is wrong with it. */
#include "rados/opening.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include <rados/librados.hpp>

#include "rados/rados_objects.h"
#include "rados/url.h"

namespace store {

namespace {

struct Setting {
    const char *name;
    const char *value;
};

/* A monitor that does not answer is told within seconds; an operation may wait for OSDs that are
 * being replaced, which takes up to half a minute. */
constexpr Setting settings[] = {
    {"client_mount_timeout", "5"},
    {"rados_mon_op_timeout", "5"},
    {"rados_osd_op_timeout", "60"},
};

/* While the engine is being opened: who cannot even do this within so long is told. */
constexpr const char *patience_at_the_door = "5";

std::string error_of(int answer) {
    return std::string(std::strerror(-answer)) + " (" + std::to_string(answer) + ")";
}

/* The reason why the cluster could not be reached. */
std::string why_not_connected(const RadosUrl &url, int answer) {
    const std::string user = "client." + (url.user.empty() ? "admin" : url.user);
    switch (answer) {
    case -ETIMEDOUT:
        return "no monitor of the cluster answers";
    case -EACCES:
    case -EPERM:
        return "the cluster refuses the key of " + user;
    case -ENOENT:
        return "there is no keyring with a key of " + user + " (or no monitor is named)";
    default:
        return "the cluster cannot be reached: " + error_of(answer);
    }
}

/* The reason why the pool could not be written to. */
std::string why_not_written(const RadosUrl &url, int answer) {
    switch (answer) {
    case -EPERM:
    case -EACCES:
        return "client." + (url.user.empty() ? "admin" : url.user) + " may not write to pool \"" +
               url.pool + "\": \"allow rwx pool=" + url.pool + "\" is needed";
    case -ENOSPC:
    case -EDQUOT:
        return "the cluster, or the quota of pool \"" + url.pool + "\", is full";
    case -ETIMEDOUT:
        return "the OSDs of pool \"" + url.pool + "\" do not answer";
    default:
        return "pool \"" + url.pool + "\" cannot be used: " + error_of(answer);
    }
}

int configure(librados::Rados &rados, const RadosUrl &url, std::string &why) {
    int answer = rados.init(url.user.empty() ? nullptr : url.user.c_str());
    if (answer == 0) {
        answer = rados.conf_read_file(url.conf.empty() ? nullptr : url.conf.c_str());
        why = "the configuration file " + (url.conf.empty() ? "of Ceph" : "\"" + url.conf + "\"") +
              " cannot be read: " + error_of(answer);
    }
    if (answer == 0 && !url.keyring.empty()) {
        answer = rados.conf_set("keyring", url.keyring.c_str());
    }
    for (const Setting &setting : settings) {
        if (answer == 0) {
            answer = rados.conf_set(setting.name, setting.value);
        }
    }
    return answer;
}

} // namespace

__attribute__((visibility("default"))) Status
OMRA_OPEN_RADOS_HERE(Clock &clock, const Configuration &configuration,
                     std::unique_ptr<LocalObjects> &objects_out, std::string &why_out) {
    RadosUrl url;
    std::string why;
    const auto refuse = [&](const std::string &reason) {
        why_out = "\"" + configuration.engine_url + "\" cannot be opened: " + reason;
        return OMRALIB_ERR_CANT_INIT;
    };
    if (!parse_rados_url(configuration.engine_url, url, why)) {
        return refuse(why);
    }
    if (configuration.memory_limit != no_memory_limit) {
        return refuse("memory_limit has no meaning for a cluster: set a quota for the pool");
    }
    auto rados = std::make_unique<librados::Rados>();
    int answer = configure(*rados, url, why);
    if (answer != 0) {
        return refuse(why);
    }
    rados->conf_set("rados_osd_op_timeout", patience_at_the_door);
    answer = rados->connect();
    if (answer != 0) {
        return refuse(why_not_connected(url, answer));
    }
    auto io = std::make_unique<librados::IoCtx>();
    answer = rados->ioctx_create(url.pool.c_str(), *io);
    if (answer == -ENOENT) {
        return refuse("there is no pool \"" + url.pool + "\"");
    }
    if (answer != 0) {
        return refuse(why_not_written(url, answer));
    }
    io->set_namespace(url.name_space);
    io->set_pool_full_try(); /* a full pool is told at once, and removing works */
    Pool pool(std::move(rados), std::move(io));
    answer = pool.settle_buckets(url.buckets != 0 ? url.buckets : default_buckets);
    if (answer != 0) {
        return refuse(why_not_written(url, answer));
    }
    if (url.buckets != 0 && url.buckets != pool.num_buckets()) {
        return refuse("its objects lie in " + std::to_string(pool.num_buckets()) +
                      " buckets, not in " + std::to_string(url.buckets));
    }
    objects_out = std::make_unique<RadosObjects>(clock, configuration, std::move(pool));
    return OMRALIB_RET_SUCCESS;
}

} // namespace store
