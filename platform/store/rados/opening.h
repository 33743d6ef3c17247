/* Opening the engine over a Ceph cluster: its URL, and everything that can be wrong at the door.
 *
 *   rados:POOL[/NAMESPACE][?conf=FILE&user=NAME&keyring=FILE&buckets=N]
 *
 * The engine is a library of its own, which is loaded when it is asked for: who keeps objects in
 * memory neither needs librados nor loads it. What is here belongs to the store but for
 * the function at the end, which is that library's. */
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "engine/local_objects.h"
#include "engine/options.h"

namespace store {

inline constexpr std::string_view rados_scheme = "rados:";

/* Whether the URL can be understood, or the reason in `why_out`. */
bool rados_understands(std::string_view url, std::string &why_out);

/* Reaches the cluster, writes to the pool to see whether it may, and reads how its objects are laid
 * out. Takes some 10 seconds at most. OMRALIB_ERR_CANT_INIT and the reason in `why_out` when it
 * fails. */
using OpenRados = Status(Clock &clock, const Configuration &configuration,
                         std::unique_ptr<LocalObjects> &objects_out, std::string &why_out);

/* Loads the library and opens the engine. */
OpenRados open_rados;

/* The number changes whenever a header that both sides include does, so that no library of another
 * version is taken for this one. */
#define OMRA_OPEN_RADOS_HERE omra_open_rados_1
#define OMRA_RADOS_LIBRARY "libstorlib_rados.so"

extern "C" OpenRados OMRA_OPEN_RADOS_HERE;

} // namespace store
