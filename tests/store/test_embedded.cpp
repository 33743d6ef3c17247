/* What only the embedded engine promises: a query costs what it finds, and says so. */

#include "embedded/embedded_objects.h"
#include "query/explanation.h"
#include "query/language.h"
#include "store_test.h"
#include "support/failing_memory.h"

namespace {

using store::Key;

/* Queries of objects whose index 0 is unique, index 1 has 10 values, and index 2 a name. */
class QueryCost : public testing::Test {
protected:
    void fill(unsigned int number) {
        for (unsigned int i = 0; i < number; ++i) {
            OMRA_OBJ_INDEX values[] = {make_index(0, i), make_index(1, i % 10), make_index(2, 0)};
            std::sprintf(reinterpret_cast<char *>(&values[2].value), "name%u", i);
            ASSERT_EQ(success, objects_.create(make_key(1, i), {as_bytes("x"), 0, values}));
        }
    }

    static store::Bytes as_bytes(std::string_view text) { return std::as_bytes(std::span(text)); }

    static store::Selection selection_of(std::string_view query) {
        store::Selection selection;
        std::string error;
        EXPECT_EQ(success, store::parse_query(query, selection, error)) << error;
        selection.app_id = 1;
        return selection;
    }

    /* Objects and index values that a query looks at. */
    std::uint64_t cost_of(std::string_view query, std::size_t num_expected) {
        const store::Selection selection = selection_of(query);
        std::vector<Key> keys;
        EXPECT_EQ(success, store::find(objects_, selection, nullptr, keys)); /* makes its views */
        EXPECT_EQ(num_expected, keys.size()) << query;
        std::unique_ptr<store::Scan> scan;
        objects_.scan(selection, nullptr, scan);
        for (store::ScanPiece piece; !piece.is_last;) {
            EXPECT_EQ(success, scan->next(SIZE_MAX, false, piece));
        }
        return scan->num_examined();
    }

    std::string explained(std::string_view query) {
        std::string text, error;
        EXPECT_EQ(success, store::explain_query(objects_, 1, as_bytes(query), text, error));
        return text;
    }

    TestClock clock_;
    store::EmbeddedObjects objects_{clock_, {}};
};

TEST_F(QueryCost, GrowsWithTheMatchesNotWithTheStore) {
    constexpr unsigned int num_objects = 20'000;
    fill(num_objects);
    const std::tuple<const char *, std::size_t, std::size_t> table[] = {
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

/* Between two pieces others get the lock, and whoever looks may be stopped. */
TEST_F(QueryCost, IsPaidInSmallPieces) {
    fill(5000);
    std::string query = "size = 2";
    for (int i = 0; i < 5000; ++i) {
        query += " or size = 2";
    }
    const store::Selection selection = selection_of(query);
    std::unique_ptr<store::Scan> scan;
    objects_.scan(selection, nullptr, scan);
    std::uint64_t before = 0;
    for (store::ScanPiece piece; !piece.is_last; before = scan->num_examined()) {
        EXPECT_EQ(success, scan->next(SIZE_MAX, false, piece));
        EXPECT_LE(scan->num_examined() - before, 100u);
    }
    EXPECT_EQ(5000, before) << "an object is tested once";
    std::vector<Key> keys;
    const auto cancel = [] { return OMRALIB_ERR_CANCELLED; };
    EXPECT_EQ(OMRALIB_ERR_CANCELLED, store::find(objects_, selection, nullptr, keys, cancel));
}

TEST_F(QueryCost, IsNothingForAppIdsWithoutObjects) {
    const long before = failing_memory::num_blocks();
    for (unsigned int app_id = 1; app_id < 10'000; ++app_id) {
        ASSERT_EQ(success, objects_.create(make_key(app_id, 1), {}));
        ASSERT_EQ(success, objects_.remove(make_key(app_id, 1)));
    }
    EXPECT_LE(failing_memory::num_blocks(), before + 250); /* every shard keeps one */
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

} // namespace
