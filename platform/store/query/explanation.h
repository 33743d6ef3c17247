/* How a query would be answered, in lines of text for people. */
#pragma once

#include <cstdint>
#include <string>

#include "engine/objects.h"

namespace store {

/* Lines of text about how the objects of a pass-through query (none: all objects) would be found.
 * Errors as of parse_request() in request.h. */
Status explain_query(Objects &objects, std::uint32_t app_id, Bytes query, std::string &text_out,
                     std::string &error_out);

} // namespace store
