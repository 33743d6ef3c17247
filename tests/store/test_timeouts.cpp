/* Time-outs, on a clock turned by hand. */
#include "store_test.h"

namespace {

using store::millis_per_minute;

class TimeOuts : public StoreTest {};
FOR_ALL_ENGINES(TimeOuts);

TEST_P(TimeOuts, AnExpiredObjectIsGoneAtOnceAndForEveryOperation) {
    const OMRA_OBJKEY key = make_key(1, 1);
    unsigned int len = 0;
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put_indexed(hdl_, key, {make_index(0, 1)}, 2));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1, 2), "stays"));
    clock_.advance(2 * millis_per_minute - 1);
    EXPECT_EQ(2u, count(hdl_, 1));
    clock_.advance(1);
    EXPECT_EQ("status -109", get(hdl_, key));
    EXPECT_EQ(OMRALIB_ERR_OBJ_NOT_FOUND, Omralib_read_and_lock_obj(hdl_, 0, 0, &len, key));
    EXPECT_EQ(OMRALIB_ERR_OBJ_NOT_FOUND, Omralib_replace_obj(hdl_, "x", 1, 0, nullptr, 0, key));
    EXPECT_EQ(1u, count(hdl_, 1));
    EXPECT_TRUE(find_value(1, 0, 1).empty());
    EXPECT_EQ(OMRALIB_ERR_OBJ_NOT_FOUND, Omralib_remove_obj(hdl_, 0, key));
}

TEST_P(TimeOuts, TheKeyOfAnExpiredObjectIsFree) {
    const OMRA_OBJKEY key = make_key(1, 1);
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, key, "old", 1));
    clock_.advance(millis_per_minute);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, key, "new"));
    clock_.advance(1000 * millis_per_minute);
    EXPECT_EQ("new", get(hdl_, key));
}

TEST_P(TimeOuts, SlideWithUsesThroughPlainKeysOnly) {
    const OMRA_OBJKEY used = make_key(1, 1);
    const OMRA_OBJKEY peeked = make_key(1, 2);
    unsigned int len = 0;
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, used, "u", 3));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, peeked, "p", 3));
    clock_.advance(2 * millis_per_minute);
    EXPECT_EQ("u", get(hdl_, used));
    EXPECT_EQ("p", get(hdl_, marked(peeked)));
    EXPECT_EQ(2u, count(hdl_, 1));
    clock_.advance(1 * millis_per_minute);
    EXPECT_EQ("status -109", get(hdl_, peeked));

    /* Listing and counting have passed the renewed object's first time-out by now. */
    EXPECT_EQ(1u, count(hdl_, 1));
    clock_.advance(1 * millis_per_minute);
    const int ticket = Omralib_read_and_lock_obj(hdl_, 0, 0, &len, used);
    ASSERT_GT(ticket, 0);
    fetch(hdl_, len);
    clock_.advance(2 * millis_per_minute);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, update(hdl_, used, ticket, "v", true));
    clock_.advance(2 * millis_per_minute);
    EXPECT_EQ("v", get(hdl_, marked(used)));
    clock_.advance(1 * millis_per_minute);
    EXPECT_EQ(0u, count(hdl_, 1));
}

TEST_P(TimeOuts, AReplacementBringsItsOwn) {
    const OMRA_OBJKEY key = make_key(1, 1);
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, key, "a", 1));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_replace_obj(hdl_, "b", 1, 0, nullptr, 0, key));
    clock_.advance(100 * millis_per_minute);
    EXPECT_EQ("b", get(hdl_, key));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_replace_obj(hdl_, "c", 1, 1, nullptr, 0, key));
    clock_.advance(1 * millis_per_minute);
    EXPECT_EQ("status -109", get(hdl_, key));
}

TEST_P(TimeOuts, RenewedObjectsDoNotHideExpiredOnes) {
    for (unsigned int i = 0; i < 20000; ++i) {
        ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1, i), "used", 1));
    }
    clock_.advance(1);
    for (unsigned int i = 0; i < 1000; ++i) {
        ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1, 20000 + i), "forgotten", 1));
    }
    clock_.advance(millis_per_minute / 2);
    for (unsigned int i = 0; i < 20000; ++i) {
        ASSERT_EQ("used", get(hdl_, make_key(1, i)));
    }
    clock_.advance(millis_per_minute / 2);
    EXPECT_EQ(20000u, count(hdl_, 1));
}

TEST_P(TimeOuts, ManyObjectsExpireTogether) {
    for (unsigned int i = 0; i < 20000; ++i) {
        ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1, i), "data", 1 + i % 2));
    }
    clock_.advance(millis_per_minute);
    EXPECT_EQ(10000u, count(hdl_, 1));
    clock_.advance(millis_per_minute);
    OMRALIB_STATS stats;
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_stats(&stats));
    EXPECT_EQ(0u, stats.num_objects);
    EXPECT_EQ(0u, stats.num_bytes);
}

} // namespace
