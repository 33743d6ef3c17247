/* Random queries and what they mean: conditions as text or as index terms, and for each the
 * function that says which objects it holds for. */
#pragma once

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <random>

#include "store_test.h"

/* The 32 bytes of an index value as they stand in memory. */
using Value = std::string;

inline Value value_of(std::string_view text) {
    Value value(text);
    value.resize(32);
    return value;
}

inline Value value_of(unsigned long long number) {
    return value_of(bytes_of(number));
}

inline OMRA_INDEX_VALUE as_index_value(const Value &value) {
    OMRA_INDEX_VALUE result;
    std::memcpy(&result, value.data(), sizeof result);
    return result;
}

inline constexpr std::size_t size_field = 8, age_field = 9; /* those before are indexes */
inline constexpr USHORT used_indexes[] = {0, 3, 7};

/* What an object has, by the field. */
using Fields = std::map<std::size_t, Value>;

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

inline Literal string(const std::string &text, std::string_view bytes) {
    return {'"' + text + '"', value_of(bytes), bytes.size()};
}

/* Values whose order as numbers and as bytes differs, and the ends of both. */
inline const Literal literals[] = {
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

/* Below, at or above 0: how a value stands to another, as strings or as little-endian numbers. */
inline int order_of(Value a, Value b, bool as_strings) {
    if (!as_strings) {
        std::ranges::reverse(a);
        std::ranges::reverse(b);
    }
    return a.compare(b);
}

class QueryMaker {
public:
    explicit QueryMaker(unsigned int seed) : random_(seed) {}

    unsigned int pick(std::size_t bound) { return static_cast<unsigned int>(random_() % bound); }
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
            spec = {used_indexes[pick(3)], static_cast<USHORT>(pick(3) == 0),
                    as_index_value(literal().value)};
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

private:
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
        static constexpr const char *operators[] = {
            "=", " != ", " <", " <= ", " > ", ">=", " Between ", " iN ", " starts  with "};
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

    std::mt19937 random_;
};
