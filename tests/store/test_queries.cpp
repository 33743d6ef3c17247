/* Queries: what they find, against a model that looks at every object, and what they cost. */
#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <thread>

#include <gmock/gmock.h>

#include "query/language.h"
#include "query/request.h"
#include "store_test.h"

namespace {

using store::Selection;
using store::Term;

constexpr unsigned int event_app = 77;

/* The model ------------------------------------------------------------------------------------ */

/* The bytes of an index value as they stand in memory. */
using Value = std::array<unsigned char, 32>;

Value value_of(unsigned long long number) {
    Value value{};
    std::memcpy(value.data(), &number, sizeof number);
    return value;
}

Value value_of(std::string_view text) {
    Value value{};
    std::copy(text.begin(), text.end(), value.begin());
    return value;
}

OMRA_INDEX_VALUE as_index_value(const Value &value) {
    OMRA_INDEX_VALUE index_value;
    std::memcpy(&index_value, value.data(), sizeof index_value);
    return index_value;
}

struct Object {
    std::map<USHORT, Value> indexes;
    unsigned int size;
    store::Millis stored_at;
};

/* The text of a query and what it means. */
struct ModelQuery {
    std::string text;
    std::function<bool(const Object &, store::Millis now)> holds;
};

struct Literal {
    std::string text;
    Value value;
    bool is_string;
};

/* Values whose order as numbers and as bytes differs. */
const std::vector<Literal> literals = {
    {"0", value_of(0), false},
    {"3", value_of(3), false},
    {"0x100", value_of(256), false},
    {"513", value_of(513), false},
    {"0xFFFFFFFFFFFFFFFF", value_of(~0ull), false},
    {"\"a\"", value_of("a"), true},
    {"\"ab\"", value_of("ab"), true},
    {"\"\\xff\\x01\"", value_of("\xff\x01"), true},
    {"\"\"", value_of(""), true},
};

bool less(Value a, Value b, bool as_strings) {
    if (!as_strings) {
        std::ranges::reverse(a);
        std::ranges::reverse(b);
    }
    return a < b;
}

class QueryMaker {
public:
    explicit QueryMaker(unsigned int seed) : random_(seed) {}

    std::size_t below(std::size_t end) { return random_() % end; }
    const Literal &literal() { return literals[below(literals.size())]; }
    const Literal &literal(bool is_string) {
        for (;;) {
            const Literal &found = literal();
            if (found.is_string == is_string) {
                return found;
            }
        }
    }

    ModelQuery condition(int depth) {
        switch (depth == 0 ? 3 : below(5)) {
        case 0:
            return joined(depth, "and");
        case 1:
            return joined(depth, "or");
        case 2: {
            const ModelQuery part = condition(depth - 1);
            return {"not (" + part.text + ")", [part](const Object &object, store::Millis now) {
                        return !part.holds(object, now);
                    }};
        }
        default:
            return comparison();
        }
    }

private:
    using Getter = std::function<std::optional<Value>(const Object &, store::Millis now)>;
    using Test = std::function<bool(const Value &)>;

    ModelQuery joined(int depth, const std::string &word) {
        const ModelQuery a = condition(depth - 1);
        const ModelQuery b = condition(depth - 1);
        const bool all = word == "and";
        return {"(" + a.text + ") " + word + " (" + b.text + ")",
                [a, b, all](const Object &object, store::Millis now) {
                    return all ? a.holds(object, now) && b.holds(object, now)
                               : a.holds(object, now) || b.holds(object, now);
                }};
    }

    ModelQuery comparison() {
        const std::size_t field = below(8);
        if (field == 6) {
            return compared("size", false, [](const Object &object, store::Millis) {
                return value_of(object.size);
            });
        }
        if (field == 7) {
            return compared("age", false, [](const Object &object, store::Millis now) {
                return value_of(static_cast<unsigned long long>(now - object.stored_at) / 1000);
            });
        }
        const auto index = static_cast<USHORT>(field % 3);
        return compared("index" + std::to_string(index), below(2) == 0,
                        [index](const Object &object, store::Millis) {
                            const auto found = object.indexes.find(index);
                            return found == object.indexes.end() ? std::optional<Value>()
                                                                 : found->second;
                        });
    }

    ModelQuery compared(const std::string &field, bool strings, const Getter &get) {
        const Literal &a = literal(strings);
        const Literal &b = literal(strings);
        const auto query = [&](const std::string &text, Test test, bool without_value = false) {
            return ModelQuery{field + text,
                              [get, test, without_value](const Object &object, store::Millis now) {
                                  const std::optional<Value> value = get(object, now);
                                  return value ? test(*value) : without_value;
                              }};
        };
        const auto below_a = [=](const Value &v) { return less(v, a.value, strings); };
        const auto above_a = [=](const Value &v) { return less(a.value, v, strings); };
        const auto above_b = [=](const Value &v) { return less(b.value, v, strings); };
        switch (below(strings ? 9 : 8)) {
        case 0:
            return query("=" + a.text, [a](const Value &v) { return v == a.value; });
        case 1:
            return query(
                " != " + a.text, [a](const Value &v) { return v != a.value; }, true);
        case 2:
            return query(" <" + a.text, below_a);
        case 3:
            return query(" <= " + a.text, [=](const Value &v) { return !above_a(v); });
        case 4:
            return query(" > " + a.text, above_a);
        case 5:
            return query(">=" + a.text, [=](const Value &v) { return !below_a(v); });
        case 6:
            return query(" between " + a.text + " and " + b.text,
                         [=](const Value &v) { return !below_a(v) && !above_b(v); });
        case 7:
            return query(" in (" + a.text + ", " + b.text + ")",
                         [a, b](const Value &v) { return v == a.value || v == b.value; });
        default:
            return query(" starts with " + a.text, [a](const Value &v) {
                const auto end = std::find(a.value.begin(), a.value.end(), 0);
                return std::equal(a.value.begin(), end, v.begin());
            });
        }
    }

    std::mt19937 random_;
};

/* The store ------------------------------------------------------------------------------------ */

/* The numbers of the keys of the last request, by the callback. */
std::vector<unsigned long long> requested;
OMRALIB_HANDLE completing_hdl;

int take_request(OMRALIB_INVOKE_PARAMS *pparams) {
    const auto num_keys = static_cast<unsigned int>(pparams->num_keys);
    std::vector<OMRA_OBJKEY> keys(num_keys);
    EXPECT_EQ(OMRALIB_RET_SUCCESS,
              Omralib_get_invoke_keys(pparams->context, keys.data(), num_keys));
    for (const OMRA_OBJKEY &key : keys) {
        requested.push_back(key.obj_id.u64_comp[0]);
    }
    EXPECT_EQ(OMRALIB_RET_SUCCESS,
              Omralib_complete_invoke(completing_hdl, pparams->context, num_keys, 0));
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
    }

    /* One of the ways to change the objects, on the store and on the model. */
    void change(QueryMaker &random) {
        clock_.advance(static_cast<store::Millis>(random.below(2)) * store::millis_per_second);
        const auto number = random.below(300);
        const OMRA_OBJKEY key = make_key(1, number);
        Object object{{}, static_cast<unsigned int>(random.below(5)), clock_.now()};
        std::vector<OMRA_OBJ_INDEX> indexes;
        for (USHORT index = 0; index < 3; ++index) {
            if (random.below(4) != 0) {
                object.indexes[index] = random.literal().value;
                indexes.push_back({index, {}, as_index_value(object.indexes[index])});
            }
        }
        const auto num_indexes = static_cast<unsigned int>(indexes.size());
        const bool exists = model_.contains(number);
        if (random.below(4) == 0) {
            ASSERT_EQ(exists ? OMRALIB_RET_SUCCESS : OMRALIB_ERR_OBJ_NOT_FOUND,
                      Omralib_remove_obj(hdl_, 0, key));
            model_.erase(number);
            return;
        }
        const auto operation = exists ? Omralib_replace_obj : Omralib_store_indexed_obj;
        ASSERT_EQ(OMRALIB_RET_SUCCESS,
                  operation(hdl_, "1234", object.size, 0, indexes.data(), num_indexes, key));
        model_[number] = object;
    }

    std::vector<unsigned long long> expected(const ModelQuery &query) const {
        std::vector<unsigned long long> numbers;
        for (const auto &[number, object] : model_) {
            if (query.holds(object, clock_.now())) {
                numbers.push_back(number);
            }
        }
        return numbers;
    }

    std::vector<unsigned long long> found(const Selection &selection) {
        std::vector<store::Key> keys;
        EXPECT_EQ(OMRALIB_RET_SUCCESS, store::find(store_.objects(), selection, nullptr, keys));
        std::vector<unsigned long long> numbers;
        for (const store::Key &key : keys) {
            numbers.push_back(key.obj_id.u64_comp[0]);
        }
        return numbers;
    }

    std::vector<unsigned long long> found(std::string_view query) {
        Selection selection;
        selection.app_id = 1;
        std::string error;
        EXPECT_EQ(OMRALIB_RET_SUCCESS, store::parse_query(query, selection, error)) << error;
        return found(selection);
    }

    int invoke(std::string_view query, unsigned int kind = OMRALIB_QUERY_PASS_THROUGH) {
        OMRA_INDEX_HDR header{};
        header.reserved = OMRALIB_INDEX_OP_INVOKE;
        header.app_id = 1;
        header.reserved2 = event_app;
        header.num_index = static_cast<ULONG>(query.size());
        header.reserved1 = kind;
        std::string request(reinterpret_cast<const char *>(&header), sizeof header);
        request += query;
        requested.clear();
        unsigned int len = 0;
        const int status = Omralib_invoke(hdl_, 0, request.data(),
                                          static_cast<unsigned int>(request.size()), &len);
        if (status == OMRALIB_RET_SUCCESS) {
            fetch(hdl_, len);
        }
        return status;
    }

    std::string error_text() {
        char text[200];
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_error_text(hdl_, text, sizeof text));
        return text;
    }

    std::string explained(std::string_view query) {
        char text[1000];
        const int status = Omralib_explain_query(
            hdl_, 1, query.data(), static_cast<unsigned int>(query.size()), text, sizeof text);
        return status == OMRALIB_RET_SUCCESS ? text : std::to_string(status);
    }

    /* `number` objects; index 0 is unique, index 1 has 10 values, index 2 a name. */
    void fill(unsigned int number) {
        for (unsigned int i = 0; i < number; ++i) {
            const std::string name = "name" + std::to_string(i);
            ASSERT_EQ(OMRALIB_RET_SUCCESS, put_indexed(hdl_, make_key(1, i),
                                                       {make_index(0, i),
                                                        make_index(1, i % 10),
                                                        {2, {}, as_index_value(value_of(name))}}));
        }
    }

    std::map<unsigned long long, Object> model_;
};
FOR_ALL_ENGINES(Queries);

/* What they find ------------------------------------------------------------------------------- */

TEST_P(Queries, FindWhatTheModelFinds) {
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    QueryMaker random(seed);
    for (int round = 0; round < 400; ++round) {
        for (int i = 0; i < 20; ++i) {
            ASSERT_NO_FATAL_FAILURE(change(random));
        }
        for (int i = 0; i < 5; ++i) {
            const ModelQuery query = random.condition(3);
            ASSERT_EQ(expected(query), found(query.text)) << round << ": " << query.text;
        }
        const ModelQuery query = random.condition(2);
        ASSERT_EQ(OMRALIB_RET_SUCCESS, invoke(query.text)) << query.text;
        ASSERT_EQ(expected(query), requested) << query.text;
    }
}

TEST_P(Queries, OfIndexTermsFindWhatTheModelFinds) {
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    QueryMaker random(seed);
    for (int round = 0; round < 500; ++round) {
        for (int i = 0; i < 10; ++i) {
            ASSERT_NO_FATAL_FAILURE(change(random));
        }
        const bool all = random.below(2) == 0;
        std::vector<Term> terms(random.below(9));
        for (Term &term : terms) {
            term = {static_cast<std::uint16_t>(random.below(4)), random.below(3) == 0,
                    as_index_value(random.literal().value)};
        }
        const ModelQuery query{
            "", [&](const Object &object, store::Millis) {
                const auto holds = [&](const Term &term) {
                    const auto value = object.indexes.find(term.index);
                    const bool equal = value != object.indexes.end() &&
                                       std::memcmp(value->second.data(), &term.value, 32) == 0;
                    return equal != term.negated;
                };
                return terms.empty() || (all ? std::ranges::all_of(terms, holds)
                                             : std::ranges::any_of(terms, holds));
            }};
        ASSERT_EQ(expected(query), found(store::select_by_terms(1, all, terms))) << round;
    }
}

TEST_P(Queries, TakeStableSamplesAndTheFirstInKeyOrder) {
    fill(2000);
    const auto tenth = found("sample 10%");
    const auto fifth = found("sample 20%");
    EXPECT_EQ(tenth, found("sample 10.0%"));
    EXPECT_NEAR(200, static_cast<double>(tenth.size()), 70);
    EXPECT_TRUE(std::ranges::includes(fifth, tenth));
    EXPECT_EQ(0u, found("sample 0%").size());
    EXPECT_EQ(2000u, found("sample 100%").size());

    EXPECT_EQ((std::vector<unsigned long long>{5, 15, 25}), found("index1 = 5 limit 3"));
    EXPECT_EQ(0u, found("limit 0").size());
    EXPECT_EQ(2000u, found("limit 2001").size());
    EXPECT_EQ(std::vector(tenth.begin(), tenth.begin() + 7), found("limit 7 sample 10%"));
}

TEST_P(Queries, KnowTheAgeOfAnObject) {
    const OMRA_OBJKEY key = make_key(1, 1);
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, key, "a"));
    clock_.advance(10 * store::millis_per_second);
    EXPECT_EQ(1u, found("age = 10").size());
    unsigned int len = 0;
    const int ticket = Omralib_read_and_lock_obj(hdl_, 0, 0, &len, key);
    fetch(hdl_, len);
    ASSERT_EQ(OMRALIB_RET_SUCCESS, update(hdl_, key, ticket, "bb", true));
    EXPECT_EQ(1u, found("age = 10 and size = 2").size());
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_replace_obj(hdl_, "c", 1, 0, nullptr, 0, key));
    EXPECT_EQ(1u, found("age = 0").size());
}

TEST_P(Queries, FindWhatStaysWhileOthersChange) {
    fill(100);
    std::jthread changing([](const std::stop_token &stop) {
        const OMRALIB_HANDLE hdl = Omralib_open_ext(nullptr);
        for (unsigned int i = 0; !stop.stop_requested(); i = (i + 1) % 1000) {
            const OMRA_OBJKEY key = make_key(1, 1000 + i);
            put_indexed(hdl, key, {make_index(0, 1000 + i), make_index(2, i % 7)});
            Omralib_remove_obj(hdl, 0, make_key(1, 1000 + (i + 500) % 1000));
        }
        Omralib_close(hdl);
    });
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(40u, found("index0 >= 60 and index0 < 1000").size());
        ASSERT_EQ(11u, found("index2 starts with \"name1\"").size());
    }
}

TEST_P(Queries, ThatAreNotValidSayWhy) {
    EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, invoke("size > 4096 and <"));
    EXPECT_EQ("at 17: expected index0 to index7, size, age, 'not' or '(' after 'and'",
              error_text());
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, invoke("size", 3));
    EXPECT_EQ("the kind of the query is 3, not 0, 1 or 2", error_text());
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, invoke("ab", 1));
    EXPECT_EQ("the terms have 2 bytes, not the 80 of the number in the header", error_text());
    EXPECT_EQ(OMRALIB_ERR_BAD_QUERY, invoke(""));
    EXPECT_EQ("at 1: the query is empty", error_text());
    EXPECT_EQ("-121", explained("index0 <"));
    EXPECT_EQ("at 9: expected a number or a string after '<'", error_text());
}

/* What they cost ------------------------------------------------------------------------------- */

/* Objects and index values that a query looks at, when a view that it needs has been made. */
class QueryCost : public Queries {
protected:
    std::uint64_t cost_of(std::string_view query, std::size_t num_expected) {
        found(query);
        const std::uint64_t before = objects().num_examined;
        EXPECT_EQ(num_expected, found(query).size()) << query;
        return objects().num_examined - before;
    }
};
FOR_ALL_ENGINES(QueryCost);

TEST_P(QueryCost, GrowsWithTheMatchesNotWithTheStore) {
    constexpr unsigned int num_objects = 20'000;
    fill(num_objects);
    /* One look at each match, and a few at values on the way. */
    const auto looks = [](std::size_t num_matches) { return 4 * num_matches; };
    EXPECT_LE(cost_of("index0 = 77", 1), looks(1));
    EXPECT_LE(cost_of("index0 in (1, 2, 3, 1000000)", 3), looks(4));
    EXPECT_LE(cost_of("index0 between 100 and 109", 10), looks(10));
    EXPECT_LE(cost_of("index0 >= 19990", 10), looks(10));
    EXPECT_LE(cost_of("index2 starts with \"name1234\"", 11), looks(11));
    EXPECT_LE(cost_of("index0 between 100 and 104 or index0 = 7 or index2 = \"name9\"", 7),
              looks(7));
    /* The cheapest part is looked up, in whatever place it stands. */
    EXPECT_LE(cost_of("index1 = 3 and index0 between 100 and 119", 2), looks(20));
    EXPECT_LE(cost_of("index0 between 100 and 119 and index1 = 3", 2), looks(20));
    EXPECT_LE(cost_of("size = 1 and not index1 = 3 and index0 > 19990", 8), looks(9));
    EXPECT_LE(cost_of("index0 > 5 and index2 starts with \"name1\" and index0 < 16", 6),
              looks(32 * 10));
    EXPECT_LE(cost_of("(index1 = 1 or size = 1) and (index0 = 5 or index0 = 11)", 2), looks(2));
    /* Nobody could answer these from the index. */
    EXPECT_GE(cost_of("size = 0", 0), num_objects);
    EXPECT_GE(cost_of("index0 = 1 or not index0 = 2", num_objects - 1), num_objects);
}

TEST_P(QueryCost, IsExplained) {
    fill(1000);
    EXPECT_EQ("1000 objects of app id 1\n", explained(""));
    EXPECT_EQ("1000 objects of app id 1\n"
              "index0 between 1 and 5: 5 objects, looked up in an index\n"
              "index1 = 3: 100 objects, tested on the objects looked up\n"
              "not index1 = 4: 900 objects, tested on the objects looked up\n"
              "size >= 1: 1000 objects, tested on the objects looked up\n"
              "sample 12.5%\n"
              "limit 3\n",
              explained("size >= 1 and not index1 = 4 and index1 = 3 and index0 between 1 and 5 "
                        "limit 3 sample 12.50%"));
    EXPECT_EQ("1000 objects of app id 1\n"
              "any of: 2 objects, looked up in an index\n"
              "  index0 = 7: 1 object, looked up in an index\n"
              "  all of: 1 object, looked up in an index\n"
              "    index2 = \"name3\": 1 object, looked up in an index\n"
              "    size = 1: 1000 objects, tested on the objects looked up\n",
              explained("index0 = 7 or size = 1 and index2 = \"name3\""));
    EXPECT_EQ("1000 objects of app id 1\n"
              "any of: 901 objects, tested on every object\n"
              "  index0 = 7: 1 object, tested on every object\n"
              "  not index1 = 1: 900 objects, tested on every object\n",
              explained("not index1 = 1 or index0 = 7"));
    char text[10];
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_explain_query(hdl_, 1, nullptr, 0, text, sizeof text));
    EXPECT_STREQ("1000 obje", text);
}

} // namespace
