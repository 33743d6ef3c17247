/* What the explanation of a query says is what the planner does to most of the objects. */
#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "embedded/query_plan.h"
#include "query/language.h"

TEST(QueryPlan, IsAsExplained) {
    const char *const parts[] = {"index0 < 1", "index0 <= 20", "index0 in (3, 70)", "index1 = 2",
                                 "index1 > 2", "size >= 0",    "not index0 > 60",   "index0 > 90"};
    for (unsigned int seed = 0; seed < 3000; ++seed) {
        std::mt19937 random(seed);
        std::string text = parts[random() % 8];
        for (auto more = random() % 4; more > 0; --more) {
            text = "(" + text + (random() % 2 ? ") and " : ") or ") + parts[random() % 8];
        }
        SCOPED_TRACE(text);
        store::Selection selection;
        ASSERT_EQ(OMRALIB_RET_SUCCESS, store::parse_query(text, selection, text));
        store::QuerySurvey survey(selection, 0);
        std::size_t num_looked_up = 0;
        std::size_t num_objects = 0;
        for (const std::size_t shard_size : {random() % 100, random() % 30}) {
            store::ObjectIndex index;
            std::vector<store::RecordRef> records(shard_size);
            for (std::size_t i = 0; i < shard_size; ++i) {
                const OMRA_OBJ_INDEX values[] = {{0, {}, {{num_objects + i}}}, {1, {}, {{i % 4}}}};
                records[i] = store::make_record({}, 0, {});
                index.attach(*records[i].get(), values);
            }
            survey.add(index, shard_size, {});
            num_looked_up +=
                store::QueryPlan(selection, 0).bind(index, shard_size) ? shard_size : 0;
            num_objects += shard_size;
            std::ranges::for_each(records, [&](auto &record) { index.detach(*record.get()); });
        }
        EXPECT_EQ(2 * num_looked_up > num_objects,
                  survey.explain().steps.front().access == store::Explanation::Access::looked_up);
    }
}
