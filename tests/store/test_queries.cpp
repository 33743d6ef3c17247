/* Queries beyond what the model sees of them: samples, what others change meanwhile, and what is
 * said of those that are not valid. */
#include <algorithm>
#include <span>
#include <thread>

#include "store_test.h"

namespace {

TEST_P(StoreTest, SamplesAreStableAndWhatStaysIsFoundWhileOthersChange) {
    for (unsigned int i = 0; i < 2000; ++i) {
        ASSERT_EQ(success, put_indexed(hdl_, make_key(1, i), {make_index(0, i)}));
    }
    const auto tenth = find("sample 10%");
    const auto is_equal = [](const auto &a, const auto &b) {
        return std::ranges::equal(a, b, is_same);
    };
    EXPECT_TRUE(is_equal(tenth, find("sample 10.0% ")));
    EXPECT_TRUE(is_equal(std::span(tenth).first(7), find("limit 7 sample 10%")));
    EXPECT_NEAR(200, static_cast<double>(tenth.size()), 70);
    EXPECT_TRUE(std::ranges::includes(find("sample 20%"), tenth, store::KeyLess()));
    EXPECT_EQ(0u, find("sample 0.0000001 %").size());
    EXPECT_EQ(2000u, find("limit 2001").size());

    std::jthread changing([](const std::stop_token &stop) {
        const OMRALIB_HANDLE hdl = Omralib_open_ext(nullptr);
        for (unsigned int i = 0; !stop.stop_requested(); ++i) {
            const OMRA_OBJ_INDEX index = make_index(0, i % 1000);
            Omralib_replace_obj(hdl, "y", 1, 0, &index, 1, make_key(1, i % 1000));
            put_indexed(hdl, make_key(1, 1000 + i % 1000), {make_index(0, 1000 + i % 1000)});
            Omralib_remove_obj(hdl, 0, make_key(1, 1000 + (i + 500) % 1000));
        }
    });
    std::string long_query = "index0 >= 960 and index0 < 1000 and not (size = 2"; /* in pieces */
    for (int i = 0; i < 4000; ++i) {
        long_query += " or size = 2";
    }
    long_query += ')';
    for (int i = 0; i < 500; ++i) {
        const auto all = find("limit 2000");
        ASSERT_LE(1000u, all.size());
        ASSERT_EQ(all.end(), std::ranges::adjacent_find(all, is_same)) << "given twice";
        ASSERT_EQ(40u, find("index0 >= 960 and index0 < 1000").size());
        ASSERT_EQ(40u,
                  find(i % 10 == 0 ? long_query : "index0 in (1, 1, 2) or index0 < 40").size());
    }
}

TEST_P(StoreTest, QueriesThatAreNotValidSayWhereAndWhy) {
    using namespace std::string_literals;
    char text[8] = "";
    const auto explain = [&](const std::string &query) {
        return Omralib_explain_query(hdl_, 1, query.data(), length_of(query), text, sizeof text);
    };
    const std::string fields = "index0 to index7, size, age, 'not' or '('";
    const std::string signs = "=, !=, <, <=, >, >=, 'between'";
    const std::string too_deep = "brackets and 'not' are nested more than 64 deep";
    std::string deep, wide;
    for (int i = 0; i < 3640; ++i) {
        deep += "not (";
        wide += "not (size = 1) or "; /* side by side is not deep */
    }
    wide += "size = 12345678";
    wide.resize(65'536, ' ');
    EXPECT_EQ(success, explain(wide));
    EXPECT_EQ(success, explain(std::string(64, '(') + "size = 1" + std::string(64, ')')));
    const std::pair<std::string, std::string> table[] = {
        {wide + ' ', "at 65537: the query is longer than 65536 bytes"},
        {std::string(65, '(') + "size = 1" + std::string(65, ')'), "at 65: " + too_deep},
        {deep, "at 161: " + too_deep},
        {" \n", "at 1: the query is empty"},
        {"size > 1 and x <", "at 14: expected " + fields + " after 'and'"},
        {"size>1 AND index1< or", "at 20: expected a number or a string after '<'"},
        {"index8 = 1", "at 1: expected " + fields},
        {"index0", "at 7: expected " + signs + ", 'in' or 'starts with' after 'index0'"},
        {"size like 1", "at 6: expected " + signs + " or 'in' after 'size'"},
        {"index0 = 12ab", "at 10: expected a number or a string after '='"},
        {"index0 = 0x", "at 10: expected a number or a string after '='"},
        {R"(size = "a")", "at 8: expected a number after '='"},
        {R"(age starts with "a")", "at 5: 'starts with' needs an index, not 'age'"},
        {"index0 starts \"a\"", "at 15: expected 'with' after 'starts'"},
        {"index0 starts with 1", "at 20: expected a string after 'with'"},
        {"index0 between 1, 2", "at 17: expected 'and' after '1'"},
        {R"(index0 between 1 and "a")", "at 22: expected a number after 'and'"},
        {"index0 in 1", "at 11: expected '(' after 'in'"},
        {"index0 in ()", "at 12: expected a number or a string after '('"},
        {"index0 in (1 2)", "at 14: expected ',' or ')' after '1'"},
        {R"(index0 in (1, "a"))", "at 15: expected a number after ','"},
        {R"(index0 = "ab)", "at 10: the string has no closing '\"'"},
        {R"(index0 = "a\q")", "at 13: expected '\"', '\\', 'n', 't' or 'x' and two hexadecimal "
                              "digits after '\\'"},
        {"index0 = \"" + std::string(33, 'a') + '"',
         "at 10: the string has 33 bytes; at most 32 are allowed"},
        {"index0 = 0x1" + std::string(64, '0'), "at 10: the number is larger than 2^256 - 1"},
        {"index0 = 115792089237316195423570985008687907853269984665640564039457584007913129639936",
         "at 10: the number is larger than 2^256 - 1"},
        {"(size = 1", "at 10: expected 'and', 'or' or ')' after '1'"},
        {"size = 1)", "at 9: expected 'and', 'or', 'limit', 'sample' or the end after '1'"},
        {"size = 1 limit", "at 15: expected a whole number after 'limit'"},
        {"size = 1 limit 1 limit 2", "at 18: there is a second 'limit'"},
        {"limit 1 and", "at 9: expected 'sample' or the end after '1'"},
        {"limit 18446744073709551616", "at 7: the limit is larger than 2^64 - 1"},
        {"sample ten%", "at 8: expected a percentage after 'sample'"},
        {"sample 10", "at 10: expected '%' after '10'"},
        {"sample 100.1%", "at 8: a sample is 0% to 100%"},
        {"sample 0.12345678%", "at 8: a percentage has at most 7 decimals"},
        {"limit 2 sample 3% x", "at 19: expected the end after '%'"},
        {"size\0= 1"s, "at 5: a NUL byte is not allowed"},
        {"index0 = \"\xc3\x28\"", "at 11: the bytes are not valid UTF-8"},
        {"index0 = \"a\xed\xa0\x80\"", "at 12: the bytes are not valid UTF-8"},
        /* What is quoted is cut between characters. */
        {R"(index0 = "0123456789ab\x30\x30\x30\x30\x30\x30éé" 1)",
         "at 53: expected 'and', 'or', 'limit', 'sample' or the end after "
         "'\"0123456789ab\\x30\\x30\\x30\\x30\\x30\\x30é...'"},
    };
    for (const auto &[query, error] : table) {
        EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, explain(query)) << query;
        EXPECT_EQ(error, error_text(hdl_)) << query;
    }
    EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, explain("index0 <"));
    EXPECT_EQ(bad_args, Omralib_get_error_text(hdl_, nullptr, 3));
    EXPECT_EQ(0u, count(hdl_, 1)); /* what succeeds leaves the text alone */
    EXPECT_EQ(success, Omralib_get_error_text(hdl_, text, sizeof text));
    EXPECT_STREQ("at 9: e", text);
    EXPECT_EQ(not_found, Omralib_remove_obj(hdl_, 0, make_key(1, 2)));
    EXPECT_EQ("", error_text(hdl_));
}

} // namespace
