/* The memory limit: what is stored never counts for more, and nothing is lost at the edge. */
#include <atomic>
#include <future>

#include "embedded/memory_budget.h"
#include "store_test.h"

namespace {

using store::bytes_per_index_value;
using store::bytes_per_object;

constexpr std::uint64_t limit = 100'000;

store::Configuration limited() {
    store::Configuration configuration;
    configuration.memory_limit = limit;
    return configuration;
}

class Memory : public StoreTest {
protected:
    Memory() : StoreTest(limited()) {}
};
FOR_ALL_ENGINES(Memory);

TEST_P(Memory, IsFullToTheByteAndRefusesWithoutLoss) {
    const OMRA_OBJKEY big = make_key(1, 1);
    const OMRA_OBJKEY small = make_key(1, 2);
    const std::string data(limit - 2 * bytes_per_object - bytes_per_index_value, 'd');
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put_indexed(hdl_, small, {make_index(0, 1)}));
    EXPECT_EQ(OMRALIB_ERR_NO_SPACE, put(hdl_, big, data));
    EXPECT_EQ("status -109", get(hdl_, big));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, big, data.substr(1)));

    EXPECT_EQ(OMRALIB_ERR_NO_SPACE, put(hdl_, make_key(2, 1), ""));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_replace_obj(hdl_, "xy", 2, 0, nullptr, 0, small));
    EXPECT_EQ(OMRALIB_ERR_NO_SPACE, put(hdl_, make_key(2, 1), ""));
    const OMRA_OBJ_INDEX two[] = {make_index(0, 1), make_index(1, 1)};
    EXPECT_EQ(OMRALIB_ERR_NO_SPACE, Omralib_replace_obj(hdl_, "xyz", 3, 0, two, 2, small));
    EXPECT_EQ("xy", get(hdl_, small));

    unsigned int len = 0;
    const int ticket = Omralib_read_and_lock_obj(hdl_, 0, 0, &len, small);
    fetch(hdl_, len);
    const std::string room(bytes_per_index_value + 1, 'r');
    EXPECT_EQ(OMRALIB_ERR_NO_SPACE, update(hdl_, small, ticket, room + "rr", false));
    EXPECT_EQ("xy", get(hdl_, small));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, update(hdl_, small, ticket, room, false));
    EXPECT_EQ(OMRALIB_ERR_NO_SPACE, update(hdl_, small, ticket, room + "r", false));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, update(hdl_, small, ticket, "x", true));

    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_remove_obj(hdl_, 0, big));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(2, 1), data));
}

TEST_P(Memory, OfExpiredObjectsIsFreeAgain) {
    const std::string data(limit - bytes_per_object, 'd');
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1, 1), data, 1));
        clock_.advance(store::millis_per_minute);
    }
    EXPECT_EQ(0u, count(hdl_, 1));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1, 2), data));
}

/* Threads that store, grow, shrink and remove at the edge never get beyond it, and when everything
 * has been removed all of it is free. */
TEST_P(Memory, IsNeverExceededByRacingThreads) {
    std::atomic<unsigned int> num_refused{0};
    const auto fill = [&](unsigned int thread) {
        const OMRALIB_HANDLE hdl = Omralib_open_ext(nullptr);
        for (unsigned int i = 0; i < 4000; ++i) {
            const OMRA_OBJKEY key = make_key(1, i * 7 % 60 + 20 * thread);
            const std::string data(i * 131 % 2000, 'd');
            int status = put(hdl, key, data);
            if (status == OMRALIB_ERR_OBJ_EXISTS && i % 3 == 0) {
                status = Omralib_remove_obj(hdl, 0, key);
            } else if (status == OMRALIB_ERR_OBJ_EXISTS) {
                const auto len = static_cast<unsigned int>(data.size());
                status = Omralib_replace_obj(hdl, data.data(), len, 0, nullptr, 0, key);
            }
            num_refused += status == OMRALIB_ERR_NO_SPACE;
        }
        Omralib_close(hdl);
    };
    for (int round = 0; round < 3; ++round) {
        std::vector<std::future<void>> threads;
        for (unsigned int thread = 0; thread < 4; ++thread) {
            threads.push_back(std::async(std::launch::async, fill, thread));
        }
        threads.clear();
        store::Totals totals;
        store_.objects().totals_of(1, totals);
        EXPECT_LE(totals.num_bytes + totals.num_objects * bytes_per_object, limit);
    }
    EXPECT_GT(num_refused, 0u);
    for (unsigned int i = 0; i < 200; ++i) {
        Omralib_remove_obj(hdl_, 0, make_key(1, i));
    }
    EXPECT_EQ(0u, count(hdl_, 1));
    EXPECT_EQ(OMRALIB_RET_SUCCESS,
              put(hdl_, make_key(1, 1), std::string(limit - bytes_per_object, 'd')));
    EXPECT_EQ(OMRALIB_ERR_NO_SPACE, put(hdl_, make_key(1, 2), ""));
}

} // namespace
