/* The bytes of a request: header, then index terms or the text of a query. */
#include "query/request.h"

#include <cstring>
#include <string_view>

#include "query/language.h"

namespace store {

namespace {

constexpr std::size_t header_bytes = sizeof(OMRA_INDEX_HDR);
constexpr std::uint32_t max_terms = OMRA_NUM_INDEXES;

Status refuse(Status status, std::string why, std::string &error_out) {
    error_out = std::move(why);
    return status;
}

/* Requests ------------------------------------------------------------------------------------ */

Status parse_term(const OMRA_INDEX_SPEC &spec, Term &term_out, std::string &error_out) {
    if (spec.index >= OMRA_NUM_INDEXES) {
        return refuse(OMRALIB_ERR_BAD_QUERY,
                      "there is no index " + std::to_string(spec.index) + "; the last one is 7",
                      error_out);
    }
    if (spec.flags > 1) {
        return refuse(OMRALIB_ERR_BAD_QUERY,
                      "the flags of a term are " + std::to_string(spec.flags) + ", not 0 or 1",
                      error_out);
    }
    term_out = {spec.index, spec.flags == 1, spec.value};
    return OMRALIB_RET_SUCCESS;
}

/* Index terms: as many as the header says, and nothing behind them. */
Status parse_terms(Bytes query, const OMRA_INDEX_HDR &header, Selection &selection_out,
                   std::string &error_out) {
    if (header.num_index > max_terms) {
        return refuse(OMRALIB_ERR_BAD_ARGS,
                      "there are " + std::to_string(header.num_index) + " terms; at most 8 may be",
                      error_out);
    }
    if (query.size() != header.num_index * sizeof(OMRA_INDEX_SPEC)) {
        return refuse(OMRALIB_ERR_BAD_ARGS,
                      "the terms have " + std::to_string(query.size()) + " bytes, not the " +
                          std::to_string(header.num_index * sizeof(OMRA_INDEX_SPEC)) +
                          " of the number in the header",
                      error_out);
    }
    Term terms[max_terms];
    for (std::uint32_t i = 0; i < header.num_index; ++i) {
        OMRA_INDEX_SPEC spec;
        std::memcpy(&spec, query.data() + i * sizeof spec, sizeof spec);
        const Status status = parse_term(spec, terms[i], error_out);
        if (status != OMRALIB_RET_SUCCESS) {
            return status;
        }
    }
    selection_out =
        select_by_terms(header.app_id, header.reserved1 == 1, {terms, header.num_index});
    return OMRALIB_RET_SUCCESS;
}

/* The text of a query: as many bytes as the header says. */
Status parse_text(Bytes query, const OMRA_INDEX_HDR &header, Selection &selection_out,
                  std::string &error_out) {
    if (query.size() != header.num_index) {
        return refuse(OMRALIB_ERR_BAD_ARGS,
                      "the query has " + std::to_string(query.size()) + " bytes, not the " +
                          std::to_string(header.num_index) + " that the header says",
                      error_out);
    }
    selection_out.app_id = header.app_id;
    return parse_query({reinterpret_cast<const char *>(query.data()), query.size()}, selection_out,
                       error_out);
}

Status parse_selection(Bytes query, const OMRA_INDEX_HDR &header, Selection &selection_out,
                       std::string &error_out) {
    switch (header.reserved1) {
    case 0:
    case 1:
        return parse_terms(query, header, selection_out, error_out);
    case OMRALIB_QUERY_PASS_THROUGH:
        return parse_text(query, header, selection_out, error_out);
    default:
        return refuse(OMRALIB_ERR_BAD_ARGS,
                      "the kind of the query is " + std::to_string(header.reserved1) +
                          ", not 0, 1 or 2",
                      error_out);
    }
}

} // namespace

Selection select_by_terms(std::uint32_t app_id, bool match_all, std::span<const Term> terms) {
    Selection selection;
    selection.app_id = app_id;
    if (!terms.empty() && !match_all) {
        selection.where.kind = Condition::Kind::any_of;
    }
    for (const Term &term : terms) {
        selection.where.parts.push_back(equals(term.index, term.value));
        selection.where.parts.back().negated = term.negated;
    }
    return selection;
}

Status parse_request(Bytes request, InvokeOrder &order_out, std::string &error_out) {
    InvokeOrder order;
    if (request.size() < header_bytes) {
        return refuse(OMRALIB_ERR_BAD_ARGS,
                      "a request has at least 104 bytes, not " + std::to_string(request.size()),
                      error_out);
    }
    std::memcpy(&order.header, request.data(), header_bytes);
    if (order.header.reserved != OMRALIB_INDEX_OP_INVOKE) {
        return refuse(OMRALIB_ERR_BAD_ARGS,
                      "the kind of the request is " + std::to_string(order.header.reserved) +
                          ", not 2, an invocation",
                      error_out);
    }
    const Status status =
        parse_selection(request.subspan(header_bytes), order.header, order.selection, error_out);
    if (status == OMRALIB_RET_SUCCESS) {
        order_out = std::move(order);
    }
    return status;
}

} // namespace store
