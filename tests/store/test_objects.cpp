/* The store's configuration, handles, arguments, keys, and the listing of objects; what objects do
 * is the model's matter. */
#include <bit>
#include <random>
#include <set>

#include "store_test.h"
#include "support/failing_memory.h"

namespace {

FOR_ALL_ENGINES(StoreTest);

TEST_P(StoreTest, HandlesRunOutAndAClosedOneStaysInvalidWhenItsSlotIsUsedAgain) {
    std::vector<OMRALIB_HANDLE> all = {hdl_};
    while (all.back() != OMRALIB_NULL_HANDLE) {
        all.push_back(Omralib_open_ext(nullptr));
    }
    EXPECT_EQ(65535u + 1, all.size());
    for (OMRALIB_HANDLE next = all[1000], last = 0; all.size() < 67'000; all.push_back(next)) {
        ASSERT_EQ(success, Omralib_close(last = next));
        next = Omralib_open_ext(nullptr); /* there is no other slot */
        ASSERT_NE(OMRALIB_NULL_HANDLE, next);
        ASSERT_NE(last, next);
        ASSERT_EQ(OMRALIB_ERR_BAD_HANDLE, Omralib_handle_ready(last));
        ASSERT_EQ(OMRALIB_ERR_BAD_HANDLE, Omralib_handle_ready(all[1000]));
    }
    EXPECT_EQ(OMRALIB_NULL_HANDLE, Omralib_open_ext(nullptr));
    EXPECT_EQ(OMRALIB_ERR_BAD_HANDLE, Omralib_close(all[1000]));
    EXPECT_EQ("status " + std::to_string(OMRALIB_ERR_BAD_HANDLE), get(all[1000], make_key(1, 1)));
    EXPECT_EQ(OMRALIB_ERR_BAD_HANDLE, put(OMRALIB_NULL_HANDLE, make_key(1, 1), "a"));
}

TEST_P(StoreTest, TellsImpossibleArguments) {
    const OMRA_OBJKEY key = make_key(1, 1);
    const OMRA_OBJKEY null_key{};
    OMRA_OBJKEY marked_null = marked(null_key);
    marked_null.type_index = 3;
    unsigned int len = 7;
    char buf[8];
    EXPECT_EQ(bad_args, Omralib_read_obj(hdl_, 0, nullptr, key));
    EXPECT_EQ(bad_args, Omralib_store_obj(hdl_, 0, nullptr, 1, 0, key));
    EXPECT_EQ(OMRALIB_ERR_BAD_KEY, Omralib_read_obj(hdl_, 0, &len, null_key));
    EXPECT_EQ(OMRALIB_ERR_BAD_KEY, put(hdl_, marked_null, "a"));
    EXPECT_EQ(OMRALIB_ERR_BAD_KEY, Omralib_remove_obj(hdl_, 0, null_key));
    EXPECT_EQ(bad_args, put_indexed(hdl_, key, {make_index(8, 1)}));
    EXPECT_EQ(bad_args, put_indexed(hdl_, key, {make_index(2, 1), make_index(2, 5)}));
    EXPECT_EQ(0u, count(hdl_, 1));
    EXPECT_EQ(7u, len);
    ASSERT_EQ(success, put(hdl_, key, "abc"));
    ASSERT_EQ(success, Omralib_read_obj(hdl_, 0, &len, key));
    EXPECT_EQ(bad_args, Omralib_get_read_data(hdl_, buf, 4));
    EXPECT_EQ(bad_args, Omralib_get_read_data(hdl_, nullptr, 3));
    EXPECT_EQ("abc", fetch(hdl_, 3));
    EXPECT_EQ(OMRALIB_ERR_NOT_READING, Omralib_get_read_data(hdl_, buf, 3));
}

TEST_P(StoreTest, ObjectsAreToldApartAndListedInOrderOfAllFieldsOfTheirKeys) {
    constexpr std::uint64_t all = UINT64_MAX;
    /* The bits in which keys differ: one mask for each 8 bytes of a key. */
    const std::array<std::uint64_t, 5> cases[] = {
        {all << 32, all, all, all, all},        /* anywhere but in the app id */
        {0, 0, 0, 0xFFFF, 0},                   /* small numbers */
        {0, 0x8000000000000000, 0, 7, 0x1F000}, /* a few bits far apart */
        {0x000FFF0300000000, 0, 0, 3, 0},       /* the fields that stand together in a word */
    };
    std::mt19937_64 random(1);
    std::set<OMRA_OBJKEY, store::KeyLess> keys = {make_key(0x0FFFFFFF, 1)};
    for (unsigned int i = 0; i < 4000; ++i) {
        auto words = cases[i % std::size(cases)];
        std::ranges::for_each(words, [&](std::uint64_t &word) { word &= random(); });
        words[0] += 3; /* the app id */
        keys.insert(std::bit_cast<OMRA_OBJKEY>(words));
    }
    std::vector<OMRALIB_NEW_OBJ> many;
    many.reserve(keys.size() + 1);
    for (const OMRA_OBJKEY &key : keys) {
        many.push_back({key, &key, sizeof key, 0, nullptr, 0, 0});
    }
    const auto each_status = [](int status) {
        return testing::Each(testing::Field(&OMRALIB_NEW_OBJ::status_out, status));
    };
    const auto store_many = [&] { return Omralib_store_objs(hdl_, many.data(), length_of(many)); };
    many.push_back({});
    EXPECT_EQ(OMRALIB_ERR_BAD_KEY, store_many());
    EXPECT_THAT(many, each_status(0));
    many.pop_back();
    ASSERT_EQ(success, store_many());
    EXPECT_THAT(many, each_status(success));
    EXPECT_EQ(OMRALIB_ERR_OBJ_EXISTS, store_many());
    EXPECT_THAT(many, each_status(OMRALIB_ERR_OBJ_EXISTS));
    ASSERT_EQ(success, put(hdl_, make_key(0x30000000, 1), "reserved"));
    std::vector<OMRA_OBJKEY> listed;
    const auto append = [](const OMRA_OBJKEY *pkey, void *parg) {
        auto &list = *static_cast<std::vector<OMRA_OBJKEY> *>(parg);
        list.push_back(*pkey);
        return list.size() == 3000 ? 1 : 0; /* that is enough */
    };
    ASSERT_EQ(success, Omralib_list_objs(hdl_, OMRALIB_ALL_APP_IDS, append, &listed));
    EXPECT_EQ(3000u, listed.size());
    EXPECT_TRUE(std::equal(listed.begin(), listed.end(), keys.begin(), is_same));
    EXPECT_EQ(keys.size(), count(hdl_, OMRALIB_ALL_APP_IDS));
    EXPECT_EQ(keys.size() - 1, count(hdl_, 3));
    EXPECT_EQ(1u, count(hdl_, 0x30000000));
    EXPECT_EQ(0u, count(hdl_, 5));
    for (const OMRA_OBJKEY &key : keys) {
        EXPECT_EQ(bytes_of(key), get(hdl_, key));
    }
    /* An app id of its own: the app id behind the mark would not be a marked one. */
    EXPECT_EQ("status -109", get(hdl_, make_key(0x7FFFFFFF, 1)));
    EXPECT_EQ(keys.size(), stats().num_reads);
    EXPECT_EQ(keys.size() * 40 + 8, stats().num_bytes);
    EXPECT_EQ(keys.size() + 1, stats().num_objects);

    const auto remove_all = [&] {
        std::vector<int> statuses(listed.size());
        EXPECT_NE(0, Omralib_remove_objs(hdl_, listed.data(), length_of(listed), statuses.data()));
        return statuses;
    };
    EXPECT_THAT(remove_all(), testing::Each(success));
    EXPECT_THAT(remove_all(), testing::Each(not_found));
    listed.clear();
    EXPECT_EQ(success, Omralib_find_objs(hdl_, 3, "limit 7", 7, append, &listed));
    EXPECT_TRUE(std::equal(listed.begin(), listed.end(), std::next(keys.begin(), 3000), is_same));
    EXPECT_EQ(7u, listed.size());
    EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, Omralib_find_objs(hdl_, 3, "limit", 5, append, &listed));
    EXPECT_THAT(error_text(hdl_), testing::StartsWith("at 6: "));
}

/* Of a refused configuration. */
void expect_why(const char *reason) {
    EXPECT_THAT(error_text(OMRALIB_NULL_HANDLE), testing::HasSubstr(reason));
}

TEST(Configuration, IsRefusedWithTheReasonAndThenStaysWhatItWas) {
    const OMRALIB_CONFIG config{"embedded:", 64, 5, 7, 1'000'000};
    EXPECT_EQ(success, Omralib_configure(&config));
    EXPECT_EQ("", error_text(OMRALIB_NULL_HANDLE));
    const std::pair<OMRALIB_CONFIG, const char *> table[] = {
        {{"somewhere:else", 0, 0, 0, 0}, "\"somewhere:else\""},
        {{"somewhere:else", 0, 0, 0, 0}, "\"embedded:\""},
        {{nullptr, 65, 0, 0, 0}, "num_hosts is 65: 1 to 64"},
        {{nullptr, 0, 86401, 0, 0}, "86401"},
    };
    for (const auto &[refused, reason] : table) {
        EXPECT_EQ(bad_args, Omralib_configure(&refused));
        expect_why(reason);
    }
    EXPECT_EQ(bad_args, Omralib_configure(nullptr));
    for (unsigned int number = 1; store::Store::current() == nullptr; ++number) {
        failing_memory::arm(number, number % 2 == 0);
        failing_memory::is_exposed = true;
        const int status = Omralib_init();
        failing_memory::is_exposed = false;
        failing_memory::disarm();
        EXPECT_TRUE(status == success || status == OMRALIB_ERR_CANT_INIT);
    }
    ASSERT_EQ(success, Omralib_init());
    const store::Configuration &used = store::Store::current()->configuration();
    EXPECT_EQ(64u, used.num_hosts);
    EXPECT_EQ(5000, used.lock_lease);
    EXPECT_EQ(7u, used.max_invocations);
    EXPECT_EQ(1'000'000u, used.memory_limit);
    EXPECT_EQ(OMRALIB_ERR_CANT_INIT, Omralib_configure(&config));
    expect_why("in use already");
}

} // namespace
