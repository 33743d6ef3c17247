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

/* Requests ---------------------------------------------------------------------------------------
 */

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

std::string_view as_text(Bytes bytes) {
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
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
    return parse_query(as_text(query), selection_out, error_out);
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

/* Explanations -----------------------------------------------------------------------------------
 */

std::string_view text_of(Explanation::Access access) {
    switch (access) {
    case Explanation::Access::looked_up:
        return "looked up in an index";
    case Explanation::Access::tested:
        return "tested on the objects looked up";
    case Explanation::Access::scanned:
        return "tested on every object";
    }
    return "";
}

std::string_view text_of(const Explanation::Step &step) {
    switch (step.kind) {
    case Condition::Kind::all_of:
        return "all of";
    case Condition::Kind::any_of:
        return "any of";
    case Condition::Kind::comparison:
        break;
    }
    return step.text;
}

std::string objects(std::uint64_t number) {
    return std::to_string(number) + (number == 1 ? " object" : " objects");
}

/* "2.5%"; a sample counts in units of 10^-7 percent. */
std::string percentage(std::uint32_t sample) {
    std::string decimals = std::to_string(10'000'000 + sample % 10'000'000).substr(1);
    decimals.erase(decimals.find_last_not_of('0') + 1);
    return std::to_string(sample / 10'000'000) + (decimals.empty() ? "" : ".") + decimals + '%';
}

std::string describe(const Selection &selection, const Explanation &explanation) {
    std::string text =
        objects(explanation.num_objects) + " of " +
        (selection.app_id == OMRALIB_ALL_APP_IDS ? "all ordinary app ids"
                                                 : "app id " + std::to_string(selection.app_id)) +
        '\n';
    for (const Explanation::Step &step : explanation.steps) {
        text.append(std::size_t{2} * step.level, ' ').append(text_of(step));
        text.append(": ").append(objects(step.expected));
        text.append(", ").append(text_of(step.access)).append("\n");
    }
    if (selection.sample < whole_sample) {
        text += "sample " + percentage(selection.sample) + '\n';
    }
    if (selection.limit != UINT64_MAX) {
        text += "limit " + std::to_string(selection.limit) + '\n';
    }
    return text;
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

Status explain_query(Engine &engine, std::uint32_t app_id, Bytes query, std::string &text_out,
                     std::string &error_out) {
    Selection selection;
    selection.app_id = app_id;
    if (!query.empty()) {
        const Status status = parse_query(as_text(query), selection, error_out);
        if (status != OMRALIB_RET_SUCCESS) {
            return status;
        }
    }
    Explanation explanation;
    const Status status = engine.explain(selection, explanation);
    if (status == OMRALIB_RET_SUCCESS) {
        text_out = describe(selection, explanation);
    }
    return status;
}

} // namespace store
