/* Requests as an invoker sends them, and the queries in them.
 *
 * parse_request() checks the bytes of a request and says which objects it selects: those of its
 * index terms, or of a query in the language of language.h. How the objects are found is the
 * engine's matter. */
#pragma once

#include <string>

#include "engine/selection.h"
#include "engine/types.h"

namespace store {

/* A request in terms of the store. */
struct InvokeOrder {
    OMRA_INDEX_HDR header{};
    Selection selection;
    bool is_singleton = false; /* one at a time may run on a host: its objects are not divided */
    std::uint32_t params_length = 0; /* bytes */

    bool is_invoke_once() const { return header.app_id == MGTI_APPID_INVOKE_ONCE; }
};

/* One index term of a request. */
struct Term {
    std::uint16_t index = 0;
    bool negated = false; /* matches the objects whose index is not the value, or that have none */
    OMRA_INDEX_VALUE value{};
};

/* The objects of an app id for which all of the terms hold, or any; without terms every object. */
Selection select_by_terms(std::uint32_t app_id, bool match_all, std::span<const Term> terms);

/* OMRALIB_ERR_BAD_ARGS for bytes that are no invoke request, or whose query is not as long as the
 * header says, OMRALIB_ERR_BAD_QUERY for a query that is not valid; `error_out` then says why. */
Status parse_request(Bytes request, InvokeOrder &order_out, std::string &error_out);

} // namespace store
