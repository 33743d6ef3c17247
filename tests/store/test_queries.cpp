/* Queries: what they find, against a model that looks at every object, and what is said of those
 * that are not valid.
 *
 * A failure prints the seed that brings its queries back: STORE_QUERIES_SEED=... test_store */
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <thread>

#include "played_hosts.h"

namespace {

using store::Millis;

/* The model ----------------------------------------------------------------------------------- */

/* The 32 bytes of an index value as they stand in memory. */
using Value = std::string;

Value value_of(std::string_view text) {
    Value value(text);
    value.resize(32);
    return value;
}

Value value_of(unsigned long long number) {
    return value_of(bytes_of(number));
}

constexpr std::size_t size_field = 8, age_field = 9; /* those before are indexes */
constexpr USHORT used_indexes[] = {0, 3, 7};

using Fields = std::map<std::size_t, Value>;

struct Object {
    Fields fields; /* but for the age, which is that of the last look */
    Millis stored_at;
};

enum Binding { by_or, by_and, alone };

/* The bytes of a query and what they mean. */
struct ModelQuery {
    std::string text;
    std::function<bool(const Fields &)> holds;
    Binding binding = alone;
    unsigned int kind = OMRALIB_QUERY_PASS_THROUGH;
    std::size_t limit = SIZE_MAX;
};

struct Literal {
    std::string text;
    Value value;
    std::optional<std::size_t> length = {}; /* of a string */
};

Literal string(const std::string &text, std::string_view bytes) {
    return {'"' + text + '"', value_of(bytes), bytes.size()};
}

/* Values whose order as numbers and as bytes differs, and the ends of both. */
const Literal literals[] = {
    {"0", value_of(0)},
    {"3", value_of(3)},
    {"0x100", value_of(256)},
    {"513", value_of(513)},
    {"0XffFFFFFFFFFFFFFF", value_of(~0ull)},
    {"115792089237316195423570985008687907853269984665640564039457584007913129639935",
     Value(32, '\xff')},
    string("a", "a"),
    string("ab", "ab"),
    string(R"(a\"\\\n\t\x00\xfF)", {"a\"\\\n\t\0\xff", 7}),
    string("\u00e9", "\xc3\xa9"),
    string("\\xff\\x01", "\xff\x01"),
    string("", ""),
};

/* Below, at or above 0: how a value stands to another, as byte strings or as little-endian numbers.
 */
int order_of(Value a, Value b, bool as_strings) {
    if (!as_strings) {
        std::ranges::reverse(a);
        std::ranges::reverse(b);
    }
    return a.compare(b);
}

constexpr const char *operators[] = {"=",  " != ",      " <",   " <= ",          " > ",
                                     ">=", " Between ", " iN ", " starts  with "};

class Queries : public testing::TestWithParam<store::EngineKind>, public PlayedHosts {
public:
    Queries() : PlayedHosts(GetParam(), {}, 0) {
        EXPECT_EQ(success, put(hdl, make_key(0x10000000, 1), "no ordinary app id"));
        turn = [this](Millis) {
            for (const OMRA_OBJKEY &key : jobs.front().keys()) {
                requested.push_back(key.obj_id.u64_comp[0]);
            }
            EXPECT_EQ(success, complete(jobs.front(), length_of(requested), 0));
            jobs.clear();
        };
    }

    /* Making queries -------------------------------------------------------------------------- */

    const Literal &literal() { return literals[pick(std::size(literals))]; }

    /* Objects for which a condition holds; mostly all of them, else the first few. */
    ModelQuery text() {
        ModelQuery query = condition(3);
        if (pick(4) == 0) {
            query.limit = pick(20);
            query.text += " Limit " + std::to_string(query.limit);
        }
        query.text += pick(8) == 0 ? " sample 100.0 %" : "";
        return query;
    }

    ModelQuery terms() {
        std::string bytes;
        std::vector<OMRA_INDEX_SPEC> specs(pick(9));
        for (OMRA_INDEX_SPEC &spec : specs) {
            spec = {used_indexes[pick(3)], static_cast<USHORT>(pick(3) == 0), {}};
            std::memcpy(&spec.value, literal().value.data(), sizeof spec.value);
            bytes += bytes_of(spec);
        }
        const unsigned int kind = pick(2); /* 1: all of them, 0: any */
        const auto holds = [specs, all = kind == 1 || specs.empty()](auto &fields) {
            const auto is_met = [&](const OMRA_INDEX_SPEC &spec) {
                const auto its = fields.find(spec.index);
                const bool is_equal = its != fields.end() && its->second == bytes_of(spec.value);
                return is_equal != (spec.flags != 0);
            };
            return all ? std::ranges::all_of(specs, is_met) : std::ranges::any_of(specs, is_met);
        };
        return {bytes, holds, alone, kind};
    }

    ModelQuery condition(int depth) {
        const unsigned int form = depth == 0 ? 4 : pick(6);
        if (form > 3) {
            return comparison();
        }
        const ModelQuery a = condition(depth - 1), b = condition(depth - 1);
        if (form == 3) {
            return {"not " + part(a, alone), [a](auto &fields) { return !a.holds(fields); }};
        }
        if (form == 0) {
            return {part(a, by_or) + " oR " + part(b, by_or),
                    [a, b](auto &fields) { return a.holds(fields) || b.holds(fields); }, by_or};
        }
        return {part(a, by_and) + "\nand\t" + part(b, by_and),
                [a, b](auto &fields) { return a.holds(fields) && b.holds(fields); }, by_and};
    }

    /* In brackets where it binds less, and now and then where it does not. */
    std::string part(const ModelQuery &query, Binding binding) {
        return query.binding < binding || pick(4) == 0 ? "( " + query.text + ")" : query.text;
    }

    ModelQuery comparison() {
        const std::size_t all[] = {0, 0, 3, 3, 7, 7, size_field, age_field};
        const std::size_t field = all[pick(8)];
        Literal a, b;
        do {
            a = literal();
            b = literal();
        } while ((field >= size_field && a.length) || a.length.has_value() != b.length.has_value());
        const unsigned int op = pick(a.length ? 9 : 8);
        const std::string name = field == size_field  ? "size"
                                 : field == age_field ? "age"
                                                      : "INDEX" + std::to_string(field);
        const std::string operands = op == 6   ? a.text + " and " + b.text
                                     : op == 7 ? "(" + a.text + " ," + b.text + "," + a.text + ")"
                                               : a.text;
        return {name + operators[op] + operands, [=](const Fields &fields) {
                    if (!fields.contains(field)) {
                        return op == 1;
                    }
                    const Value &value = fields.at(field);
                    const int to_a = order_of(value, a.value, a.length.has_value());
                    const int to_b = order_of(value, b.value, a.length.has_value());
                    const bool is_equal = to_a == 0, is_above = to_a > 0, is_at_least = to_a >= 0;
                    const bool is_between = is_at_least && to_b <= 0, is_in = is_equal || to_b == 0;
                    const bool starts = value.starts_with(a.value.substr(0, a.length.value_or(0)));
                    const bool results[] = {is_equal,   !is_equal, !is_at_least,
                                            !is_above,  is_above,  is_at_least,
                                            is_between, is_in,     starts};
                    return results[op];
                }};
    }

    /* Asking ---------------------------------------------------------------------------------- */

    int request(std::string_view query, unsigned int kind = OMRALIB_QUERY_PASS_THROUGH,
                unsigned int app_id = 1) {
        OMRA_INDEX_HDR header = make_header(app_id);
        header.num_index = length_of(query) / (kind < 2 ? ULONG{sizeof(OMRA_INDEX_SPEC)} : 1);
        header.reserved1 = kind;
        requested.clear();
        return invoke(header, query).status;
    }

    std::vector<unsigned long long> found(std::string_view query) {
        EXPECT_EQ(success, request(query)) << query;
        return requested;
    }

    /* One of the ways to change the objects, on the store and on the model. */
    void change() {
        clock.advance(pick(2) * store::millis_per_second);
        const unsigned int number = pick(300);
        const OMRA_OBJKEY key = make_key(app_of(number), number);
        const std::string bytes(pick(5), 'x');
        Object object{{{size_field, value_of(bytes.size())}}, clock.now()};
        std::vector<OMRA_OBJ_INDEX> indexes;
        for (const USHORT index : used_indexes) {
            if (pick(4) != 0) {
                const Value value = object.fields[index] = literal().value;
                indexes.push_back(make_index(index, 0));
                std::memcpy(&indexes.back().value, value.data(), value.size());
            }
        }
        const bool exists = model.contains(number);
        const unsigned int way = exists ? pick(4) : 3;
        if (way == 0) {
            ASSERT_EQ(success, Omralib_remove_obj(hdl, 0, key));
            model.erase(number);
        } else if (way == 1) { /* which leaves age and indexes alone */
            unsigned int len = 0;
            const int ticket = Omralib_read_and_lock_obj(hdl, 0, 0, &len, key);
            fetch(hdl, len);
            ASSERT_EQ(success, update(hdl, key, ticket, bytes, true));
            model[number].fields[size_field] = value_of(bytes.size());
        } else {
            const auto operation = exists ? Omralib_replace_obj : Omralib_store_indexed_obj;
            ASSERT_EQ(success, operation(hdl, bytes.data(), length_of(bytes), 0, indexes.data(),
                                         length_of(indexes), key));
            model[number] = object;
        }
    }

    /* So that numbers are in key order. */
    static unsigned int app_of(unsigned long long number) { return number < 200 ? 1 : 2; }

    std::vector<unsigned long long> expected(const ModelQuery &query, unsigned int app_id) {
        std::vector<unsigned long long> numbers;
        for (auto &[number, object] : model) {
            const Millis age = (clock.now() - object.stored_at) / store::millis_per_second;
            object.fields[age_field] = value_of(static_cast<ULONGLONG>(age));
            if ((app_id == OMRALIB_ALL_APP_IDS || app_id == app_of(number)) &&
                numbers.size() < query.limit && query.holds(object.fields)) {
                numbers.push_back(number);
            }
        }
        return numbers;
    }

    std::map<unsigned long long, Object> model;
    std::vector<unsigned long long> requested; /* numbers of the last request's keys */
};
FOR_ALL_ENGINES(Queries);

TEST_P(Queries, FindWhatTheModelFinds) {
    const char *given = std::getenv("STORE_QUERIES_SEED");
    const auto seed = given ? std::stoul(given) : std::random_device()();
    SCOPED_TRACE("to see it again: STORE_QUERIES_SEED=" + std::to_string(seed));
    random.seed(seed);
    for (int round = 0; round < 500; ++round) {
        for (int i = 0; i < 20; ++i) {
            ASSERT_NO_FATAL_FAILURE(change());
        }
        for (int i = 0; i < 6; ++i) {
            const ModelQuery query = i == 0 ? terms() : text();
            const unsigned int app_ids[] = {1, 1, 2, OMRALIB_ALL_APP_IDS};
            const unsigned int app_id = app_ids[pick(4)];
            ASSERT_EQ(success, request(query.text, query.kind, app_id)) << query.text;
            ASSERT_EQ(expected(query, app_id), requested) << round << ": " << query.text;
        }
    }
}

TEST_P(Queries, TakeStableSamplesAndFindWhatStaysWhileOthersChange) {
    for (unsigned int i = 0; i < 2000; ++i) {
        ASSERT_EQ(success, put_indexed(hdl, make_key(1, i), {make_index(0, i)}));
    }
    const auto tenth = found("sample 10%");
    EXPECT_EQ(tenth, found("sample 10.0% "));
    EXPECT_NEAR(200, static_cast<double>(tenth.size()), 70);
    EXPECT_TRUE(std::ranges::includes(found("sample 20%"), tenth));
    EXPECT_EQ(0u, found("sample 0.0000001 %").size());
    EXPECT_EQ(2000u, found("limit 2001").size());
    EXPECT_EQ(std::vector(tenth.begin(), tenth.begin() + 7), found("limit 7 sample 10%"));

    std::jthread changing([](const std::stop_token &stop) {
        const OMRALIB_HANDLE its_hdl = Omralib_open_ext(nullptr);
        for (unsigned int i = 0; !stop.stop_requested(); ++i) {
            put_indexed(its_hdl, make_key(1, 1000 + i % 1000), {make_index(0, 1000 + i % 1000)});
            Omralib_remove_obj(its_hdl, 0, make_key(1, 1000 + (i + 500) % 1000));
        }
    });
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(40u, found("index0 >= 960 and index0 < 1000").size());
    }
}

/* What is said of queries that are not valid -------------------------------------------------- */

TEST_P(Queries, ThatAreNotValidSayWhereAndWhy) {
    using namespace std::string_literals;
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
    EXPECT_EQ(success, request(wide));
    EXPECT_EQ(success, request(std::string(64, '(') + "size = 1" + std::string(64, ')')));
    const std::pair<std::string, std::string> table[] = {
        {wide + ' ', "at 65537: the query is longer than 65536 bytes"},
        {std::string(65, '(') + "size = 1" + std::string(65, ')'), "at 65: " + too_deep},
        {deep, "at 161: " + too_deep},
        {"", "at 1: the query is empty"},
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
        EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, request(query)) << query;
        EXPECT_EQ(error, error_text(hdl)) << query;
    }
    EXPECT_EQ(bad_args, request("size", 3));
    EXPECT_EQ("the kind of the query is 3, not 0, 1 or 2", error_text(hdl));
    char text[8];
    EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, Omralib_explain_query(hdl, 1, "index0 <", 8, text, 8));
    EXPECT_EQ(bad_args, Omralib_get_error_text(hdl, nullptr, 3));
    EXPECT_EQ(0u, count(hdl, 1)); /* what succeeds leaves the text alone */
    EXPECT_EQ(success, Omralib_get_error_text(hdl, text, sizeof text));
    EXPECT_STREQ("at 9: e", text);
    EXPECT_EQ(not_found, Omralib_remove_obj(hdl, 0, make_key(1, 2)));
    EXPECT_EQ("", error_text(hdl));
}

} // namespace
