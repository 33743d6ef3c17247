/* The query language: what the parser makes of good queries and what it says of bad ones. */
#include <gmock/gmock.h>

#include "query/language.h"

namespace {

using store::Condition;
using store::Selection;

/* A condition in a notation of its own: fields, ranges and negation as the parser made them. */
std::string notation(const Condition &condition);

std::string notation(const OMRA_INDEX_VALUE &value) {
    std::string text; /* without the padding of zeros, ".ff" for that of ff */
    const auto bytes = reinterpret_cast<const unsigned char *>(&value);
    std::size_t length = sizeof value;
    const bool is_padded = bytes[length - 1] == 0x00 || bytes[length - 1] == 0xFF;
    while (is_padded && length > 1 && bytes[length - 1] == bytes[sizeof value - 1]) {
        --length;
    }
    for (std::size_t i = 0; i < length; ++i) {
        constexpr char digits[] = "0123456789abcdef";
        text += {digits[bytes[i] >> 4], digits[bytes[i] & 15]};
    }
    return text + (bytes[sizeof value - 1] == 0xFF ? ".ff" : "");
}

std::string notation_of_comparison(const Condition &condition) {
    std::string text = condition.negated ? "!" : "";
    text += condition.field == Condition::Field::size  ? "size"
            : condition.field == Condition::Field::age ? "age"
                                                       : std::to_string(condition.index);
    text += condition.order == store::ValueOrder::bytes ? "b" : "n";
    for (const store::ValueRange &range : condition.ranges) {
        text += range.is_one_value() ? '=' + notation(range.low)
                                     : '[' + notation(range.low) + ',' + notation(range.high) + ']';
    }
    return text;
}

std::string notation(const Condition &condition) {
    if (condition.kind == Condition::Kind::comparison) {
        return notation_of_comparison(condition);
    }
    std::string text = condition.kind == Condition::Kind::all_of ? "all(" : "any(";
    for (const Condition &part : condition.parts) {
        text += text.back() == '(' ? "" : " ";
        text += notation(part);
    }
    return text + ')';
}

std::string parsed(std::string_view query) {
    Selection selection;
    std::string error = "unset";
    const int status = store::parse_query(query, selection, error);
    if (status != OMRALIB_RET_SUCCESS) {
        EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, status);
        EXPECT_EQ("all()", notation(selection.where)) << "touched by " << query;
        return error;
    }
    std::string text = notation(selection.where);
    if (selection.sample != store::whole_sample) {
        text += " sample " + std::to_string(selection.sample);
    }
    if (selection.limit != UINT64_MAX) {
        text += " limit " + std::to_string(selection.limit);
    }
    return text;
}

TEST(QueryLanguage, MakesRangesOfComparisons) {
    const struct {
        std::string_view query;
        std::string_view meaning;
    } table[] = {
        {"index0 = 5", "0n=05"},
        {"index7!=0x1fF", "!7n=ff01"},
        {"index1 < 256", "1n[00,ff]"},
        {"index1 < 0", "1n"},
        {"index1 > 255", "1n[0001,ff.ff]"},
        {"index1 >= 255", "1n[ff,ff.ff]"},
        {"index1 > 0xffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff", "1n"},
        {"index1 = 115792089237316195423570985008687907853269984665640564039457584007913129639935",
         "1n=ff.ff"},
        {"INDEX2 Between 3 AND 0x10", "2n[03,10]"},
        {"index2 between 4 and 3", "2n"},
        {"index3 in (7, 3,7 ,5)", "3n=03=05=07"},
        {R"(index3 in ("b", "a"))", "3b=61=62"},
        {R"(index4 = "a\"\\\n\t\x00\xfF")", "4b=61225c0a0900ff"},
        {R"(index4 < "b")", "4b[00,61.ff]"},
        {R"(index4 > "a")", "4b[6100000000000000000000000000000000000000000000000000000000000001"
                            ",ff.ff]"},
        {R"(index4 starts with "ab")", "4b[6162,6162.ff]"},
        {R"(index4 starts with "")", "4b[00,ff.ff]"},
        {R"(index4 = "é")", "4b=c3a9"},
        {"size between 1 and 2", "sizen[01,02]"},
        {" age>=3600\n", "agen[100e,ff.ff]"},
    };
    for (const auto &[query, meaning] : table) {
        EXPECT_EQ(meaning, parsed(query)) << query;
    }
}

TEST(QueryLanguage, JoinsConditions) {
    const struct {
        std::string_view query;
        std::string_view meaning;
    } table[] = {
        {"index0=1 or index1=1 and not index2=1 or size=1",
         "any(0n=01 all(1n=01 !2n=01) sizen=01)"},
        {"(index0=1 or index1=1) and index2=1", "all(any(0n=01 1n=01) 2n=01)"},
        {"not (index0=1 or index1!=1 and size<1)", "all(!0n=01 any(1n=01 !sizen=00))"},
        {"not not((index0=1))", "0n=01"},
        {"nOt(index0=1)aNd(index1=1)", "all(!0n=01 1n=01)"},
        {"size=1 limit 10", "sizen=01 limit 10"},
        {"size=1 sample 2.5% limit 3", "sizen=01 sample 25000000 limit 3"},
        {"limit 0 sample 100%", "all() limit 0"},
        {"sample 0.0000001 %", "all() sample 1"},
        {"sample 0%", "all() sample 0"},
    };
    for (const auto &[query, meaning] : table) {
        EXPECT_EQ(meaning, parsed(query)) << query;
    }
}

TEST(QueryLanguage, SaysWhereAndWhy) {
    using namespace std::string_view_literals;
    const std::string fields = "index0 to index7, size, age, 'not' or '('";
    const std::string signs = "=, !=, <, <=, >, >=, 'between'";
    const struct {
        std::string_view query;
        std::string error;
    } table[] = {
        {"", "at 1: the query is empty"},
        {" \n", "at 1: the query is empty"},
        {"size > 1 and x <", "at 14: expected " + fields + " after 'and'"},
        {"size>1 AND index1< or", "at 20: expected a number or a string after '<'"},
        {"index8 = 1", "at 1: expected " + fields},
        {"index00 = 1", "at 1: expected " + fields},
        {"index0", "at 7: expected " + signs + ", 'in' or 'starts with' after 'index0'"},
        {"size like 1", "at 6: expected " + signs + " or 'in' after 'size'"},
        {"index0 == 1", "at 9: expected a number or a string after '='"},
        {"index0 = 12ab", "at 10: expected a number or a string after '='"},
        {"index0 = 0x", "at 10: expected a number or a string after '='"},
        {"index0 = -1", "at 10: expected a number or a string after '='"},
        {R"(size = "a")", "at 8: expected a number after '='"},
        {R"(age starts with "a")", "at 5: 'starts with' needs an index, not 'age'"},
        {"index0 starts \"a\"", "at 15: expected 'with' after 'starts'"},
        {"index0 starts with 1", "at 20: expected a string after 'with'"},
        {"index0 between 1, 2", "at 17: expected 'and' after '1'"},
        {R"(index0 between 1 and "a")", "at 22: expected a number after 'and'"},
        {R"(index0 between "a" and 1)", "at 24: expected a string after 'and'"},
        {"index0 in 1", "at 11: expected '(' after 'in'"},
        {"index0 in ()", "at 12: expected a number or a string after '('"},
        {"index0 in (1 2)", "at 14: expected ',' or ')' after '1'"},
        {R"(index0 in (1, "a"))", "at 15: expected a number after ','"},
        {R"(index0 = "ab)", "at 10: the string has no closing '\"'"},
        {R"(index0 = "a\q")", "at 13: expected '\"', '\\', 'n', 't' or 'x' and two hexadecimal "
                              "digits after '\\'"},
        {R"(index0 = "123456789012345678901234567890123")",
         "at 10: the string has 33 bytes; at most 32 are allowed"},
        {"index0 = 0x10000000000000000000000000000000000000000000000000000000000000000",
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
        {"size = 1 limit 2 sample 3% x", "at 28: expected the end after '%'"},
        {"size\0= 1"sv, "at 5: a NUL byte is not allowed"},
        {"index0 = \"\xc3\x28\"", "at 11: the bytes are not valid UTF-8"},
        {"index0 = \"a\xed\xa0\x80\"", "at 12: the bytes are not valid UTF-8"},
        /* What is quoted is cut between characters. */
        {R"(index0 = "0123456789ab\x30\x30\x30\x30\x30\x30éé" 1)",
         "at 53: expected 'and', 'or', 'limit', 'sample' or the end after "
         "'\"0123456789ab\\x30\\x30\\x30\\x30\\x30\\x30é...'"},
    };
    for (const auto &[query, error] : table) {
        EXPECT_EQ(error, parsed(query)) << query;
    }
}

TEST(QueryLanguage, IsBounded) {
    const auto nested = [](std::size_t depth) {
        return std::string(depth, '(') + "size = 1" + std::string(depth, ')');
    };
    EXPECT_EQ("sizen=01", parsed(nested(64)));
    EXPECT_EQ("at 65: brackets and 'not' are nested more than 64 deep", parsed(nested(65)));
    std::string nots;
    for (int i = 0; i < 20'000; ++i) {
        nots += i % 2 == 0 ? "not " : "(";
    }
    EXPECT_THAT(parsed(nots), testing::HasSubstr("more than 64 deep"));
    /* Side by side is not deep. */
    std::string wide = "not (size = 1)";
    while (wide.size() < 65'000) {
        wide += " or not (size = 1)";
    }
    EXPECT_THAT(parsed(wide), testing::StartsWith("any(!sizen=01 !sizen=01"));
    EXPECT_EQ("sizen=01", parsed("size = 1" + std::string(65'536 - 8, ' ')));
    EXPECT_EQ("at 65537: the query is longer than 65536 bytes",
              parsed("size = 1" + std::string(65'536 - 7, ' ')));
}

} // namespace
