/* What failed: the exceptions objects of an invocation's requests, put one after the other. */
#pragma once

#include <cstdint>
#include <vector>

#include "invocation/temp_objects.h"

namespace store {

/* Makes one object of the exceptions objects among `keys`, in their order, and removes the others;
 * `key_out` is null when there are none. When there is no room for them all, the first one stays as
 * it is and the rest are given up: how many objects have failed is known without them.
 * OMRALIB_ERR_UNKNOWN when it cannot be known which there are; they stay. */
Status join_exceptions(TempObjects &objects, const std::vector<Key> &keys, std::uint32_t timeout_m,
                       Key &key_out);

} // namespace store
