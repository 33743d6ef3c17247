/* What an invocation leaves: the exceptions of its requests, put one after the other. */
#pragma once

#include <cstdint>
#include <vector>

#include "invocation/temp_objects.h"

namespace store {

/* Makes one object of the exceptions objects among `keys`, in their order, and removes the others;
 * a null key when there are none. When there is no room for them all, the first one stays as it is
 * and the rest are given up: how many objects have failed is known without them. */
Key join_exceptions(TempObjects &objects, const std::vector<Key> &keys, std::uint32_t timeout_m);

} // namespace store
