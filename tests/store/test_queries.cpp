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

#include "store_test.h"

namespace {

using store::Millis;

constexpr unsigned int event_app = 77;

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

struct Object {
    unsigned int app_id;
    std::map<std::size_t, Value> fields;
    Millis stored_at;

    /* Empty: it has none. */
    Value value_in(std::size_t field, Millis now) const {
        const auto found = fields.find(field);
        return field == age_field      ? value_of(static_cast<ULONGLONG>((now - stored_at) / 1000))
               : found == fields.end() ? ""
                                       : found->second;
    }
};

using Condition = std::function<bool(const Object &, Millis now)>;

enum Binding { by_or, by_and, alone };

/* The bytes of a query and what they mean. */
struct ModelQuery {
    std::string text;
    Condition holds;
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

class QueryMaker {
public:
    explicit QueryMaker(unsigned int seed) : random_(seed) {}

    std::size_t below(std::size_t end) { return random_() % end; }
    const Literal &literal() { return literals[below(std::size(literals))]; }

    /* Objects for which a condition holds; mostly all of them, else the first few. */
    ModelQuery text() {
        ModelQuery query = condition(3);
        if (below(4) == 0) {
            query.limit = below(20);
            query.text += " Limit " + std::to_string(query.limit);
        }
        query.text += below(8) == 0 ? " sample 100.0 %" : "";
        return query;
    }

    ModelQuery terms() {
        std::string bytes;
        std::vector<OMRA_INDEX_SPEC> specs(below(9));
        for (OMRA_INDEX_SPEC &spec : specs) {
            spec = {used_indexes[below(3)], static_cast<USHORT>(below(3) == 0), {}};
            std::memcpy(&spec.value, literal().value.data(), sizeof spec.value);
            bytes += bytes_of(spec);
        }
        const bool all = below(2) == 0;
        const auto holds = [specs, all](const Object &object, Millis now) {
            const auto is_met = [&](const OMRA_INDEX_SPEC &spec) {
                return (object.value_in(spec.index, now) == bytes_of(spec.value)) !=
                       (spec.flags != 0);
            };
            return all || specs.empty() ? std::ranges::all_of(specs, is_met)
                                        : std::ranges::any_of(specs, is_met);
        };
        return {bytes, holds, alone, all ? 1u : 0u};
    }

private:
    ModelQuery condition(int depth) {
        const std::size_t form = depth == 0 ? 4 : below(6);
        if (form > 3) {
            return comparison();
        }
        const ModelQuery a = condition(depth - 1);
        if (form == 3) {
            return {"not " + part(a, alone),
                    [a](const Object &object, Millis now) { return !a.holds(object, now); }};
        }
        const ModelQuery b = condition(depth - 1);
        const Binding binding = form == 0 ? by_or : by_and;
        return {part(a, binding) + (binding == by_and ? "\nand\t" : " oR ") + part(b, binding),
                [a, b, binding](const Object &object, Millis now) {
                    return binding == by_and ? a.holds(object, now) && b.holds(object, now)
                                             : a.holds(object, now) || b.holds(object, now);
                },
                binding};
    }

    /* In brackets where it binds less, and now and then where it does not. */
    std::string part(const ModelQuery &query, Binding binding) {
        return query.binding < binding || below(4) == 0 ? "( " + query.text + ")" : query.text;
    }

    ModelQuery comparison() {
        const std::size_t fields[] = {0, 0, 3, 3, 7, 7, size_field, age_field};
        const std::size_t field = fields[below(8)];
        Literal a = literal(), b = literal();
        while ((field >= size_field && a.length) || a.length.has_value() != b.length.has_value()) {
            a = literal();
            b = literal();
        }
        const std::size_t op = below(a.length ? 9 : 8);
        const std::string name = field == size_field  ? "size"
                                 : field == age_field ? "age"
                                                      : "INDEX" + std::to_string(field);
        const std::string operands = op == 6   ? a.text + " and " + b.text
                                     : op == 7 ? "(" + a.text + " ," + b.text + "," + a.text + ")"
                                               : a.text;
        return {name + operators[op] + operands, [=](const Object &object, Millis now) {
                    const Value value = object.value_in(field, now);
                    const int to_a = order_of(value, a.value, a.length.has_value());
                    const int to_b = order_of(value, b.value, a.length.has_value());
                    const bool results[] = {
                        to_a == 0,
                        to_a != 0,
                        to_a<0, to_a <= 0, to_a> 0,
                        to_a >= 0,
                        to_a >= 0 && to_b <= 0,
                        to_a == 0 || to_b == 0,
                        value.starts_with(a.value.substr(0, a.length.value_or(0)))};
                    return value.empty() ? op == 1 : results[op];
                }};
    }

    std::mt19937 random_;
};

/* The store ----------------------------------------------------------------------------------- */

/* The numbers of the keys of the last request, by the callback. */
std::vector<unsigned long long> requested;
OMRALIB_HANDLE completing_hdl;

int take_request(OMRALIB_INVOKE_PARAMS *pparams) {
    std::vector<OMRA_OBJKEY> keys(static_cast<std::size_t>(pparams->num_keys));
    EXPECT_EQ(OMRALIB_RET_SUCCESS,
              Omralib_get_invoke_keys(pparams->context, keys.data(), length_of(keys)));
    for (const OMRA_OBJKEY &key : keys) {
        requested.push_back(key.obj_id.u64_comp[0]);
    }
    EXPECT_EQ(OMRALIB_RET_SUCCESS,
              Omralib_complete_invoke(completing_hdl, pparams->context, length_of(keys), 0));
    return OMRALIB_INVOKE_ACCEPTED;
}

class Queries : public StoreTest {
protected:
    Queries() {
        OMRALIB_CB cb;
        cb.invoke_cb = take_request;
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_register_cb(OMRALIB_CB_INVOKE, cb));
        completing_hdl = Omralib_open_ext(nullptr);
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_start_app_event_handling(completing_hdl, event_app));
        EXPECT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(0x10000000, 1), "no ordinary app id"));
    }

    int invoke(std::string_view query, unsigned int kind = OMRALIB_QUERY_PASS_THROUGH,
               unsigned int app_id = 1) {
        OMRA_INDEX_HDR header = make_header(app_id, event_app);
        header.num_index =
            static_cast<ULONG>(kind < 2 ? query.size() / sizeof(OMRA_INDEX_SPEC) : query.size());
        header.reserved1 = kind;
        requested.clear();
        OMRA_INVOKE_RESULT result;
        return ::invoke(hdl_, header, query, result);
    }

    std::vector<unsigned long long> found(std::string_view query) {
        EXPECT_EQ(OMRALIB_RET_SUCCESS, invoke(query)) << query;
        return requested;
    }

    /* What a query that is not valid is said to suffer from. */
    std::string refused(std::string_view query) {
        EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, invoke(query)) << query;
        return error_text(hdl_);
    }

    /* One of the ways to change the objects, on the store and on the model. */
    void change(QueryMaker &random) {
        clock_.advance(static_cast<Millis>(random.below(2)) * store::millis_per_second);
        const auto number = random.below(300);
        const unsigned int app_id = number < 200 ? 1 : 2; /* so that numbers are in key order */
        const OMRA_OBJKEY key = make_key(app_id, number);
        const std::string bytes(random.below(5), 'x');
        Object object{app_id, {{size_field, value_of(bytes.size())}}, clock_.now()};
        std::vector<OMRA_OBJ_INDEX> indexes;
        for (const USHORT index : used_indexes) {
            if (random.below(4) != 0) {
                const Value value = object.fields[index] = random.literal().value;
                indexes.push_back(make_index(index, 0));
                std::memcpy(&indexes.back().value, value.data(), value.size());
            }
        }
        const bool exists = model_.contains(number);
        const std::size_t way = exists ? random.below(4) : 3;
        if (way == 0) {
            ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_remove_obj(hdl_, 0, key));
            model_.erase(number);
        } else if (way == 1) { /* which leaves age and indexes alone */
            unsigned int len = 0;
            const int ticket = Omralib_read_and_lock_obj(hdl_, 0, 0, &len, key);
            fetch(hdl_, len);
            ASSERT_EQ(OMRALIB_RET_SUCCESS, update(hdl_, key, ticket, bytes, true));
            model_[number].fields[size_field] = object.fields[size_field];
        } else {
            const auto operation = exists ? Omralib_replace_obj : Omralib_store_indexed_obj;
            ASSERT_EQ(OMRALIB_RET_SUCCESS, operation(hdl_, bytes.data(), length_of(bytes), 0,
                                                     indexes.data(), length_of(indexes), key));
            model_[number] = object;
        }
    }

    std::vector<unsigned long long> expected(const ModelQuery &query, unsigned int app_id) const {
        std::vector<unsigned long long> numbers;
        for (const auto &[number, object] : model_) {
            if ((app_id == OMRALIB_ALL_APP_IDS || app_id == object.app_id) &&
                numbers.size() < query.limit && query.holds(object, clock_.now())) {
                numbers.push_back(number);
            }
        }
        return numbers;
    }

    std::map<unsigned long long, Object> model_;
};
FOR_ALL_ENGINES(Queries);

TEST_P(Queries, FindWhatTheModelFinds) {
    const char *given = std::getenv("STORE_QUERIES_SEED");
    const auto seed = given != nullptr ? static_cast<unsigned int>(std::strtoul(given, nullptr, 10))
                                       : std::random_device()();
    SCOPED_TRACE("to see it again: STORE_QUERIES_SEED=" + std::to_string(seed));
    QueryMaker random(seed);
    for (int round = 0; round < 500; ++round) {
        for (int i = 0; i < 20; ++i) {
            ASSERT_NO_FATAL_FAILURE(change(random));
        }
        for (int i = 0; i < 6; ++i) {
            const ModelQuery query = i == 0 ? random.terms() : random.text();
            const unsigned int app_ids[] = {1, 1, 2, OMRALIB_ALL_APP_IDS};
            const unsigned int app_id = app_ids[random.below(4)];
            ASSERT_EQ(OMRALIB_RET_SUCCESS, invoke(query.text, query.kind, app_id)) << query.text;
            ASSERT_EQ(expected(query, app_id), requested) << round << ": " << query.text;
        }
    }
}

TEST_P(Queries, TakeStableSamples) {
    for (unsigned int i = 0; i < 2000; ++i) {
        ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1, i), "x"));
    }
    const auto tenth = found("sample 10%");
    EXPECT_EQ(tenth, found("sample 10.0% "));
    EXPECT_NEAR(200, static_cast<double>(tenth.size()), 70);
    EXPECT_TRUE(std::ranges::includes(found("sample 20%"), tenth));
    EXPECT_EQ(0u, found("sample 0%").size());
    EXPECT_EQ(0u, found("sample 0.0000001 %").size());
    EXPECT_EQ(2000u, found("limit 2001").size());
    EXPECT_EQ(std::vector(tenth.begin(), tenth.begin() + 7), found("limit 7 sample 10%"));
}

TEST_P(Queries, FindWhatStaysWhileOthersChange) {
    for (unsigned int i = 0; i < 100; ++i) {
        ASSERT_EQ(OMRALIB_RET_SUCCESS, put_indexed(hdl_, make_key(1, i), {make_index(0, i)}));
    }
    std::jthread changing([](const std::stop_token &stop) {
        const OMRALIB_HANDLE hdl = Omralib_open_ext(nullptr);
        for (unsigned int i = 0; !stop.stop_requested(); ++i) {
            put_indexed(hdl, make_key(1, 1000 + i % 1000), {make_index(0, 1000 + i % 1000)});
            Omralib_remove_obj(hdl, 0, make_key(1, 1000 + (i + 500) % 1000));
        }
    });
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(40u, found("index0 >= 60 and index0 < 1000").size());
    }
}

/* What is said of queries that are not valid -------------------------------------------------- */

TEST_P(Queries, ThatAreNotValidSayWhereAndWhy) {
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
        EXPECT_EQ(error, refused(query)) << query;
    }
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, invoke("size", 3));
    EXPECT_EQ("the kind of the query is 3, not 0, 1 or 2", error_text(hdl_));
    char text[8];
    EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, Omralib_explain_query(hdl_, 1, "index0 <", 8, text, 8));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_get_error_text(hdl_, nullptr, 3));
    EXPECT_EQ(0u, count(hdl_, 1)); /* what succeeds leaves the text alone */
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_error_text(hdl_, text, sizeof text));
    EXPECT_STREQ("at 9: e", text);
    EXPECT_EQ(OMRALIB_ERR_OBJ_NOT_FOUND, Omralib_remove_obj(hdl_, 0, make_key(1, 2)));
    EXPECT_EQ("", error_text(hdl_));
}

TEST_P(Queries, AreBounded) {
    const std::string too_deep = "brackets and 'not' are nested more than 64 deep";
    const auto nested = [](std::size_t depth) {
        return std::string(depth, '(') + "size = 1" + std::string(depth, ')');
    };
    std::string deep, wide;
    for (int i = 0; i < 3640; ++i) {
        deep += "not (";
        wide += "not (size = 1) or "; /* side by side is not deep */
    }
    wide += "size = 12345678";
    wide.resize(65'536, ' ');
    EXPECT_EQ(OMRALIB_RET_SUCCESS, invoke(nested(64)));
    EXPECT_EQ("at 65: " + too_deep, refused(nested(65)));
    EXPECT_EQ("at 161: " + too_deep, refused(deep));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, invoke(wide));
    EXPECT_EQ("at 65537: the query is longer than 65536 bytes", refused(wide + ' '));
}

} // namespace
