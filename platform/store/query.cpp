#include "query.h"

#include <cstring>

namespace store {

namespace {

constexpr std::size_t header_bytes = sizeof(OMRA_INDEX_HDR);
constexpr std::uint32_t max_terms = OMRA_NUM_INDEXES;

/* Index terms: as many as the header says, and nothing behind them. */
Status parse_terms(Bytes query, const OMRA_INDEX_HDR &header, Selection &selection) {
    if (header.reserved1 > 1 || header.num_index > max_terms ||
        query.size() != header.num_index * sizeof(OMRA_INDEX_SPEC)) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    selection.match_all = header.reserved1 == 1;
    for (std::uint32_t i = 0; i < header.num_index; ++i) {
        OMRA_INDEX_SPEC spec;
        std::memcpy(&spec, query.data() + i * sizeof spec, sizeof spec);
        if (spec.index >= OMRA_NUM_INDEXES || spec.flags > 1) {
            return OMRALIB_ERR_BAD_QUERY;
        }
        selection.terms.push_back({spec.index, spec.flags == 1, spec.value});
    }
    return OMRALIB_RET_SUCCESS;
}

} // namespace

Status parse_request(Bytes request, InvokeOrder &order_out) {
    InvokeOrder order;
    if (request.size() < header_bytes) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    std::memcpy(&order.header, request.data(), header_bytes);
    if (order.header.reserved != OMRALIB_INDEX_OP_INVOKE) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    order.selection.app_id = order.header.app_id;
    const Bytes query = request.subspan(header_bytes);
    if (order.header.reserved1 == OMRALIB_QUERY_PASS_THROUGH) {
        /* There is no query language yet. */
        return query.size() == order.header.num_index ? OMRALIB_ERR_BAD_QUERY
                                                      : OMRALIB_ERR_BAD_ARGS;
    }
    const Status status = parse_terms(query, order.header, order.selection);
    if (status == OMRALIB_RET_SUCCESS) {
        order_out = std::move(order);
    }
    return status;
}

} // namespace store
