/* Requests as an invoker sends them, and the queries in them.
 *
 * parse_request() checks the bytes of a request and says which objects it selects. How the objects
 * are found is the engine's matter. */
#pragma once

#include "engine.h"

namespace store {

/* A request in terms of the store. */
struct InvokeOrder {
    OMRA_INDEX_HDR header{};
    Selection selection;

    bool is_invoke_once() const { return header.app_id == MGTI_APPID_INVOKE_ONCE; }
};

/* OMRALIB_ERR_BAD_ARGS for bytes that are no invoke request at all, OMRALIB_ERR_BAD_QUERY for a
 * request whose query is not valid. */
Status parse_request(Bytes request, InvokeOrder &order_out);

} // namespace store
