/* An explanation in words. */
#include "query/explanation.h"

#include <string_view>

#include "query/language.h"

namespace store {

namespace {

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

Status explain_query(Objects &objects, std::uint32_t app_id, Bytes query, std::string &text_out,
                     std::string &error_out) {
    Selection selection;
    selection.app_id = app_id;
    if (!query.empty()) {
        const Status status = parse_query(
            {reinterpret_cast<const char *>(query.data()), query.size()}, selection, error_out);
        if (status != OMRALIB_RET_SUCCESS) {
            return status;
        }
    }
    Explanation explanation;
    const Status status = objects.explain(selection, explanation);
    if (status == OMRALIB_RET_SUCCESS) {
        text_out = describe(selection, explanation);
    }
    return status;
}

} // namespace store
