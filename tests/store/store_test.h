/* The fixture of the store tests: a fresh store over one of the engines, on a clock turned by hand,
 * and short forms of the operations that most tests need. */
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>

#include "client/store.h"
#include "query/language.h"
#include "support/clocks.h"
#include "support/decorators.h"
#include "support/engines.h"

#define FOR_ALL_ENGINES(suite)                                                                     \
    INSTANTIATE_TEST_SUITE_P(Engines, suite, testing::ValuesIn(test_engines()))

/* The limit of a cluster is the quota of its pool. */
#define SKIP_WITHOUT_MEMORY_LIMIT()                                                                \
    if (!GetParam().is_embedded())                                                                 \
    GTEST_SKIP()

inline constexpr int success = OMRALIB_RET_SUCCESS;
inline constexpr int not_found = OMRALIB_ERR_OBJ_NOT_FOUND;
inline constexpr int bad_args = OMRALIB_ERR_BAD_ARGS;

inline unsigned int length_of(const auto &container) {
    return static_cast<unsigned int>(container.size());
}

inline std::string bytes_of(const auto &record) {
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

inline OMRA_OBJKEY make_key(unsigned int app_id, unsigned long long number) {
    return {app_id, 0, 0, 0, {}, {{number, 1}}};
}

inline bool is_same(const OMRA_OBJKEY &a, const OMRA_OBJKEY &b) {
    return store::order_of(a, b) == 0;
}

inline OMRA_OBJKEY marked(OMRA_OBJKEY key) {
    key.app_id |= OMRA_APPID_NO_RENEW;
    return key;
}

inline OMRA_OBJ_INDEX make_index(USHORT index, unsigned long long number) {
    return {index, {}, {{number}}};
}

inline int put(OMRALIB_HANDLE hdl, OMRA_OBJKEY key, std::string_view data,
               unsigned int timeout_m = 0) {
    return Omralib_store_obj(hdl, 0, data.data(), length_of(data), timeout_m, key);
}

inline int put_indexed(OMRALIB_HANDLE hdl, OMRA_OBJKEY key,
                       const std::vector<OMRA_OBJ_INDEX> &values) {
    return Omralib_store_indexed_obj(hdl, "x", 1, 0, values.data(), length_of(values), key);
}

inline int update(OMRALIB_HANDLE hdl, OMRA_OBJKEY key, int ticket, std::string_view data,
                  bool unlock) {
    return Omralib_update_locked_obj(hdl, ticket, unlock ? 1 : 0, 0, data.data(), length_of(data),
                                     key);
}

/* Fetches the pending bytes. */
inline std::string fetch(OMRALIB_HANDLE hdl, unsigned int len) {
    std::string data(len, '\0');
    if (len != 0) {
        EXPECT_EQ(success, Omralib_get_read_data(hdl, data.data(), len));
    }
    return data;
}

/* The object's bytes, or "status -109" and the like. */
inline std::string get(OMRALIB_HANDLE hdl, OMRA_OBJKEY key) {
    unsigned int len = 0;
    const int status = Omralib_read_obj(hdl, 0, &len, key);
    return status == success ? fetch(hdl, len) : "status " + std::to_string(status);
}

inline unsigned long long count(OMRALIB_HANDLE hdl, unsigned int app_id) {
    ULONGLONG num = ~0ull;
    EXPECT_EQ(success, Omralib_count_objs(hdl, app_id, &num));
    return num;
}

inline OMRALIB_STATS stats() {
    OMRALIB_STATS stats{};
    EXPECT_EQ(success, Omralib_get_stats(&stats));
    return stats;
}

inline std::string error_text(OMRALIB_HANDLE hdl) {
    char text[200];
    EXPECT_EQ(success, Omralib_get_error_text(hdl, text, sizeof text));
    return text;
}

class StoreTest : public testing::TestWithParam<TestEngine> {
protected:
    explicit StoreTest(const store::Configuration &configuration = {})
        : store_(decorated(GetParam().make(clock_, configuration)), clock_, configuration) {}

    std::vector<store::Key> find(const store::Selection &selection) {
        std::vector<store::Key> keys;
        EXPECT_EQ(success, store::find(store_.objects(), selection, nullptr, keys));
        return keys;
    }

    std::vector<store::Key> find(std::string_view query, unsigned int app_id = 1) {
        store::Selection selection;
        std::string error;
        EXPECT_EQ(success, store::parse_query(query, selection, error)) << error;
        selection.app_id = app_id;
        return find(selection);
    }

    TestClock clock_;
    store::Store store_;
    const OMRALIB_HANDLE hdl_ = Omralib_open_ext("store test guid");
};
