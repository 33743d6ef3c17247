// The query language: any text is refused with a place and a reason, or it is a query that the
// store explains and answers. Without a sample and a limit, a condition and its opposite find every
// object once.
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "client/store.h"
#include "embedded/embedded_objects.h"
#include "fuzz.h"
#include "query/language.h"
#include "query/request.h"
#include "support/clocks.h"

namespace {

using fuzz::check;

constexpr unsigned int app = 5;
constexpr ULONGLONG num_objects = 60;

struct World {
    TestClock clock;
    store::EmbeddedObjects objects{clock, store::Configuration{}};
};
World &world = *new World; // a thread of the engine outlives main

store::Selection selection_of(store::Condition where) {
    store::Selection selection;
    selection.app_id = app;
    selection.where = std::move(where);
    return selection;
}

std::vector<store::Key> find(const store::Selection &selection) {
    std::vector<store::Key> keys;
    check(store::find(world.objects, selection, nullptr, keys) == OMRALIB_RET_SUCCESS, "find failed");
    check(std::is_sorted(keys.begin(), keys.end(), store::KeyLess()), "keys out of order");
    return keys;
}

void check_refusal(std::string_view text, const std::string &why) {
    check(why.starts_with("at "), "a refusal without a place");
    const unsigned long long place = std::strtoull(why.c_str() + 3, nullptr, 10);
    check(place >= 1 && place <= text.size() + 1, "a place that is not in the query");
}

void check_answer(const store::Selection &selection) {
    std::vector<store::Key> keys = find(selection);
    check(keys.size() <= selection.limit && keys.size() <= num_objects, "more than the limit");
    store::Explanation explanation;
    check(world.objects.explain(selection, explanation) == OMRALIB_RET_SUCCESS, "no explanation");

    std::vector<store::Key> all = find(selection_of(selection.where));
    check(all.size() <= explanation.expected, "more than was expected");
    const std::vector<store::Key> others = find(selection_of(negation_of(selection.where)));
    all.insert(all.end(), others.begin(), others.end());
    std::sort(all.begin(), all.end(), store::KeyLess());
    const bool twice = std::adjacent_find(all.begin(), all.end(), [](const auto &a, const auto &b) {
                           return store::order_of(a, b) == 0;
                       }) != all.end();
    check(all.size() == num_objects && !twice, "a condition and its opposite disagree");
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***) {
    for (ULONGLONG number = 0; number < num_objects; ++number) {
        store::Key key = {};
        key.app_id = app;
        key.obj_id.u64_comp[0] = number;
        const std::vector<std::byte> bytes(number);
        OMRA_OBJ_INDEX values[8];
        for (USHORT i = 0; i < 8; ++i) {
            values[i] = {i, {}, {{number % (i + 2u), i < 4 ? 0 : ~number, 0, 0}}};
        }
        world.objects.create(key, {bytes, 0, {values, number % 9}});
        world.clock.advance(number % 3 * 1000);
    }
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *pdata, std::size_t size) {
    const std::vector<char> exact(pdata, pdata + size); // so that reading on is found
    const std::string_view text(exact.data(), exact.size());
    store::Selection selection;
    selection.app_id = app;
    std::string why;
    const store::Status status = store::parse_query(text, selection, why);
    if (status != OMRALIB_RET_SUCCESS) {
        check(status == OMRALIB_ERR_BAD_QUERY, "another code");
        check_refusal(text, why);
        return 0;
    }
    std::string explanation;
    check(store::explain_query(world.objects, app, std::as_bytes(std::span(exact)), explanation,
                               why) == OMRALIB_RET_SUCCESS,
          "a query that cannot be explained");
    check_answer(selection);
    return 0;
}
