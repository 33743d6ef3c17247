/* What only the embedded engine promises: its keys are sorted fast and right, a sweep lets others
 * at the objects, a query costs what it finds, and says so. */
#include <algorithm>
#include <array>
#include <cstring>
#include <random>

#include <gtest/gtest.h>

#include "embedded/embedded_objects.h"
#include "embedded/query_plan.h"
#include "embedded/shard.h"
#include "engine/key_sort.h"
#include "query/explanation.h"
#include "query/language.h"
#include "store_test.h"

namespace {

using store::Key;
using store::millis_per_minute;

TEST(KeySort, AgreesWithComparingWhereverKeysDiffer) {
    constexpr std::uint64_t all = UINT64_MAX;
    /* The bits in which keys differ: one mask for each 8 bytes of a key. */
    const std::array<std::uint64_t, 5> cases[] = {
        {all, all, all, all, all},               /* anywhere */
        {0, 0, 0, 0xFFFFF, 0},                   /* small numbers */
        {0, 0x8000000000000000, 0, 1, 0x1F0000}, /* a few bits far apart, many equal keys */
        {0x0000000F03010003, 0, 0, 0, 0},        /* the fields that stand together in a word */
        {0, 0, 0, 0, 0},                         /* nowhere */
    };
    std::mt19937_64 random(1);
    for (const auto &masks : cases) {
        for (const std::size_t num : {0, 1, 2, 33, 1000, 20000}) {
            std::vector<Key> keys(num);
            for (Key &key : keys) {
                std::array<std::uint64_t, 5> words;
                std::ranges::transform(masks, words.begin(),
                                       [&](std::uint64_t mask) { return random() & mask; });
                std::memcpy(&key, words.data(), sizeof key);
            }
            std::vector<Key> expected = keys;
            std::ranges::sort(expected, store::KeyLess());
            store::sort_keys(keys);
            EXPECT_TRUE(num == 0 ||
                        std::memcmp(expected.data(), keys.data(), num * sizeof(Key)) == 0)
                << num << " keys, case " << &masks - cases;
        }
    }
}

/* However many objects of a shard expire together, one holding of its lock takes a bounded number.
 */
TEST(Sweep, TakesSmallSteps) {
    struct Sink final : store::ExpirySink {
        void on_due(store::Millis moment) noexcept override { due = std::min(due, moment); }
        void on_expired(store::RecordChain expired) noexcept override {
            largest = std::max(largest, expired.size());
            total += expired.size();
        }
        store::Millis due = store::never;
        std::size_t largest = 0;
        std::size_t total = 0;
    } sink;
    TestClock clock;
    store::MemoryBudget budget(store::no_memory_limit);
    store::LockWaiters waiters(clock);
    const store::ShardContext context{clock, 1000, budget, waiters, sink};
    store::Shard shard(context);
    for (unsigned int i = 0; i < 5000; ++i) {
        const Key key = make_key(1, i);
        ASSERT_EQ(OMRALIB_RET_SUCCESS,
                  shard.create(store::make_record(key, 1 + i % 2, {}), store::hash_of(key), {}));
    }
    EXPECT_EQ(clock.now() + millis_per_minute, sink.due);
    clock.advance(millis_per_minute);
    for (std::size_t total = 100; total < 2500; total += 100) {
        EXPECT_EQ(clock.now(), shard.sweep(100));
        EXPECT_EQ(total, sink.total);
    }
    EXPECT_EQ(clock.now() + millis_per_minute, shard.sweep(100));
    clock.advance(millis_per_minute);
    EXPECT_EQ(0u, shard.totals().num_objects);
    EXPECT_EQ(5000u, sink.total);
    EXPECT_LE(sink.largest, 256u);
}

/* Queries of objects whose index 0 is unique, index 1 has 10 values, and index 2 a name. */
class QueryCost : public testing::Test {
protected:
    void fill(unsigned int number) {
        for (unsigned int i = 0; i < number; ++i) {
            OMRA_OBJ_INDEX values[] = {make_index(0, i), make_index(1, i % 10), make_index(2, 0)};
            const std::string name = "name" + std::to_string(i);
            std::memcpy(&values[2].value, name.data(), name.size());
            ASSERT_EQ(OMRALIB_RET_SUCCESS,
                      objects_.create(make_key(1, i), {as_bytes("x"), 0, values}));
        }
    }

    static store::Bytes as_bytes(std::string_view text) { return std::as_bytes(std::span(text)); }

    /* Objects and index values that a query looks at, when a view that it needs has been made. */
    std::uint64_t cost_of(std::string_view query, std::size_t num_expected) {
        store::Selection selection;
        std::string error;
        EXPECT_EQ(OMRALIB_RET_SUCCESS, store::parse_query(query, selection, error)) << error;
        selection.app_id = 1;
        std::vector<Key> keys;
        std::unique_ptr<store::Scan> scan;
        for (const bool counts : {false, true}) {
            objects_.scan(selection, nullptr, scan);
            keys.clear();
            for (bool more = true; more;) {
                EXPECT_EQ(OMRALIB_RET_SUCCESS, scan->next(keys, more));
            }
            EXPECT_TRUE(!counts || keys.size() == num_expected) << query;
        }
        return scan->num_examined();
    }

    std::string explained(std::string_view query) {
        std::string text;
        std::string error;
        EXPECT_EQ(OMRALIB_RET_SUCCESS,
                  store::explain_query(objects_, 1, as_bytes(query), text, error));
        return text;
    }

    TestClock clock_;
    store::EmbeddedObjects objects_{clock_, {}};
};

TEST_F(QueryCost, GrowsWithTheMatchesNotWithTheStore) {
    constexpr unsigned int num_objects = 20'000;
    fill(num_objects);
    const struct {
        const char *query;
        std::size_t num_expected;
        std::size_t num_looked_up;
    } table[] = {
        {"index0 = 77", 1, 1},
        {"index0 in (1, 2, 3, 1000000)", 3, 4},
        {"index0 between 100 and 109", 10, 10},
        {"index0 >= 19990", 10, 10},
        {R"(index2 starts with "name1234")", 11, 11},
        {R"(index0 between 100 and 104 or index0 = 7 or index2 = "name9")", 7, 7},
        /* The cheapest part is looked up, in whatever place it stands. */
        {"index1 = 3 and index0 between 100 and 119", 2, 20},
        {"index0 between 100 and 119 and index1 = 3", 2, 20},
        {"size = 1 and not index1 = 3 and index0 > 19990", 8, 9},
        {R"(index0 > 5 and index2 starts with "name1" and index0 < 16)", 6, 320},
        {"(index1 = 1 or size = 1) and (index0 = 5 or index0 = 11)", 2, 2},
    };
    for (const auto &[query, num_expected, num_looked_up] : table) {
        /* One look at each, and a few at values on the way. */
        EXPECT_LE(cost_of(query, num_expected), 4 * num_looked_up) << query;
    }
    /* Nobody could answer these from the index. */
    EXPECT_GE(cost_of("size = 0", 0), num_objects);
    EXPECT_GE(cost_of("index0 = 1 or not index0 = 2", num_objects - 1), num_objects);
}

TEST_F(QueryCost, IsExplained) {
    fill(1000);
    EXPECT_EQ("1000 objects of app id 1\n", explained(""));
    EXPECT_EQ("1000 objects of app id 1\n"
              "any of: 3 objects, looked up in an index\n"
              "  all of: 1 object, looked up in an index\n"
              "    index2 = \"name3\": 1 object, looked up in an index\n"
              "    not index1 = 4: 900 objects, tested on the objects looked up\n"
              "    size >= 1: 1000 objects, tested on the objects looked up\n"
              "  index0 between 1 and 2: 2 objects, looked up in an index\n"
              "sample 12.5%\n"
              "limit 3\n",
              explained("size >= 1 and not index1 = 4 and index2 = \"name3\" or index0 between 1 "
                        "and 2 limit 3 sample 12.50%"));
}

/* What the explanation of a query says is what the planner does to most of the objects. */
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

} // namespace
